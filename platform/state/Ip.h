#pragma once

#include "platform/Entity.h"

/// IPv4 addresses of the switch's interfaces.
namespace Ip {

platform::Refusal ipv4Check( const platform::IpGenAddr & address ); // IPv4 or none

class IpIntfStatus : public platform::Entity {
   HM_ENTITY( IpIntfStatus )
   HM_ATTRIBUTE_CHECKED(
         platform::IpGenAddr, ipAddr, ipv4Check ) // the interface's primary address; empty: none
};

class Status : public platform::Entity {
   HM_ENTITY( Status )
   HM_COLLECTION( platform::IntfId, IpIntfStatus, ipIntfStatus )
};

} // namespace Ip

/// IPv6 addresses of the switch's interfaces.
namespace Ip6 {

class IntfStatus : public platform::Entity {
   HM_ENTITY( IntfStatus )
   HM_SET( platform::IpGenPrefix, addr )
};

class Status : public platform::Entity {
   HM_ENTITY( Status )
   HM_COLLECTION( platform::IntfId, IntfStatus, intf )
};

} // namespace Ip6
