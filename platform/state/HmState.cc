#include "platform/state/HmState.h"

#include "platform/BoundedRegex.h"

#include <algorithm>

#include <fmt/format.h>

namespace HmState {

HM_ENTITY_TYPE( ResponseRule )
HM_ENTITY_TYPE( NexthopGroupProbeConfig )
HM_ENTITY_TYPE( ProbeConfig )
HM_ENTITY_TYPE( NexthopGroupConfig )
HM_ENTITY_TYPE( ServerConfig )
HM_ENTITY_TYPE( ProbeStatus )
HM_ENTITY_TYPE( NexthopGroupProbeStatus )
HM_ENTITY_TYPE( ServerStatus )

namespace {

constexpr std::uint32_t secondsADay = 86'400;

Refusal within( double value, double lowest, double highest ) {
   if ( !( value >= lowest && value <= highest ) ) {
      return fmt::format( "out of range {}..{}", lowest, highest );
   }
   return std::nullopt;
}

// A name of letters, digits, ".", "-" and "_", an IPv4 address, or an IPv6 address in brackets.
bool isUrlHost( std::string_view host ) {
   if ( host.starts_with( '[' ) ) {
      const auto address = IpGenAddr::fromText( host.substr( 1, host.size() - 2 ) );
      return host.ends_with( ']' ) && address && address->isIpv6();
   }
   return !host.empty() && std::ranges::all_of( host, []( char c ) {
      return ( c >= '0' && c <= '9' ) || ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || c == '.' ||
             c == '-' || c == '_';
   } );
}

// HOST[:PORT], PORT from 1 to 65535.
bool isHostAndPort( std::string_view text, bool portNeeded ) {
   const auto hostEnd = text.starts_with( '[' ) ? text.find( ']' ) + 1 : text.find( ':' );
   const auto host = text.substr( 0, hostEnd );
   const auto rest = text.substr( host.size() );
   if ( rest.empty() ) {
      return !portNeeded && isUrlHost( host );
   }
   std::int64_t port = 0;
   return rest.starts_with( ':' ) && !platform::integerFromText( rest.substr( 1 ), 1, 65535, port ) &&
          isUrlHost( host );
}

// What no URL may hold as it is (RFC 3986, section 2). Bytes beyond ASCII are let pass: paths hold them.
Refusal urlBytesCheck( std::string_view url ) {
   for ( const char c : url ) {
      if ( static_cast<unsigned char>( c ) <= 0x20 || c == 0x7f ) {
         return "holds a blank or a control byte";
      }
      if ( std::string_view( "\"<>\\^`{|}" ).find( c ) != std::string_view::npos ) {
         return fmt::format( "holds {}, which a URL writes as %{:02X}", c, static_cast<unsigned char>( c ) );
      }
   }
   return std::nullopt;
}

} // namespace

Refusal probeIntervalCheck( const Seconds & interval ) {
   return within( interval.count(), 0.1, secondsADay );
}

Refusal checkSecondsCheck( const std::uint32_t & value ) {
   return within( value, 0, secondsADay );
}

Refusal timeoutCheck( const std::uint32_t & value ) {
   return within( value, 1, secondsADay );
}

Refusal httpUrlCheck( const std::string & url ) {
   if ( url.empty() ) {
      return std::nullopt;
   }
   if ( const auto refusal = urlBytesCheck( url ) ) {
      return refusal;
   }
   for ( const std::string_view scheme : { "http://", "https://" } ) {
      if ( url.starts_with( scheme ) ) {
         auto authority = std::string_view( url ).substr( scheme.size() );
         authority = authority.substr( 0, authority.find_first_of( "/?#" ) );
         authority.remove_prefix( authority.find( '@' ) + 1 ); // a user's name is not used
         if ( isHostAndPort( authority, false ) ) {
            return std::nullopt;
         }
      }
   }
   return "expected http://HOST[:PORT]/PATH or https://HOST[:PORT]/PATH";
}

// Nothing may stand behind the port, for it is read from the last colon to the end.
Refusal tcpUrlCheck( const std::string & url ) {
   constexpr std::string_view scheme = "tcp://";
   const bool good =
         url.empty() || ( url.starts_with( scheme ) &&
                              isHostAndPort( std::string_view( url ).substr( scheme.size() ), true ) );
   return good ? std::nullopt : Refusal( "expected tcp://HOST:PORT, PORT 1..65535" );
}

Refusal patternCheck( const std::string & pattern ) {
   if ( pattern == rulePatternNone ) {
      return std::nullopt;
   }
   std::string why;
   if ( !platform::BoundedRegex::compile( pattern, &why ) ) {
      return fmt::format( "bad regular expression: {}", why );
   }
   return std::nullopt;
}

Refusal threadsCheck( const std::uint16_t & count ) {
   return within( count, 1, 256 );
}

Refusal niceCheck( const std::int8_t & value ) {
   return within( value, -20, 19 );
}

Refusal portCheck( const std::uint16_t & port ) {
   return within( port, 1, 65535 );
}

} // namespace HmState
