#include "HealthMonitor/HmProbeEncap.h"

#include "HealthMonitor/HmEchoResponder.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <netinet/ip.h>
#include <netinet/ip6.h>

#include <linux/netfilter/nfnetlink_queue.h>
extern "C" { // the header does not say so itself
#include <libnetfilter_queue/libnetfilter_queue_ipv4.h>
}

namespace hm {

// The library takes the address of its header, which must be aligned for it.
alignas( iphdr ) std::uint8_t encapBuf[encapBufBytes];

namespace {

bool hasPorts( std::uint8_t protocol ) {
   return protocol == protocolUdp || protocol == protocolTcp;
}

/// Whether the IP header is whole and, of UDP and TCP, the source port behind it.
bool longEnough( ConstBytes payload, const IpLayout & layout ) {
   const auto least = [&]( std::size_t bytes ) { return payload.size() >= bytes; };
   return least( layout.hdrBytes ) &&
          ( !hasPorts( payload[layout.protocol] ) || least( layout.hdrBytes + 2 ) );
}

int drop( CommonData & commonData, PacketCount reason ) {
   commonData.packetCounters().inc( reason );
   return 1;
}

/// A drop of the encapsulation, which has a counter for all of them together.
int encapDrop( CommonData & commonData, PacketCount reason ) {
   commonData.encapDropCntInc( 1 );
   return drop( commonData, reason );
}

void putIpv4Addresses(
      std::uint32_t mark, const IpGenAddr & outerIp, const CallbackArgs & callbackData, Bytes header ) {
   HM_TRACE( 9, "mark v4:{} serverIp:{}", mark, outerIp );
   const auto & probeSrcIp = callbackData.serverStatus()->probeSrcIp();
   std::ranges::copy( outerIp.bytes(), header.subspan( ipv4Layout.destination ).begin() );
   HM_TRACE( 9, "srcIp:{}", probeSrcIp );
   std::ranges::copy( probeSrcIp.bytes(), header.subspan( ipv4Layout.source ).begin() );
}

void putIpv6Addresses( const IpGenAddr & outerIp, const CallbackArgs * callbackData, Bytes header ) {
   ip6_hdr addresses{};
   auto * const ipv6Hdr = &addresses;
   HM_TRACE( 9, "outerIp:{}", outerIp );
   HM_ASSERT( inet_pton( AF_INET6, outerIp.stringValue().charPtr(), &ipv6Hdr->ip6_dst ),
         "server address {} is no IPv6 address", outerIp );
   HM_TRACE( 9, "srcIp6:{}", callbackData->serverStatus()->probeSrcIp6() );
   HM_ASSERT( inet_pton( AF_INET6, callbackData->serverStatus()->probeSrcIp6().stringValue().charPtr(),
                    &ipv6Hdr->ip6_src ),
         "probe source address {} is no IPv6 address", callbackData->serverStatus()->probeSrcIp6() );
   std::memcpy( &header[ipv6Layout.source], &ipv6Hdr->ip6_src, ipv6Layout.addressBytes );
   std::memcpy( &header[ipv6Layout.destination], &ipv6Hdr->ip6_dst, ipv6Layout.addressBytes );
}

} // namespace

int processPkt( const QueuedPacket & packet, const CallbackArgs * callbackData, std::uint32_t & len ) {
   HM_TRACE( 9, "" );
   const auto * const nfqPh = packet.nfqPh;
   HM_ASSERT( nfqPh, "a packet without its header" );
   HM_ASSERT( callbackData, "a packet without the context of its queue" );
   HM_ASSERT( callbackData->probeConfig(), "no probe configuration" );
   HM_ASSERT( callbackData->commonData(), "no shared data" );
   auto & commonData = *callbackData->commonData();
   commonData.nfQueueRcvCntInc( 1 );

   const auto etherType = ntohs( nfqPh->hw_protocol );
   if ( etherType != etherTypeIpv4 && etherType != etherTypeIpv6 ) {
      HM_TRACE( 9, "Received invalid etherType:0x{:04x}", etherType );
      return encapDrop( commonData, PacketCount::etherType );
   }
   const bool isIpv6 = etherType == etherTypeIpv6;
   if ( packet.payloadBytes < 0 ) {
      HM_TRACE( 2, "get payload failed:{}", std::strerror( packet.error ) );
      return encapDrop( commonData, PacketCount::payloadUnread );
   }
   const ConstBytes payload( packet.payload, static_cast<std::size_t>( packet.payloadBytes ) );
   const auto & layout = isIpv6 ? ipv6Layout : ipv4Layout;
   if ( payload.size() > longestPayload( layout ) ) {
      HM_TRACE( 2, "payload too big:{}", payload.size() );
      return drop( commonData, PacketCount::tooBig );
   }
   if ( validateCallbackData( *callbackData, isIpv6 ) != 0 ) {
      return drop( commonData, isIpv6 ? PacketCount::noSourceIpv6 : PacketCount::noSourceIpv4 );
   }
   if ( !isIpv6 && verifyIcmpPingHdr( payload, *callbackData ) ) {
      return buildAndSendIcmpPingReply( payload, *callbackData );
   }
   if ( isIpv6 && verifyIcmp6PingHdr( payload, *callbackData ) ) {
      return buildAndSendIcmp6PingReply( payload, *callbackData );
   }
   if ( packet.mark == 0 ) {
      HM_TRACE( 2, "Received pkt without mark:" );
      return encapDrop( commonData, PacketCount::noMark );
   }
   return buildAndSendHmProbe( packet.mark, payload, *callbackData, *nfqPh, len, isIpv6 );
}

int validateCallbackData( const CallbackArgs & callbackData, bool isIpv6 ) {
   HM_TRACE( 9, "" );
   HM_ASSERT( callbackData.commonData(), "no shared data" );
   const auto & status = *callbackData.serverStatus();
   if ( isIpv6 ? !status.probeSrcIp6().unspecified() : !status.probeSrcIp().unspecified() ) {
      return 0;
   }
   HM_TRACE( 2, "{} is zero", isIpv6 ? "probeSrcIp6" : "probeSrcIp" );
   return 1;
}

int buildAndSendHmProbe( std::uint32_t mark, ConstBytes payload, const CallbackArgs & callbackData,
      const nfqnl_msg_packet_hdr & nfqPh, std::uint32_t & len, bool isIpv6 ) {
   HM_TRACE( 9, "mark:{}", mark );
   auto & commonData = *callbackData.commonData();
   constexpr int firstDynamicPort = 49152; // RFC 6335, section 6
   auto sport = static_cast<std::uint16_t>( firstDynamicPort + std::rand() % 16383 );
   std::uint8_t ttl = 255;
   const auto verify = isIpv6 ? verifyIP6Hdr : verifyIPHdr;
   if ( verify( payload, callbackData, sport, ttl ) != 0 ) {
      commonData.encapDropCntInc( 1 );
      return 1;
   }
   const auto & layout = isIpv6 ? ipv6Layout : ipv4Layout;
   const Bytes out( encapBuf );
   len = static_cast<std::uint32_t>( payload.size() + layout.hdrBytes + tunnelHdrBytes );
   isIpv6 ? buildIpv6Encap( out, payload.size(), ttl ) : buildIpEncap( out, payload.size(), ttl );
   const auto outerIp = commonData.markToServerIp( mark );
   if ( !outerIp || outerIp->unspecified() ) {
      HM_TRACE( 2, "ip address not found for mark:{}", mark );
      return encapDrop( commonData, PacketCount::noServer );
   }
   if ( outerIp->isIpv6() != isIpv6 ) {
      HM_TRACE( 2, "mark:{} serverIp:{} is of another family than the packet", mark, *outerIp );
      return encapDrop( commonData, PacketCount::serverFamily );
   }
   isIpv6 ? putIpv6Addresses( *outerIp, &callbackData, out )
          : putIpv4Addresses( mark, *outerIp, callbackData, out );
   const auto udp = out.subspan( layout.hdrBytes );
   buildUdpEncap( udp, payload.size(), sport, callbackData.probeConfig()->encapUdpDstPort() );
   buildVxlanEncap( udp.subspan( udpHdrBytes ), mark );
   buildL2Encap( udp.subspan( udpHdrBytes + vxlanHdrBytes ), nfqPh, callbackData );
   std::ranges::copy( payload, udp.subspan( tunnelHdrBytes ).begin() );
   if ( !isIpv6 ) {
      nfq_ip_set_checksum( reinterpret_cast<iphdr *>( encapBuf ) );
   }
   commonData.packetCounters().inc( isIpv6 ? PacketCount::encapsulatedIpv6 : PacketCount::encapsulatedIpv4 );
   return 0;
}

int verifyIPHdr(
      ConstBytes payload, const CallbackArgs & callbackData, std::uint16_t & sport, std::uint8_t & ttl ) {
   const auto * const ipHdr = payload.data();
   HM_ASSERT( ipHdr, "a packet without payload" );
   auto & commonData = *callbackData.commonData();
   if ( !longEnough( payload, ipv4Layout ) ) {
      HM_TRACE( 2, "Invalid pkt with len:{}", payload.size() );
      return drop( commonData, PacketCount::probeLength );
   }
   const auto & probeSrcIp = callbackData.serverStatus()->probeSrcIp();
   if ( const auto source = sourceOf( payload, ipv4Layout ); source != probeSrcIp ) {
      HM_TRACE( 2, "Invalid pkt src IP expected:{} got:{}", probeSrcIp, source );
      return drop( commonData, PacketCount::probeSource );
   }
   if ( hasPorts( payload[ipv4Layout.protocol] ) ) {
      sport = getBe16( payload, ipv4Layout.hdrBytes );
   }
   ttl = payload[ipv4Layout.hopLimit];
   return 0;
}

int verifyIP6Hdr( ConstBytes payload, const CallbackArgs & callbackData, std::uint16_t & sport,
      std::uint8_t & hopLimit ) {
   const auto * const ip6Hdr = payload.data();
   HM_ASSERT( ip6Hdr, "a packet without payload" );
   auto & commonData = *callbackData.commonData();
   if ( !longEnough( payload, ipv6Layout ) ) {
      HM_TRACE( 2, "Invalid v6 pkt with len:{}", payload.size() );
      return drop( commonData, PacketCount::probeLength );
   }
   const auto & probeSrcIp6 = callbackData.serverStatus()->probeSrcIp6();
   if ( const auto source = sourceOf( payload, ipv6Layout ); source != probeSrcIp6 ) {
      HM_TRACE( 2, "Invalid ipv6 pkt src IP expected:{} got:{}", probeSrcIp6, source );
      return drop( commonData, PacketCount::probeSource );
   }
   if ( const auto nextHeader = payload[ipv6Layout.protocol]; !hasPorts( nextHeader ) ) {
      HM_TRACE( 2, "Unexpected IPv6 nexthdr:{}", nextHeader );
      return drop( commonData, PacketCount::probeHeader );
   }
   sport = getBe16( payload, ipv6Layout.hdrBytes );
   hopLimit = payload[ipv6Layout.hopLimit];
   return 0;
}

} // namespace hm
