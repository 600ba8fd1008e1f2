#include "host/Host.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

/// The programs as they are installed: hm-host with a small agent, and hmctl.
namespace {

using ::testing::HasSubstr;
using Json = nlohmann::json;
using namespace std::chrono_literals;

struct Ended {
   int status = -1;
   std::string output{};
   std::string errors{};
};

/// A child process whose standard output and error go to files. Ended with the test at the latest.
class Process {
 public:
   Process( const std::filesystem::path & files, const std::vector<std::string> & arguments,
         const std::string & input = {} )
         : files_( files ) {
      std::ofstream( files_.string() + ".in" ) << input;
      pid_ = fork();
      if ( pid_ == 0 ) {
         redirect( ".in", O_RDONLY, STDIN_FILENO );
         redirect( ".out", O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO );
         redirect( ".err", O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO );
         std::vector<char *> argv;
         for ( const auto & argument : arguments ) {
            argv.push_back( const_cast<char *>( argument.c_str() ) );
         }
         argv.push_back( nullptr );
         execv( argv[0], argv.data() );
         _exit( 127 );
      }
   }
   ~Process() {
      if ( pid_ > 0 ) {
         kill( pid_, SIGKILL );
         waitpid( pid_, nullptr, 0 );
      }
   }
   void signal( int number ) const { kill( pid_, number ); }
   bool running() {
      if ( pid_ > 0 && waitpid( pid_, &status_, WNOHANG ) == pid_ ) {
         pid_ = -1;
      }
      return pid_ > 0;
   }
   Ended wait() {
      const auto deadline = std::chrono::steady_clock::now() + 60s;
      while ( running() && std::chrono::steady_clock::now() < deadline ) {
         std::this_thread::sleep_for( 2ms );
      }
      EXPECT_FALSE( running() ) << "still running after a minute";
      return { WIFEXITED( status_ ) ? WEXITSTATUS( status_ ) : 128 + WTERMSIG( status_ ), text( ".out" ),
            text( ".err" ) };
   }
   std::string text( const char * which ) const {
      std::ifstream file( files_.string() + which );
      return { std::istreambuf_iterator<char>( file ), {} };
   }

 private:
   void redirect( const char * which, int flags, int to ) const {
      dup2( open( ( files_.string() + which ).c_str(), flags, 0600 ), to );
   }
   const std::filesystem::path files_;
   pid_t pid_ = -1;
   int status_ = 0;
};

template<class Reached>
bool waitUntil( const Reached & reached ) {
   const auto deadline = std::chrono::steady_clock::now() + 60s;
   while ( !reached() ) {
      if ( std::chrono::steady_clock::now() > deadline ) {
         return false;
      }
      std::this_thread::sleep_for( 2ms );
   }
   return true;
}

class Programs : public ::testing::Test {
 protected:
   Programs() {
      char name[] = "/tmp/hm-host-test-XXXXXX";
      directory = mkdtemp( name );
      socket = directory + "/run/hm.sock";
   }
   ~Programs() override {
      host = nullptr;
      std::filesystem::remove_all( directory );
   }
   std::string file( const std::string & name, const std::string & text ) const {
      std::ofstream( directory + "/" + name ) << text;
      return directory + "/" + name;
   }
   std::vector<std::string> hostArguments( const std::vector<std::string> & more = {} ) const {
      std::vector<std::string> all{ HM_HOST_PROGRAM, "--agent", HM_TEST_AGENT, "--socket", socket };
      all.insert( all.end(), more.begin(), more.end() );
      return all;
   }
   Ended hostRun( const std::vector<std::string> & arguments ) const {
      return Process( directory + "/other", arguments ).wait();
   }
   void hostStart( const std::vector<std::string> & more = {} ) {
      host = std::make_unique<Process>( directory + "/host", hostArguments( more ) );
      ASSERT_TRUE( waitUntil( [&] {
         return ctl( { "get", "host/status/pid" } ).status == 0 || !host->running();
      } ) );
      ASSERT_TRUE( host->running() ) << host->text( ".err" );
   }
   Ended ctl( const std::vector<std::string> & arguments, const std::string & input = {} ) const {
      std::vector<std::string> all{ HM_CTL_PROGRAM, "-s", socket };
      all.insert( all.end(), arguments.begin(), arguments.end() );
      return Process( directory + "/ctl", all, input ).wait();
   }

   std::string directory, socket;
   std::unique_ptr<Process> host;
};

const std::string oneServer =
      "healthMonitor/config/serverConfig: { nhgConfig: { web: { serverIp: [ 10.1.1.1 ] } } }\n";
const std::string interval = "healthMonitor/config/probeConfig/probeInterval";

TEST_F( Programs, TakeConfigurationAndPublishStatus ) {
   hostStart( { "--config", file( "start.yaml", oneServer ) } );
   const auto status = ctl( { "get", "--json", "healthMonitor/status" } );
   EXPECT_EQ( status.status, 0 );
   EXPECT_EQ( Json::parse( status.output )
                    .front()["nhgProbeStatus"]["web"]["serverProbeStatus"]["10.1.1.1"]["operState"],
         "up" );
   EXPECT_EQ( ctl( { "clean-state" } ).status, 1 );

   EXPECT_EQ( ctl( { "apply", "--check", "-" }, interval + ": 7\n" ).status, 0 );
   EXPECT_EQ( ctl( { "get", interval } ).output, interval + ": 5\n" );
   EXPECT_EQ( ctl( { "apply", "-" }, interval + ": 7\n" ).status, 0 );
   EXPECT_EQ( ctl( { "get", interval } ).output, interval + ": 7\n" );
   EXPECT_EQ( ctl( { "set", "healthMonitor/config/probeConfig", "niceValue", "-5" } ).status, 0 );
   EXPECT_EQ(
         ctl( { "set", "healthMonitor/config/serverConfig/nhgConfig/web", "serverIp", "10.1.1.2" } ).status,
         0 );
   const auto saved = ctl( { "get", "--config" } ).output;
   EXPECT_EQ( ctl( { "del", "healthMonitor/config/serverConfig/nhgConfig", "web" } ).status, 0 );
   const auto clean = ctl( { "clean-state" } );
   EXPECT_EQ( clean.status, 0 );
   EXPECT_EQ( clean.output, "clean\n" );
   EXPECT_EQ( ctl( { "apply", "-" }, saved ).status, 0 );
   EXPECT_EQ( ctl( { "get", "--config" } ).output, saved );

   struct stat found {};
   ASSERT_EQ( stat( socket.c_str(), &found ), 0 );
   EXPECT_EQ( found.st_mode & 0777, 0660u );
   host->signal( SIGTERM );
   EXPECT_EQ( host->wait().status, 0 );
   EXPECT_FALSE( std::filesystem::exists( socket ) );
}

TEST_F( Programs, TellRefusalWrongUsageAndNoHostApart ) {
   EXPECT_EQ( ctl( { "get" } ).status, 3 );
   hostStart();
   const auto bad = file( "bad.yaml", interval + ":\n  - 1\n" );
   const auto refused = ctl( { "apply", bad } );
   EXPECT_EQ( refused.status, 1 );
   EXPECT_EQ( refused.errors,
         bad + ":2: healthMonitor/config/probeConfig: probeInterval: expected seconds, found a sequence\n" );
   EXPECT_THAT( ctl( { "get", "host/status/lastConfigurationError" } ).output, HasSubstr( "bad.yaml:2" ) );
   EXPECT_EQ( ctl( { "apply", directory } ).status, 1 );
   EXPECT_EQ( ctl( { "apply", directory + "/none" } ).status, 1 );
   EXPECT_EQ( ctl( { "apply", "-" }, std::string( 17u << 20, '#' ) ).errors,
         "the document is larger than 16777216 bytes\n" );
   EXPECT_EQ( ctl( { "apply", directory + "/a\x1b\xff" } ).errors,
         directory + "/a?\xef\xbf\xbd: No such file or directory\n" );
   EXPECT_EQ( ctl( { "apply", file( "b\xff", "x: 1\n" ) } ).errors,
         directory + "/b\xef\xbf\xbd:1: no such path: x\n" );
   EXPECT_EQ( ctl( { "set", "host/status", "pid", "1" } ).status, 1 );
   EXPECT_EQ( ctl( { "get", "x" } ).errors, "no such path: x\n" );
   EXPECT_EQ( ctl( { "get", "\xff" } ).status, 2 );
   EXPECT_EQ( ctl( {} ).status, 0 ); // a shell without lines
   EXPECT_EQ( ctl( { "frob" } ).status, 1 );
   EXPECT_EQ( ctl( { "get", "--frob" } ).status, 2 );
   EXPECT_EQ( ctl( { "--help" } ).status, 0 );
}

TEST_F( Programs, WatchUntilTheHostGoes ) {
   hostStart();
   Process watch( directory + "/watch", { HM_CTL_PROGRAM, "-s", socket, "watch", "--initial", interval } );
   ASSERT_TRUE( waitUntil( [&] { return !watch.text( ".out" ).empty(); } ) );
   EXPECT_EQ( ctl( { "set", "healthMonitor/config/probeConfig", "probeInterval", "8" } ).status, 0 );
   ASSERT_TRUE(
         waitUntil( [&] { return watch.text( ".out" ).find( "\"value\":8" ) != std::string::npos; } ) );
   host->signal( SIGINT );
   EXPECT_EQ( host->wait().status, 0 );
   const auto ended = watch.wait();
   EXPECT_EQ( ended.status, 3 );
   std::istringstream lines( ended.output );
   std::string line;
   int count = 0;
   while ( std::getline( lines, line ) ) {
      EXPECT_EQ( Json::parse( line )["attribute"], "probeInterval" );
      ++count;
   }
   EXPECT_EQ( count, 2 );
}

TEST_F( Programs, IgnoreAHangupWhileTheyAreTornDown ) {
   const auto gate = directory + "/gate";
   setenv( "HM_TEST_GATE", gate.c_str(), 1 );
   hostStart( { "--config", file( "start.yaml", oneServer ) } );
   unsetenv( "HM_TEST_GATE" );
   host->signal( SIGTERM );
   ASSERT_TRUE( waitUntil( [&] { return std::filesystem::exists( gate ); } ) );
   host->signal( SIGHUP );
   std::filesystem::remove( gate );
   EXPECT_EQ( host->wait().status, 0 );
}

TEST_F( Programs, TakeTheStartupConfigurationFromAPipeOnce ) {
   const auto pipe = directory + "/pipe";
   ASSERT_EQ( mkfifo( pipe.c_str(), 0600 ), 0 );
   host = std::make_unique<Process>( directory + "/host", hostArguments( { "--config", pipe } ) );
   int fd = -1;
   ASSERT_TRUE( waitUntil( [&] { return ( fd = open( pipe.c_str(), O_WRONLY | O_NONBLOCK ) ) >= 0; } ) );
   // More than the pipe holds, so that it runs empty in between.
   const auto document = interval + ": 7\n" + std::string( 300'000, '#' ) + "\n" + oneServer;
   std::string_view rest = document;
   EXPECT_TRUE( waitUntil( [&] {
      const auto size = write( fd, rest.data(), rest.size() );
      rest.remove_prefix( size > 0 ? static_cast<std::size_t>( size ) : 0 );
      return rest.empty();
   } ) );
   close( fd );
   ASSERT_TRUE( waitUntil( [&] { return ctl( { "get", interval } ).output == interval + ": 7\n"; } ) );
   EXPECT_THAT( ctl( { "get", "healthMonitor/config/serverConfig" } ).output, HasSubstr( "10.1.1.1" ) );
   host->signal( SIGHUP );
   EXPECT_TRUE( waitUntil(
         [&] { return host->text( ".err" ).find( "is no regular file" ) != std::string::npos; } ) );
   EXPECT_EQ( ctl( { "get", interval } ).output, interval + ": 7\n" );

   std::string text;
   EXPECT_EQ(
         host::fileRead( pipe, host::FileKind::any, 1000, text, 1ms ), pipe + ": nothing came for 0.001 s" );
}

TEST_F( Programs, SayWhyTheyCannotStart ) {
   EXPECT_THAT( hostRun( hostArguments( { "--config", file( "bad.yaml", "x: {}\n" ) } ) ).errors,
         HasSubstr( "bad.yaml:1: no such path: x\n" ) );
   EXPECT_THAT( hostRun( hostArguments( { "--config", directory } ) ).errors, HasSubstr( "Is a directory" ) );
   EXPECT_EQ( hostRun( hostArguments( { "--state-db", "sqlite:" } ) ).status, 2 );
   EXPECT_EQ( hostRun( hostArguments( { "--trace", "=" } ) ).status, 2 );
   EXPECT_EQ( hostRun( { HM_HOST_PROGRAM, "--frob" } ).status, 2 );
   EXPECT_THAT( hostRun( { HM_HOST_PROGRAM, "--socket", socket, "--agent", directory + "/none.so" } ).errors,
         HasSubstr( "cannot load the agent library: " ) );
   EXPECT_THAT( hostRun( { HM_HOST_PROGRAM, "--socket", socket, "--agent", HM_PLATFORM_LIBRARY } ).errors,
         HasSubstr( "is no agent library: it does not export hmAgentFactory" ) );
   file( "plain", "" );
   EXPECT_THAT(
         hostRun( { HM_HOST_PROGRAM, "--agent", HM_TEST_AGENT, "--socket", directory + "/plain" } ).errors,
         HasSubstr( "is in the way: it is no socket" ) );
   std::filesystem::create_symlink( "/dev/null", directory + "/link.lock" );
   EXPECT_THAT(
         hostRun( { HM_HOST_PROGRAM, "--agent", HM_TEST_AGENT, "--socket", directory + "/link" } ).errors,
         HasSubstr( "cannot open " + directory + "/link.lock" ) );
   // A socket that somebody listens on, though nobody holds its lock.
   sockaddr_un address{ AF_UNIX, {} };
   const auto taken = directory + "/taken";
   taken.copy( address.sun_path, sizeof address.sun_path - 1 );
   const int listener = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   ASSERT_EQ( bind( listener, reinterpret_cast<const sockaddr *>( &address ), sizeof address ), 0 );
   ASSERT_EQ( listen( listener, 1 ), 0 );
   EXPECT_THAT( hostRun( { HM_HOST_PROGRAM, "--agent", HM_TEST_AGENT, "--socket", taken } ).errors,
         HasSubstr( "another program listens on " + taken ) );
   EXPECT_TRUE( std::filesystem::exists( taken ) );
   close( listener );
}

} // namespace
