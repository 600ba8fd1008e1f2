#include "netchasm/SocketCalls.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <unistd.h>

namespace netchasm {

SocketAddress::SocketAddress( const HMIPAddress & address, std::uint16_t port )
      : v6{},
        length{ sizeof( v6 ) } {
   if ( address.family() == HMIPAddress::Family::ipv4 ) {
      v4.sin_family = AF_INET;
      v4.sin_port = htons( port );
      std::memcpy( &v4.sin_addr, address.bytes().data(), sizeof( v4.sin_addr ) );
      length = sizeof( v4 );
   } else {
      v6.sin6_family = AF_INET6;
      v6.sin6_port = htons( port );
      std::memcpy( &v6.sin6_addr, address.bytes().data(), sizeof( v6.sin6_addr ) );
   }
}

int SocketCalls::open( int family, bool forSource ) {
   const int fd = ::socket( family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP );
   if ( fd < 0 )
      return fd;
   rlimit limit{};
   if ( ::getrlimit( RLIMIT_NOFILE, &limit ) == 0 &&
         static_cast< rlim_t >( fd ) >=
               limit.rlim_cur - std::min< rlim_t >( limit.rlim_cur / 4, reservedDescriptors ) ) {
      ::close( fd );
      errno = EMFILE;
      return -1;
   }
   const int on = 1;
   const linger reset{ 1, 0 };
   ::setsockopt( fd, SOL_SOCKET, SO_LINGER, &reset, sizeof( reset ) );
   ::setsockopt( fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof( on ) );
   // On the connecting side this option says that data will follow the handshake at once, so the kernel lets
   // the last ACK travel with it. Unlike TCP_QUICKACK it outlives the connection, which saves a call a check.
   ::setsockopt( fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &on, sizeof( on ) );
   if ( forSource )
      ::setsockopt( fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof( on ) );
   return fd;
}

int SocketCalls::setMark( int fd, std::uint32_t mark ) {
   return ::setsockopt( fd, SOL_SOCKET, SO_MARK, &mark, sizeof( mark ) );
}

int SocketCalls::bindSource( int fd, const SocketAddress & source ) {
   return ::bind( fd, source.get(), source.length );
}

int SocketCalls::connect( int fd, const SocketAddress & peer ) {
   return ::connect( fd, peer.get(), peer.length );
}

int SocketCalls::disconnect( int fd ) {
   sockaddr none{};
   none.sa_family = AF_UNSPEC;
   return ::connect( fd, &none, sizeof( none ) );
}

ssize_t SocketCalls::send( int fd, const void * bytes, std::size_t size ) {
   return ::send( fd, bytes, size, MSG_NOSIGNAL );
}

ssize_t SocketCalls::receive( int fd, void * bytes, std::size_t size ) {
   return ::recv( fd, bytes, size, 0 );
}

int SocketCalls::close( int fd ) {
   return ::close( fd );
}

} // namespace netchasm
