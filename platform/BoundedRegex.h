#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// A regular expression (ECMAScript grammar) whose compiling and matching take bounded time, memory and stack
/// whatever pattern and text are, so that it may be run on text from hostile servers by a thread that others
/// wait for: at most about 20 ms for one match.
///
/// Accepted: literals, `.`, classes (`[a-z]`, `[^"]`, `\d`, `\w`, `\s`, `[[:alpha:]]`), groups and
/// alternatives, `*`, `+`, `?`, `{n,m}` and their lazy forms, `^`, `$`, `\b`. Matching looks at bytes and at
/// case.
///
/// Refused: back-references and look-ahead, which have no bound, and therefore "(?=" and "(?!" in any
/// meaning; patterns longer than `maxPatternBytes`; patterns that unfold, by counted repetition above all,
/// into more than `maxStates` states of the automaton.
///
/// Searched: the first `maxTextBytes` of the text. A pattern that keeps many states alive uses up `maxSteps`
/// earlier, and is then matched against what it has seen by that time as if the text ended there; where that
/// is depends on nothing but pattern and text. An ordinary rule, such as `"status": *"(UP|OK)"`, sees all of
/// the 16 KiB, and so does foundIn() of plain text, which is looked for without the automaton.
class BoundedRegex {
 public:
   static constexpr std::size_t maxPatternBytes = 256;
   static constexpr std::size_t maxStates = 1024;
   static constexpr std::size_t maxTextBytes = 16 * 1024;
   /// Work of one match: one step a live state and character, and for each character one more for every
   /// `statesAStep` states of the pattern.
   static constexpr long maxSteps = 100'000;
   static constexpr std::size_t statesAStep = 8;

   /// Empty when the pattern is refused; `*why` then says why in words.
   [[nodiscard]] static std::optional<BoundedRegex> compile( std::string_view pattern, std::string * why );

   /// Whether the pattern matches somewhere in the text.
   bool foundIn( std::string_view text ) const;
   /// Whether the pattern matches the text from end to end.
   bool matches( std::string_view text ) const;

 private:
   struct Compiled;
   explicit BoundedRegex( std::shared_ptr<const Compiled> compiled ) : compiled_( std::move( compiled ) ) {}
   std::shared_ptr<const Compiled> compiled_;
};

} // namespace platform
