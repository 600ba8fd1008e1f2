#include "hmctl/Commands.h"

#include "hmctl/Doctor.h"
#include "hmctl/Interrupts.h"
#include "hmctl/Terminal.h"
#include "hmctl/Words.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace hmctl {

namespace {

using Json = nlohmann::json;

// More than the host accepts: it is the one who says what is too large.
constexpr std::size_t maxFileBytes = 32u << 20;

const Flag jsonFlag{ "--json", "JSON" };

// A name as it may be printed and sent: one line of UTF-8, whatever bytes it has.
std::string shown( std::string name ) {
   std::ranges::replace_if(
         name, []( unsigned char c ) { return c < 0x20 || c == 0x7f; }, '?' );
   return Json::parse( Json( name ).dump( -1, ' ', false, Json::error_handler_t::replace ) );
}

std::string fileRead( const std::string & path ) {
   const int fd = path == "-" ? STDIN_FILENO : open( path.c_str(), O_RDONLY | O_CLOEXEC );
   if ( fd < 0 ) {
      throw Refused( shown( path ) + ": " + std::strerror( errno ) );
   }
   std::string text;
   std::array<char, 64 * 1024> buffer;
   ssize_t size = 1;
   while ( size > 0 && text.size() <= maxFileBytes ) {
      size = read( fd, buffer.data(), buffer.size() );
      if ( size < 0 && errno == EINTR ) {
         size = 1;
         continue;
      }
      if ( size < 0 ) {
         throw Refused( shown( path ) + ": " + std::strerror( errno ) );
      }
      text.append( buffer.data(), static_cast<std::size_t>( size ) );
   }
   if ( fd != STDIN_FILENO ) {
      close( fd );
   }
   return text;
}

// Completion ends a path that may go on in "/".
std::string pathOf( const std::string & argument ) {
   return argument.substr( 0, argument.find_last_not_of( '/' ) + 1 );
}

void ask( Session & session, const Json & request, Output & output ) {
   session.request( request, [&output]( const Json & line, const std::string & ) {
      if ( const auto text = line.find( "text" ); text != line.end() && text->is_string() ) {
         output.write( text->get_ref<const std::string &>() );
      }
   } );
}

void change( Session & session, const Json & request, const std::string & document = {} ) {
   try {
      session.request(
            request, []( const Json &, const std::string & ) {}, document );
   } catch ( const Interrupted & ) {
      throw Interrupted( "interrupted before the host answered: it may still make the change" );
   }
}

void apply( Session & session, const Invocation & given, Output & ) {
   const auto & file = given.arguments.front();
   const auto document = fileRead( file );
   change( session,
         { { "command", "apply" }, { "file", file == "-" ? "standard input" : shown( file ) },
               { "check", given.has( "--check" ) }, { "documentBytes", document.size() } },
         document );
}

void applyInShell( Session & session, const Invocation & given, Output & output ) {
   if ( given.arguments.front() == "-" ) {
      throw std::invalid_argument( "standard input is where the commands come from: name a file" );
   }
   apply( session, given, output );
}

void get( Session & session, const Invocation & given, Output & output ) {
   ask( session,
         { { "command", "get" }, { "path", pathOf( given.argument( 0 ) ) },
               { "format", given.has( "--json" ) ? "json" : "yaml" },
               { "configuration", given.has( "--config" ) } },
         output );
}

void set( Session & session, const Invocation & given, Output & ) {
   change( session, { { "command", "set" }, { "path", pathOf( given.argument( 0 ) ) },
                          { "attribute", given.argument( 1 ) }, { "value", given.argument( 2 ) } } );
}

void del( Session & session, const Invocation & given, Output & ) {
   change( session, { { "command", "del" }, { "path", pathOf( given.argument( 0 ) ) },
                          { "key", given.argument( 1 ) } } );
}

void watch( Session & session, const Invocation & given, Output & output ) {
   output.live();
   session.request( { { "command", "watch" }, { "path", pathOf( given.argument( 0 ) ) },
                          { "initial", given.has( "--initial" ) } },
         [&output]( const Json &, const std::string & text ) { output.write( text + "\n" ); } );
}

void cleanState( Session & session, const Invocation &, Output & output ) {
   ask( session, { { "command", "clean-state" } }, output );
}

void trace( Session & session, const Invocation & given, Output & output ) {
   if ( !given.arguments.empty() ) {
      change( session, { { "command", "trace" }, { "facility", given.argument( 0 ) },
                             { "levels", given.argument( 1 ) } } );
   } else if ( given.has( "--json" ) ) {
      session.request( { { "command", "trace" } }, [&output]( const Json & line, const std::string & ) {
         output.write( line.value( "facilities", Json::object() ).dump( 2 ) + "\n" );
      } );
   } else {
      ask( session, { { "command", "trace" } }, output );
   }
}

void runOnHost(
      Session & session, const std::vector<std::string> & words, const Invocation & given, Output & output ) {
   auto all = words;
   all.insert( all.end(), given.arguments.begin(), given.arguments.end() );
   ask( session,
         { { "command", "run" }, { "text", joined( all ) },
               { "format", given.has( "--json" ) ? "json" : "text" } },
         output );
}

// Keeps the whole of an answer, to show it at once.
class TextOutput final : public Output {
 public:
   void write( std::string_view more ) override { text += more; }
   void redraw( const std::string & whole ) override { text = whole; }
   std::string text;
};

void status( Session & session, const Invocation & given, Output & output ) {
   if ( !given.has( "--watch" ) ) {
      runOnHost( session, { "status" }, given, output );
      return;
   }
   output.live();
   for ( ;; ) {
      TextOutput table;
      runOnHost( session, { "status" }, given, table );
      output.redraw( table.text );
      waitFor( -1, 0, std::chrono::seconds( 1 ) );
   }
}

Command::Run help( bool inShell ) {
   return [inShell]( Session & session, const Invocation & given, Output & output ) {
      std::vector<Command> commands;
      std::string without;
      try {
         commands = allCommands( session, inShell );
      } catch ( const NoHost & error ) {
         commands = ownCommands( inShell );
         without = std::string( "\nwithout the commands of the host: " ) + error.what() + "\n";
      }
      if ( !given.arguments.empty() ) {
         auto words = given.arguments;
         output.write( invocation( commandFor( commands, words ), { "--help" } ).help );
         return;
      }
      std::vector<const Command *> all;
      for ( const auto & command : commands ) {
         all.push_back( &command );
      }
      output.write( commandList( all ) + "\n" + without );
   };
}

std::vector<Argument> arguments( std::string_view text, const std::vector<std::string> & helps ) {
   auto read = argumentsFromText( text );
   for ( std::size_t i = 0; i < read.size(); ++i ) {
      read[i].help = helps.at( i );
   }
   return read;
}

std::vector<Command> ownCommandsMake( bool inShell ) {
   using Paths = Command::Paths;
   const std::string nhg = "nexthop group";
   std::vector<Command> commands{
         { { "apply" }, "bring the paths named in a document to what it says, or change nothing",
               arguments( "FILE", { inShell ? "YAML document" : "YAML document; - for standard input" } ),
               { { "--check", "only say whether the document would be accepted" } }, Paths::all,
               inShell ? applyInShell : apply },
         { { "clean-state" }, "say whether the agent holds nothing; status 1 and what it holds if not", {},
               {}, Paths::all, cleanState },
         { { "del" }, "remove one member of a set or one entry of a collection",
               arguments( "PATH KEY", { "path of the set or collection", "what goes" } ), {}, Paths::keyed,
               del },
         { { "doctor" },
               "look at what probes through virtual addresses need of this machine; status 1 if amiss", {},
               { jsonFlag }, Paths::all, doctor },
         { { "get" }, "print the state below a path",
               arguments( "[PATH]", { "all when left out; \"/\" in a name is written %2F" } ),
               { { "--json", "JSON rather than YAML" },
                     { "--config", "only what can be configured: what apply takes back" } },
               Paths::all, get },
         { { "help" }, "list the commands, or explain one",
               arguments( "[COMMAND...]", { "all when left out" } ), {}, Paths::all, help( inShell ) },
         { { "probe" }, "check a server once, now, and show what came of it",
               arguments( "NHG SERVER", { nhg, "address" } ), { jsonFlag }, Paths::all,
               []( Session & session, const Invocation & given, Output & output ) {
                  runOnHost( session, { "probe" }, given, output );
               } },
         { { "set" }, "set one attribute, or add a member to a set or an entry to a collection",
               arguments( "PATH ATTRIBUTE VALUE",
                     { "path of an entity; entries that are missing on the way are made", "its attribute",
                           "the value; of a set the member, of a collection the key" } ),
               {}, Paths::entities, set },
         { { "status" }, "show groups and servers with their health",
               arguments( "[NHG]", { nhg + "; all when left out" } ),
               { jsonFlag, { "--watch", "show it anew every second until interrupted" } }, Paths::all,
               status },
         { { "trace" }, "show the enabled trace levels, or set those of one facility",
               arguments( "[FACILITY LEVELS]",
                     { "trace facility", "the levels that shall be on, as in 0-4 or 0-2,7 or none" } ),
               { jsonFlag }, Paths::all, trace },
         { { "watch" }, "print changes as they happen, one line of JSON each, until interrupted",
               arguments( "[PATH]", { "all when left out" } ),
               { { "--initial", "begin with the present state" } }, Paths::all, watch },
   };
   if ( inShell ) {
      commands.push_back( { { "exit" }, "leave the shell; so does Ctrl-D", {}, {}, Paths::all,
            []( Session &, const Invocation &, Output & ) { throw Exit(); } } );
   }
   return commands;
}

} // namespace

const std::vector<Command> & ownCommands( bool inShell ) {
   static const auto outside = ownCommandsMake( false );
   static const auto inside = ownCommandsMake( true );
   return inShell ? inside : outside;
}

std::vector<Command> allCommands( Session & session, bool inShell ) {
   auto commands = ownCommands( inShell );
   for ( const auto & command : session.hostCommands() ) {
      if ( std::ranges::find( commands, command.words, &Command::words ) == commands.end() ) {
         commands.push_back( command );
      }
   }
   return commands;
}

Command hostCommand( std::vector<std::string> words, std::string help, const std::string & arguments ) {
   Command command{ words, std::move( help ), argumentsFromText( arguments ), { jsonFlag } };
   command.run = [words = std::move( words )]( Session & session, const Invocation & given,
                       Output & output ) { runOnHost( session, words, given, output ); };
   return command;
}

void run( Session & session, std::vector<std::string> words, bool inShell, Output & output ) {
   const auto & own = ownCommands( inShell );
   const bool ownName = std::ranges::find( own, std::vector{ words.front() }, &Command::words ) != own.end();
   const auto commands = ownName ? own : allCommands( session, inShell );
   const auto & command = commandFor( commands, words );
   const auto given = invocation( command, words );
   if ( !given.help.empty() ) {
      output.write( given.help );
   } else {
      command.run( session, given, output );
   }
   output.end();
}

ExitCode guarded( const std::function<void()> & action ) {
   auto report = []( const char * before, const char * what ) {
      const std::string text = what;
      std::fprintf(
            stderr, "%s%s\n", before, ( isatty( STDERR_FILENO ) ? terminalText( text ) : text ).c_str() );
   };
   try {
      action();
      return done;
   } catch ( const NoHost & error ) {
      report( "hmctl: ", error.what() );
      return noHost;
   } catch ( const std::invalid_argument & error ) {
      report( "hmctl: ", error.what() );
      return wrongUsage;
   } catch ( const Refused & error ) {
      report( "", error.what() );
      return refused;
   }
}

} // namespace hmctl
