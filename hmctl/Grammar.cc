#include "hmctl/Grammar.h"

#include "hmctl/Client.h"
#include "hmctl/Words.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <CLI/CLI.hpp>

namespace hmctl {

std::vector<Argument> argumentsFromText( std::string_view text ) {
   std::vector<Argument> arguments;
   bool optional = false;
   bool groupBegins = false;
   std::string name;
   auto add = [&] {
      if ( name.empty() ) {
         return;
      }
      Argument argument;
      argument.repeated = name.ends_with( "..." );
      argument.keyword = std::ranges::any_of( name, []( char c ) { return c >= 'a' && c <= 'z'; } );
      argument.optional = optional;
      argument.beginsGroup = std::exchange( groupBegins, false );
      argument.name = std::exchange( name, {} );
      arguments.push_back( std::move( argument ) );
   };
   for ( const char c : text ) {
      if ( c != ' ' && c != '[' && c != ']' ) {
         name += c;
         continue;
      }
      add();
      optional = c == '[' || ( optional && c != ']' );
      groupBegins = groupBegins || c == '[';
   }
   add();
   return arguments;
}

std::string argumentsText( const std::vector<Argument> & arguments ) {
   std::string text;
   bool open = false;
   for ( const auto & argument : arguments ) {
      text += open && argument.beginsGroup ? "]" : "";
      text += text.empty() ? "" : " ";
      text += argument.beginsGroup ? "[" : "";
      text += argument.name;
      open = argument.optional;
   }
   return text + ( open ? "]" : "" );
}

std::string Command::name() const {
   return joined( words );
}

std::string Command::usage() const {
   return arguments.empty() ? name() : name() + " " + argumentsText( arguments );
}

bool Command::takesJson() const {
   return std::ranges::find( flags, "--json", &Flag::name ) != flags.end();
}

Invocation invocation( const Command & command, const std::vector<std::string> & words ) {
   Invocation result;
   const auto & arguments = command.arguments;
   std::vector<std::vector<std::string>> values( arguments.size() );
   CLI::App app( command.help, command.name() );
   for ( std::size_t i = 0; i < arguments.size(); ++i ) {
      auto * option = app.add_option( arguments[i].name, values[i], arguments[i].help );
      option->expected( 1, arguments[i].repeated ? CLI::detail::expected_max_vector_size : 1 )
            ->required( !arguments[i].optional )
            ->type_name( "" );
      option->allow_extra_args( arguments[i].repeated );
   }
   for ( const auto & flag : command.flags ) {
      app.add_flag_callback(
            flag.name, [&] { result.flags.insert( flag.name ); }, flag.help );
   }
   try {
      app.parse( std::vector<std::string>( words.rbegin(), words.rend() ) );
   } catch ( const CLI::CallForHelp & ) {
      result.help = app.help();
      return result;
   } catch ( const CLI::ParseError & error ) {
      throw std::invalid_argument( error.what() + ( "\nusage: " + command.usage() ) );
   }
   for ( std::size_t i = 0; i < arguments.size(); ++i ) {
      const auto & argument = arguments[i];
      if ( values[i].empty() ) {
         if ( argument.optional && !argument.beginsGroup && i > 0 && !values[i - 1].empty() ) {
            throw std::invalid_argument( argument.name + " is missing\nusage: " + command.usage() );
         }
         break;
      }
      if ( argument.keyword && !argument.name.starts_with( values[i].front() ) ) {
         throw std::invalid_argument( "\"" + values[i].front() + "\" stands where \"" + argument.name +
                                      "\" belongs\nusage: " + command.usage() );
      }
      if ( argument.keyword ) {
         values[i].front() = argument.name;
      }
      result.arguments.insert( result.arguments.end(), values[i].begin(), values[i].end() );
   }
   return result;
}

const Command & commandFor( const std::vector<Command> & commands, std::vector<std::string> & words ) {
   std::vector<std::vector<std::string>> names;
   for ( const auto & command : commands ) {
      names.push_back( command.words );
   }
   auto expansion = expand( words, names );
   if ( expansion.outcome == Expansion::Outcome::found ) {
      words = std::move( expansion.arguments );
      return commands[expansion.command];
   }
   std::vector<const Command *> candidates;
   for ( const auto i : expansion.candidates ) {
      candidates.push_back( &commands[i] );
   }
   std::vector<std::string> typed;
   for ( const auto & word : words ) {
      if ( !word.starts_with( "-" ) ) {
         typed.push_back( word );
      }
   }
   typed.resize( std::min( typed.size(), expansion.at + 1 ) );
   const auto what = expansion.outcome == Expansion::Outcome::incomplete  ? "is not complete"
                     : expansion.outcome == Expansion::Outcome::ambiguous ? "is ambiguous"
                                                                          : "is no command";
   throw Refused( "\"" + joined( typed ) + "\" " + what + "; there are:\n" + commandList( candidates ) );
}

std::string commandList( const std::vector<const Command *> & commands ) {
   std::size_t width = 0;
   for ( const auto * command : commands ) {
      width = std::max( width, command->usage().size() );
   }
   auto sorted = commands;
   std::ranges::sort( sorted, {}, []( const Command * command ) { return command->words; } );
   std::string text;
   for ( const auto * command : sorted ) {
      auto usage = command->usage();
      usage.resize( width, ' ' );
      text += ( text.empty() ? "  " : "\n  " ) + usage + "  " + command->help;
   }
   return text;
}

} // namespace hmctl
