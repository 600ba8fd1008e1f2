#include "host/RtNetlink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

namespace host {

using namespace platform;

namespace {

using Bytes = std::span<const std::uint8_t>;

// Calls `each( type, value )` for the attributes in `bytes`. By hand because the library's loop goes to the
// end of the last attribute's padding, which may lie outside.
template<class Each>
void attributesWalk( Bytes bytes, const Each & each ) {
   while ( bytes.size() >= sizeof( nlattr ) ) {
      const auto * attribute = reinterpret_cast<const nlattr *>( bytes.data() );
      if ( !mnl_attr_ok( attribute, static_cast<int>( bytes.size() ) ) ) {
         return;
      }
      each( mnl_attr_get_type( attribute ),
            bytes.subspan( MNL_ATTR_HDRLEN, mnl_attr_get_payload_len( attribute ) ) );
      bytes = bytes.subspan(
            std::min<std::size_t>( bytes.size(), MNL_ALIGN( mnl_attr_get_len( attribute ) ) ) );
   }
}

template<class T>
std::optional<T> valueAt( Bytes bytes ) {
   T value;
   if ( bytes.size() < sizeof value ) {
      return std::nullopt;
   }
   std::memcpy( &value, bytes.data(), sizeof value );
   return value;
}

std::string textOf( Bytes bytes ) {
   return { bytes.begin(), std::ranges::find( bytes, 0 ) };
}

// The fixed part of a message with what stands behind it.
template<class T>
std::optional<T> fixedPart( Bytes & payload ) {
   const auto fixed = valueAt<T>( payload );
   if ( fixed ) {
      payload = payload.subspan( std::min<std::size_t>( payload.size(), MNL_ALIGN( sizeof( T ) ) ) );
   }
   return fixed;
}

// The first byte of every message here. A bridge tells of its ports in the words of links, under a family of
// its own, and a list of all addresses has those of other protocols too.
std::uint8_t familyOf( Bytes payload ) {
   return payload.empty() ? std::uint8_t{ AF_UNSPEC } : payload.front();
}

std::optional<LinkMessage> link( bool removed, Bytes payload ) {
   const auto fixed = fixedPart<ifinfomsg>( payload );
   if ( !fixed || fixed->ifi_index <= 0 ) {
      return std::nullopt;
   }
   LinkMessage link;
   link.index = fixed->ifi_index;
   link.removed = removed;
   link.up = ( fixed->ifi_flags & IFF_UP ) != 0;
   link.ethernet = fixed->ifi_type == ARPHRD_ETHER;
   attributesWalk( payload, [&link]( std::uint16_t type, Bytes value ) {
      if ( type == IFLA_IFNAME && value.size() <= IFNAMSIZ ) {
         link.name = textOf( value );
      } else if ( type == IFLA_ADDRESS && value.size() == link.mac.bytes.size() ) {
         std::ranges::copy( value, link.mac.bytes.begin() );
      } else if ( type == IFLA_LINKINFO ) {
         attributesWalk( value, [&link]( std::uint16_t inner, Bytes kind ) {
            link.bridge = link.bridge || ( inner == IFLA_INFO_KIND && textOf( kind ) == "bridge" );
         } );
      }
   } );
   return link.name.empty() ? std::nullopt : std::optional( link );
}

std::optional<AddressMessage> address( bool removed, Bytes payload ) {
   const auto fixed = fixedPart<ifaddrmsg>( payload );
   if ( !fixed || fixed->ifa_index == 0 ) {
      return std::nullopt;
   }
   const std::size_t addressBytes = fixed->ifa_family == AF_INET ? 4 : 16;
   IpGenAddr own, other;
   std::uint32_t flags = fixed->ifa_flags; // eight of them; IFA_FLAGS has all
   attributesWalk( payload, [&]( std::uint16_t type, Bytes value ) {
      if ( type == IFA_FLAGS ) {
         flags = valueAt<std::uint32_t>( value ).value_or( flags );
      } else if ( value.size() != addressBytes ) {
         return;
      } else if ( type == IFA_LOCAL ) {
         own = IpGenAddr::fromBytes( value );
      } else if ( type == IFA_ADDRESS ) {
         other = IpGenAddr::fromBytes( value );
      }
   } );
   AddressMessage address;
   address.index = static_cast<int>( fixed->ifa_index );
   address.removed = removed;
   // An interface with another end has that one in IFA_ADDRESS; elsewhere IPv6 has nothing in IFA_LOCAL.
   address.prefix = { own.empty() ? other : own, fixed->ifa_prefixlen };
   address.peer = other.isIpv4() ? other : IpGenAddr{};
   address.usable =
         ( flags & ( IFA_F_TENTATIVE | IFA_F_DADFAILED ) ) == 0 && fixed->ifa_scope != RT_SCOPE_HOST;
   address.secondary = ( flags & IFA_F_SECONDARY ) != 0;
   address.global = fixed->ifa_scope == RT_SCOPE_UNIVERSE;
   if ( address.prefix.address.empty() || address.prefix.length > addressBytes * 8 ) {
      return std::nullopt;
   }
   return address;
}

std::optional<DumpEnd> end( std::uint16_t type, Bytes payload ) {
   const auto error = valueAt<std::int32_t>( payload ); // negative errno, in both kinds of message
   if ( !error && type == NLMSG_ERROR ) {
      return std::nullopt;
   }
   const auto code = static_cast<std::int64_t>( error.value_or( 0 ) );
   return DumpEnd{ static_cast<int>( std::clamp<std::int64_t>( -code, 0, INT32_MAX ) ) };
}

} // namespace

RtMessages rtMessages( Bytes datagram ) {
   RtMessages read;
   while ( datagram.size() >= sizeof( nlmsghdr ) ) {
      const auto & header = *reinterpret_cast<const nlmsghdr *>( datagram.data() );
      if ( header.nlmsg_len < sizeof( nlmsghdr ) || header.nlmsg_len > datagram.size() ) {
         ++read.malformed; // and nobody knows where the next one begins
         return read;
      }
      const auto payload = datagram.subspan( sizeof( nlmsghdr ), header.nlmsg_len - sizeof( nlmsghdr ) );
      datagram = datagram.subspan(
            std::min<std::size_t>( datagram.size(), MNL_ALIGN( std::size_t{ header.nlmsg_len } ) ) );
      RtMessage message;
      message.port = header.nlmsg_pid;
      message.sequence = header.nlmsg_seq;
      message.interrupted = ( header.nlmsg_flags & NLM_F_DUMP_INTR ) != 0;
      const auto keep = [&]( const auto & content ) {
         if ( content ) {
            message.content = *content;
            read.messages.push_back( message );
         } else {
            ++read.malformed;
         }
      };
      switch ( header.nlmsg_type ) {
      case RTM_NEWLINK:
      case RTM_DELLINK:
         if ( familyOf( payload ) == AF_UNSPEC ) {
            keep( link( header.nlmsg_type == RTM_DELLINK, payload ) );
         }
         break;
      case RTM_NEWADDR:
      case RTM_DELADDR:
         if ( const auto family = familyOf( payload );
               family == AF_INET || family == AF_INET6 || payload.empty() ) {
            keep( address( header.nlmsg_type == RTM_DELADDR, payload ) );
         }
         break;
      case NLMSG_DONE:
      case NLMSG_ERROR:
         keep( end( header.nlmsg_type, payload ) );
         break;
      default: // the kernel may have more to tell than was known here
         break;
      }
   }
   read.malformed += datagram.empty() ? 0 : 1;
   return read;
}

std::vector<std::uint8_t> rtDumpRequest( RtDump what, std::uint32_t sequence ) {
   const auto fixedBytes = what == RtDump::links ? sizeof( ifinfomsg ) : sizeof( ifaddrmsg );
   std::vector<std::uint8_t> bytes( MNL_NLMSG_HDRLEN + MNL_ALIGN( fixedBytes ) );
   auto * header = mnl_nlmsg_put_header( bytes.data() );
   header->nlmsg_type = what == RtDump::links ? RTM_GETLINK : RTM_GETADDR;
   header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   header->nlmsg_seq = sequence;
   mnl_nlmsg_put_extra_header( header, fixedBytes ); // all zero: every interface, every family
   return bytes;
}

} // namespace host
