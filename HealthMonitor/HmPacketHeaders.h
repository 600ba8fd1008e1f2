#pragma once

#include "HealthMonitor/HmCallbackArgs.h"

#include <span>

struct nfqnl_msg_packet_hdr;

/// Headers on the wire. Builders write one header at the start of `out`, which must hold it; numbers passed
/// in are in host order, what stands in a packet is in network order. Nothing here allocates.
namespace hm {

using Bytes = std::span<std::uint8_t>;
using ConstBytes = std::span<const std::uint8_t>;

inline constexpr std::uint16_t etherTypeIpv4 = 0x0800;
inline constexpr std::uint16_t etherTypeIpv6 = 0x86dd;

inline constexpr std::uint8_t protocolIcmp = 1;
inline constexpr std::uint8_t protocolTcp = 6;
inline constexpr std::uint8_t protocolUdp = 17;
inline constexpr std::uint8_t protocolIcmp6 = 58;

inline constexpr std::size_t udpHdrBytes = 8;
inline constexpr std::size_t vxlanHdrBytes = 8;
inline constexpr std::size_t ethHdrBytes = 14;
inline constexpr std::size_t icmpEchoHdrBytes = 8; // both families: type to sequence number
/// What stands between the outer IP header and the packet inside.
inline constexpr std::size_t tunnelHdrBytes = udpHdrBytes + vxlanHdrBytes + ethHdrBytes;

/// Where the two versions of IP keep what both have: offsets in their header without options, in bytes.
struct IpLayout {
   std::size_t hdrBytes;
   std::size_t hopLimit; // TTL
   std::size_t protocol; // of what follows
   std::size_t source;
   std::size_t destination;
   std::size_t addressBytes;
};
inline constexpr IpLayout ipv4Layout{ 20, 8, 9, 12, 16, 4 }; // RFC 791, section 3.1
inline constexpr IpLayout ipv6Layout{ 40, 7, 6, 8, 24, 16 }; // RFC 8200, section 3

/// Both need the whole header of `layout` in `packet`.
IpGenAddr sourceOf( ConstBytes packet, const IpLayout & layout );
IpGenAddr destinationOf( ConstBytes packet, const IpLayout & layout );

std::uint16_t getBe16( ConstBytes in, std::size_t at );
void putBe16( Bytes out, std::size_t at, std::uint16_t value );

/// The outer IPv4 header (RFC 791, section 3.1) of a packet of `payloadBytes` inside, 20 bytes: don't
/// fragment, UDP. Addresses and checksum stay 0.
void buildIpEncap( Bytes out, std::size_t payloadBytes, std::uint8_t ttl );
/// The outer IPv6 header (RFC 8200, section 3), 40 bytes. Addresses stay 0.
void buildIpv6Encap( Bytes out, std::size_t payloadBytes, std::uint8_t hopLimit );
/// UDP (RFC 768), 8 bytes, without a checksum; over IPv6 a tunnel may do so (RFC 6935).
void buildUdpEncap( Bytes out, std::size_t payloadBytes, std::uint16_t sport, std::uint16_t dport );
/// VXLAN (RFC 7348, section 5), 8 bytes:
///     byte   0      1  2  3    4  5  6    7
///            0x08   0  0  0    VNI        0
/// Only the low 24 bits of `vni` are used.
void buildVxlanEncap( Bytes out, std::uint32_t vni );
/// The inner Ethernet header (IEEE 802.3), 14 bytes: from the bridge to the configured address, with the type
/// of the queued packet.
void buildL2Encap( Bytes out, const nfqnl_msg_packet_hdr & nfqPh, const CallbackArgs & callbackData );

/// The reply to an ICMP echo request (RFC 792, page 14), `request` without options and at least 28 bytes
/// long; `reply` is zero and as long. The IPv4 checksum is left to the kernel.
void buildIcmpEchoReply( ConstBytes request, std::uint16_t identification, Bytes reply );
/// The reply to an ICMPv6 echo request (RFC 4443, section 4.2), `request` without extension headers and at
/// least 48 bytes long; `reply` is zero and as long.
void buildIcmp6EchoReply( ConstBytes request, Bytes reply );

} // namespace hm
