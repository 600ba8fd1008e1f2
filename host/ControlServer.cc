#include "host/ControlServer.h"

#include "host/ControlClient.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace host {

using namespace platform;

ControlServer::ControlServer( ControlServices services, int listenFd )
      : services_( std::move( services ) ),
        listenFd_( listenFd ),
        acceptRetry_( new LoopTimer( services_.mainLoop, [this] { listen(); } ) ),
        turnTask_( new Task( services_.scheduler, TaskPriority{}, "control-turns" ) ) {
   turnTask_->runHandlerIs( [this] { turns(); } );
   listen();
}

ControlServer::~ControlServer() {
   turnTask_->runHandlerIs( {} );
   listener_ = nullptr;
   for ( const auto & client : std::vector( clients_ ) ) {
      client->close();
   }
   ::close( listenFd_ );
}

void ControlServer::listen() {
   listener_ = new FdWatcher( services_.mainLoop, listenFd_, [this] { accept(); } );
}

void ControlServer::accept() {
   constexpr int acceptsATurn = 16;
   for ( int i = 0; i < acceptsATurn; ++i ) {
      const int fd = accept4( listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC );
      if ( fd < 0 ) {
         if ( errno != EAGAIN && errno != EINTR && errno != ECONNABORTED ) {
            // No descriptor or no memory: the connection stays in the queue and would wake the loop for ever.
            listener_ = nullptr;
            acceptRetry_->start( std::chrono::milliseconds( 100 ) );
         }
         return;
      }
      if ( !roomMake() ) {
         // A socket that is new takes a line at once.
         const auto line = refusedLine( { "too many clients, and all of them have a request under way" } );
         [[maybe_unused]] const auto sent = ::send( fd, line.data(), line.size(), MSG_NOSIGNAL );
         ::close( fd );
         continue;
      }
      const Ptr<ControlClient> client = new ControlClient( *this, fd );
      clients_.push_back( client );
      services_.clientCountChanged( clients_.size() );
      client->start();
   }
}

bool ControlServer::roomMake() {
   if ( clients_.size() < maxClients ) {
      return true;
   }
   const auto longestSilent = [this]( const auto & mayLeave ) {
      Ptr<ControlClient> found;
      for ( const auto & client : clients_ ) {
         if ( mayLeave( *client ) && ( !found || client->activeAt_ < found->activeAt_ ) ) {
            found = client;
         }
      }
      return found;
   };
   auto leaving = longestSilent( []( const auto & client ) { return !client.requestUnderWay(); } );
   if ( !leaving ) {
      const auto longAgo = now() - patience;
      leaving = longestSilent(
            [longAgo]( const auto & client ) { return client.awaited() && client.activeAt_ <= longAgo; } );
   }
   if ( leaving ) {
      leaving->close();
   }
   return leaving != nullptr;
}

bool ControlServer::documentRoomMake( const ControlClient & client, std::size_t bytes ) {
   while ( *pendingDocumentBytes_ + bytes > maxPendingDocumentBytes ) {
      Ptr<ControlClient> slowest;
      for ( const auto & each : clients_ ) {
         if ( each.get() != &client && each->documentRequest_ &&
               ( !slowest || each->activeAt_ < slowest->activeAt_ ) ) {
            slowest = each;
         }
      }
      if ( !slowest ) {
         return false;
      }
      slowest->close();
   }
   return true;
}

void ControlServer::turnIs( const Ptr<ControlClient> & client ) {
   if ( !client->turnWaits_ && client->hasWork() ) {
      client->turnWaits_ = true;
      turns_.push_back( client );
      turnTask_->scheduleTask();
   }
}

void ControlServer::turns() {
   while ( !turns_.empty() && !turnTask_->taskShouldYield() ) {
      const auto client = turns_.front();
      turns_.pop_front();
      client->turnWaits_ = false;
      if ( !client->closed() ) {
         client->turn();
         turnIs( client );
      }
   }
   if ( !turns_.empty() ) {
      turnTask_->scheduleTask();
   }
}

void ControlServer::clientDel( ControlClient & client ) {
   std::erase_if( turns_, [&]( const auto & each ) { return each.get() == &client; } );
   std::erase_if( clients_, [&]( const auto & each ) { return each.get() == &client; } );
   services_.clientCountChanged( clients_.size() );
}

} // namespace host
