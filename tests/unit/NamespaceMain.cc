// main() of tests that run an agent: netfilter queue 0 can be had once a network namespace, so each test
// program makes one of its own, which goes with it. Who is not root gets a user namespace too.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace {

bool write( const char * path, const std::string & text ) {
   const int fd = open( path, O_WRONLY | O_CLOEXEC );
   const bool done = fd >= 0 && ::write( fd, text.data(), text.size() ) >= 0;
   close( fd );
   return done;
}

bool loopbackUp() {
   const int fd = socket( AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0 );
   ifreq request{};
   std::strcpy( request.ifr_name, "lo" );
   request.ifr_flags = IFF_UP | IFF_RUNNING;
   const bool done = ioctl( fd, SIOCSIFFLAGS, &request ) == 0;
   close( fd );
   return done;
}

bool ownNetwork() {
   if ( unshare( CLONE_NEWNET ) == 0 ) {
      return loopbackUp();
   }
   const auto uid = std::to_string( geteuid() ), gid = std::to_string( getegid() );
   return unshare( CLONE_NEWUSER | CLONE_NEWNET ) == 0 && write( "/proc/self/uid_map", "0 " + uid + " 1" ) &&
          write( "/proc/self/setgroups", "deny" ) && write( "/proc/self/gid_map", "0 " + gid + " 1" ) &&
          loopbackUp();
}

} // namespace

int main( int argc, char ** argv ) {
   if ( !ownNetwork() ) {
      std::fprintf( stderr, "cannot make a network namespace: %s\n", std::strerror( errno ) );
      return 1;
   }
   testing::InitGoogleMock( &argc, argv );
   return RUN_ALL_TESTS();
}
