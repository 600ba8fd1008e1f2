// The bare loop with every trick that the kernel and the TLS library offer; the floor to hold the engine to.
//   - A server keeps its descriptor: connect( AF_UNSPEC ) ends the connection with a reset and leaves the
//   socket
//     ready to connect again. That saves socket, epoll_ctl and close, and leaves no TIME_WAIT.
//   - TCP_QUICKACK off before connect: the handshake's last ACK waits for the request and travels with it.
//   For
//     TCP checks the reset takes its place, so the server's program never sees the connection.
//   - Checks due within a tick of a few milliseconds start together, so one wake-up serves many.
//   - TLS sessions are resumed.
#include "Load.h"

#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <vector>

using namespace bench;

namespace {

constexpr std::chrono::milliseconds tick{ 4 };

struct Check {
   enum class Step { idle, connecting, waiting };
   int fd = -1;
   Step step = Step::idle;
   SSL * ssl = nullptr;
   SSL_SESSION * session = nullptr;
};

struct Loop {
   explicit Loop( const Load & l )
         : load( l ),
           checks( l.servers ),
           epoll( epoll_create1( EPOLL_CLOEXEC ) ),
           tls( l.kind == Load::Kind::https ? tlsContext( l ) : nullptr ) {
      if ( tls ) {
         SSL_CTX_set_session_cache_mode( tls, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL );
         SSL_CTX_sess_set_new_cb( tls, []( SSL * ssl, SSL_SESSION * session ) {
            auto & check = *static_cast< Check * >( SSL_get_app_data( ssl ) );
            SSL_SESSION_free( check.session );
            check.session = session;
            return 1;
         } );
      }
      for ( std::uint32_t i = 0; i < l.servers; ++i ) {
         checks[i].fd = socket( AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
         const int on = 1;
         setsockopt( checks[i].fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &on, sizeof on );
         epoll_event event{ .events = EPOLLIN | EPOLLOUT | EPOLLET, .data = { .u32 = i } };
         epoll_ctl( epoll, EPOLL_CTL_ADD, checks[i].fd, &event );
      }
   }

   void start( std::uint32_t i ) {
      Check & check = checks[i];
      if ( check.step != Check::Step::idle ) {
         finish( check, false );
      }
      const sockaddr_in address = serverAddress( i, load.port );
      if ( connect( check.fd, reinterpret_cast< const sockaddr * >( &address ), sizeof address ) < 0 &&
            errno != EINPROGRESS ) {
         return finish( check, false );
      }
      check.step = Check::Step::connecting;
      if ( tls ) {
         check.ssl = SSL_new( tls );
         SSL_set_app_data( check.ssl, &check );
         SSL_set_fd( check.ssl, check.fd );
         SSL_set_connect_state( check.ssl );
         if ( check.session ) {
            SSL_set_session( check.ssl, check.session );
         }
      }
   }

   void onEvent( Check & check, std::uint32_t events ) {
      if ( check.step == Check::Step::idle ) {
         return; // the hang-up that our own disconnect reports
      }
      if ( events & EPOLLERR ) {
         return finish( check, false );
      }
      if ( load.kind == Load::Kind::tcp ) {
         return finish( check, true );
      }
      if ( check.step == Check::Step::connecting ) {
         const int n = tls ? SSL_write( check.ssl, request.data(), request.size() )
                           : static_cast< int >( send( check.fd, request.data(), request.size(), 0 ) );
         if ( n < 0 && !( tls && SSL_get_error( check.ssl, n ) == SSL_ERROR_WANT_READ ) ) {
            return finish( check, false );
         }
         if ( n > 0 ) {
            check.step = Check::Step::waiting;
         }
      }
      if ( check.step == Check::Step::waiting && events & EPOLLIN ) {
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
      if ( check.ssl ) {
         // Told that all is over, the library keeps the session; otherwise it would hold it for broken.
         SSL_set_shutdown( check.ssl, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN );
         SSL_free( check.ssl );
         check.ssl = nullptr;
      }
      const sockaddr none{ .sa_family = AF_UNSPEC, .sa_data = {} };
      connect( check.fd, &none, sizeof none );
      check.step = Check::Step::idle;
      if ( tls && !good ) {
         ERR_clear_error(); // what is left there would be taken for an error of the next connection
      }
      ++( good ? counts.good : counts.bad );
   }

   void run() {
      const auto begin = Clock::now();
      auto nextTick = begin;
      std::array< epoll_event, 256 > events;
      for ( std::int64_t turn = 0; !stopped; ) {
         const auto now = Clock::now();
         if ( nextTick <= now ) {
            for ( ; begin + turn * load.gap() <= now; ++turn ) {
               start( static_cast< std::uint32_t >( turn % load.servers ) );
            }
            nextTick += tick * ( ( now - nextTick ) / tick + 1 );
         }
         const timespec wait{ 0, std::chrono::nanoseconds( nextTick - now ).count() };
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
