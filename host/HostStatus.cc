#include "host/HostStatus.h"

namespace host {

HM_ENTITY_TYPE( HostStatus )

} // namespace host
