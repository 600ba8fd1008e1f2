#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// A regular expression (ECMAScript grammar) whose matching takes time in proportion to text and pattern, and
/// no stack, whatever the two are: it may be run on text from hostile servers.
///
/// The price is what such a matcher cannot do: back-references are refused, and so are patterns that are
/// longer than `maxPatternBytes` or unfold (by counted repetition) into more than `maxStates` states.
class BoundedRegex {
 public:
   static constexpr std::size_t maxPatternBytes = 256;
   static constexpr std::size_t maxStates = 1024;
   /// Only this much of a text is looked at.
   static constexpr std::size_t maxTextBytes = 16 * 1024;

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
