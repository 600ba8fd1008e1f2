#include "host/ChildProgram.h"

#include "platform/Printable.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

namespace host {

using namespace platform;

ChildProgram::ChildProgram( const std::vector<std::string> & arguments, const std::string & input )
      : name_( arguments.front() ) {
   // Files in memory rather than pipes: nobody ever waits for the other side.
   inputFd_ = memfd_create( "input", MFD_CLOEXEC );
   errorFd_ = memfd_create( "errors", MFD_CLOEXEC );
   const auto written = inputFd_ < 0 ? -1 : pwrite( inputFd_, input.data(), input.size(), 0 );
   if ( errorFd_ < 0 || written != static_cast<ssize_t>( input.size() ) ) {
      failure_ = fmt::format( "{}: no memory for its input: {}", name_, std::strerror( errno ) );
      return;
   }
   std::vector<char *> argv;
   for ( const auto & each : arguments ) {
      argv.push_back( const_cast<char *>( each.c_str() ) );
   }
   argv.push_back( nullptr );

   posix_spawn_file_actions_t files;
   posix_spawn_file_actions_init( &files );
   posix_spawn_file_actions_adddup2( &files, inputFd_, STDIN_FILENO );
   posix_spawn_file_actions_addopen( &files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0 );
   posix_spawn_file_actions_adddup2( &files, errorFd_, STDERR_FILENO );
   posix_spawnattr_t attributes;
   posix_spawnattr_init( &attributes );
   // Out of the terminal's group: Ctrl-C is for us, and what we run then still has to end well.
   posix_spawnattr_setflags( &attributes, POSIX_SPAWN_SETPGROUP );
   const int error = posix_spawnp( &pid_, argv[0], &files, &attributes, argv.data(), environ );
   posix_spawnattr_destroy( &attributes );
   posix_spawn_file_actions_destroy( &files );
   if ( error != 0 ) {
      pid_ = -1;
      failure_ = fmt::format( "{}: {}", name_, std::strerror( error ) );
      return;
   }
   // The library's own declaration is for C only.
   endedFd_ = static_cast<int>( syscall( SYS_pidfd_open, pid_, 0 ) );
   if ( endedFd_ < 0 ) {
      failure_ = fmt::format( "{}: cannot be waited for: {}", name_, std::strerror( errno ) );
   }
}

ChildProgram::~ChildProgram() {
   [[maybe_unused]] const auto ignored = finish();
   for ( const int fd : { inputFd_, errorFd_, endedFd_ } ) {
      if ( fd >= 0 ) {
         close( fd );
      }
   }
}

void ChildProgram::wait( Clock::Duration patience ) const {
   pollfd ended{ endedFd_, POLLIN, 0 };
   if ( endedFd_ >= 0 ) {
      poll( &ended, 1,
            static_cast<int>( std::chrono::duration_cast<std::chrono::milliseconds>( patience ).count() ) );
   }
}

std::optional<std::string> ChildProgram::finish() {
   if ( pid_ < 0 ) {
      return failure_;
   }
   int status = 0;
   pid_t ended = waitpid( pid_, &status, WNOHANG );
   const bool inTime = ended != 0;
   if ( !inTime ) {
      kill( pid_, SIGKILL );
      ended = waitpid( pid_, &status, 0 );
   }
   pid_ = -1;
   if ( !failure_ && !inTime ) {
      failure_ = name_ + ": did not end in time";
   } else if ( !failure_ && ended < 0 ) {
      failure_ = fmt::format( "{}: {}", name_, std::strerror( errno ) );
   } else if ( !failure_ && WIFSIGNALED( status ) ) {
      failure_ = fmt::format( "{}: ended by signal {}", name_, WTERMSIG( status ) );
   } else if ( !failure_ && WEXITSTATUS( status ) != 0 ) {
      failure_ = fmt::format( "{}: {} (status {})", name_, firstErrorLine(), WEXITSTATUS( status ) );
   }
   return failure_;
}

std::string ChildProgram::firstErrorLine() const {
   std::array<char, 512> text{};
   const auto size = pread( errorFd_, text.data(), text.size(), 0 );
   const std::string_view all( text.data(), size > 0 ? static_cast<std::size_t>( size ) : 0 );
   const auto line = all.substr( 0, all.find( '\n' ) );
   return line.empty() ? "failed without a word" : printable( line );
}

} // namespace host
