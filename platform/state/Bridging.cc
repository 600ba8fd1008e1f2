#include "platform/state/Bridging.h"

namespace Bridging {

HM_ENTITY_TYPE( Config )

} // namespace Bridging
