#include "platform/state/Ip.h"

namespace Ip {

platform::Refusal ipv4Check( const platform::IpGenAddr & address ) {
   return address.isIpv6() ? platform::Refusal( "expected an IPv4 address" ) : std::nullopt;
}

} // namespace Ip
