#include "platform/state/HmState.h"

#include "platform/BoundedRegex.h"

#include <algorithm>

#include <fmt/format.h>

namespace HmState {

namespace {

constexpr std::uint32_t secondsADay = 86'400;

Refusal within( double value, double lowest, double highest ) {
   if ( !( value >= lowest && value <= highest ) ) {
      return fmt::format( "out of range {}..{}", lowest, highest );
   }
   return std::nullopt;
}

Refusal schemeCheck(
      const std::string & url, std::initializer_list<std::string_view> schemes, const char * expected ) {
   for ( const char c : url ) {
      if ( static_cast<unsigned char>( c ) <= 0x20 || c == 0x7f ) {
         return "holds a blank or a control byte";
      }
   }
   if ( url.empty() ||
         std::ranges::any_of( schemes, [&url]( auto scheme ) { return url.starts_with( scheme ); } ) ) {
      return std::nullopt;
   }
   return fmt::format( "expected {}", expected );
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
   return schemeCheck(
         url, { "http://", "https://" }, "http://HOST[:PORT]/PATH or https://HOST[:PORT]/PATH" );
}

Refusal tcpUrlCheck( const std::string & url ) {
   auto refusal = schemeCheck( url, { "tcp://" }, "tcp://HOST:PORT" );
   if ( refusal || url.empty() ) {
      return refusal;
   }
   std::int64_t port = 0;
   const auto digits = url.substr( url.rfind( ':' ) + 1 );
   return platform::integerFromText( digits, 1, 65535, port )
                ? Refusal( "expected tcp://HOST:PORT, PORT 1..65535" )
                : std::nullopt;
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
