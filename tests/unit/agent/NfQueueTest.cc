// The queue of this kernel, in this program's own network namespace: when packets come too large, too many or
// too late. (What is made of them is tested on packets made by the test, and on the wire in the lab.)
#include "HealthMonitor/HmNfQueueSm.h"
#include "TestValues.h"
#include "TraceLines.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace hm::test {
namespace {

constexpr const char * probeSource = "127.0.0.5";
constexpr const char * server = "127.0.0.7";
constexpr const char * vip = "127.0.0.9";
constexpr std::uint32_t mark = 5;

/// A socket bound to an address, and what it sends and receives.
class Udp {
 public:
   explicit Udp( const char * address, std::uint16_t port = 0 )
         : fd_( socket( AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) ) {
      // What waits in the queue counts against the sender's buffer.
      const int sendBuffer = 1 << 30;
      setsockopt( fd_, SOL_SOCKET, SO_SNDBUFFORCE, &sendBuffer, sizeof sendBuffer );
      setsockopt( fd_, SOL_SOCKET, SO_MARK, &mark, sizeof mark );
      const auto at = socketAddress( address, port );
      EXPECT_EQ( bind( fd_, reinterpret_cast<const sockaddr *>( &at ), sizeof at ), 0 ) << address;
   }
   ~Udp() { close( fd_ ); }

   void send( std::size_t bytes ) {
      const std::string payload( bytes, 'x' );
      const auto to = socketAddress( vip, 7777 );
      sendto( fd_, payload.data(), bytes, 0, reinterpret_cast<const sockaddr *>( &to ), sizeof to );
   }
   /// The size of the next datagram; -1: none.
   ssize_t received() {
      char bytes[65536];
      return recv( fd_, bytes, sizeof bytes, 0 );
   }

 private:
   static sockaddr_in socketAddress( const char * address, std::uint16_t port ) {
      sockaddr_in at{};
      at.sin_family = AF_INET;
      at.sin_port = htons( port );
      at.sin_addr.s_addr = inet_addr( address );
      return at;
   }
   const int fd_;
};

class RealQueue : public testing::Test {
 protected:
   static void rules( const char * change ) {
      const auto command = fmt::format( "iptables-nft -t mangle {}", change );
      ASSERT_EQ( std::system( command.c_str() ), 0 ) << command;
   }
   static void SetUpTestSuite() { rules( "-A OUTPUT -m mark --mark 5 -j NFQUEUE --queue-num 0" ); }
   static void TearDownTestSuite() { rules( "-F" ); }
   RealQueue() {
      status_->probeSrcIpIs( ip( probeSource ) );
      data_->markToServerIpIs( mark, ip( server ) );
   }

   Ptr<NfQueueSm> queueSm() {
      return nfQueueSmFactory( loop_, new Bridging::Config, config_, status_, data_ );
   }
   std::uint64_t count( PacketCount what ) const { return data_->packetCounters()[what]; }
   static KernelQueue kernel() {
      return kernelQueueFromText( contentOf( "/proc/net/netfilter/nfnetlink_queue" ), 0 )
            .value_or( KernelQueue{} );
   }
   /// Turns the loop until the kernel holds nothing for the queue.
   void drain() {
      do {
         loop_->runOnce();
      } while ( kernel().waiting != 0 );
   }

   /// Sends until the receive buffer has been too small.
   void overflow() {
      while ( kernel().userDropped == 0 ) {
         probe_.send( 8'000 );
      }
   }
   /// A probe of 100 bytes reaches its server in the tunnel, and what is still to be read there is no other.
   void expectService() {
      probe_.send( 100 );
      drain();
      EXPECT_EQ( tunnelEnd_.received(), 8 + 14 + 20 + 8 + 100 );
      EXPECT_EQ( tunnelEnd_.received(), -1 );
   }

   const Ptr<EventLoop> loop_ = new EventLoop;
   const Ptr<HmState::ProbeConfig> config_ = new HmState::ProbeConfig;
   const Ptr<HmState::ServerStatus> status_ = new HmState::ServerStatus;
   const Ptr<CommonData> data_ = new CommonData;
   Udp probe_{ probeSource }, tunnelEnd_{ server, 4789 };
};

TEST_F( RealQueue, APacketLargerThanTheBufferLeavesTheQueue ) {
   const auto sm = queueSm();
   probe_.send( 20'000 );
   probe_.send( 16'334 - 28 ); // fits what is rebuilt, not what is received
   expectService();
   EXPECT_EQ( count( PacketCount::tooBig ), 1u );
   EXPECT_EQ( count( PacketCount::payloadUnread ), 1u );
   EXPECT_EQ( data_->encapDropCnt(), 1u );
   EXPECT_EQ( kernel().waiting, 0u );
}

TEST_F( RealQueue, HoldsABurstOfChecksThatNobodyReads ) {
   const auto sm = queueSm();
   constexpr std::uint64_t burst = 3'000; // several times what the kernel's defaults hold
   for ( std::uint64_t i = 0; i < burst; ++i ) {
      probe_.send( 40 );
   }
   EXPECT_EQ( kernel().waiting, burst );
   drain();
   EXPECT_EQ( count( PacketCount::encapsulatedIpv4 ), burst );
}

TEST_F( RealQueue, GoesOnAfterTheKernelLostPackets ) {
   const auto lines = linesOf( [this] {
      const auto sm = queueSm();
      overflow();
      drain();
      EXPECT_EQ( count( PacketCount::receiveError ), 1u );
      while ( tunnelEnd_.received() > 0 ) {}
      expectService();
   } );
   expectLines( lines, { { 9, "closeSockAndCheck:sock:-1" }, { 9, "openQueue:Opening library handle" },
                             { 9, "openQueue:bind handle to queue 0" },
                             { 9, "openQueue:setting copy_packet mode" }, { 9, "handleNfQueueReadable:" },
                             { 1, "handleNfQueueReadable:errno:105 error string:No buffer space available" },
                             { 9, "doCleanup:initialized:true" }, { 9, "doCleanup:destroying queue binding" },
                             { 9, "doCleanup:Closing nfqueue connection" } } );
}

TEST_F( RealQueue, IsFreeForTheNextAfterTearDownWithPacketsUnread ) {
   for ( const bool lost : { false, true } ) {
      auto sm = queueSm();
      lost ? overflow() : probe_.send( 100 );
      EXPECT_NE( kernel().waiting, 0u );
      sm = nullptr;
      loop_->runOnce();
      sm = queueSm();
      expectService();
      sm->doCleanup();
      sm->doCleanup();
      EXPECT_EQ( sm->pingSock(), NfQueueSm::uninitSocket );
      EXPECT_FALSE( sm->initialized() );
      const auto next = queueSm(); // with the same descriptor, which the one before no longer watches
      expectService();
   }
}

using RealQueueDeathTest = RealQueue;

TEST_F( RealQueueDeathTest, CannotShareItsQueue ) {
   const auto sm = queueSm();
   EXPECT_DEATH( queueSm(), "assertion failed: qh: netfilter queue 0: Operation not permitted" );
}

} // namespace
} // namespace hm::test
