#include "HealthMonitor/HmEchoResponder.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>

namespace hm {

namespace {

struct Free {
   void operator()( std::uint8_t * memory ) const { std::free( memory ); }
};
using Reply = std::unique_ptr<std::uint8_t, Free>;

Reply newReply( std::size_t bytes ) {
   return Reply( static_cast<std::uint8_t *>( std::calloc( 1, bytes ) ) );
}

} // namespace

ssize_t sendOnRawSocket( int sock, std::span<const std::uint8_t> packet, const IpGenAddr & to ) {
   // A raw socket reads nothing of it but the address: the packet's own header says the rest.
   sockaddr_in address{};
   address.sin_family = AF_INET;
   sockaddr_in6 address6{};
   address6.sin6_family = AF_INET6;
   const void * where = &address;
   socklen_t size = sizeof address;
   if ( to.isIpv6() ) {
      std::memcpy( &address6.sin6_addr, to.bytes().data(), sizeof address6.sin6_addr );
      where = &address6;
      size = sizeof address6;
   } else {
      std::memcpy( &address.sin_addr, to.bytes().data(), to.bytes().size() );
   }
   return sendto( sock, packet.data(), packet.size(), 0, static_cast<const sockaddr *>( where ), size );
}

int verifyIcmpPingHdr( ConstBytes payload, const CallbackArgs & callbackData ) {
   HM_TRACE( 9, "" );
   const auto * const ipHdr = payload.data();
   HM_ASSERT( ipHdr, "a packet without payload" );
   if ( payload.size() < ipv4Layout.hdrBytes + icmpEchoHdrBytes ) {
      HM_TRACE( 2, "Invalid pkt with len:{}", payload.size() );
      return 0;
   }
   if ( payload[ipv4Layout.protocol] != protocolIcmp ) {
      return 0;
   }
   const auto vip = destinationOf( payload, ipv4Layout );
   if ( callbackData.probeConfig()->pingDisabledVipHas( vip ) ) {
      HM_TRACE( 2, "Ping reply disabled for vip: {}", vip );
      callbackData.commonData()->packetCounters().inc( PacketCount::pingDisabled );
      return 0;
   }
   return 1;
}

int verifyIcmp6PingHdr( ConstBytes payload, const CallbackArgs & callbackData ) {
   HM_TRACE( 9, "" );
   const auto * const ip6Hdr = payload.data();
   HM_ASSERT( ip6Hdr, "a packet without payload" );
   if ( payload.size() < ipv6Layout.hdrBytes + icmpEchoHdrBytes ) {
      HM_TRACE( 2, "Invalid v6 pkt with len:{}", payload.size() );
      return 0;
   }
   if ( payload[ipv6Layout.protocol] != protocolIcmp6 ) {
      return 0;
   }
   const auto vip = destinationOf( payload, ipv6Layout );
   if ( callbackData.probeConfig()->pingDisabledVipHas( vip ) ) {
      HM_TRACE( 2, "Ping reply disabled for vip: {}", vip );
      callbackData.commonData()->packetCounters().inc( PacketCount::pingDisabled );
      return 0;
   }
   return 1;
}

int buildAndSendIcmpPingReply( ConstBytes payload, const CallbackArgs & callbackData ) {
   const auto * const origIpHdr = payload.data();
   HM_ASSERT( origIpHdr, "a packet without payload" );
   const auto icmpReply = newReply( payload.size() );
   HM_ASSERT( icmpReply, "no memory for {} bytes", payload.size() );
   const Bytes reply( icmpReply.get(), payload.size() );
   buildIcmpEchoReply( payload, static_cast<std::uint16_t>( std::rand() ), reply );
   auto & counters = callbackData.commonData()->packetCounters();
   const auto sent = callbackData.send()( callbackData.pingSock(), reply, sourceOf( payload, ipv4Layout ) );
   if ( sent > 0 ) {
      HM_TRACE( 5, "Successfully sent ICMP echo reply bytes: {}", sent );
      counters.inc( PacketCount::repliedIpv4 );
   } else {
      HM_TRACE( 2, "Sending ICMP echo reply failed {}", std::strerror( errno ) );
      counters.inc( PacketCount::replyFailedIpv4 );
   }
   return 1;
}

int buildAndSendIcmp6PingReply( ConstBytes payload, const CallbackArgs & callbackData ) {
   const auto * const origIp6Hdr = payload.data();
   HM_ASSERT( origIp6Hdr, "a packet without payload" );
   const auto icmpReply = newReply( payload.size() );
   HM_ASSERT( icmpReply, "no memory for {} bytes", payload.size() );
   const Bytes reply( icmpReply.get(), payload.size() );
   buildIcmp6EchoReply( payload, reply );
   auto & counters = callbackData.commonData()->packetCounters();
   const auto sent = callbackData.send()( callbackData.ping6Sock(), reply, sourceOf( payload, ipv6Layout ) );
   if ( sent > 0 ) {
      HM_TRACE( 2, "Successfully sent ICMPv6 echo reply bytes: {}", sent );
      counters.inc( PacketCount::repliedIpv6 );
   } else {
      HM_TRACE( 2, "Sending ICMPv6 echo reply failed {}", std::strerror( errno ) );
      counters.inc( PacketCount::replyFailedIpv6 );
   }
   return 1;
}

} // namespace hm
