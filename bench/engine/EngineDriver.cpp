// The engine with nothing around it, doing what the bench's other probers do: its two files are written as
// the agent writes them, every host gets its static address, and the observer counts what comes back.
#include "netchasm/HMStateManager.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr unsigned serversPerGroup = 128; // as in peers/Load.h

class CountingObserver : public HMStorageObserver {
 public:
   bool storeHostCheckResult( HMCheckData & data ) override {
      const bool isGood = data.m_response == HM_RESPONSE_ANSWERED &&
                          ( data.m_responseCode == 0 ||
                                ( data.m_responseCode == 200 && data.m_responsePayload == "ok\n" ) );
      ( isGood ? good : bad ).fetch_add( 1, std::memory_order_relaxed );
      return true;
   }

   std::atomic< std::uint64_t > good = 0;
   std::atomic< std::uint64_t > bad = 0;
};

class StderrLog : public HMLogBase {
 public:
   void rotate() override {}
   bool openLog( std::string ) override { return true; }
   void closeLog() override {}
   void writeLog( LogEntry * entry ) override {
      std::fprintf( stderr, "%d %s\n", entry->m_level, entry->m_text );
   }
};

struct Host {
   std::string name;
   std::string address;
};

std::vector< Host > writeFiles( const std::filesystem::path & directory, const std::string & kind,
      unsigned servers, const std::string & port, const std::string & caFile, const std::string & threads ) {
   std::vector< Host > hosts;
   std::ofstream hostFile( directory / "hosts.yaml" );
   for ( unsigned i = 0; i < servers; ++i ) {
      const std::string group = std::to_string( i / serversPerGroup );
      if ( i % serversPerGroup == 0 ) {
         const std::string type = kind == "tcp" ? "tcp" : "http";
         hostFile << "- name: g" << group << "-" << type << "\n  ttl: 1000\n  timeout: 3000\n"
                  << "  check-retry-delay: 0\n  check-retries: 3\n  check-type: " << kind
                  << "\n  dns-type: static\n  check-info: " << ( kind == "tcp" ? "\"\"" : "/" )
                  << "\n  check-port: " << port << "\n";
         if ( !caFile.empty() ) {
            hostFile << "  ca-file: " << caFile << "\n";
         }
         hostFile << "  host:\n";
      }
      Host host;
      host.address = "127.1." + group + "." + std::to_string( 1 + i % serversPerGroup );
      host.name = ( kind == "tcp" ? "tcp/g" : "http/g" ) + group + "/" + host.address;
      hostFile << "    - " << host.name << "\n";
      hosts.push_back( host );
   }
   std::ofstream( directory / "master.yaml" )
         << "threads.max: " << threads
         << "\nconnectiontimeout: 3000\nconfig.load-file: " << ( directory / "hosts.yaml" ).string()
         << "\ndb.type: notifier\nlog.type: registered\nsocket.path: /tmp/netchasm\n";
   return hosts;
}

} // namespace

int main( int argc, char ** argv ) {
   if ( argc < 6 ) {
      std::fprintf( stderr, "usage: %s DIRECTORY THREADS http|tcp|https SERVERS PORT [CA-FILE]\n", argv[0] );
      return 2;
   }
   sigset_t terminate;
   sigemptyset( &terminate );
   sigaddset( &terminate, SIGTERM );
   sigprocmask( SIG_BLOCK, &terminate, nullptr ); // before the engine's threads start, which inherit it

   const std::filesystem::path directory = argv[1];
   const auto hosts = writeFiles( directory, argv[3], static_cast< unsigned >( std::atoi( argv[4] ) ),
         argv[5], argc > 6 ? argv[6] : "", argv[2] );
   const auto observer = std::make_shared< CountingObserver >();
   {
      HMStateManager engine;
      engine.registerLog( std::make_shared< StderrLog >() );
      engine.registerStorageObserver( observer );
      if ( !engine.healthCheck( ( directory / "master.yaml" ).string(), HM_LOG_NOTICE, true ) ) {
         return 1;
      }
      for ( const Host & host : hosts ) {
         HMIPAddress address;
         if ( !address.set( host.address ) || !engine.addStaticDNSAddress( host.name, { address } ) ) {
            std::fprintf( stderr, "%s: no address for it\n", host.name.c_str() );
            return 1;
         }
      }
      int signal = 0;
      sigwait( &terminate, &signal );
   }
   std::printf( "{\"good\": %llu, \"bad\": %llu}\n", static_cast< unsigned long long >( observer->good ),
         static_cast< unsigned long long >( observer->bad ) );
   return 0;
}
