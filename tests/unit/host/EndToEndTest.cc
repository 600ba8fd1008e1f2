#include "host/Host.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>

/// The programs as they are installed: hm-host with a small agent, and hmctl.
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;
using Arguments = std::vector<std::string>;

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

struct Ended {
   int status;
   std::string output, errors;
};

/// A child process whose standard output and error go to files. Ended with the test at the latest.
class Process {
 public:
   Process( std::string files, const Arguments & arguments, const std::string & input = {} )
         : files_( std::move( files ) ) {
      std::ofstream( files_ + ".in" ) << input;
      std::vector<char *> argv;
      for ( const auto & argument : arguments ) {
         argv.push_back( const_cast<char *>( argument.c_str() ) );
      }
      argv.push_back( nullptr );
      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init( &actions );
      const int writing = O_WRONLY | O_CREAT | O_TRUNC;
      posix_spawn_file_actions_addopen( &actions, STDIN_FILENO, ( files_ + ".in" ).c_str(), O_RDONLY, 0 );
      posix_spawn_file_actions_addopen( &actions, STDOUT_FILENO, ( files_ + ".out" ).c_str(), writing, 0600 );
      posix_spawn_file_actions_addopen( &actions, STDERR_FILENO, ( files_ + ".err" ).c_str(), writing, 0600 );
      EXPECT_EQ( posix_spawn( &pid_, argv[0], &actions, nullptr, argv.data(), environ ), 0 );
      posix_spawn_file_actions_destroy( &actions );
   }
   ~Process() {
      if ( running() ) {
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
      EXPECT_TRUE( waitUntil( [this] { return !running(); } ) ) << "still running after a minute";
      return { WIFEXITED( status_ ) ? WEXITSTATUS( status_ ) : 128 + WTERMSIG( status_ ), text( ".out" ),
            text( ".err" ) };
   }
   std::string text( const char * which ) const {
      std::ifstream file( files_ + which );
      return { std::istreambuf_iterator<char>( file ), {} };
   }
   bool hasWritten( const char * which, const std::string & what ) const {
      return waitUntil( [&] { return text( which ).find( what ) != std::string::npos; } );
   }

 private:
   const std::string files_;
   pid_t pid_ = -1;
   int status_ = 0;
};

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
   std::unique_ptr<Process> program( const std::string & name, Arguments arguments, const Arguments & more,
         const std::string & input = {} ) const {
      arguments.insert( arguments.end(), more.begin(), more.end() );
      return std::make_unique<Process>( directory + "/" + name, arguments, input );
   }
   void hostStart( const Arguments & more = {} ) {
      host = program( "host", { HM_HOST_PROGRAM, "--agent", HM_TEST_AGENT, "--socket", socket }, more );
   }
   void hostStarted( const Arguments & more = {} ) {
      hostStart( more );
      ASSERT_TRUE( waitUntil( [&] {
         return ctl( { "get", "host/status/pid" } ).status == 0 || !host->running();
      } ) );
      ASSERT_TRUE( host->running() ) << host->text( ".err" );
   }
   Ended ctl( const Arguments & arguments, const std::string & input = {} ) const {
      return program( "ctl", { HM_CTL_PROGRAM, "-s", socket }, arguments, input )->wait();
   }

   std::string directory, socket;
   std::unique_ptr<Process> host;
};

const std::string groups = "healthMonitor/config/serverConfig/nhgConfig";
const std::string oneServer = groups + ": { web: { serverIp: [ 10.1.1.1 ] } }\n";
const std::string settings = "healthMonitor/config/probeConfig", interval = settings + "/probeInterval";

TEST_F( Programs, TakeConfigurationAndGiveItBack ) {
   hostStarted( { "--config", file( "start.yaml", oneServer ) } );
   EXPECT_EQ( ctl( { "clean-state" } ).status, 1 );
   EXPECT_EQ( ctl( { "apply", "--check", "-" }, interval + ": 7\n" ).status, 0 );
   EXPECT_EQ( ctl( { "get", interval } ).output, interval + ": 5\n" );
   EXPECT_EQ( ctl( { "set", settings, "niceValue", "-5" } ).status, 0 );
   EXPECT_EQ( ctl( { "set", groups + "/web", "serverIp", "10.1.1.2" } ).status, 0 );
   const auto saved = ctl( { "get", "--config" } ).output;
   EXPECT_EQ( ctl( { "del", groups, "web" } ).status, 0 );
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
   hostStarted();
   const auto bad = file( "bad.yaml", interval + ":\n  - 1\n" );
   const struct {
      Arguments arguments;
      int status;
      std::string errors; // empty: whatever is said
   } rows[] = {
         { { "apply", bad }, 1,
               bad + ":2: " + settings + ": probeInterval: expected seconds, found a sequence\n" },
         { { "apply", directory + "/a\x1b\xff" }, 1,
               directory + "/a?\xef\xbf\xbd: No such file or directory\n" },
         { { "apply", file( "b\xff", "x: 1\n" ) }, 1, directory + "/b\xef\xbf\xbd:1: no such path: x\n" },
         { { "get", "x" }, 1, "no such path: x\n" },
         { { "get", "\xff" }, 2, "" },
         { {}, 0, "" }, // a shell without lines
         { { "frob" }, 1, "" },
         { { "get", "--frob" }, 2, "" },
         { { "--help" }, 0, "" },
   };
   for ( const auto & row : rows ) {
      const auto ended = ctl( row.arguments );
      EXPECT_EQ( ended.status, row.status ) << ended.errors;
      EXPECT_TRUE( row.errors.empty() || ended.errors == row.errors ) << ended.errors;
   }
   EXPECT_THAT( ctl( { "get", "host/status/lastConfigurationError" } ).output,
         HasSubstr( ":1: no such path: x" ) ); // of the last change, not of what was asked since
   EXPECT_EQ( ctl( { "apply", "-" }, std::string( 17u << 20, '#' ) ).errors,
         "the document is larger than 16777216 bytes\n" );
}

TEST_F( Programs, WatchUntilTheHostGoes ) {
   hostStarted();
   const auto watch =
         program( "watch", { HM_CTL_PROGRAM, "-s", socket }, { "watch", "--initial", interval } );
   ASSERT_TRUE( watch->hasWritten( ".out", "\"value\":5" ) );
   EXPECT_EQ( ctl( { "set", settings, "niceValue", "8" } ).status, 0 ); // of which nothing is told
   EXPECT_EQ( ctl( { "set", settings, "probeInterval", "8" } ).status, 0 );
   ASSERT_TRUE( watch->hasWritten( ".out", "\"value\":8" ) );
   host->signal( SIGINT );
   EXPECT_EQ( host->wait().status, 0 );
   const auto ended = watch->wait();
   EXPECT_EQ( ended.status, 3 );
   EXPECT_EQ( std::ranges::count( ended.output, '\n' ), 2 );
}

TEST_F( Programs, IgnoreAHangupWhileTheyAreTornDown ) {
   const auto gate = directory + "/gate";
   setenv( "HM_TEST_GATE", gate.c_str(), 1 );
   hostStarted( { "--config", file( "start.yaml", oneServer ) } );
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
   hostStart( { "--config", pipe } );
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
   EXPECT_THAT( ctl( { "get", groups } ).output, HasSubstr( "10.1.1.1" ) );
   host->signal( SIGHUP );
   EXPECT_TRUE( host->hasWritten( ".err", "is no regular file" ) );
   EXPECT_EQ( ctl( { "get", interval } ).output, interval + ": 7\n" );

   std::string text;
   EXPECT_EQ(
         host::fileRead( pipe, host::FileKind::any, 1000, text, 1ms ), pipe + ": nothing came for 0.001 s" );
}

TEST_F( Programs, SayWhyTheyCannotStart ) {
   file( "plain", "" );
   std::filesystem::create_symlink( "/dev/null", directory + "/link.lock" );
   // A socket that somebody listens on, though nobody holds its lock.
   sockaddr_un address{ AF_UNIX, {} };
   const auto taken = directory + "/taken";
   taken.copy( address.sun_path, sizeof address.sun_path - 1 );
   const int listener = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   ASSERT_EQ( bind( listener, reinterpret_cast<const sockaddr *>( &address ), sizeof address ), 0 );
   ASSERT_EQ( listen( listener, 1 ), 0 );
   const struct {
      std::string agent, socket;
      Arguments more;
      int status;
      std::string errors;
   } rows[] = {
         { HM_TEST_AGENT, socket, { "--config", file( "bad.yaml", "x: {}\n" ) }, 1,
               "bad.yaml:1: no such path: x\n" },
         { HM_TEST_AGENT, socket, { "--config", directory }, 1, "Is a directory" },
         { HM_TEST_AGENT, socket, { "--state-db", "sqlite:" }, 2, "" },
         { HM_TEST_AGENT, socket, { "--trace", "=" }, 2, "" },
         { HM_TEST_AGENT, socket, { "--frob" }, 2, "" },
         { directory + "/none.so", socket, {}, 1, "cannot load the agent library: " },
         { HM_PLATFORM_LIBRARY, socket, {}, 1, "is no agent library: it does not export hmAgentFactory" },
         { HM_TEST_AGENT, directory + "/plain", {}, 1, "is in the way: it is no socket" },
         { HM_TEST_AGENT, directory + "/link", {}, 1, "cannot open " + directory + "/link.lock" },
         { HM_TEST_AGENT, taken, {}, 1, "another program listens on " + taken },
   };
   for ( const auto & row : rows ) {
      const Arguments arguments{ HM_HOST_PROGRAM, "--agent", row.agent, "--socket", row.socket };
      const auto ended = program( "other", arguments, row.more )->wait();
      EXPECT_EQ( ended.status, row.status ) << ended.errors;
      EXPECT_THAT( ended.errors, HasSubstr( row.errors ) );
   }
   EXPECT_TRUE( std::filesystem::exists( taken ) );
   close( listener );
}

} // namespace
