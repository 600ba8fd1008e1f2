#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace hm {

/// What became of packets from the netfilter queue. Each received packet ends in exactly one of the counts up
/// to `serverFamily`; the others come beside them.
enum class PacketCount : std::uint8_t {
   encapsulatedIpv4,
   encapsulatedIpv6,
   repliedIpv4, // echo requests that were answered
   repliedIpv6,
   replyFailedIpv4, // the system did not take the reply
   replyFailedIpv6,
   etherType,     // neither IPv4 nor IPv6
   payloadUnread, // the kernel or the receive buffer did not bring it whole
   tooBig,        // for the buffer that packets are rebuilt in
   noSourceIpv4,  // the probe source address is not set
   noSourceIpv6,
   noMark,       // no probe, and no echo request to answer
   probeLength,  // a probe whose headers are cut off
   probeSource,  // a probe that does not come from the probe source address
   probeHeader,  // an IPv6 probe with neither UDP nor TCP behind its header
   noServer,     // of this mark
   serverFamily, // the server of the mark has another one than the probe

   pingDisabled, // echo requests to addresses that are told not to answer; they end in noMark
   receiveError,
   verdictFailed, // the kernel did not take the verdict
   last,
};

/// Main thread only.
class PacketCounters {
 public:
   void inc( PacketCount what ) { ++counts_[static_cast<std::size_t>( what )]; }
   std::uint64_t operator[]( PacketCount what ) const { return counts_[static_cast<std::size_t>( what )]; }

 private:
   std::array<std::uint64_t, static_cast<std::size_t>( PacketCount::last )> counts_{};
};

/// What the kernel says of a netfilter queue that a program has bound.
struct KernelQueue {
   std::uint64_t waiting = 0;      // packets without a verdict
   std::uint64_t queueDropped = 0; // packets that the queue was too short for
   std::uint64_t userDropped = 0;  // packets that the program's receive buffer was too small for
};

/// Finds queue `number` in the text of /proc/net/netfilter/nfnetlink_queue. Empty when nobody has bound it.
[[nodiscard]] std::optional<KernelQueue> kernelQueueFromText( std::string_view text, std::uint32_t number );

class CommonData;

/// "show health-monitor packets": every count, and what the kernel says of the queue, to `socket` in `format`
/// as CliPrinter takes them.
void showPackets( unsigned socket, unsigned format, const CommonData & commonData );

} // namespace hm
