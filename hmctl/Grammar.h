#pragma once

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace hmctl {

class Output;
class Session;

/// One argument of a command. Its name says what it takes, for people and for completion: PATH, ATTRIBUTE,
/// VALUE, KEY, FILE, NHG (a nexthop group), SERVER, FACILITY, …
struct Argument {
   std::string name;
   std::string help{};
   bool keyword = false; // written as it is
   bool optional = false;
   bool beginsGroup = false; // optional ones come in groups, whole or not at all
   bool repeated = false;
};

/// Reads "NHG [interval SECONDS]": lower case stands as it is, brackets are around what may be left out.
std::vector<Argument> argumentsFromText( std::string_view text );
std::string argumentsText( const std::vector<Argument> & arguments );

struct Flag {
   std::string name; // "--json"
   std::string help;
};

/// What was typed behind the name of a command.
struct Invocation {
   std::vector<std::string> arguments;
   std::set<std::string> flags;
   std::string help; // asked for; the rest is empty then

   bool has( const std::string & flag ) const { return flags.contains( flag ); }
   std::string argument( std::size_t index ) const {
      return index < arguments.size() ? arguments[index] : std::string{};
   }
};

struct Command {
   using Run = std::function<void( Session &, const Invocation &, Output & )>;
   /// What a PATH leads to: anything, or an entity, or what has keys.
   enum class Paths { all, entities, keyed };
   std::vector<std::string> words;
   std::string help;
   std::vector<Argument> arguments{};
   std::vector<Flag> flags{};
   Paths paths = Paths::all;
   Run run{};

   std::string name() const;
   std::string usage() const; // with its arguments
   bool takesJson() const;
};

/// Throws std::invalid_argument when the words are not what the command takes.
Invocation invocation( const Command & command, const std::vector<std::string> & words );

/// Which of `commands` a line of words means; `words` then has what follows its name. Throws Refused with
/// what there is instead.
const Command & commandFor( const std::vector<Command> & commands, std::vector<std::string> & words );

/// "name  help" lines, one a command.
std::string commandList( const std::vector<const Command *> & commands );

} // namespace hmctl
