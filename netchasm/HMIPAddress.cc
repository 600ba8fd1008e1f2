#include "netchasm/HMIPAddress.h"
#include <arpa/inet.h>
#include <cstring>

bool HMIPAddress::set( const std::string & text ) {
   // inet_pton stops at a NUL byte, so a text that holds one is not an address.
   if ( text.find( '\0' ) != std::string::npos )
      return false;
   in_addr v4{};
   in6_addr v6{};
   if ( ::inet_pton( AF_INET, text.c_str(), &v4 ) == 1 ) {
      family_ = Family::ipv4;
      bytes_ = {};
      std::memcpy( bytes_.data(), &v4, sizeof( v4 ) );
      return true;
   }
   if ( ::inet_pton( AF_INET6, text.c_str(), &v6 ) == 1 ) {
      family_ = Family::ipv6;
      std::memcpy( bytes_.data(), &v6, sizeof( v6 ) );
      return true;
   }
   return false;
}

std::string HMIPAddress::toString() const {
   if ( empty() )
      return {};
   char text[INET6_ADDRSTRLEN] = {};
   ::inet_ntop( family_ == Family::ipv4 ? AF_INET : AF_INET6, bytes_.data(), text, sizeof( text ) );
   return text;
}
