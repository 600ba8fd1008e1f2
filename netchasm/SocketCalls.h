#pragma once

#include "netchasm/HMIPAddress.h"
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

namespace netchasm {

/// An address and port in the kernel's form.
struct SocketAddress {
   SocketAddress( const HMIPAddress & address, std::uint16_t port );
   const sockaddr * get() const { return &any; }

   union {
      sockaddr any;
      sockaddr_in v4;
      sockaddr_in6 v6;
   };
   socklen_t length;
};

/// The system calls by which checks reach the network, in one place so that a test can watch them and make
/// them fail. All as the calls beneath: -1 and errno on failure. Called by several workers at once.
class SocketCalls {
 public:
   static constexpr unsigned long reservedDescriptors = 256;

   virtual ~SocketCalls() = default;

   /// A non-blocking TCP socket for checks: closing it resets the connection, and its connections save the
   /// handshake's last ACK. With `forSource` its port is chosen at connect, not at bind. EMFILE already when
   /// what the process may still open falls to `reservedDescriptors` (a quarter of a small limit): the rest
   /// of the process, and the next reload, need some.
   virtual int open( int family, bool forSource );
   virtual int setMark( int fd, std::uint32_t mark );
   virtual int bindSource( int fd, const SocketAddress & source );
   virtual int connect( int fd, const SocketAddress & peer );
   /// Ends the connection with a reset, so that neither side keeps it in TIME_WAIT, and makes the socket
   /// ready to connect again from another port.
   virtual int disconnect( int fd );
   virtual ssize_t send( int fd, const void * bytes, std::size_t size );
   virtual ssize_t receive( int fd, void * bytes, std::size_t size );
   virtual int close( int fd );
};

} // namespace netchasm
