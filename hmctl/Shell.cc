#include "hmctl/Shell.h"

#include "hmctl/Commands.h"
#include "hmctl/Interrupts.h"
#include "hmctl/LineEditor.h"
#include "hmctl/Pager.h"
#include "hmctl/Words.h"

#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace hmctl {

namespace {

using Json = nlohmann::json;

class HostLookup final : public Lookup {
 public:
   explicit HostLookup( Session & session ) : session_( session ) {}
   Json complete( const std::string & path, const std::string & begin, bool configurationOnly ) override {
      return answer( { { "command", "complete" }, { "path", path }, { "begin", begin },
            { "configuration", configurationOnly } } );
   }
   std::vector<std::string> facilities() override {
      std::vector<std::string> names;
      const auto all = answer( { { "command", "trace" } } ).value( "facilities", Json::object() );
      for ( const auto & [name, levels] : all.items() ) {
         names.push_back( name );
      }
      return names;
   }

 private:
   Json answer( const Json & request ) {
      Json answer = Json::object();
      session_.request( request, [&]( const Json & line, const std::string & ) { answer = line; } );
      return answer;
   }
   Session & session_;
};

// Whoever is asking for help is not to be bothered with why there is none.
Completions complete( Session & session, const std::string & line ) {
   HostLookup lookup( session );
   std::vector<Command> commands;
   try {
      commands = allCommands( session, true );
   } catch ( const std::exception & ) {
      commands = ownCommands( true );
   }
   try {
      return completions( line, commands, lookup );
   } catch ( const std::exception & ) {
      return {};
   }
}

// One line of "command | filter | …".
void lineRun( Session & session, const std::string & text, Output & output ) {
   const auto line = split( text );
   if ( line.quoteOpen ) {
      throw std::invalid_argument( "a quote is not closed" );
   }
   std::vector<std::string> words;
   for ( const auto & word : line.stages.front() ) {
      words.push_back( word.text );
   }
   std::vector<std::unique_ptr<MatchOutput>> filters;
   Output * last = &output;
   for ( auto stage = line.stages.rbegin(); stage != line.stages.rend() - 1; ++stage ) {
      const auto name = stage->empty() ? std::string{} : stage->front().text;
      if ( stage->size() == 1 && !name.empty() && std::string_view( "json" ).starts_with( name ) ) {
         words.push_back( "--json" );
      } else if ( stage->size() == 2 && !name.empty() && std::string_view( "match" ).starts_with( name ) ) {
         filters.push_back( std::make_unique<MatchOutput>( stage->at( 1 ).text, *last ) );
         last = filters.back().get();
      } else {
         throw std::invalid_argument( "behind \"|\" there are: json, match REGEX" );
      }
   }
   if ( line.stages.front().empty() ) {
      if ( line.stages.size() > 1 ) {
         throw std::invalid_argument( "no command stands before \"|\"" );
      }
      return;
   }
   run( session, words, true, *last );
}

int shellOfPerson( Session & session ) {
   const Interrupts interrupts;
   LineEditor editor( [&session]( const std::string & line ) { return complete( session, line ); } );
   StandardOutput output;
   bool left = false;
   try {
      guarded( [&] { session.hostCommands(); } ); // says at once when there is no host
   } catch ( const Interrupted & ) {
      // The first command will tell.
   }
   while ( const auto line = left ? std::nullopt : editor.line() ) {
      guarded( [&] {
         Pager pager( terminalScreen( output ) );
         try {
            lineRun( session, *line, pager );
         } catch ( const Exit & ) {
            left = true;
         } catch ( const Interrupted & interrupted ) {
            std::fprintf( stderr, "%s\n", interrupted.what() );
         }
      } );
   }
   return done;
}

int shellOfProgram( Session & session ) {
   StandardOutput output;
   int status = done;
   for ( std::string line; std::getline( std::cin, line ); ) {
      if ( const auto first = line.find_first_not_of( " \t" ); first != line.npos && line[first] == '#' ) {
         continue;
      }
      try {
         const int ended = guarded( [&] { lineRun( session, line, output ); } );
         status = status == done ? ended : status;
      } catch ( const Exit & ) {
         break;
      }
   }
   return status;
}

} // namespace

int shellRun( const std::string & socketPath ) {
   if ( isatty( STDIN_FILENO ) && isatty( STDOUT_FILENO ) ) {
      Session session( socketPath, [] { std::fputs( "hmctl: connected to the host again\n", stderr ); } );
      return shellOfPerson( session );
   }
   Session session( socketPath );
   return shellOfProgram( session );
}

} // namespace hmctl
