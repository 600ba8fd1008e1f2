#include "HealthMonitor/HmPacketHeaders.h"

#include "platform/Checksum.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>

#include <linux/netfilter/nfnetlink_queue.h>

namespace hm {

namespace {

constexpr std::uint8_t icmpEchoReply = 0;
constexpr std::uint8_t icmp6EchoReply = 129;

void copy( Bytes out, std::size_t at, ConstBytes from ) {
   std::ranges::copy( from, out.subspan( at, from.size() ).begin() );
}

/// An echo message as both families have it: type, code, checksum, then what comes back as it came.
void buildEchoMessage( ConstBytes request, std::uint8_t type, std::uint32_t sum, Bytes reply ) {
   copy( reply, 4, request.subspan( 4 ) );
   reply[0] = type;
   putBe16( reply, 2, ipChecksumCalc( ipChecksumChunk( reply, sum ) ) );
}

/// A reply goes where the request came from.
void swapAddresses( ConstBytes request, const IpLayout & layout, Bytes reply ) {
   copy( reply, layout.source, request.subspan( layout.destination, layout.addressBytes ) );
   copy( reply, layout.destination, request.subspan( layout.source, layout.addressBytes ) );
}

} // namespace

IpGenAddr sourceOf( ConstBytes packet, const IpLayout & layout ) {
   return IpGenAddr::fromBytes( packet.subspan( layout.source, layout.addressBytes ) );
}

IpGenAddr destinationOf( ConstBytes packet, const IpLayout & layout ) {
   return IpGenAddr::fromBytes( packet.subspan( layout.destination, layout.addressBytes ) );
}

std::uint16_t getBe16( ConstBytes in, std::size_t at ) {
   return static_cast<std::uint16_t>( in[at] << 8 | in[at + 1] );
}

void putBe16( Bytes out, std::size_t at, std::uint16_t value ) {
   out[at] = static_cast<std::uint8_t>( value >> 8 );
   out[at + 1] = static_cast<std::uint8_t>( value );
}

void buildIpEncap( Bytes out, std::size_t payloadBytes, std::uint8_t ttl ) {
   constexpr std::uint16_t dontFragment = 0x4000;
   const auto header = out.first( ipv4Layout.hdrBytes );
   std::ranges::fill( header, 0 );
   header[0] = 0x45; // version, and the header's length in words
   putBe16( header, 2, static_cast<std::uint16_t>( payloadBytes + ipv4Layout.hdrBytes + tunnelHdrBytes ) );
   putBe16( header, 6, dontFragment );
   header[ipv4Layout.hopLimit] = ttl;
   header[ipv4Layout.protocol] = protocolUdp;
}

void buildIpv6Encap( Bytes out, std::size_t payloadBytes, std::uint8_t hopLimit ) {
   const auto header = out.first( ipv6Layout.hdrBytes );
   std::ranges::fill( header, 0 );
   header[0] = 0x60; // version
   putBe16( header, 4, static_cast<std::uint16_t>( payloadBytes + tunnelHdrBytes ) );
   header[ipv6Layout.protocol] = protocolUdp;
   header[ipv6Layout.hopLimit] = hopLimit;
}

void buildUdpEncap( Bytes out, std::size_t payloadBytes, std::uint16_t sport, std::uint16_t dport ) {
   HM_TRACE( 9, " dport:{}", dport );
   putBe16( out, 0, sport );
   putBe16( out, 2, dport );
   putBe16( out, 4, static_cast<std::uint16_t>( payloadBytes + tunnelHdrBytes ) );
   putBe16( out, 6, 0 );
}

void buildVxlanEncap( Bytes out, std::uint32_t vni ) {
   HM_TRACE( 9, "vni:{}", vni );
   constexpr std::uint8_t vniPresent = 0x08;
   const auto header = out.first( vxlanHdrBytes );
   std::ranges::fill( header, 0 );
   header[0] = vniPresent;
   header[4] = static_cast<std::uint8_t>( vni >> 16 );
   putBe16( header, 5, static_cast<std::uint16_t>( vni ) );
}

void buildL2Encap( Bytes out, const nfqnl_msg_packet_hdr & nfqPh, const CallbackArgs & callbackData ) {
   const auto etherType = ntohs( nfqPh.hw_protocol );
   const auto & smac = callbackData.bridgingConfig()->bridgeMac();
   const auto & dmac = callbackData.probeConfig()->encapDstMac();
   HM_TRACE( 9, "hw_protocol:0x{:04x} smac:{} dmac:{}", etherType, smac.text(), dmac.text() );
   copy( out, 0, dmac.bytes );
   copy( out, 6, smac.bytes );
   putBe16( out, 12, etherType );
}

void buildIcmpEchoReply( ConstBytes request, std::uint16_t identification, Bytes reply ) {
   const auto & ip = ipv4Layout;
   reply[0] = 0x45;
   putBe16( reply, 2, static_cast<std::uint16_t>( request.size() ) );
   putBe16( reply, 4, identification );
   reply[ip.hopLimit] = request[ip.hopLimit];
   reply[ip.protocol] = protocolIcmp;
   swapAddresses( request, ip, reply );
   buildEchoMessage( request.subspan( ip.hdrBytes ), icmpEchoReply, 0, reply.subspan( ip.hdrBytes ) );
}

void buildIcmp6EchoReply( ConstBytes request, Bytes reply ) {
   const auto & ip = ipv6Layout;
   const auto messageBytes = static_cast<std::uint16_t>( request.size() - ip.hdrBytes );
   reply[0] = 0x60;
   putBe16( reply, 4, messageBytes );
   reply[ip.protocol] = protocolIcmp6;
   reply[ip.hopLimit] = request[ip.hopLimit];
   swapAddresses( request, ip, reply );
   // The pseudo-header of RFC 8200, section 8.1: both addresses, and then this.
   std::array<std::uint8_t, 8> pseudo{};
   putBe16( pseudo, 2, messageBytes );
   pseudo[7] = protocolIcmp6;
   const auto sum =
         ipChecksumChunk( pseudo, ipChecksumChunk( reply.subspan( ip.source, 2 * ip.addressBytes ) ) );
   buildEchoMessage( request.subspan( ip.hdrBytes ), icmp6EchoReply, sum, reply.subspan( ip.hdrBytes ) );
}

} // namespace hm
