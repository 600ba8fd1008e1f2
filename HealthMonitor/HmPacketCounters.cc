#include "HealthMonitor/HmPacketCounters.h"

#include "HealthMonitor/HmCommonData.h"
#include "HealthMonitor/HmNfQueueSm.h"
#include "platform/CliPrinter.h"

#include <fstream>
#include <sstream>

namespace hm {

namespace {

constexpr const char * kernelQueues = "/proc/net/netfilter/nfnetlink_queue";

struct Row {
   PacketCount what;
   const char * key; // of JSON
   const char * text;
};
constexpr Row rows[] = {
      { PacketCount::encapsulatedIpv4, "encapsulatedIpv4", "Encapsulated, IPv4" },
      { PacketCount::encapsulatedIpv6, "encapsulatedIpv6", "Encapsulated, IPv6" },
      { PacketCount::repliedIpv4, "repliedIpv4", "Echo replies, IPv4" },
      { PacketCount::repliedIpv6, "repliedIpv6", "Echo replies, IPv6" },
      { PacketCount::replyFailedIpv4, "replyFailedIpv4", "Echo replies not sent, IPv4" },
      { PacketCount::replyFailedIpv6, "replyFailedIpv6", "Echo replies not sent, IPv6" },
      { PacketCount::etherType, "dropEtherType", "Dropped, neither IPv4 nor IPv6" },
      { PacketCount::payloadUnread, "dropPayloadUnread", "Dropped, payload not read" },
      { PacketCount::tooBig, "dropTooBig", "Dropped, too big" },
      { PacketCount::noSourceIpv4, "dropNoSourceIpv4", "Dropped, no IPv4 probe source address" },
      { PacketCount::noSourceIpv6, "dropNoSourceIpv6", "Dropped, no IPv6 probe source address" },
      { PacketCount::noMark, "dropNoMark", "Dropped, without mark" },
      { PacketCount::probeLength, "dropProbeLength", "Dropped, probe cut off" },
      { PacketCount::probeSource, "dropProbeSource", "Dropped, probe from another address" },
      { PacketCount::probeHeader, "dropProbeHeader", "Dropped, IPv6 probe not UDP or TCP" },
      { PacketCount::noServer, "dropNoServer", "Dropped, mark of no server" },
      { PacketCount::serverFamily, "dropServerFamily", "Dropped, server of the other family" },
      { PacketCount::pingDisabled, "pingDisabled", "Echo requests not to be answered" },
      { PacketCount::receiveError, "receiveErrors", "Receive errors" },
      { PacketCount::verdictFailed, "verdictFailures", "Verdicts not taken" },
};
static_assert( std::size( rows ) == static_cast<std::size_t>( PacketCount::last ) );

void line( CliPrinter & printer, const char * key, const char * text, std::uint64_t count ) {
   printer.attribute(
         key, count, "%-38s %s\n", fmt::format( "{}:", text ).c_str(), fmt::format( "{}", count ).c_str() );
}

} // namespace

std::optional<KernelQueue> kernelQueueFromText( std::string_view text, std::uint32_t number ) {
   std::istringstream lines{ std::string( text ) };
   for ( std::string fields; std::getline( lines, fields ); ) {
      std::istringstream in( fields );
      std::uint64_t queue, peer, copyMode, copyRange;
      KernelQueue found;
      if ( in >> queue >> peer >> found.waiting >> copyMode >> copyRange >> found.queueDropped >>
                  found.userDropped &&
            queue == number ) {
         return found;
      }
   }
   return std::nullopt;
}

void showPackets( unsigned socket, unsigned format, const CommonData & commonData ) {
   CliPrinter printer( socket, format );
   printer.start();
   printer.dictStart( "hmPackets" );
   line( printer, "received", "Received", commonData.nfQueueRcvCnt() );
   for ( const auto & row : rows ) {
      line( printer, row.key, row.text, commonData.packetCounters()[row.what] );
   }
   line( printer, "encapDrops", "Encapsulation drops together", commonData.encapDropCnt() );
   std::ifstream file( kernelQueues );
   const std::string text{ std::istreambuf_iterator<char>( file ), {} };
   if ( const auto queue = kernelQueueFromText( text, NfQueueSm::queueNumber ) ) {
      line( printer, "kernelWaiting", "Kernel, waiting for a verdict", queue->waiting );
      line( printer, "kernelQueueDropped", "Kernel, dropped for a full queue", queue->queueDropped );
      line( printer, "kernelUserDropped", "Kernel, dropped for a full buffer", queue->userDropped );
   } else {
      printer.frill( "The kernel does not know queue %u.\n", unsigned{ NfQueueSm::queueNumber } );
   }
   printer.dictEnd();
   printer.end();
   printer.flush();
}

} // namespace hm
