#include "hmctl/Commands.h"
#include "hmctl/Shell.h"

#include <clocale>

#include <CLI/CLI.hpp>

int main( int argc, char ** argv ) {
   std::setlocale( LC_CTYPE, "" );
   std::string socketPath = "/run/health-monitor/hm.sock";
   CLI::App app(
         "Reads and changes the state of a running hm-host. Without a command: an interactive shell." );
   app.set_version_flag( "--version", "hmctl " HM_VERSION );
   app.prefix_command();
   app.add_option( "-s,--socket", socketPath, "Control socket of the host" )
         ->type_name( "PATH" )
         ->envname( "HM_SOCKET" )
         ->capture_default_str();
   std::vector<const hmctl::Command *> commands;
   for ( const auto & command : hmctl::ownCommands( false ) ) {
      commands.push_back( &command );
   }
   app.footer(
         "Commands (may be abbreviated; \"hmctl COMMAND --help\" explains one; the host has more: \"hmctl "
         "help\"):\n" +
         hmctl::commandList( commands ) );
   try {
      app.parse( argc, argv );
   } catch ( const CLI::ParseError & error ) {
      return app.exit( error ) == 0 ? hmctl::done : hmctl::wrongUsage;
   }

   const auto words = app.remaining();
   if ( words.empty() ) {
      return hmctl::shellRun( socketPath );
   }
   return hmctl::guarded( [&] {
      if ( words.front().starts_with( "-" ) ) {
         throw std::invalid_argument( "there is no option " + words.front() );
      }
      hmctl::Session session( socketPath );
      hmctl::StandardOutput output;
      hmctl::run( session, words, false, output );
   } );
}
