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

// SCHEME://HOST[:PORT][/…], the host not empty, an IPv6 one in brackets, the port a number from 1 to 65535.
Refusal urlCheck( const std::string & url, std::initializer_list<std::string_view> schemes, bool portNeeded,
      const char * expected ) {
   if ( url.empty() ) {
      return std::nullopt;
   }
   for ( const char c : url ) {
      if ( static_cast<unsigned char>( c ) <= 0x20 || c == 0x7f ) {
         return "holds a blank or a control byte";
      }
   }
   const Refusal refusal = fmt::format( "expected {}", expected );
   const auto * scheme =
         std::ranges::find_if( schemes, [&url]( auto each ) { return url.starts_with( each ); } );
   if ( scheme == schemes.end() ) {
      return refusal;
   }
   std::string_view authority = std::string_view( url ).substr( scheme->size() );
   authority = authority.substr( 0, authority.find_first_of( "/?#" ) );
   authority.remove_prefix( authority.rfind( '@' ) == authority.npos ? 0 : authority.rfind( '@' ) + 1 );
   const auto hostEnd = authority.starts_with( '[' ) ? authority.find( ']' ) + 1 : authority.find( ':' );
   const auto host = authority.substr( 0, hostEnd );
   const auto rest = authority.substr( host.size() );
   std::int64_t port = 0;
   const bool goodPort = rest.empty() ? !portNeeded
                                      : rest.starts_with( ':' ) &&
                                              !platform::integerFromText( rest.substr( 1 ), 1, 65535, port );
   return host.empty() || host == "[]" || !goodPort ? refusal : std::nullopt;
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
   return urlCheck(
         url, { "http://", "https://" }, false, "http://HOST[:PORT]/PATH or https://HOST[:PORT]/PATH" );
}

Refusal tcpUrlCheck( const std::string & url ) {
   return urlCheck( url, { "tcp://" }, true, "tcp://HOST:PORT, PORT 1..65535" );
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
