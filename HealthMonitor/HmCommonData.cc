#include "HealthMonitor/HmCommonData.h"

namespace hm {

HM_ENTITY_TYPE( ProbeTypeCounters )
HM_ENTITY_TYPE( ServerIpCounters )
HM_ENTITY_TYPE( ProbeCounters )
HM_ENTITY_TYPE( CommonData )

} // namespace hm
