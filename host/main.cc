#include "host/Host.h"
#include "platform/Trace.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace {

std::string besideThisProgram( const char * file ) {
   std::error_code ignored;
   return ( std::filesystem::read_symlink( "/proc/self/exe", ignored ).parent_path() / file ).string();
}

// The engine holds a descriptor a check that is under way.
void descriptorLimitRaise() {
   rlimit limit{};
   if ( getrlimit( RLIMIT_NOFILE, &limit ) == 0 ) {
      limit.rlim_cur = limit.rlim_max;
      setrlimit( RLIMIT_NOFILE, &limit );
   }
}

} // namespace

int main( int argc, char ** argv ) {
   constexpr int startFailed = 1, wrongUsage = 2;

   host::HostOptions options;
   options.agentLibrary = besideThisProgram( "libHealthMonitor.so" );
   options.socketPath = "/run/health-monitor/hm.sock";
   options.version = HM_VERSION;
   std::string stateDb = "memory:";
   std::string interfaces = "config";
   std::string packetFilter = "off";
   std::string traceSpec;
   bool traceStderr = false;

   CLI::App app( "Agent host: holds the state, runs the agent and serves hmctl." );
   app.set_version_flag( "--version", "hm-host " HM_VERSION );
   app.add_option( "--agent", options.agentLibrary, "Agent library to load" )
         ->type_name( "FILE" )
         ->capture_default_str();
   app.add_option( "--name", options.agentName, "Agent name" )->type_name( "NAME" )->capture_default_str();
   app.add_option(
            "--config", options.configFile, "Startup configuration (YAML), applied before the agent starts" )
         ->type_name( "FILE" );
   app.add_option( "--socket", options.socketPath, "Control socket (mode 0660)" )
         ->type_name( "PATH" )
         ->capture_default_str();
   app.add_option( "--state-db", stateDb,
            "Where the state outlives the process: memory: (nowhere), sqlite:PATH, redis://HOST[:PORT][/DB], "
            "redis+unix:PATH[?db=DB]" )
         ->type_name( "URL" )
         ->capture_default_str();
   app.add_option( "--interfaces", interfaces,
            "Where interface status and bridge MAC address come from: config or kernel" )
         ->check( CLI::IsMember( { "config", "kernel" } ) )
         ->type_name( "SOURCE" )
         ->capture_default_str();
   app.add_option( "--packet-filter", packetFilter,
            "auto: keep packet-filter rules for probes and pings; off: they are somebody else's" )
         ->type_name( "MODE" )
         ->check( CLI::IsMember( { "auto", "off" } ) )
         ->capture_default_str();
   app.add_option( "--trace", traceSpec, "Trace levels, for instance HealthMonitor=0-4,NetCHASM=5" )
         ->type_name( "SPEC" );
   app.add_flag( "--trace-stderr", traceStderr, "Trace lines also to standard error" );
   try {
      app.parse( argc, argv );
   } catch ( const CLI::ParseError & error ) {
      return app.exit( error ) == 0 ? 0 : wrongUsage;
   }
   if ( const auto refusal = host::StoreUrl::fromText( stateDb, options.stateDb ) ) {
      fmt::print( stderr, "hm-host: --state-db {}\n", *refusal );
      return wrongUsage;
   }
   options.interfacesFromKernel = interfaces == "kernel";
   options.packetFilter = packetFilter == "auto";
   if ( const char * password = std::getenv( "HM_REDIS_PASSWORD" ) ) {
      options.stateDb.password =
            password; // not among the arguments, which every user of the machine can read
   }
   platform::traceToStderrIs( traceStderr );
   if ( const auto refusal = platform::traceSpecApply( traceSpec ); !traceSpec.empty() && refusal ) {
      fmt::print( stderr, "hm-host: --trace: {}\n", *refusal );
      return wrongUsage;
   }

   std::signal( SIGPIPE, SIG_IGN );
   // But for the time in which the host listens to it: a reload that comes too early or too late does no
   // harm.
   std::signal( SIGHUP, SIG_IGN );
   descriptorLimitRaise();
   // Before the first object is shared: the checker's thread holds some of the same.
   platform::RefCounted::threadSafeRefCountsIs();

   host::Host host( options );
   if ( const auto errors = host.start(); !errors.empty() ) {
      for ( const auto & error : errors ) {
         std::fputs( fmt::format( "hm-host: {}\n", error ).c_str(), stderr );
      }
      return startFailed;
   }
   host.run();
   return 0;
}
