#include "platform/IpGenAddr.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>

namespace platform {

std::optional<IpGenAddr> IpGenAddr::fromText( std::string_view text ) {
   char terminated[INET6_ADDRSTRLEN];
   if ( text.size() >= sizeof terminated || text.find( '\0' ) != text.npos ) {
      return std::nullopt;
   }
   std::memcpy( terminated, text.data(), text.size() );
   terminated[text.size()] = '\0';
   IpGenAddr address;
   if ( inet_pton( AF_INET, terminated, address.bytes_.data() ) == 1 ) {
      address.family_ = AddressFamily::ipv4;
   } else if ( inet_pton( AF_INET6, terminated, address.bytes_.data() ) == 1 ) {
      address.family_ = AddressFamily::ipv6;
   } else {
      return std::nullopt;
   }
   return address;
}

IpGenAddr IpGenAddr::fromBytes( std::span<const std::uint8_t> bytes ) {
   IpGenAddr address;
   if ( bytes.size() != 4 && bytes.size() != 16 ) {
      return address;
   }
   address.family_ = bytes.size() == 4 ? AddressFamily::ipv4 : AddressFamily::ipv6;
   std::ranges::copy( bytes, address.bytes_.begin() );
   return address;
}

IpGenAddr::Text IpGenAddr::stringValue() const {
   Text text;
   static_assert( sizeof text.bytes >= INET6_ADDRSTRLEN );
   if ( !empty() ) {
      inet_ntop( isIpv4() ? AF_INET : AF_INET6, bytes_.data(), text.bytes.data(), text.bytes.size() );
   }
   return text;
}

std::size_t IpGenAddr::hash() const {
   std::uint64_t high, low;
   std::memcpy( &high, bytes_.data(), 8 );
   std::memcpy( &low, bytes_.data() + 8, 8 );
   // Two rounds of a 64-bit finaliser: neighbouring addresses must not land in neighbouring buckets only.
   auto mix = []( std::uint64_t x ) {
      x ^= x >> 31;
      x *= 0x9e3779b97f4a7c15u;
      return x ^ ( x >> 29 );
   };
   return mix( mix( high + static_cast<std::uint64_t>( family_ ) ) ^ low );
}

std::optional<IpGenPrefix> IpGenPrefix::fromText( std::string_view text ) {
   const auto slash = text.find( '/' );
   const auto address = IpGenAddr::fromText( text.substr( 0, slash ) );
   if ( !address ) {
      return std::nullopt;
   }
   const std::uint8_t longest = address->isIpv4() ? 32 : 128;
   IpGenPrefix prefix{ *address, longest };
   if ( slash != text.npos ) {
      const auto digits = text.substr( slash + 1 );
      const auto [end, error] = std::from_chars( digits.begin(), digits.end(), prefix.length );
      if ( error != std::errc{} || end != digits.end() || prefix.length > longest ) {
         return std::nullopt;
      }
   }
   return prefix;
}

std::string IpGenPrefix::text() const {
   return address.empty() ? std::string{} : fmt::format( "{}/{}", address, length );
}

} // namespace platform
