// What a packet costs from the kernel's queue to its verdict: the agent's queue reactor on its loop, held
// against a loop that receives and accepts; and how many packets a queue holds while nobody reads it.
//
//     bench-packets ROUNDS PACKETS    prints one JSON document
//
// Run by bench/run, in a network namespace with the rules and routes that bench/lib/packets.py makes. Every
// round fills the queue and then times how it is emptied, so that the sender's work is in no figure.
#include "HealthMonitor/HmNfQueueSm.h"
#include "HealthMonitor/HmProbeEncap.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <nlohmann/json.hpp>

using namespace hm;
using Json = nlohmann::ordered_json;

namespace {

struct Family {
   const char * name;
   int domain;
   const char *source, *vip, *server; // as bench/lib/packets.py routes them
   std::uint32_t mark;
};
constexpr Family families[] = { { "IPv4", AF_INET, "10.9.0.1", "192.0.2.10", "10.1.1.1", 1 },
      { "IPv6", AF_INET6, "fd00:9::1", "fd00:2::10", "fd00:1::1", 2 } };

IpGenAddr ip( const char * text ) {
   return *IpGenAddr::fromText( text );
}

[[noreturn]] void give_up( const char * what ) {
   std::perror( what );
   std::exit( 1 );
}

KernelQueue kernel() {
   std::ifstream file( "/proc/net/netfilter/nfnetlink_queue" );
   return kernelQueueFromText( std::string( std::istreambuf_iterator<char>( file ), {} ), 0 )
         .value_or( KernelQueue{} );
}

/// Marked packets of 60 (IPv4) or 80 bytes, the size of a probe's SYN.
class Sender {
 public:
   explicit Sender( const Family & family ) : fd_( socket( family.domain, SOCK_DGRAM | SOCK_CLOEXEC, 0 ) ) {
      const int buffer = 1 << 30; // what waits in the queue counts against it
      setsockopt( fd_, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer );
      setsockopt( fd_, SOL_SOCKET, SO_MARK, &family.mark, sizeof family.mark );
      const auto use = [&]( auto call, const char * text, std::uint16_t port ) {
         sockaddr_in four{ AF_INET, htons( port ), {}, {} };
         sockaddr_in6 six{ AF_INET6, htons( port ), 0, {}, 0 };
         const bool isIpv6 = family.domain == AF_INET6;
         inet_pton( family.domain, text,
               isIpv6 ? static_cast<void *>( &six.sin6_addr ) : static_cast<void *>( &four.sin_addr ) );
         if ( call( fd_,
                    isIpv6 ? reinterpret_cast<const sockaddr *>( &six )
                           : reinterpret_cast<const sockaddr *>( &four ),
                    isIpv6 ? sizeof six : sizeof four ) != 0 ) {
            give_up( text );
         }
      };
      use( bind, family.source, 0 );
      use( connect, family.vip, 80 );
   }
   ~Sender() { close( fd_ ); }
   void send( int packets ) const {
      const char payload[32]{};
      while ( packets-- > 0 ) {
         [[maybe_unused]] const auto sent = ::send( fd_, payload, sizeof payload, 0 );
      }
   }

 private:
   const int fd_;
};

/// The bare loop: one receive and one verdict a packet, with `replacement` in its place unless that is empty.
class BareQueue {
 public:
   BareQueue( int receiveBufferBytes, std::uint32_t queueLength, std::vector<std::uint8_t> replacement = {} )
         : replacement_( std::move( replacement ) ) {
      h_ = nfq_open();
      qh_ = h_ ? nfq_create_queue( h_, 0, accept, this ) : nullptr;
      if ( !qh_ ) {
         give_up( "netfilter queue 0" );
      }
      setsockopt( nfq_fd( h_ ), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBufferBytes, sizeof receiveBufferBytes );
      nfq_set_queue_maxlen( qh_, queueLength );
      nfq_set_mode( qh_, NFQNL_COPY_PACKET, 0xffff );
   }
   ~BareQueue() {
      while ( recv( nfq_fd( h_ ), buffer_, sizeof buffer_, MSG_DONTWAIT ) >= 0 || errno == ENOBUFS ) {}
      nfq_destroy_queue( qh_ );
      nfq_close( h_ );
   }
   void take( int packets ) {
      while ( packets-- > 0 ) {
         const auto got = recv( nfq_fd( h_ ), buffer_, sizeof buffer_, 0 );
         nfq_handle_packet( h_, buffer_, static_cast<int>( got ) );
      }
   }

 private:
   static int accept( nfq_q_handle * qh, nfgenmsg *, nfq_data * packet, void * self ) {
      const auto & with = static_cast<BareQueue *>( self )->replacement_;
      return nfq_set_verdict( qh, ntohl( nfq_get_msg_packet_hdr( packet )->packet_id ), NF_ACCEPT,
            static_cast<std::uint32_t>( with.size() ), with.empty() ? nullptr : with.data() );
   }
   const std::vector<std::uint8_t> replacement_;
   nfq_handle * h_;
   nfq_q_handle * qh_;
   alignas( nlmsghdr ) char buffer_[16384];
};

/// The agent's path on its loop, probes being rebuilt.
class AgentQueue {
 public:
   AgentQueue() {
      const Ptr<HmState::ServerStatus> status = new HmState::ServerStatus;
      status->probeSrcIpIs( ip( families[0].source ) );
      status->probeSrcIp6Is( ip( families[1].source ) );
      for ( std::uint32_t mark = 3; mark < 16384; ++mark ) { // as many as there can be
         data_->markToServerIpIs( mark, ip( "10.1.1.2" ) );
      }
      for ( const auto & family : families ) {
         data_->markToServerIpIs( family.mark, ip( family.server ) );
      }
      sm_ = nfQueueSmFactory( loop_, new Bridging::Config, new HmState::ProbeConfig, status, data_ );
   }
   void take( int packets ) {
      const auto until = data_->nfQueueRcvCnt() + static_cast<std::uint64_t>( packets );
      while ( data_->nfQueueRcvCnt() < until ) {
         loop_->runOnce();
      }
      if ( data_->encapDropCnt() != 0 ) {
         std::fputs( "packets were dropped\n", stderr );
         std::exit( 1 );
      }
   }

 private:
   const Ptr<EventLoop> loop_ = new EventLoop;
   const Ptr<CommonData> data_ = new CommonData;
   Ptr<NfQueueSm> sm_;
};

double cpuSeconds() {
   timespec now{};
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &now );
   return static_cast<double>( now.tv_sec ) + 1e-9 * static_cast<double>( now.tv_nsec );
}

/// Wall clock and CPU time a packet of one emptied queue, in seconds.
template<class Queue>
std::pair<double, double> measure( Queue & queue, const Sender & sender, int packets ) {
   sender.send( packets );
   if ( kernel().waiting != static_cast<std::uint64_t>( packets ) ) {
      std::fputs( "not every packet reached the queue\n", stderr );
      std::exit( 1 );
   }
   const auto cpu = cpuSeconds();
   const auto begin = std::chrono::steady_clock::now();
   queue.take( packets );
   const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
   return { wall.count() / packets, ( cpuSeconds() - cpu ) / packets };
}

double median( std::vector<double> values ) {
   std::ranges::sort( values );
   return values[values.size() / 2];
}

Json costs( const Family & family, int rounds, int packets ) {
   std::vector<double> wall[3], cpu[3], ratio, replacingRatio;
   const Sender sender( family );
   for ( int round = 0; round < rounds; ++round ) {
      const auto add = [&]( std::size_t which, std::pair<double, double> measured ) {
         wall[which].push_back( measured.first );
         cpu[which].push_back( measured.second );
      };
      {
         BareQueue bare( NfQueueSm::receiveBufferBytes, NfQueueSm::queueLength );
         add( 0, measure( bare, sender, packets ) );
      }
      {
         AgentQueue agent;
         add( 1, measure( agent, sender, packets ) );
      }
      {
         // What the agent built last.
         const auto bytes = 32 + 8 + ( family.domain == AF_INET6 ? 40 + 70 : 20 + 50 );
         BareQueue replacing(
               NfQueueSm::receiveBufferBytes, NfQueueSm::queueLength, { encapBuf, encapBuf + bytes } );
         add( 2, measure( replacing, sender, packets ) );
      }
      ratio.push_back( wall[0].back() / wall[1].back() );
      replacingRatio.push_back( wall[2].back() / wall[1].back() );
   }
   return { { "family", family.name }, { "bareRate", 1 / median( wall[0] ) },
         { "bareCpuUs", median( cpu[0] ) * 1e6 }, { "agentRate", 1 / median( wall[1] ) },
         { "agentCpuUs", median( cpu[1] ) * 1e6 }, { "replacingRate", 1 / median( wall[2] ) },
         { "replacingCpuUs", median( cpu[2] ) * 1e6 }, { "ratio", median( ratio ) },
         { "replacingRatio", median( replacingRatio ) } };
}

/// Packets of a burst that are lost while nobody reads.
Json losses( int receiveBufferBytes, std::uint32_t queueLength ) {
   Json row{ { "receiveBufferBytes", receiveBufferBytes }, { "queueLength", queueLength } };
   for ( const int burst : { 3000, 16383, 40000 } ) {
      const Sender sender( families[0] );
      const BareQueue queue( receiveBufferBytes, queueLength );
      sender.send( burst );
      const auto held = kernel();
      row["lost"][std::to_string( burst )] = held.queueDropped + held.userDropped;
   }
   return row;
}

} // namespace

int main( int argc, char ** argv ) {
   if ( argc != 3 ) {
      std::fputs( "usage: bench-packets ROUNDS PACKETS\n", stderr );
      return 2;
   }
   Json result;
   for ( const auto & family : families ) {
      result["costs"].push_back( costs( family, std::atoi( argv[1] ), std::atoi( argv[2] ) ) );
   }
   // The kernel doubles what is asked for; half of its default asks for its default.
   for ( const int bytes : { 212'992 / 2, 1 << 20, 4 << 20, 16 << 20 } ) {
      for ( const std::uint32_t length : { 1024u, 32768u } ) {
         result["losses"].push_back( losses( bytes, length ) );
      }
   }
   std::puts( result.dump().c_str() );
}
