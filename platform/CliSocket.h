#pragma once

#include "platform/Ptr.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace platform {

/// The reader of a command's output has gone away. Thrown by everything that prints, so that the printing
/// code unwinds; whoever runs the command catches it.
class CliInterrupt : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

/// What a socket that commands print to has not taken yet. The descriptor is the caller's, non-blocking, and
/// may be a socket, a pipe or a file; there is one buffer a descriptor, shared by all printers that are
/// opened on it, one after another or over the slices of a request. Main thread only.
///
/// The buffer takes whatever is written: those who print much ask pending() and wait. It lives while somebody
/// holds it and while bytes wait. A process that prints to pipes ignores SIGPIPE.
class CliSocket : public RefCounted {
 public:
   static Ptr<CliSocket> find( unsigned socket ); // made when there is none
   ~CliSocket() override;

   /// Appends, and offers the socket what has gathered from time to time.
   void write( std::string_view text ); // throws CliInterrupt
   /// Offers the socket what waits. False: the reader has gone, and nothing waits any more.
   bool drain();
   /// Drops what waits and uses the descriptor no more. To be called before it is closed: its number may come
   /// again.
   void forget();

   std::size_t pending() const { return buffer_.size() - sent_; } // bytes
   bool gone() const { return !gone_.empty(); }

 private:
   explicit CliSocket( unsigned socket ) : socket_( socket ) {}
   ssize_t offer();
   void end( std::string reason );

   const unsigned socket_;
   std::string buffer_;
   std::size_t sent_ = 0;    // of buffer_
   std::size_t offerAt_ = 0; // pending() at which the socket is asked next
   std::string gone_;        // why the reader is gone; empty: it is there
   Ptr<CliSocket> whileBytesWait_;
};

} // namespace platform
