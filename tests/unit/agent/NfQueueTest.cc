// The queue of this kernel, in this program's own network namespace: packets that a rule hands to it, and
// what comes out on the other side.
#include "HealthMonitor/HmNfQueueSm.h"
#include "TestValues.h"
#include "TraceLines.h"

#include <arpa/inet.h>
#include <fstream>
#include <netinet/ip_icmp.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>

#include <linux/netfilter/nfnetlink_queue.h>

namespace hm::test {
namespace {

constexpr const char * probeSource = "127.0.0.5";
constexpr const char * server = "127.0.0.7";
constexpr const char * vip = "127.0.0.9";
constexpr const char * probeSource6 = "fd00::5";
constexpr const char * server6 = "fd00::7";
constexpr const char * vip6 = "fd00::9";
constexpr std::uint32_t mark = 5;

/// A socket bound to an address, and what it sends and receives.
class Udp {
 public:
   explicit Udp( const char * address, std::uint16_t port = 0 ) : address_( ip( address ) ) {
      const int on = 1;
      fd_ = socket( address_.isIpv6() ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
      if ( address_.isIpv6() ) {
         setsockopt( fd_, IPPROTO_UDP, UDP_NO_CHECK6_RX, &on, sizeof on );
      }
      // What waits in the queue counts against the sender's buffer.
      const int sendBuffer = 1 << 30;
      setsockopt( fd_, SOL_SOCKET, SO_SNDBUFFORCE, &sendBuffer, sizeof sendBuffer );
      const auto [to, size] = socketAddress( address_, port );
      EXPECT_EQ( bind( fd_, reinterpret_cast<const sockaddr *>( &to ), size ), 0 ) << address;
   }
   ~Udp() { close( fd_ ); }

   void send( const char * to, std::size_t bytes, std::uint32_t itsMark = mark ) {
      setsockopt( fd_, SOL_SOCKET, SO_MARK, &itsMark, sizeof itsMark );
      const std::string payload( bytes, 'x' );
      const auto [where, size] = socketAddress( ip( to ), 7777 );
      sendto( fd_, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr *>( &where ), size );
   }
   std::vector<std::uint8_t> received() {
      std::vector<std::uint8_t> bytes( 65536 );
      const auto size = recv( fd_, bytes.data(), bytes.size(), 0 );
      bytes.resize( size > 0 ? static_cast<std::size_t>( size ) : 0 );
      return bytes;
   }

 private:
   static std::pair<sockaddr_storage, socklen_t> socketAddress(
         const IpGenAddr & address, std::uint16_t port ) {
      sockaddr_storage storage{};
      if ( address.isIpv6() ) {
         auto & six = reinterpret_cast<sockaddr_in6 &>( storage );
         six.sin6_family = AF_INET6;
         six.sin6_port = htons( port );
         std::ranges::copy( address.bytes(), six.sin6_addr.s6_addr );
         return { storage, sizeof six };
      }
      auto & four = reinterpret_cast<sockaddr_in &>( storage );
      four.sin_family = AF_INET;
      four.sin_port = htons( port );
      std::memcpy( &four.sin_addr, address.bytes().data(), 4 );
      return { storage, sizeof four };
   }
   const IpGenAddr address_;
   int fd_;
};

void shell( const std::string & command ) {
   ASSERT_EQ( std::system( command.c_str() ), 0 ) << command;
}

class RealQueue : public testing::Test {
 protected:
   static void SetUpTestSuite() {
      shell( "ip -6 address add fd00::5/128 dev lo nodad && ip -6 address add fd00::7/128 dev lo nodad && "
             "ip -6 address add fd00::9/128 dev lo nodad" );
      for ( const std::string program : { "iptables-nft", "ip6tables-nft" } ) {
         shell( program + " -t mangle -A OUTPUT -m mark ! --mark 0x0/0x3fff -m mark --mark 0x0/0xffffc000"
                          " -j NFQUEUE --queue-num 0" );
      }
      shell( "iptables-nft -t mangle -A PREROUTING -d 127.0.0.9 -p icmp --icmp-type echo-request"
             " -j NFQUEUE --queue-num 0" );
      shell( "ip6tables-nft -t mangle -A PREROUTING -d fd00::9 -p ipv6-icmp --icmpv6-type echo-request"
             " -j NFQUEUE --queue-num 0" );
   }
   static void TearDownTestSuite() {
      shell( "iptables-nft -t mangle -F && ip6tables-nft -t mangle -F && ip -6 address flush dev lo scope "
             "global" );
   }
   RealQueue() {
      status_->probeSrcIpIs( ip( probeSource ) );
      status_->probeSrcIp6Is( ip( probeSource6 ) );
      data_->markToServerIpIs( mark, ip( server ) );
      data_->markToServerIpIs( mark + 1, ip( server6 ) );
   }

   Ptr<NfQueueSm> queueSm() {
      return nfQueueSmFactory( loop_, new Bridging::Config, config_, status_, data_ );
   }
   std::uint64_t count( PacketCount what ) const { return data_->packetCounters()[what]; }
   static KernelQueue kernel() {
      std::ifstream file( "/proc/net/netfilter/nfnetlink_queue" );
      return kernelQueueFromText( std::string( std::istreambuf_iterator<char>( file ), {} ), 0 )
            .value_or( KernelQueue{} );
   }
   /// Turns the loop until the kernel holds nothing for the queue.
   void drain() {
      do {
         loop_->runOnce();
      } while ( kernel().waiting != 0 );
   }

   /// Sends until the receive buffer has been too small.
   static void overflow( Udp & probe ) {
      while ( kernel().userDropped == 0 ) {
         probe.send( vip, 8'000 );
      }
   }

   const Ptr<EventLoop> loop_ = new EventLoop;
   const Ptr<HmState::ProbeConfig> config_ = new HmState::ProbeConfig;
   const Ptr<HmState::ServerStatus> status_ = new HmState::ServerStatus;
   const Ptr<CommonData> data_ = new CommonData;
};

TEST_F( RealQueue, MarkedPacketsArriveInTheTunnel ) {
   const struct {
      const char * name;
      const char *source, *vip, *server;
      std::uint32_t mark;
      std::size_t ipBytes;
   } rows[] = { { "IPv4", probeSource, vip, server, mark, 20 },
         { "IPv6", probeSource6, vip6, server6, mark + 1, 40 } };
   const auto sm = queueSm();
   for ( const auto & row : rows ) {
      Udp probe( row.source ), tunnelEnd( row.server, 4789 ), direct( row.vip, 7777 );
      probe.send( row.vip, 100, row.mark );
      drain();
      const auto got = tunnelEnd.received();
      ASSERT_EQ( got.size(), 8 + 14 + row.ipBytes + 8 + 100 ) << row.name;
      EXPECT_EQ( got[0], 8 ) << row.name;
      EXPECT_EQ( got[6], row.mark ) << row.name;
      EXPECT_EQ( std::count( got.end() - 100, got.end(), 'x' ), 100 ) << row.name;
      EXPECT_TRUE( direct.received().empty() ) << row.name;
      probe.send( row.vip, 100, 77 );
      drain();
      EXPECT_TRUE( tunnelEnd.received().empty() ) << row.name;
      EXPECT_TRUE( direct.received().empty() ) << row.name;
      probe.send( row.vip, 100, 0 ); // is no probe, and goes its way
      EXPECT_EQ( direct.received().size(), 100u ) << row.name;
   }
   EXPECT_EQ( data_->nfQueueRcvCnt(), 4u );
   EXPECT_EQ( data_->encapDropCnt(), 2u );
   EXPECT_EQ( count( PacketCount::noServer ), 2u );
}

TEST_F( RealQueue, EchoRequestsAreAnsweredOnce ) {
   const auto sm = queueSm();
   for ( const auto * to : { vip, vip6 } ) {
      const auto address = ip( to );
      // ping(8) says how many answers came; another program must send while this one turns its loop.
      const auto file = fmt::format( "/tmp/hm-ping-{}", getpid() );
      std::ofstream( file + ".py" ) << R"(
import socket, struct, sys
six = ":" in sys.argv[1]
s = socket.socket(socket.AF_INET6 if six else socket.AF_INET, socket.SOCK_RAW, 58 if six else 1)
s.settimeout(20)
source = "fd00::5" if six else "127.0.0.5"
s.bind((source, 0))
def message(type, data):
    head = struct.pack("!BBHHH", type, 0, 0, 4711, 1) + data
    if not six:
        words = struct.unpack("!%dH" % (len(head) // 2), head)
        total = sum(words); total = (total & 0xffff) + (total >> 16); total = (total & 0xffff) + (total >> 16)
        head = head[:2] + struct.pack("!H", 0xffff ^ total) + head[4:]
    return head
s.sendto(message(128 if six else 8, b"0123456789abcdef"), (sys.argv[1], 0))
answers = 0
try:
    while True:
        packet, peer = s.recvfrom(2000)
        body = packet if six else packet[20:]
        if body[0] == (129 if six else 0) and body[4:] == struct.pack("!HH", 4711, 1) + b"0123456789abcdef":
            answers += peer[0] == sys.argv[1]
            s.settimeout(0.2)
except TimeoutError:
    pass
sys.exit(answers)
)";
      const pid_t child = fork();
      if ( child == 0 ) {
         execlp( "python3", "python3", ( file + ".py" ).c_str(), to, nullptr );
         _exit( 99 );
      }
      int status = 0;
      while ( waitpid( child, &status, WNOHANG ) == 0 ) {
         loop_->runOnce();
      }
      EXPECT_EQ( WEXITSTATUS( status ), 1 ) << to;
      EXPECT_EQ( count( address.isIpv6() ? PacketCount::repliedIpv6 : PacketCount::repliedIpv4 ), 1u );
      unlink( ( file + ".py" ).c_str() );
   }
}

TEST_F( RealQueue, APacketLargerThanTheBufferLeavesTheQueue ) {
   const auto sm = queueSm();
   Udp probe( probeSource ), tunnelEnd( server, 4789 );
   probe.send( vip, 20'000 );
   probe.send( vip, 16'334 - 28 ); // fits what is rebuilt, not what is received
   probe.send( vip, 100 );
   drain();
   EXPECT_EQ( count( PacketCount::tooBig ), 1u );
   EXPECT_EQ( count( PacketCount::payloadUnread ), 1u );
   EXPECT_EQ( count( PacketCount::encapsulatedIpv4 ), 1u );
   EXPECT_EQ( data_->encapDropCnt(), 1u );
   EXPECT_EQ( tunnelEnd.received().size(), 8u + 14 + 20 + 8 + 100 );
   EXPECT_EQ( kernel().waiting, 0u );
}

TEST_F( RealQueue, HoldsABurstOfChecksThatNobodyReads ) {
   const auto sm = queueSm();
   Udp probe( probeSource ), tunnelEnd( server, 4789 );
   constexpr std::uint64_t burst = 3'000; // several times what the kernel's defaults hold
   for ( std::uint64_t i = 0; i < burst; ++i ) {
      probe.send( vip, 40 );
   }
   EXPECT_EQ( kernel().waiting, burst );
   drain();
   EXPECT_EQ( count( PacketCount::encapsulatedIpv4 ), burst );
}

TEST_F( RealQueue, GoesOnAfterTheKernelLostPackets ) {
   const auto sm = queueSm();
   Udp probe( probeSource ), tunnelEnd( server, 4789 );
   overflow( probe );
   drain();
   EXPECT_EQ( count( PacketCount::receiveError ), 1u );
   while ( !tunnelEnd.received().empty() ) {}
   probe.send( vip, 100 );
   drain();
   EXPECT_EQ( tunnelEnd.received().size(), 8u + 14 + 20 + 8 + 100 );
}

TEST_F( RealQueue, IsFreeForTheNextAfterTearDownWithPacketsUnread ) {
   Udp probe( probeSource ), tunnelEnd( server, 4789 );
   for ( const bool lost : { false, true } ) {
      auto sm = queueSm();
      lost ? overflow( probe ) : probe.send( vip, 100 );
      EXPECT_NE( kernel().waiting, 0u );
      sm = nullptr;
      loop_->runOnce();
      EXPECT_TRUE( tunnelEnd.received().empty() );
      sm = queueSm();
      probe.send( vip, 100 );
      drain();
      EXPECT_EQ( tunnelEnd.received().size(), 8u + 14 + 20 + 8 + 100 ) << lost;
      sm->doCleanup();
      sm->doCleanup();
      EXPECT_EQ( sm->pingSock(), NfQueueSm::uninitSocket );
      EXPECT_FALSE( sm->initialized() );
      const auto next = queueSm(); // with the same descriptor, which the one before no longer watches
      probe.send( vip, 100 );
      drain();
      EXPECT_EQ( tunnelEnd.received().size(), 8u + 14 + 20 + 8 + 100 ) << lost;
   }
}

TEST_F( RealQueue, TracesItsLife ) {
   Udp probe( probeSource );
   expectLines( linesOf( [&] {
      const auto sm = queueSm();
      overflow( probe );
      while ( count( PacketCount::receiveError ) == 0 ) {
         loop_->runOnce();
      }
   } ),
         { { 9, "closeSockAndCheck:sock:-1" }, { 9, "openQueue:Opening library handle" },
               { 9, "openQueue:bind handle to queue 0" }, { 9, "openQueue:setting copy_packet mode" },
               { 9, "handleNfQueueReadable:" },
               { 1, "handleNfQueueReadable:errno:105 error string:No buffer space available" },
               { 9, "doCleanup:initialized:true" }, { 9, "doCleanup:destroying queue binding" },
               { 9, "doCleanup:Closing nfqueue connection" } } );
}

using RealQueueDeathTest = RealQueue;

TEST_F( RealQueueDeathTest, CannotShareItsQueue ) {
   const auto sm = queueSm();
   EXPECT_DEATH( queueSm(), "assertion failed: qh: netfilter queue 0: Operation not permitted" );
}

} // namespace
} // namespace hm::test
