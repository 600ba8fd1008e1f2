#pragma once

#include "platform/CliPrinter.h"

#include <array>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

/// The far end of a command's output: a pair of non-blocking sockets that hold little, so that a reader that
/// does not read is felt soon.
class CliReader {
 public:
   CliReader() {
      if ( ::socketpair( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends_.data() ) != 0 ) {
         throw std::runtime_error( "no pair of sockets" );
      }
      const int bytes = 4096;
      ::setsockopt( ends_[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof( bytes ) );
   }
   ~CliReader() {
      platform::CliSocket::find( socket() )->forget();
      ::close( ends_[0] );
      goAway();
   }
   CliReader( const CliReader & ) = delete;
   CliReader & operator=( const CliReader & ) = delete;

   unsigned socket() const { return static_cast<unsigned>( ends_[0] ); } // what commands print to

   /// What has arrived, at most `atMost` bytes: by default more than the sockets hold. (A larger piece of
   /// memory would be mapped anew each time under a sanitizer, and take longer than all the rest.)
   std::string read( std::size_t atMost = 1 << 16 ) {
      std::string text( atMost, '\0' );
      const auto size = ::recv( ends_[1], text.data(), text.size(), 0 );
      text.resize( size < 0 ? 0 : static_cast<std::size_t>( size ) );
      return text;
   }
   void goAway() {
      if ( ends_[1] >= 0 ) {
         ::close( ends_[1] );
         ends_[1] = -1;
      }
   }

 private:
   std::array<int, 2> ends_{};
};
