#include <cstddef>

namespace platform {
namespace {
thread_local std::size_t statesCompiled; // of the automaton that is being built
}
} // namespace platform

// libstdc++ reads this where it adds a state to the automaton, whose size() is in scope there; no other
// source of ours may include <regex>.
#define _GLIBCXX_REGEX_STATE_LIMIT \
   ( ::platform::statesCompiled = this->size(), ::platform::BoundedRegex::maxStates )

#include "platform/BoundedRegex.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include <fmt/format.h>
#include <regex>

namespace platform {

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
   if ( code == error_paren ) {
      return "a round bracket has no partner, or a repetition has nothing to repeat";
   }
   if ( code == error_brack || code == error_brace ) {
      return "a bracket is not closed";
   }
   if ( code == error_badrepeat || code == error_badbrace || code == error_range ) {
      return "a repetition or a range is not valid";
   }
   return "it is not a regular expression (ECMAScript grammar)";
}

/// Whether a count or the number of a group has more digits than an integer surely holds: the compiler of the
/// library adds them up without looking.
bool hasHugeNumber( std::string_view pattern ) {
   constexpr std::size_t mostDigits = 9;
   constexpr std::string_view digits = "0123456789";
   for ( auto at = pattern.find_first_of( "{,\\" ); at != pattern.npos;
         at = pattern.find_first_of( "{,\\", at + 1 ) ) {
      const auto number = pattern.substr( at + 1 );
      if ( std::min( number.find_first_not_of( digits ), number.size() ) > mostDigits ) {
         return true;
      }
   }
   return false;
}

bool isPlainText( std::string_view pattern ) {
   return pattern.find_first_of( "^$\\.*+?()[]{}|" ) == pattern.npos;
}

/// What is left of one match, and where the text ends: moved up when nothing is left.
struct Work {
   long stepsLeft;
   long stepsACharacter;
   const char * end;
};

/// Walks a text and counts what the executor does: it reads a character once for every live state and moves
/// on once for all of them. The text may end only at a move, so that every state sees the same end.
class CountingIterator {
 public:
   using iterator_category = std::bidirectional_iterator_tag;
   using value_type = char;
   using difference_type = std::ptrdiff_t;
   using pointer = const char *;
   using reference = const char &;

   CountingIterator() = default;
   CountingIterator( const char * at, Work * work ) : at_( at ), work_( work ) {}

   const char & operator*() const {
      --work_->stepsLeft;
      return *at_;
   }
   CountingIterator & operator++() {
      ++at_;
      work_->stepsLeft -= work_->stepsACharacter;
      if ( work_->stepsLeft <= 0 ) {
         work_->end = std::min( work_->end, at_ );
      }
      return *this;
   }
   CountingIterator & operator--() {
      --at_;
      return *this;
   }
   CountingIterator operator++( int ) {
      const auto before = *this;
      ++*this;
      return before;
   }
   CountingIterator operator--( int ) {
      const auto before = *this;
      --*this;
      return before;
   }
   friend bool operator==( const CountingIterator & a, const CountingIterator & b ) {
      return a.place() == b.place();
   }

 private:
   const char * place() const { return work_ ? std::min( at_, work_->end ) : at_; }

   const char * at_ = nullptr;
   Work * work_ = nullptr;
};

struct Automaton {
   std::regex regex;
   std::size_t states = 0;

   explicit Automaton( const std::string & pattern ) : regex( pattern, flags ), states( statesCompiled ) {}

   bool matches( std::string_view text ) const {
      text = text.substr( 0, BoundedRegex::maxTextBytes );
      const char * const end = text.data() + text.size();
      Work work{ BoundedRegex::maxSteps, static_cast<long>( states / BoundedRegex::statesAStep ), end };
      return std::regex_match(
            CountingIterator( text.data(), &work ), CountingIterator( end, &work ), regex );
   }
};

} // namespace

struct BoundedRegex::Compiled {
   Automaton whole;
   Automaton anywhere;
   std::string literal; // what the pattern finds when it is plain text; empty: it is not, or finds anything
};

std::optional<BoundedRegex> BoundedRegex::compile( std::string_view pattern, std::string * why ) {
   if ( pattern.size() > maxPatternBytes ) {
      *why = fmt::format( "it is longer than {} bytes", maxPatternBytes );
      return std::nullopt;
   }
   // Looked for as plain text: telling an escaped bracket from a real one is the grammar's business, and to
   // be wrong about it would let a match run for minutes.
   if ( pattern.find( "(?=" ) != pattern.npos || pattern.find( "(?!" ) != pattern.npos ) {
      *why = "look-ahead, (?= or (?!, is not accepted";
      return std::nullopt;
   }
   if ( hasHugeNumber( pattern ) ) {
      *why = whyRefused( std::regex_constants::error_space );
      return std::nullopt;
   }
   try {
      const std::string text( pattern );
      // A search would start the executor anew at every character; one run over the text with room before the
      // match finds the same. The pattern by itself goes first: "a)(b" is none, though it is one in brackets.
      Automaton whole( text );
      Automaton anywhere( "[^]*?(?:" + text + ")[^]*" );
      return BoundedRegex( std::make_shared<Compiled>(
            Compiled{ std::move( whole ), std::move( anywhere ), isPlainText( pattern ) ? text : "" } ) );
   } catch ( const std::regex_error & error ) {
      *why = whyRefused( error.code() );
      return std::nullopt;
   }
}

bool BoundedRegex::foundIn( std::string_view text ) const {
   // A thousand times cheaper than the executor, and linear whatever the two are.
   if ( const auto & literal = compiled_->literal; !literal.empty() ) {
      const auto size = std::min( text.size(), maxTextBytes );
      return size >= literal.size() && memmem( text.data(), size, literal.data(), literal.size() );
   }
   return compiled_->anywhere.matches( text );
}

bool BoundedRegex::matches( std::string_view text ) const {
   return compiled_->whole.matches( text );
}

} // namespace platform
