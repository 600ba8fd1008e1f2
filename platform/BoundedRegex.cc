// libstdc++ reads this where it builds the automaton; no other source of ours may include <regex>.
#define _GLIBCXX_REGEX_STATE_LIMIT 1024

#include "platform/BoundedRegex.h"

#include <fmt/format.h>
#include <regex>

namespace platform {

static_assert( BoundedRegex::maxStates == _GLIBCXX_REGEX_STATE_LIMIT );

namespace {

// The breadth-first executor: it follows all alternatives at once and remembers only which states are live,
// where the default one recurses once a character. nosubs leaves out the recording of groups, which nobody
// reads here.
constexpr auto flags =
      std::regex_constants::ECMAScript | std::regex_constants::__polynomial | std::regex_constants::nosubs;

const char * whyRefused( std::regex_constants::error_type code ) {
   using namespace std::regex_constants;
   if ( code == error_backref || code == error_complexity ) {
      return "back-references are not accepted";
   }
   if ( code == error_space || code == error_stack ) {
      return "it unfolds into too large an automaton";
   }
   if ( code == error_paren || code == error_brack || code == error_brace ) {
      return "a bracket is not closed";
   }
   if ( code == error_badrepeat || code == error_badbrace || code == error_range ) {
      return "a repetition or a range is not valid";
   }
   return "it is not a regular expression (ECMAScript grammar)";
}

} // namespace

struct BoundedRegex::Compiled {
   std::regex whole;
   std::regex anywhere;
};

std::optional<BoundedRegex> BoundedRegex::compile( std::string_view pattern, std::string * why ) {
   if ( pattern.size() > maxPatternBytes ) {
      *why = fmt::format( "it is longer than {} bytes", maxPatternBytes );
      return std::nullopt;
   }
   try {
      auto compiled = std::make_shared<Compiled>();
      const std::string text( pattern );
      compiled->whole.assign( text, flags );
      // A search would start the executor anew at every character; one run over the text with room before the
      // match finds the same.
      compiled->anywhere.assign( "[^]*?(?:" + text + ")[^]*", flags );
      return BoundedRegex( compiled );
   } catch ( const std::regex_error & error ) {
      *why = whyRefused( error.code() );
      return std::nullopt;
   }
}

bool BoundedRegex::foundIn( std::string_view text ) const {
   text = text.substr( 0, maxTextBytes );
   return std::regex_match( text.begin(), text.end(), compiled_->anywhere );
}

bool BoundedRegex::matches( std::string_view text ) const {
   text = text.substr( 0, maxTextBytes );
   return std::regex_match( text.begin(), text.end(), compiled_->whole );
}

} // namespace platform
