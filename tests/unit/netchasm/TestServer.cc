#include "TestServer.h"
#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int listenOn( const std::string & address, std::uint16_t & port, int backlog ) {
   sockaddr_storage any{};
   socklen_t size = sizeof( sockaddr_in );
   auto & v4 = reinterpret_cast< sockaddr_in & >( any );
   auto & v6 = reinterpret_cast< sockaddr_in6 & >( any );
   if ( ::inet_pton( AF_INET, address.c_str(), &v4.sin_addr ) == 1 ) {
      any.ss_family = AF_INET;
   } else {
      ::inet_pton( AF_INET6, address.c_str(), &v6.sin6_addr );
      any.ss_family = AF_INET6;
      size = sizeof( sockaddr_in6 );
   }
   const int fd = ::socket( any.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   if ( fd < 0 || ::bind( fd, reinterpret_cast< sockaddr * >( &any ), size ) != 0 ||
         ::listen( fd, backlog ) != 0 ||
         ::getsockname( fd, reinterpret_cast< sockaddr * >( &any ), &size ) != 0 )
      throw std::runtime_error( "no listener on " + address );
   port = ntohs( any.ss_family == AF_INET ? v4.sin_port : v6.sin6_port );
   return fd;
}

} // namespace

TestServer::TestServer( Handler handler, const std::string & address )
      : handler_{ std::move( handler ) },
        listener_{ listenOn( address, port_, 128 ) } {
   acceptor_ = std::thread{ [this] { accept(); } };
}

TestServer::~TestServer() {
   stop_ = true;
   ::shutdown( listener_, SHUT_RDWR );
   acceptor_.join();
   {
      const std::lock_guard lock{ mutex_ };
      for ( const int fd : open_ )
         ::shutdown( fd, SHUT_RDWR );
   }
   for ( std::thread & thread : threads_ )
      thread.join();
   ::close( listener_ );
}

void TestServer::accept() {
   while ( !stop_ ) {
      const int fd = ::accept4( listener_, nullptr, nullptr, SOCK_CLOEXEC );
      if ( fd < 0 )
         continue;
      ++connections_;
      const std::lock_guard lock{ mutex_ };
      open_.push_back( fd );
      threads_.emplace_back( [this, fd] {
         handler_( fd );
         const std::lock_guard closing{ mutex_ };
         open_.remove( fd );
         ::close( fd );
      } );
   }
}

std::uint16_t unusedPort() {
   std::uint16_t port = 0;
   ::close( listenOn( "127.0.0.1", port, 1 ) );
   return port;
}

int silentListener( std::uint16_t & port, int backlog ) {
   return listenOn( "127.0.0.1", port, backlog );
}

std::string readRequest( int fd ) {
   std::string request;
   char bytes[4096];
   while ( request.find( "\r\n\r\n" ) == std::string::npos ) {
      const ssize_t n = ::recv( fd, bytes, sizeof( bytes ), 0 );
      if ( n <= 0 )
         return {};
      request.append( bytes, static_cast< std::size_t >( n ) );
   }
   return request;
}

bool writeAll( int fd, std::string_view bytes ) {
   while ( !bytes.empty() ) {
      const ssize_t n = ::send( fd, bytes.data(), bytes.size(), MSG_NOSIGNAL );
      if ( n <= 0 )
         return false;
      bytes.remove_prefix( static_cast< std::size_t >( n ) );
   }
   return true;
}

void waitForEnd( int fd ) {
   char bytes[4096];
   while ( ::recv( fd, bytes, sizeof( bytes ), 0 ) > 0 ) {}
}

bool endsWithin( int fd, int ms ) {
   pollfd wait{ fd, POLLRDHUP, 0 };
   return ::poll( &wait, 1, ms ) > 0;
}

void resetOnClose( int fd ) {
   const linger reset{ 1, 0 };
   ::setsockopt( fd, SOL_SOCKET, SO_LINGER, &reset, sizeof( reset ) );
}

TestServer::Handler answering( std::string bytes ) {
   return [bytes = std::move( bytes )]( int fd ) {
      if ( !readRequest( fd ).empty() )
         writeAll( fd, bytes );
   };
}

std::string okReply( std::string_view body ) {
   return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string( body.size() ) + "\r\n\r\n" +
          std::string{ body };
}
