// What every prober of the bench is given, so that all of them do the same work: N servers on distinct
// loopback addresses, each checked once an interval, spread evenly over it.
#pragma once

#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <string>
#include <string_view>

namespace bench {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t serversPerGroup = 128;

/// Address of server `i` in network byte order: group 0 is 127.1.0.1 to 127.1.0.128, group 1 starts at
/// 127.1.1.1. The driver script (lib/load.py) counts the same way.
inline sockaddr_in serverAddress( std::uint32_t i, std::uint16_t port ) {
   sockaddr_in address{};
   address.sin_family = AF_INET;
   address.sin_port = htons( port );
   address.sin_addr.s_addr = htonl( 0x7f010001u + ( i / serversPerGroup << 8 ) + i % serversPerGroup );
   return address;
}

constexpr std::string_view request = "GET / HTTP/1.1\r\nHost: 127.1.0.1\r\nUser-Agent: bench\r\n\r\n";

/// True when `reply` holds a whole 200 response with the body that the bench's server sends. Both loops read
/// the reply in one piece, which its size on loopback allows.
inline bool replyIsGood( std::string_view reply ) {
   return reply.starts_with( "HTTP/1.1 200 " ) && reply.ends_with( "\r\n\r\nok\n" );
}

struct Load {
   enum class Kind { http, tcp, https };
   Kind kind = Kind::http;
   std::uint32_t servers = 0;
   std::uint16_t port = 0;
   std::string caFile; // https only

   std::chrono::nanoseconds gap() const {
      return std::chrono::nanoseconds( std::chrono::seconds( 1 ) ) / servers;
   }
};

/// PROGRAM http|tcp|https SERVERS PORT [CA-FILE]; ends the process with status 2 on anything else.
inline Load loadFromArguments( int argc, char ** argv ) {
   Load load;
   const std::string_view kind = argc > 3 ? argv[1] : "";
   if ( kind == "tcp" ) {
      load.kind = Load::Kind::tcp;
   } else if ( kind == "https" && argc > 4 ) {
      load.kind = Load::Kind::https;
      load.caFile = argv[4];
   } else if ( kind != "http" ) {
      std::fprintf( stderr, "usage: %s http|tcp|https SERVERS PORT [CA-FILE]\n", argv[0] );
      std::exit( 2 );
   }
   load.servers = static_cast< std::uint32_t >( std::atoi( argv[2] ) );
   load.port = static_cast< std::uint16_t >( std::atoi( argv[3] ) );
   if ( load.servers == 0 || load.port == 0 ) {
      std::fprintf( stderr, "%s: the number of servers and the port must be numbers above 0\n", argv[0] );
      std::exit( 2 );
   }
   return load;
}

inline SSL_CTX * tlsContext( const Load & load ) {
   SSL_CTX * context = SSL_CTX_new( TLS_client_method() );
   SSL_CTX_set_verify( context, SSL_VERIFY_PEER, nullptr );
   if ( SSL_CTX_load_verify_file( context, load.caFile.c_str() ) != 1 ) {
      std::fprintf( stderr, "%s: not a file of CA certificates\n", load.caFile.c_str() );
      std::exit( 2 );
   }
   return context;
}

/// Set by SIGTERM; the loops then print their counts and end.
inline volatile std::sig_atomic_t stopped = 0;

inline void stopOnSigterm() {
   struct sigaction action {};
   action.sa_handler = []( int ) { stopped = 1; };
   sigaction( SIGTERM, &action, nullptr );
   std::signal( SIGPIPE, SIG_IGN );
}

struct Counts {
   std::uint64_t good = 0;
   std::uint64_t bad = 0;
   int printed() const {
      std::printf( "{\"good\": %llu, \"bad\": %llu}\n", static_cast< unsigned long long >( good ),
            static_cast< unsigned long long >( bad ) );
      return 0;
   }
};

} // namespace bench
