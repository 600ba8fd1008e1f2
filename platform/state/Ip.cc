#include "platform/state/Ip.h"

namespace Ip {

HM_ENTITY_TYPE( IpIntfStatus )
HM_ENTITY_TYPE( Status )

platform::Refusal ipv4Check( const platform::IpGenAddr & address ) {
   return address.isIpv6() ? platform::Refusal( "expected an IPv4 address" ) : std::nullopt;
}

} // namespace Ip

namespace Ip6 {

HM_ENTITY_TYPE( IntfStatus )
HM_ENTITY_TYPE( Status )

} // namespace Ip6
