#include "hmctl/Tool.h"

#include "hmctl/Client.h"
#include "hmctl/Interrupts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace hmctl {

namespace {

constexpr auto patience = std::chrono::seconds( 30 );
constexpr std::size_t maxOutputBytes = 64u << 20;
constexpr std::size_t maxErrorBytes = 4096;

class Descriptor {
 public:
   explicit Descriptor( int fd ) : fd_( fd ) {
      if ( fd < 0 ) {
         throw Refused( std::string( "no program can be run: " ) + std::strerror( errno ) );
      }
   }
   ~Descriptor() { reset(); }
   Descriptor( const Descriptor & ) = delete;
   Descriptor & operator=( const Descriptor & ) = delete;
   int get() const { return fd_; }
   void reset() {
      if ( fd_ >= 0 ) {
         close( fd_ );
         fd_ = -1;
      }
   }

 private:
   int fd_;
};

// Input and errors go through memory: only one descriptor is left that somebody has to wait for.
int memory( const std::string & content ) {
   const int fd = memfd_create( "hmctl", MFD_CLOEXEC );
   for ( std::size_t written = 0; fd >= 0 && written < content.size(); ) {
      const auto size = write( fd, content.data() + written, content.size() - written );
      if ( size <= 0 ) {
         close( fd );
         return -1;
      }
      written += static_cast<std::size_t>( size );
   }
   if ( fd >= 0 ) {
      lseek( fd, 0, SEEK_SET );
   }
   return fd;
}

// The program's, until it has ended: it goes when somebody has seen enough of it.
class Child {
 public:
   explicit Child( pid_t pid ) : pid_( pid ) {}
   ~Child() {
      if ( pid_ > 0 ) {
         kill( pid_, SIGKILL );
         ended();
      }
   }
   Child( const Child & ) = delete;
   Child & operator=( const Child & ) = delete;
   int ended() {
      int status = -1;
      while ( waitpid( pid_, &status, 0 ) < 0 && errno == EINTR ) {}
      pid_ = -1;
      return WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
   }

 private:
   pid_t pid_;
};

int spawn( pid_t & pid, const std::vector<std::string> & words, int input, int output, int errors ) {
   std::vector<char *> argv;
   for ( const auto & word : words ) {
      argv.push_back( const_cast<char *>( word.c_str() ) );
   }
   argv.push_back( nullptr );
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init( &actions );
   posix_spawn_file_actions_adddup2( &actions, input, STDIN_FILENO );
   posix_spawn_file_actions_adddup2( &actions, output, STDOUT_FILENO );
   posix_spawn_file_actions_adddup2( &actions, errors, STDERR_FILENO );
   posix_spawnattr_t attributes;
   posix_spawnattr_init( &attributes );
   sigset_t none;
   sigemptyset( &none );
   posix_spawnattr_setsigmask( &attributes, &none ); // the shell holds Ctrl-C back for itself
   posix_spawnattr_setflags( &attributes, POSIX_SPAWN_SETSIGMASK );
   int failed = posix_spawnp( &pid, argv[0], &actions, &attributes, argv.data(), environ );
   // The path of somebody who is not root leaves these out.
   for ( const std::string folder : { "/usr/sbin/", "/sbin/" } ) {
      if ( failed == ENOENT ) {
         failed = posix_spawn(
               &pid, ( folder + words[0] ).c_str(), &actions, &attributes, argv.data(), environ );
      }
   }
   posix_spawnattr_destroy( &attributes );
   posix_spawn_file_actions_destroy( &actions );
   return failed;
}

// Reads to the end; what is wrong when there is none, or nothing.
std::string readAll( int fd, std::string & text ) {
   const auto deadline = std::chrono::steady_clock::now() + patience;
   std::array<char, 64 * 1024> buffer;
   for ( ;; ) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now() );
      if ( left.count() <= 0 || !waitFor( fd, POLLIN, left ) ) {
         return "it did not end within " + std::to_string( patience.count() ) + " s";
      }
      const auto size = read( fd, buffer.data(), buffer.size() );
      if ( size == 0 ) {
         return {};
      }
      if ( size < 0 && errno != EINTR ) {
         return std::strerror( errno );
      }
      text.append( buffer.data(), static_cast<std::size_t>( std::max<ssize_t>( size, 0 ) ) );
      if ( text.size() > maxOutputBytes ) {
         return "it printed more than " + std::to_string( maxOutputBytes ) + " bytes";
      }
   }
}

} // namespace

std::optional<ToolResult> toolRun( std::vector<std::string> words, const std::string & input ) {
   Descriptor in( memory( input ) ), errors( memory( {} ) );
   std::array<int, 2> ends{ -1, -1 };
   [[maybe_unused]] const int piped = pipe2( ends.data(), O_CLOEXEC );
   Descriptor out( ends[0] ), outOfChild( ends[1] );
   pid_t pid = -1;
   if ( const int failed = spawn( pid, words, in.get(), outOfChild.get(), errors.get() ) ) {
      if ( failed == ENOENT ) {
         return std::nullopt;
      }
      return ToolResult{ -1, {}, std::strerror( failed ) };
   }
   outOfChild.reset();
   Child child( pid );
   ToolResult result;
   if ( auto wrong = readAll( out.get(), result.output ); !wrong.empty() ) {
      result.status = -1;
      result.errors = std::move( wrong );
      return result;
   }
   result.status = child.ended();
   std::string said( maxErrorBytes, '\0' );
   const auto size = pread( errors.get(), said.data(), said.size(), 0 );
   said.resize( static_cast<std::size_t>( std::max<ssize_t>( size, 0 ) ) );
   result.errors = said.empty() && result.status != 0 ? "it failed" : said;
   return result;
}

} // namespace hmctl
