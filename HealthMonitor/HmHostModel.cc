#include "HealthMonitor/HmHostModel.h"

namespace hm {

HM_ENTITY_TYPE( BacklogInfo )
HM_ENTITY_TYPE( HostGrpCfg )
HM_ENTITY_TYPE( HostConfig )
HM_ENTITY_TYPE( NhgHostList )
HM_ENTITY_TYPE( UpdateCmdInfo )
HM_ENTITY_TYPE( NetCHASMInfo )

} // namespace hm
