#include "hmctl/Interrupts.h"

#include <array>
#include <csignal>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace hmctl {

namespace {

// A descriptor and not a handler: a signal between a question and the wait that follows it is not lost.
int interruptFd = -1;

sigset_t interruptSet() {
   sigset_t set;
   sigemptyset( &set );
   sigaddset( &set, SIGINT );
   return set;
}

} // namespace

Interrupts::Interrupts() {
   const auto set = interruptSet();
   sigprocmask( SIG_BLOCK, &set, nullptr );
   interruptFd = signalfd( -1, &set, SFD_NONBLOCK | SFD_CLOEXEC );
}

Interrupts::~Interrupts() {
   signalfd_siginfo info;
   while ( read( interruptFd, &info, sizeof info ) > 0 ) {}
   close( interruptFd );
   interruptFd = -1;
   const auto set = interruptSet();
   sigprocmask( SIG_UNBLOCK, &set, nullptr );
}

bool waitFor( int fd, short events, std::optional<std::chrono::milliseconds> timeout ) {
   std::array<pollfd, 2> watched{ { { fd, events, 0 }, { interruptFd, POLLIN, 0 } } };
   for ( ;; ) {
      const int count =
            poll( watched.data(), watched.size(), timeout ? static_cast<int>( timeout->count() ) : -1 );
      if ( count == 0 ) {
         return false;
      }
      if ( count > 0 && watched[1].revents ) {
         signalfd_siginfo info;
         [[maybe_unused]] const auto size = read( interruptFd, &info, sizeof info );
         throw Interrupted();
      }
      if ( count > 0 ) {
         return true;
      }
   }
}

} // namespace hmctl
