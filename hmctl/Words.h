#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Command lines as text: taking them apart, putting words back in, and finding which command is meant.

namespace hmctl {

struct Word {
   std::string text;      // without its quotes
   std::size_t begin = 0; // byte of the line where it begins, its quotes included
};

/// A line taken apart. Blanks part words and "|" parts stages. '…' takes everything as it is; in "…" a
/// backslash goes before " and \, elsewhere before any character.
struct Line {
   std::vector<std::vector<Word>> stages; // at least one
   bool wordOpen = false;                 // what is typed next goes on with the last word
   bool quoteOpen = false;
};
Line split( std::string_view line );

/// The word as split() reads it back.
std::string quoted( const std::string & word );
/// The same without the quote at its end, to be gone on with.
std::string quotedOpen( const std::string & word );

/// What all of them begin with; never ends inside a character.
std::string commonBeginning( const std::vector<std::string> & texts );

/// Joins by one blank.
std::string joined( const std::vector<std::string> & words );

/// A key as a component of a path: "/", "%" and control bytes are written %XX.
std::string pathComponent( std::string_view key );

/// Which of some commands, each a sequence of words, begins a line.
struct Expansion {
   enum class Outcome {
      found,      // `command`, with `arguments`
      incomplete, // the line is the beginning of `candidates`
      ambiguous,  // the word at `at` is the beginning of different words of `candidates`
      unknown,    // the word at `at` fits none of `candidates`, which fit up to there
   };
   Outcome outcome = Outcome::incomplete;
   std::size_t command = 0;
   std::vector<std::string> arguments;
   std::size_t at = 0; // counts the words of commands
   /// The commands that may be meant; of a found one also longer ones that begin in the same way.
   std::vector<std::size_t> candidates;
};
/// A word may be abbreviated where only one fits; one that is written out wins. Options, which begin with
/// "-", may stand between the words.
Expansion expand(
      const std::vector<std::string> & words, const std::vector<std::vector<std::string>> & commands );

} // namespace hmctl
