#include "host/ControlClient.h"

#include "host/ControlProtocol.h"
#include "platform/Assert.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <event2/event.h>

namespace host {

using namespace platform;

ControlClient::ControlClient( ControlServer & server, int fd )
      : server_( &server ),
        fd_( fd ),
        activeAt_( server.now() ) {
   auto * base = server.services().mainLoop->base();
   readEvent_ = event_new(
         base, fd, EV_READ | EV_PERSIST,
         []( evutil_socket_t, short, void * client ) {
            const Ptr<ControlClient> self( static_cast<ControlClient *>( client ) );
            self->server_->services().mainLoop->dispatch( [&] { self->readable(); } );
         },
         this );
   writeEvent_ = event_new(
         base, fd, EV_WRITE | EV_PERSIST,
         []( evutil_socket_t, short, void * client ) {
            const Ptr<ControlClient> self( static_cast<ControlClient *>( client ) );
            self->server_->services().mainLoop->dispatch( [&] { self->writable(); } );
         },
         this );
   HM_ASSERT( readEvent_ && writeEvent_, "failed to watch a control client" );
}

ControlClient::~ControlClient() {
   close();
}

void ControlClient::start() {
   eventsUpdate();
}

void ControlClient::close() {
   if ( closed() ) {
      return;
   }
   answer_ = nullptr;
   documentRequest_.reset();
   documentShare_ = nullptr;
   event_free( readEvent_ );
   event_free( writeEvent_ );
   ::close( fd_ );
   fd_ = -1;
   server_->clientDel( *this ); // may release this client: nothing may follow
}

bool ControlClient::peerGone() const {
   pollfd ends{ fd_, 0, 0 };
   return poll( &ends, 1, 0 ) == 1 && ( ends.revents & POLLHUP ) != 0;
}

void ControlClient::wake() {
   if ( !closed() ) {
      server_->turnIs( this );
   }
}

bool ControlClient::hasWork() const {
   if ( closed() || closing_ || outputFull() ) {
      return false;
   }
   if ( answer_ ) {
      return answer_->ready() || ( inputEnded_ && answer_->endless() );
   }
   if ( documentRequest_ ) {
      return !in_.empty() || documentMissing_ == 0 || inputEnded_;
   }
   return lineWaits() || inputEnded_ || in_.size() >= control::maxRequestBytes;
}

bool ControlClient::requestUnderWay() const {
   return answer_ || documentRequest_ || lineWaits() || out_.size() > outSent_;
}

void ControlClient::turn() {
   if ( answer_ ) {
      if ( ( inputEnded_ && answer_->endless() ) || !answer_->produce( out_ ) ) {
         answer_ = nullptr;
      }
   } else if ( documentRequest_ ) {
      documentGrow();
   } else if ( lineWaits() ) {
      requestBegin();
   } else if ( in_.size() >= control::maxRequestBytes ) {
      refuseAndClose( "the request is longer than " + std::to_string( control::maxRequestBytes ) + " bytes" );
   } else if ( !in_.empty() ) {
      refuseAndClose( "the request is not complete" );
   } else {
      closing_ = true; // the client has ended, and everything was answered
   }
   if ( closing_ && out_.size() == outSent_ ) {
      close();
   } else if ( !closed() ) {
      eventsUpdate();
   }
}

void ControlClient::requestBegin() {
   const auto end = in_.find( '\n' );
   auto request = controlRequest( *this, std::string_view( in_ ).substr( 0, end ) );
   in_.erase( 0, end + 1 );
   answer_ = std::move( request.answer );
   if ( request.change ) {
      documentRequest_ = std::move( request.change );
      documentMissing_ = request.documentBytes;
      const auto pending = server_->pendingDocumentBytes_;
      const auto reserved = std::make_shared<std::size_t>( 0 );
      documentReserved_ = reserved;
      documentShare_ =
            std::shared_ptr<void>( reserved.get(), [pending, reserved]( void * ) { *pending -= *reserved; } );
   }
   if ( request.fatal ) {
      in_.clear();
      while ( answer_ && answer_->produce( out_ ) ) {}
      answer_ = nullptr;
      closing_ = true;
   }
}

void ControlClient::documentGrow() {
   const auto size = std::min( in_.size(), documentMissing_ );
   if ( !server_->documentRoomMake( *this, size ) ) {
      refuseAndClose( "too many documents are waiting" );
      return;
   }
   documentRequest_->text.append( in_, 0, size );
   *documentReserved_ += size;
   *server_->pendingDocumentBytes_ += size;
   in_.erase( 0, size );
   documentMissing_ -= size;
   if ( documentMissing_ == 0 ) {
      auto request = std::move( *documentRequest_ );
      documentRequest_.reset();
      answer_ = changeAnswer( *this, std::move( request ), std::move( documentShare_ ) );
      documentShare_ = nullptr;
      documentReserved_ = nullptr;
   } else if ( inputEnded_ ) {
      refuseAndClose( "the document is not complete" );
   }
}

void ControlClient::refuseAndClose( const std::string & text ) {
   in_.clear();
   answer_ = nullptr;
   documentRequest_.reset();
   documentShare_ = nullptr;
   documentReserved_ = nullptr;
   out_ += refusedLine( { text } );
   closing_ = true;
   eventsUpdate();
}

void ControlClient::eventsUpdate() {
   const bool read = !inputEnded_ && !closing_ && in_.size() < control::maxRequestBytes;
   const bool write = out_.size() > outSent_;
   if ( read != reading_ ) {
      reading_ = read;
      read ? event_add( readEvent_, nullptr ) : event_del( readEvent_ );
   }
   if ( write != writing_ ) {
      writing_ = write;
      write ? event_add( writeEvent_, nullptr ) : event_del( writeEvent_ );
   }
}

void ControlClient::readable() {
   std::array<char, control::maxRequestBytes> buffer;
   const auto size = recv( fd_, buffer.data(), buffer.size() - std::min( in_.size(), buffer.size() - 1 ), 0 );
   if ( size < 0 ) {
      if ( errno != EAGAIN && errno != EINTR ) {
         close();
      }
      return;
   }
   activeAt_ = server_->now();
   if ( size == 0 ) {
      inputEnded_ = true;
   } else {
      // A watch has no next request. What comes is dropped, so that reading, which notices the close, goes
      // on.
      if ( !( answer_ && answer_->endless() ) ) {
         in_.append( buffer.data(), static_cast<std::size_t>( size ) );
      }
   }
   eventsUpdate();
   server_->turnIs( this );
}

void ControlClient::writable() {
   const auto size = send( fd_, out_.data() + outSent_, out_.size() - outSent_, MSG_NOSIGNAL );
   if ( size < 0 ) {
      if ( errno != EAGAIN && errno != EINTR ) {
         close();
      }
      return;
   }
   activeAt_ = server_->now();
   outSent_ += static_cast<std::size_t>( size );
   if ( outSent_ >= outputHighWater ) {
      // Seldom, for it moves what is left; but a client that never takes all of it must not make it grow.
      out_.erase( 0, outSent_ );
      outSent_ = 0;
   }
   if ( outSent_ == out_.size() ) {
      out_.clear();
      outSent_ = 0;
      if ( closing_ ) {
         close();
         return;
      }
   }
   eventsUpdate();
   server_->turnIs( this );
}

} // namespace host
