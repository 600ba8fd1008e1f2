#pragma once

#include "hmctl/Grammar.h"

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace hmctl {

/// Something that may come next on a command line.
struct Choice {
   enum class Kind {
      word, // may be put in
      flag, // may be put in once it was begun
      hint, // says what is to be typed
   };
   Kind kind = Kind::word;
   std::string text; // the whole word
   std::string help{};
   std::string shown{}; // in a list, when not the text
   bool goesOn = false; // more of the same word may follow
};

struct Completions {
   std::string begun;     // the word that is being typed, without quotes
   std::size_t begin = 0; // byte of the line where it begins
   bool quoteOpen = false;
   std::vector<Choice> choices; // all of them fit what was begun
   bool more = false;           // there are others

   /// Any text belongs here, a "?" as well.
   bool freeText() const;
   /// Those that may be put in.
   std::vector<const Choice *> insertable() const;
};

/// What only the host knows. May throw, and then nothing is offered that needs it.
class Lookup {
 public:
   virtual ~Lookup() = default;
   /// The answer of the control protocol to "complete".
   virtual nlohmann::json complete(
         const std::string & path, const std::string & begin, bool configurationOnly ) = 0;
   virtual std::vector<std::string> facilities() = 0;
};

/// What may come at the end of `line`.
Completions completions( std::string_view line, const std::vector<Command> & commands, Lookup & lookup );

/// The choices, one a line with its help, at most `rows` of them.
std::string choiceList( const Completions & completions, std::size_t rows );

} // namespace hmctl
