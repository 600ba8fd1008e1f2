#pragma once

#include "platform/Entity.h"

namespace Bridging {

class Config : public platform::Entity {
   HM_ENTITY( Config )
   HM_ATTRIBUTE( platform::EthAddr, bridgeMac ) // the switch's own
};

} // namespace Bridging
