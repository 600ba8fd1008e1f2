// The plain way to check a server, and nothing else: socket, connect, send, receive, close, one epoll loop.
// No timeouts, no results, no configuration: what is left is close to what the kernel and the TLS library
// ask.
#include "Load.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace bench;

namespace {

struct Check {
   int fd = -1;
   bool sent = false;
   SSL * ssl = nullptr;
};

struct Loop {
   explicit Loop( const Load & l )
         : load( l ),
           checks( l.servers ),
           epoll( epoll_create1( EPOLL_CLOEXEC ) ),
           tls( l.kind == Load::Kind::https ? tlsContext( l ) : nullptr ) {}

   void start( std::uint32_t i ) {
      Check & check = checks[i];
      if ( check.fd >= 0 ) { // the last one is a whole interval late
         finish( check, false );
      }
      check.fd = socket( AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
      const sockaddr_in address = serverAddress( i, load.port );
      if ( connect( check.fd, reinterpret_cast< const sockaddr * >( &address ), sizeof address ) < 0 &&
            errno != EINPROGRESS ) {
         return finish( check, false );
      }
      epoll_event event{ .events = EPOLLIN | EPOLLOUT | EPOLLET, .data = { .u32 = i } };
      epoll_ctl( epoll, EPOLL_CTL_ADD, check.fd, &event );
      if ( tls ) {
         check.ssl = SSL_new( tls );
         SSL_set_fd( check.ssl, check.fd );
         SSL_set_connect_state( check.ssl );
      }
   }

   void onEvent( Check & check, std::uint32_t events ) {
      if ( check.fd < 0 ) {
         return;
      }
      if ( events & EPOLLERR ) {
         return finish( check, false );
      }
      if ( load.kind == Load::Kind::tcp ) {
         return finish( check, true );
      }
      if ( !check.sent ) {
         const int n = tls ? SSL_write( check.ssl, request.data(), request.size() )
                           : static_cast< int >( send( check.fd, request.data(), request.size(), 0 ) );
         if ( n < 0 && !( tls && SSL_get_error( check.ssl, n ) == SSL_ERROR_WANT_READ ) ) {
            return finish( check, false );
         }
         check.sent = n > 0;
      }
      if ( check.sent && events & EPOLLIN ) {
         std::array< char, 16384 > buffer;
         const auto n = tls ? SSL_read( check.ssl, buffer.data(), buffer.size() )
                            : recv( check.fd, buffer.data(), buffer.size(), 0 );
         if ( n > 0 ) {
            finish( check, replyIsGood( { buffer.data(), static_cast< std::size_t >( n ) } ) );
         } else if ( !( tls &&
                           SSL_get_error( check.ssl, static_cast< int >( n ) ) == SSL_ERROR_WANT_READ ) ) {
            finish( check, false );
         }
      }
   }

   void finish( Check & check, bool good ) {
      SSL_free( check.ssl );
      close( check.fd );
      check = {};
      if ( tls && !good ) {
         ERR_clear_error(); // what is left there would be taken for an error of the next connection
      }
      ++( good ? counts.good : counts.bad );
   }

   void run() {
      const auto begin = Clock::now();
      std::array< epoll_event, 256 > events;
      for ( std::int64_t turn = 0; !stopped; ) {
         const auto now = Clock::now();
         for ( ; begin + turn * load.gap() <= now; ++turn ) {
            start( static_cast< std::uint32_t >( turn % load.servers ) );
         }
         const timespec wait{ 0, ( begin + turn * load.gap() - now ).count() };
         const int n = epoll_pwait2( epoll, events.data(), events.size(), &wait, nullptr );
         for ( int e = 0; e < n; ++e ) {
            onEvent( checks[events[e].data.u32], events[e].events );
         }
      }
   }

   const Load & load;
   std::vector< Check > checks;
   int epoll;
   SSL_CTX * tls;
   Counts counts;
};

} // namespace

int main( int argc, char ** argv ) {
   const Load load = loadFromArguments( argc, argv );
   stopOnSigterm();
   Loop loop( load );
   loop.run();
   return loop.counts.printed();
}
