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
      const Ptr<ControlClient> client = new ControlClient( *this, fd );
      const bool room = roomMake();
      clients_.push_back( client );
      client->activity_ = ++activity_;
      services_.clientCountChanged( clients_.size() );
      client->start();
      if ( !room ) {
         client->refuseAndClose( "too many clients" );
      }
   }
}

bool ControlServer::roomMake() {
   if ( clients_.size() < maxClients ) {
      return true;
   }
   Ptr<ControlClient> silent;
   for ( const auto & client : clients_ ) {
      const bool watching = client->answer_ && client->answer_->endless();
      if ( ( !watching || client->outputFull() ) && ( !silent || client->activity_ < silent->activity_ ) ) {
         silent = client;
      }
   }
   if ( silent ) {
      silent->close();
   }
   return silent != nullptr;
}

bool ControlServer::documentRoomMake( const ControlClient & client, std::size_t bytes ) {
   while ( *pendingDocumentBytes_ + bytes > maxPendingDocumentBytes ) {
      Ptr<ControlClient> slowest;
      for ( const auto & each : clients_ ) {
         if ( each.get() != &client && each->documentRequest_ &&
               ( !slowest || each->activity_ < slowest->activity_ ) ) {
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
