#include "HealthMonitor/HmNfQueueSm.h"

#include "HealthMonitor/HmProbeEncap.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>

namespace hm {

namespace {

/// One message from the queue's socket at a time.
alignas( nlmsghdr ) char nfQueueRcvBuf[16384];

QueuedPacket queuedPacket( nfq_data * packetData ) {
   QueuedPacket packet{ .nfqPh = nfq_get_msg_packet_hdr( packetData ), .mark = nfq_get_nfmark( packetData ) };
   unsigned char * payload = nullptr;
   errno = 0;
   packet.payloadBytes = nfq_get_payload( packetData, &payload );
   packet.error = errno;
   packet.payload = payload;
   return packet;
}

/// What the beginning of a message tells of a packet that was longer than the receive buffer.
QueuedPacket cutOffPacket( const nlmsghdr * message ) {
   QueuedPacket packet{ .error = EMSGSIZE };
   const auto * const begin =
         static_cast<const char *>( mnl_nlmsg_get_payload_offset( message, sizeof( nfgenmsg ) ) );
   const auto * const end = static_cast<const char *>( mnl_nlmsg_get_payload_tail( message ) );
   const auto * attribute = reinterpret_cast<const nlattr *>( begin );
   for ( ; mnl_attr_ok( attribute, static_cast<int>( end - reinterpret_cast<const char *>( attribute ) ) );
         attribute = mnl_attr_next( attribute ) ) {
      if ( mnl_attr_get_type( attribute ) == NFQA_PACKET_HDR &&
            mnl_attr_get_payload_len( attribute ) >= sizeof( nfqnl_msg_packet_hdr ) ) {
         packet.nfqPh = static_cast<const nfqnl_msg_packet_hdr *>( mnl_attr_get_payload( attribute ) );
      }
   }
   // The walk stops at the attribute that is not whole, which begins with its length.
   if ( end - reinterpret_cast<const char *>( attribute ) >= static_cast<std::ptrdiff_t>( MNL_ATTR_HDRLEN ) &&
         mnl_attr_get_type( attribute ) == NFQA_PAYLOAD ) {
      const int bytes = mnl_attr_get_payload_len( attribute );
      packet.payload = static_cast<const std::uint8_t *>( mnl_attr_get_payload( attribute ) );
      // One that the rest of the path would take, and read beyond what is there, counts as not read.
      packet.payloadBytes = bytes > static_cast<int>( longestPayload( ipv4Layout ) ) ? bytes : -1;
   }
   return packet;
}

void giveVerdict( nfq_q_handle * qh, const QueuedPacket & packet, const CallbackArgs * callbackData ) {
   const auto * const nfqPh = packet.nfqPh;
   HM_ASSERT( nfqPh, "a packet without its header" );
   const auto id = ntohl( nfqPh->packet_id );
   std::uint32_t len = 0;
   const int given = processPkt( packet, callbackData, len ) == 0
                           ? nfq_set_verdict( qh, id, NF_ACCEPT, len, encapBuf )
                           : nfq_set_verdict( qh, id, NF_DROP, 0, nullptr );
   if ( given < 0 ) {
      HM_TRACE( 1, "verdict on packet {} failed: {}", id, std::strerror( errno ) );
      callbackData->commonData()->packetCounters().inc( PacketCount::verdictFailed );
   }
}

} // namespace

int nfCallback( nfq_q_handle * qh, nfgenmsg *, nfq_data * packetData, void * context ) {
   giveVerdict( qh, queuedPacket( packetData ), static_cast<const CallbackArgs *>( context ) );
   // Anything else would end the library's walk over messages, also where it looks for an acknowledgement.
   return 1;
}

NfQueueSm::NfQueueSm( Ptr<EventLoop> mainLoop, Ptr<const Bridging::Config> bridgingConfig,
      Ptr<const HmState::ProbeConfig> probeConfig, Ptr<const HmState::ServerStatus> serverStatus,
      Ptr<CommonData> commonData )
      : mainLoop_( std::move( mainLoop ) ),
        bridgingConfig_( std::move( bridgingConfig ) ),
        probeConfig_( std::move( probeConfig ) ),
        serverStatus_( std::move( serverStatus ) ),
        commonData_( std::move( commonData ) ) {
   handleInitialized();
}

NfQueueSm::~NfQueueSm() {
   doCleanup();
}

void NfQueueSm::handleInitialized() {
   HM_TRACE( 9, "initialized:{}", initialized_ );
   if ( initialized_ ) {
      return;
   }
   createPingSockets();
   callbackArgs_ =
         new CallbackArgs( pingSock_, bridgingConfig_, probeConfig_, serverStatus_, commonData_, ping6Sock_ );
   openQueue();
   watchQueue();
   initialized_ = true;
}

void NfQueueSm::createPingSockets() {
   HM_TRACE( 9, "" );
   closeSockAndCheck( pingSock_ );
   closeSockAndCheck( ping6Sock_ );
   // A reply that the device does not take at once is lost rather than waited for.
   constexpr int type = SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC;
   pingSock_ = socket( AF_INET, type, IPPROTO_RAW );
   HM_ASSERT( pingSock() > 0, "{}", std::strerror( errno ) );
   ping6Sock_ = socket( AF_INET6, type, IPPROTO_RAW );
   HM_ASSERT( ping6Sock() > 0, "{}", std::strerror( errno ) );
   const int on = 1;
   HM_ASSERT( setsockopt( pingSock(), IPPROTO_IP, IP_HDRINCL, &on, sizeof on ) == 0, "{}",
         std::strerror( errno ) );
   HM_ASSERT( setsockopt( ping6Sock(), IPPROTO_IPV6, IPV6_HDRINCL, &on, sizeof on ) == 0, "{}",
         std::strerror( errno ) );
}

void NfQueueSm::openQueue() {
   HM_TRACE( 9, "Opening library handle" );
   nfq_handle * const h = nfq_open();
   HM_ASSERT( h, "netfilter queue: {}", std::strerror( errno ) );
   nfHandle_ = h;
   enlargeReceiveBuffer();
   nfq_bind_pf( h, AF_INET6 );
   nfq_bind_pf( h, AF_INET );
   HM_TRACE( 9, "bind handle to queue {}", queueNumber );
   nfq_q_handle * const qh = nfq_create_queue( h, queueNumber, nfCallback, callbackArgs_.get() );
   HM_ASSERT( qh, "netfilter queue {}: {} (another program may have it, and it needs CAP_NET_ADMIN)",
         queueNumber, std::strerror( errno ) );
   nfQueueHandle_ = qh;
   // Before the mode is set, since packets flow from then on.
   if ( nfq_set_queue_maxlen( qh, queueLength ) < 0 ) {
      HM_TRACE( 2, "no queue length of {} packets: {}; bursts of checks may be lost", queueLength,
            std::strerror( errno ) );
   }
   HM_TRACE( 9, "setting copy_packet mode" );
   HM_ASSERT( nfq_set_mode( qh, NFQNL_COPY_PACKET, 0xffff ) == 0, "{}", std::strerror( errno ) );
}

void NfQueueSm::enlargeReceiveBuffer() {
   if ( setsockopt( nfq_fd( nfHandle_ ), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBufferBytes,
              sizeof receiveBufferBytes ) != 0 ) {
      HM_TRACE( 2, "no receive buffer of {} bytes: {}; bursts of checks may be lost", receiveBufferBytes,
            std::strerror( errno ) );
   }
}

void NfQueueSm::watchQueue() {
   const int fd = nfq_fd( nfHandle_ );
   HM_ASSERT( fcntl( fd, F_SETFL, fcntl( fd, F_GETFL ) | O_NONBLOCK ) == 0 &&
                    fcntl( fd, F_SETFD, FD_CLOEXEC ) == 0,
         "{}", std::strerror( errno ) );
   nfQueueFd_ = new FdWatcher( mainLoop_, fd, [this] { handleNfQueueReadable(); } );
}

void NfQueueSm::handleNfQueueReadable() {
   HM_TRACE( 9, "" );
   const auto received = recv( nfq_fd( nfHandle_ ), nfQueueRcvBuf, sizeof nfQueueRcvBuf, 0 );
   if ( received < 0 ) {
      const int error = errno;
      HM_TRACE( 1, "errno:{} error string:{}", error, std::strerror( error ) );
      commonData_->packetCounters().inc( PacketCount::receiveError );
      return;
   }
   const auto * const message = reinterpret_cast<const nlmsghdr *>( nfQueueRcvBuf );
   if ( received == sizeof nfQueueRcvBuf && message->nlmsg_len > sizeof nfQueueRcvBuf ) {
      dropCutOff( static_cast<std::size_t>( received ) );
      return;
   }
   nfq_handle_packet( nfHandle_, nfQueueRcvBuf, static_cast<int>( received ) );
}

void NfQueueSm::dropCutOff( std::size_t received ) {
   // The library passes over such a message, and its packet would keep its place in the queue for good.
   auto * const message = reinterpret_cast<nlmsghdr *>( nfQueueRcvBuf );
   message->nlmsg_len = static_cast<std::uint32_t>( received );
   if ( const auto packet = cutOffPacket( message ); packet.nfqPh ) {
      giveVerdict( nfQueueHandle_, packet, callbackArgs_.get() );
   }
}

void NfQueueSm::closeSockAndCheck( int sock ) {
   HM_TRACE( 9, "sock:{}", sock );
   if ( sock != uninitSocket ) {
      HM_ASSERT( close( sock ) == 0, "{}", std::strerror( errno ) );
   }
}

void NfQueueSm::discardReceived() const {
   // Unread packets, and an error that tells of lost ones, would stand in the way of the acknowledgements
   // that tear-down waits for. The kernel sends no more of them than wait for a verdict.
   const int fd = nfq_fd( nfHandle_ );
   while ( recv( fd, nfQueueRcvBuf, sizeof nfQueueRcvBuf, MSG_DONTWAIT ) >= 0 || errno == ENOBUFS ) {}
}

void NfQueueSm::doCleanup() {
   HM_TRACE( 9, "initialized:{}", initialized_ );
   if ( !initialized_ ) {
      return;
   }
   initialized_ = false;
   nfQueueFd_ = nullptr;
   if ( nfq_q_handle * const qh = std::exchange( nfQueueHandle_, nullptr ) ) {
      discardReceived();
      HM_TRACE( 9, "destroying queue binding" );
      HM_ASSERT( nfq_destroy_queue( qh ) == 0, "{}", std::strerror( errno ) );
   }
   if ( nfq_handle * const h = std::exchange( nfHandle_, nullptr ) ) {
      HM_TRACE( 9, "Closing nfqueue connection" );
      nfq_unbind_pf( h, AF_INET );
      nfq_unbind_pf( h, AF_INET6 );
      HM_ASSERT( nfq_close( h ) == 0, "{}", std::strerror( errno ) );
   }
   closeSockAndCheck( std::exchange( pingSock_, uninitSocket ) );
   closeSockAndCheck( std::exchange( ping6Sock_, uninitSocket ) );
}

Ptr<NfQueueSm> nfQueueSmFactory( Ptr<EventLoop> mainLoop, Ptr<const Bridging::Config> bridgingConfig,
      Ptr<const HmState::ProbeConfig> probeConfig, Ptr<const HmState::ServerStatus> serverStatus,
      Ptr<CommonData> commonData ) {
   return new NfQueueSm( std::move( mainLoop ), std::move( bridgingConfig ), std::move( probeConfig ),
         std::move( serverStatus ), std::move( commonData ) );
}

} // namespace hm
