#include "hmctl/Client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

namespace {

using Json = nlohmann::json;

enum ExitCode { done = 0, refused = 1, wrongUsage = 2, noHost = 3 };

// More than the host accepts: it is the one who says what is too large.
constexpr std::size_t maxFileBytes = 32u << 20;

// A name as it may be printed and sent: one line of UTF-8, whatever bytes it has.
std::string shown( std::string name ) {
   std::ranges::replace_if(
         name, []( unsigned char c ) { return c < 0x20 || c == 0x7f; }, '?' );
   return Json::parse( Json( name ).dump( -1, ' ', false, Json::error_handler_t::replace ) );
}

std::string fileRead( const std::string & path ) {
   const int fd = path == "-" ? STDIN_FILENO : open( path.c_str(), O_RDONLY | O_CLOEXEC );
   if ( fd < 0 ) {
      throw hmctl::Refused( shown( path ) + ": " + std::strerror( errno ) );
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
         throw hmctl::Refused( shown( path ) + ": " + std::strerror( errno ) );
      }
      text.append( buffer.data(), static_cast<std::size_t>( size ) );
   }
   if ( fd != STDIN_FILENO ) {
      close( fd );
   }
   return text;
}

void print( const std::string & text ) {
   if ( std::fwrite( text.data(), 1, text.size(), stdout ) != text.size() || std::fflush( stdout ) != 0 ) {
      throw hmctl::Refused( std::string( "standard output: " ) + std::strerror( errno ) );
   }
}

void printText( const Json & line, const std::string & ) {
   print( line.value( "text", "" ) );
}

} // namespace

int main( int argc, char ** argv ) {
   std::string socketPath = "/run/health-monitor/hm.sock";
   std::string file, path, attribute, value, key;
   bool check = false, json = false, configuration = false, initial = false;

   CLI::App app( "Reads and changes the state of a running hm-host." );
   app.set_version_flag( "--version", "hmctl " HM_VERSION );
   app.require_subcommand( 1 );
   app.add_option( "-s,--socket", socketPath, "Control socket of the host" )
         ->type_name( "PATH" )
         ->envname( "HM_SOCKET" )
         ->capture_default_str();

   auto * apply = app.add_subcommand(
         "apply", "Bring the paths named in a document to what it says, or change nothing" );
   apply->add_option( "FILE", file, "YAML document; - for standard input" )->required();
   apply->add_flag( "--check", check, "Only say whether the document would be accepted" );

   auto * get = app.add_subcommand( "get", "Print the state below a path" );
   get->add_option( "PATH", path, "All when left out; \"/\" in a name is written %2F" );
   get->add_flag( "--json", json, "JSON rather than YAML" );
   get->add_flag( "--config", configuration, "Only what can be configured: what apply takes back" );

   auto * set = app.add_subcommand(
         "set", "Set one attribute, or add a member to a set or an entry to a collection" );
   set->add_option( "PATH", path, "Path of an entity; entries that are missing on the way are made" )
         ->required();
   set->add_option( "ATTRIBUTE", attribute )->required();
   set->add_option( "VALUE", value, "The value; of a set the member, of a collection the key" )->required();

   auto * del = app.add_subcommand( "del", "Remove one member of a set or one entry of a collection" );
   del->add_option( "PATH", path, "Path of the set or collection" )->required();
   del->add_option( "KEY", key )->required();

   auto * watch = app.add_subcommand(
         "watch", "Print changes as they happen, one line of JSON each, until interrupted" );
   watch->add_option( "PATH", path, "All when left out" );
   watch->add_flag( "--initial", initial, "Begin with the present state" );

   auto * cleanState = app.add_subcommand(
         "clean-state", "Say whether the agent holds nothing; exit status 1 and what it holds if not" );

   try {
      app.parse( argc, argv );
   } catch ( const CLI::ParseError & error ) {
      return app.exit( error ) == 0 ? done : wrongUsage;
   }

   try {
      if ( *apply ) {
         const auto document = fileRead( file );
         hmctl::Client( socketPath )
               .request( { { "command", "apply" }, { "file", file == "-" ? "standard input" : shown( file ) },
                               { "check", check }, { "documentBytes", document.size() } },
                     document, printText );
      } else if ( *get ) {
         hmctl::Client( socketPath )
               .request( { { "command", "get" }, { "path", path }, { "format", json ? "json" : "yaml" },
                               { "configuration", configuration } },
                     {}, printText );
      } else if ( *set ) {
         hmctl::Client( socketPath )
               .request( { { "command", "set" }, { "path", path }, { "attribute", attribute },
                               { "value", value } },
                     {}, printText );
      } else if ( *del ) {
         hmctl::Client( socketPath )
               .request( { { "command", "del" }, { "path", path }, { "key", key } }, {}, printText );
      } else if ( *watch ) {
         hmctl::Client( socketPath )
               .request( { { "command", "watch" }, { "path", path }, { "initial", initial } }, {},
                     []( const Json &, const std::string & text ) { print( text + "\n" ); } );
      } else if ( *cleanState ) {
         hmctl::Client( socketPath ).request( { { "command", "clean-state" } }, {}, printText );
      }
   } catch ( const hmctl::NoHost & error ) {
      std::fprintf( stderr, "hmctl: %s\n", error.what() );
      return noHost;
   } catch ( const std::invalid_argument & error ) {
      std::fprintf( stderr, "hmctl: %s\n", error.what() );
      return wrongUsage;
   } catch ( const hmctl::Refused & error ) {
      std::fprintf( stderr, "%s\n", error.what() );
      return refused;
   }
   return done;
}
