#include "platform/CliSocket.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>

namespace platform {

namespace {

constexpr std::size_t offerBytes = 16 * 1024;

std::unordered_map<unsigned, CliSocket *> & sockets() {
   static auto * sockets = new std::unordered_map<unsigned, CliSocket *>;
   return *sockets;
}

} // namespace

Ptr<CliSocket> CliSocket::find( unsigned socket ) {
   auto & place = sockets()[socket];
   if ( !place ) {
      place = new CliSocket( socket );
   }
   return place;
}

CliSocket::~CliSocket() {
   forget();
}

void CliSocket::forget() {
   const auto found = sockets().find( socket_ );
   if ( found != sockets().end() && found->second == this ) {
      sockets().erase( found );
   }
   end( "the output was given up" ); // may release this socket: nothing may follow
}

void CliSocket::end( std::string reason ) {
   if ( !gone() ) {
      gone_ = std::move( reason );
   }
   buffer_ = {};
   sent_ = 0;
   whileBytesWait_ = nullptr;
}

void CliSocket::write( std::string_view text ) {
   if ( gone() ) {
      throw CliInterrupt( gone_ );
   }
   buffer_ += text;
   whileBytesWait_ = this;
   // A reader that takes nothing is asked again only when as much again has gathered.
   if ( pending() >= offerAt_ + offerBytes ) {
      const auto self = whileBytesWait_;
      if ( !drain() ) {
         throw CliInterrupt( gone_ );
      }
      offerAt_ = pending();
   }
}

ssize_t CliSocket::offer() {
   const auto fd = static_cast<int>( socket_ );
   const auto size = ::send( fd, buffer_.data() + sent_, pending(), MSG_NOSIGNAL | MSG_DONTWAIT );
   return size < 0 && errno == ENOTSOCK ? ::write( fd, buffer_.data() + sent_, pending() ) : size;
}

bool CliSocket::drain() {
   const Ptr<CliSocket> self( this );
   while ( pending() > 0 ) {
      const auto size = offer();
      if ( size < 0 && errno == EINTR ) {
         continue;
      }
      if ( size < 0 && ( errno == EAGAIN || errno == EWOULDBLOCK ) ) {
         break;
      }
      if ( size < 0 ) {
         end( std::string( "the reader has gone: " ) + std::strerror( errno ) );
         return false;
      }
      sent_ += static_cast<std::size_t>( size );
   }
   offerAt_ = pending();
   if ( pending() == 0 ) {
      buffer_.clear();
      sent_ = 0;
      whileBytesWait_ = nullptr;
   } else if ( sent_ > pending() ) {
      buffer_.erase( 0, sent_ );
      sent_ = 0;
   }
   return !gone();
}

} // namespace platform
