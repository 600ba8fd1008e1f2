#include "TestServer.h"
#include "netchasm/SocketCalls.h"
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

int listenOn( const std::string & text, std::uint16_t & port, int backlog ) {
   HMIPAddress address;
   const bool parsed = address.set( text );
   netchasm::SocketAddress local{ address, 0 };
   const int fd = ::socket( local.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   if ( !parsed || fd < 0 || ::bind( fd, local.get(), local.length ) != 0 || ::listen( fd, backlog ) != 0 ||
         ::getsockname( fd, &local.any, &local.length ) != 0 )
      throw std::runtime_error( "no listener on " + text );
   port = ntohs( local.v4.sin_port ); // where that of IPv6 stands too
   return fd;
}

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
         ++ended_;
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
