#include "host/KernelInterfaces.h"

#include "host/HostTrace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

#include <fmt/format.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

namespace host {

using namespace platform;

namespace {

// Half a megabyte of list at most; the rest of what waits is for the next turn of the loop.
constexpr int datagramsATurn = 16;
constexpr auto firstListPatience = std::chrono::seconds( 10 );
// Whoever changes thousands of addresses has a moment to finish before all of them are asked for again.
constexpr auto againAfter = std::chrono::milliseconds( 100 );
// Some thousand events; more are made up for.
constexpr int receiveBufferBytes = 4 * 1024 * 1024;

std::string failed( const char * what ) {
   return fmt::format( "the kernel's interfaces: {}: {}", what, std::strerror( errno ) );
}

template<class E>
Ptr<E> rootOf( const EntityManager & entityManager, const std::string & path ) {
   return dynamicPtrCast<E>( entityManager.entity( path ) );
}

} // namespace

const std::vector<std::string> KernelInterfaces::paths{ "ip/status", "ip6/status", "bridging/config" };

void KernelInterfaces::SocketClose::operator()( mnl_socket * socket ) const {
   mnl_socket_close( socket );
}

KernelInterfaces::KernelInterfaces( Ptr<EventLoop> mainLoop, const Ptr<TaskScheduler> & scheduler,
      const Ptr<EntityManager> & entityManager )
      : mainLoop_( std::move( mainLoop ) ),
        ipStatus_( rootOf<Ip::Status>( *entityManager, paths[0] ) ),
        ip6Status_( rootOf<Ip6::Status>( *entityManager, paths[1] ) ),
        bridging_( rootOf<Bridging::Config>( *entityManager, paths[2] ) ),
        task_( new Task( scheduler, TaskPriority{}, "kernel-interfaces" ) ),
        againTimer_( new LoopTimer( mainLoop_, [this] { again(); } ) ) {
   task_->runHandlerIs( [this] { publishSlice(); } );
}

KernelInterfaces::~KernelInterfaces() {
   task_->runHandlerIs( {} );
   watcher_ = nullptr; // before the descriptor
}

Refusal KernelInterfaces::start() {
   if ( auto refusal = listen() ) {
      return refusal;
   }
   const auto & clock = Clock::steady();
   const auto deadline = clock.now() + firstListPatience;
   while ( phase_ != Phase::following ) {
      if ( clock.now() > deadline ) {
         return fmt::format( "the kernel's interfaces: it did not list them within {} s",
               Seconds( firstListPatience ).count() );
      }
      pollfd ready{ mnl_socket_get_fd( socket_.get() ), POLLIN, 0 };
      poll( &ready, 1, 100 );
      readable();
   }
   while ( table_.changedAny() ) {
      publish( table_.changedTake() );
   }
   bridging_->bridgeMacIs( table_.bridgeMac() );
   return std::nullopt;
}

// Listens before it asks: what changes in between is told twice rather than not at all.
Refusal KernelInterfaces::listen() {
   watcher_ = nullptr;
   socket_.reset( mnl_socket_open2( NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK ) );
   if ( !socket_ ) {
      return failed( "socket" );
   }
   const int fd = mnl_socket_get_fd( socket_.get() );
   if ( setsockopt( fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBufferBytes, sizeof receiveBufferBytes ) != 0 ) {
      // Not allowed to: as much as anybody may have.
      setsockopt( fd, SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof receiveBufferBytes );
   }
   if ( mnl_socket_bind( socket_.get(), RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR,
              MNL_SOCKET_AUTOPID ) != 0 ) {
      return failed( "bind" );
   }
   table_.dumpBegin();
   complete_ = true;
   phase_ = Phase::links;
   if ( auto refusal = request( RtDump::links ) ) {
      return refusal;
   }
   watcher_ = new FdWatcher( mainLoop_, fd, [this] { readable(); } );
   return std::nullopt;
}

Refusal KernelInterfaces::request( RtDump what ) {
   const auto bytes = rtDumpRequest( what, ++sequence_ );
   return mnl_socket_sendto( socket_.get(), bytes.data(), bytes.size() ) < 0 ? Refusal( failed( "request" ) )
                                                                             : std::nullopt;
}

void KernelInterfaces::again() {
   againWaits_ = false;
   if ( const auto refusal = listen() ) {
      HM_TRACE( 1, " {}", *refusal );
      againWaits_ = true;
      againTimer_->start( std::chrono::seconds( 1 ) );
   }
}

void KernelInterfaces::readable() {
   const auto lost = [this]( const char * why ) {
      HM_TRACE( 2, " interfaces are asked for again: {}", why );
      complete_ = false;
      if ( !againWaits_ ) {
         againWaits_ = true;
         againTimer_->start( againAfter );
      }
   };
   for ( int i = 0; i < datagramsATurn; ++i ) {
      sockaddr_nl from{};
      socklen_t fromBytes = sizeof from;
      const auto size = recvfrom( mnl_socket_get_fd( socket_.get() ), buffer_.data(), buffer_.size(),
            MSG_TRUNC, reinterpret_cast<sockaddr *>( &from ), &fromBytes );
      if ( size < 0 && ( errno == EAGAIN || errno == EINTR ) ) {
         break;
      }
      if ( size < 0 ) {
         lost( std::strerror( errno ) ); // ENOBUFS: there was more to tell than the buffer holds
         break;
      }
      if ( from.nl_pid != 0 ) {
         continue; // another program, not the kernel
      }
      if ( static_cast<std::size_t>( size ) > buffer_.size() ) {
         lost( "a message is too long" );
         continue;
      }
      const auto read = rtMessages( { buffer_.data(), static_cast<std::size_t>( size ) } );
      if ( read.malformed != 0 ) {
         lost( "a message is malformed" );
      }
      for ( const auto & message : read.messages ) {
         handle( message );
      }
   }
   if ( !complete_ && phase_ == Phase::following && !againWaits_ ) {
      lost( "the list was interrupted" );
   }
   publishSoon();
}

void KernelInterfaces::handle( const RtMessage & message ) {
   // Events carry the numbers of the request that caused them, which may be anybody's.
   const bool ours = message.port == mnl_socket_get_portid( socket_.get() ) && message.sequence == sequence_;
   const auto origin = ours ? InterfaceTable::Origin::dump : InterfaceTable::Origin::event;
   if ( ours && message.interrupted ) {
      complete_ = false;
   }
   if ( const auto * link = std::get_if<LinkMessage>( &message.content ) ) {
      table_.apply( *link, origin );
   } else if ( const auto * address = std::get_if<AddressMessage>( &message.content ) ) {
      table_.apply( *address, origin );
   } else if ( const auto * end = std::get_if<DumpEnd>( &message.content ); end && ours ) {
      dumpEnded( *end );
   }
}

void KernelInterfaces::dumpEnded( const DumpEnd & end ) {
   if ( end.error != 0 ) {
      HM_TRACE( 1, " the kernel did not list its interfaces: {}", std::strerror( end.error ) );
      complete_ = false;
   }
   switch ( phase_ ) {
   case Phase::links:
      phase_ = Phase::addresses;
      if ( const auto refusal = request( RtDump::addresses ); !refusal ) {
         return;
      } else {
         HM_TRACE( 1, " {}", *refusal );
         complete_ = false;
      }
      break;
   case Phase::addresses:
      break;
   case Phase::following:
      return;
   }
   phase_ = Phase::following;
   table_.dumpEnd( complete_ );
}

void KernelInterfaces::publishSoon() {
   // In the middle of a list an interface may have some of its addresses only.
   if ( phase_ == Phase::following ) {
      task_->scheduleTask();
   }
}

void KernelInterfaces::publishSlice() {
   while ( table_.changedAny() ) {
      if ( task_->taskShouldYield() ) {
         task_->scheduleTask();
         return;
      }
      if ( phase_ != Phase::following ) {
         return;
      }
      publish( table_.changedTake() );
   }
   bridging_->bridgeMacIs( table_.bridgeMac() );
}

void KernelInterfaces::publish( const std::string & name ) {
   IntfId intf;
   if ( const auto refusal = ValueTraits<IntfId>::fromText( name, intf ) ) {
      HM_TRACE( 2, " interface {} is left out: {}", name, *refusal );
      return;
   }
   const auto ipv4 = table_.ipv4( name );
   if ( ipv4.empty() ) {
      ipStatus_->ipIntfStatusDel( intf );
   } else if ( const auto status = ipStatus_->ipIntfStatus( intf ) ) {
      status->ipAddrIs( ipv4 );
   } else {
      const Ptr<Ip::IpIntfStatus> added = new Ip::IpIntfStatus();
      added->ipAddrIs( ipv4 );
      ipStatus_->ipIntfStatusInsert( intf, added );
   }
   publishIpv6( intf, name );
}

void KernelInterfaces::publishIpv6( const IntfId & intf, const std::string & name ) {
   const auto addresses = table_.ipv6( name );
   if ( addresses.empty() ) {
      ip6Status_->intfDel( intf );
      return;
   }
   const auto present = ip6Status_->intf( intf );
   const auto status = present ? present : Ptr<Ip6::IntfStatus>( new Ip6::IntfStatus() );
   // What goes goes first: an address that takes the place of another is never one too many.
   for ( const auto & item : status->addrItems() ) {
      if ( !std::ranges::binary_search( addresses, item.key ) ) {
         status->addrDel( item.key );
      }
   }
   for ( const auto & each : addresses ) {
      status->addrIs( each );
   }
   if ( !present ) {
      ip6Status_->intfInsert( intf, status );
   }
}

} // namespace host
