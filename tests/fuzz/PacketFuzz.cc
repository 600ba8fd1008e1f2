// Any bytes as a packet from the netfilter queue: each ends in one count, and what leaves is well formed.
//
// An input is a byte for the type of the frame, one for the mark, one of flags, and the packet.
#include "HealthMonitor/HmProbeEncap.h"
#include "platform/Checksum.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>

#include <linux/netfilter/nfnetlink_queue.h>

using namespace hm;

namespace {

IpGenAddr ip( const char * text ) {
   return *IpGenAddr::fromText( text );
}

/// An agent's objects around the packet path, with probes to one server of each family.
struct World {
   World() {
      data->markToServerIpIs( 1, ip( "10.1.1.1" ) );
      data->markToServerIpIs( 2, ip( "2001:db8:1::1" ) );
      data->markToServerIpIs( 0xff000003, ip( "10.1.1.3" ) );
      data->markToServerIpIs( 4, IpGenAddr{} );
   }
   /// The sum of all counts in which a packet ends.
   std::uint64_t ended() const {
      std::uint64_t sum = 0;
      for ( auto what = 0; what <= static_cast<int>( PacketCount::serverFamily ); ++what ) {
         sum += data->packetCounters()[static_cast<PacketCount>( what )];
      }
      return sum;
   }

   const Ptr<Bridging::Config> bridging = new Bridging::Config;
   const Ptr<HmState::ProbeConfig> config = new HmState::ProbeConfig;
   const Ptr<HmState::ServerStatus> status = new HmState::ServerStatus;
   const Ptr<CommonData> data = new CommonData;
   ConstBytes request;
   bool sends = true;
};

bool sameBytes( ConstBytes a, ConstBytes b ) {
   return std::ranges::equal( a, b );
}

void checkReply( World & world, ConstBytes reply, const IpGenAddr & to ) {
   const auto & layout = to.isIpv6() ? ipv6Layout : ipv4Layout;
   HM_ASSERT( reply.size() == world.request.size(), "{} bytes", reply.size() );
   HM_ASSERT( sourceOf( reply, layout ) == destinationOf( world.request, layout ), "source" );
   HM_ASSERT(
         destinationOf( reply, layout ) == to && sourceOf( world.request, layout ) == to, "destination" );
   const auto message = reply.subspan( layout.hdrBytes );
   auto sum = ipChecksumChunk( message );
   if ( to.isIpv6() ) {
      sum += ipChecksumChunk( reply.subspan( layout.source, 32 ) ) +
             static_cast<std::uint32_t>( message.size() ) + protocolIcmp6;
   }
   HM_ASSERT( ipChecksumCalc( sum ) == 0, "checksum" );
   HM_ASSERT( sameBytes( message.subspan( 4 ), world.request.subspan( layout.hdrBytes + 4 ) ), "data" );
}

void checkProbe( ConstBytes out, ConstBytes payload, bool isIpv6 ) {
   const auto & layout = isIpv6 ? ipv6Layout : ipv4Layout;
   HM_ASSERT( out.size() == payload.size() + layout.hdrBytes + tunnelHdrBytes, "{} bytes", out.size() );
   HM_ASSERT( out[0] == ( isIpv6 ? 0x60 : 0x45 ), "version" );
   HM_ASSERT( isIpv6 || ipChecksumCalc( ipChecksumChunk( out.first( 20 ) ) ) == 0, "checksum" );
   HM_ASSERT( getBe16( out, isIpv6 ? 4 : 2 ) == out.size() - ( isIpv6 ? 40 : 0 ), "length" );
   HM_ASSERT( sourceOf( out, layout ) == sourceOf( payload, layout ), "source" );
   HM_ASSERT( getBe16( out, layout.hdrBytes + 4 ) == out.size() - layout.hdrBytes, "UDP length" );
   HM_ASSERT( sameBytes( out.last( payload.size() ), payload ), "probe" );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t * input, std::size_t size ) {
   static World world;
   static const Ptr<CallbackArgs> args = new CallbackArgs( 4, world.bridging, world.config, world.status,
         world.data, 6, []( int, std::span<const std::uint8_t> reply, const IpGenAddr & to ) -> ssize_t {
            checkReply( world, reply, to );
            return world.sends ? static_cast<ssize_t>( reply.size() ) : -1;
         } );
   if ( size < 3 ) {
      return 0;
   }
   constexpr std::uint32_t marks[] = { 0, 1, 2, 0xff000003, 4, 5 };
   constexpr std::uint16_t etherTypes[] = { etherTypeIpv4, etherTypeIpv6, 0x0806 };
   const bool isIpv6 = input[0] % 3 == 1;
   const auto flags = input[2];
   world.status->probeSrcIpIs( flags & 1 ? IpGenAddr{} : ip( "10.0.0.1" ) );
   world.status->probeSrcIp6Is( flags & 1 ? ip( "::" ) : ip( "2001:db8::1" ) );
   world.config->pingDisabledVipDelAll();
   if ( flags & 2 ) {
      world.config->pingDisabledVipIs( ip( "192.0.2.10" ) );
      world.config->pingDisabledVipIs( ip( "2001:db8::10" ) );
   }
   world.sends = !( flags & 4 );
   nfqnl_msg_packet_hdr header{};
   header.hw_protocol = htons( etherTypes[input[0] % 3] );
   world.request = ConstBytes( input + 3, size - 3 );
   const auto ended = world.ended(), received = world.data->nfQueueRcvCnt();
   std::uint32_t len = 0;
   const int verdict =
         processPkt( { .nfqPh = &header,
                           .payload = world.request.data(),
                           .payloadBytes = flags & 8 ? -1 : static_cast<int>( world.request.size() ),
                           .error = EMSGSIZE,
                           .mark = marks[input[1] % std::size( marks )] },
               args.get(), len );
   HM_ASSERT( world.ended() == ended + 1 && world.data->nfQueueRcvCnt() == received + 1, "not counted once" );
   if ( verdict == 0 ) {
      checkProbe( ConstBytes( encapBuf ).first( len ), world.request, isIpv6 );
   }
   return 0;
}

extern "C" int LLVMFuzzerInitialize( int *, char *** ) {
   traceFacility().levelsIs( 0x3ff ); // the arguments of traces are built too
   return 0;
}
