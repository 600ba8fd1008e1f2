#pragma once

#include "HealthMonitor/HmPacketHeaders.h"

/// What is done with each packet from the netfilter queue: marked probes are rebuilt as VXLAN to the server
/// of their mark, echo requests to virtual addresses are answered, all else is dropped. Main thread only.
/// Nothing that a packet holds stops the process.
namespace hm {

/// A packet as the kernel hands it over.
struct QueuedPacket {
   const nfqnl_msg_packet_hdr * nfqPh = nullptr;
   const std::uint8_t * payload = nullptr; // from the IP header on
   int payloadBytes = -1;                  // negative: it could not be read, for `error` (an errno)
   int error = 0;
   std::uint32_t mark = 0; // 0: none
};

/// The buffer of the process that a probe is rebuilt in. Its content is valid until the next packet.
inline constexpr std::size_t encapBufBytes = 16384;
extern std::uint8_t encapBuf[encapBufBytes];

/// The longest packet of a family that fits there with its headers in front.
constexpr std::size_t longestPayload( const IpLayout & layout ) {
   return encapBufBytes - layout.hdrBytes - tunnelHdrBytes;
}

/// 0: accept, with the first `len` bytes of encapBuf as the new packet. 1: drop.
int processPkt( const QueuedPacket & packet, const CallbackArgs * callbackData, std::uint32_t & len );

/// 0 when the probe source address of the family is set.
int validateCallbackData( const CallbackArgs & callbackData, bool isIpv6 );

/// Rebuilds a probe into encapBuf for the server of `mark`: 0, and its length in `len`; 1 when it cannot be.
int buildAndSendHmProbe( std::uint32_t mark, ConstBytes payload, const CallbackArgs & callbackData,
      const nfqnl_msg_packet_hdr & nfqPh, std::uint32_t & len, bool isIpv6 );

/// 0 when the packet may be a probe of ours; then `sport` (host order) is that of its transport header, where
/// it has one, and `ttl` its own. Otherwise both stay.
int verifyIPHdr(
      ConstBytes payload, const CallbackArgs & callbackData, std::uint16_t & sport, std::uint8_t & ttl );
int verifyIP6Hdr(
      ConstBytes payload, const CallbackArgs & callbackData, std::uint16_t & sport, std::uint8_t & hopLimit );

} // namespace hm
