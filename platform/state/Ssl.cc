#include "platform/state/Ssl.h"

namespace Mgmt::Security::Ssl {

HM_ENTITY_TYPE( ProfileStatus )
HM_ENTITY_TYPE( Status )

} // namespace Mgmt::Security::Ssl
