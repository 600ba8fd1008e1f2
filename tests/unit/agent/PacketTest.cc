// The packet path on packets made here: what goes out, byte for byte, and what becomes of everything else.
#include "HealthMonitor/HmEchoResponder.h"
#include "HealthMonitor/HmProbeEncap.h"
#include "platform/Checksum.h"
#include "TestValues.h"
#include "TraceLines.h"

#include <arpa/inet.h>

#include <linux/netfilter/nfnetlink_queue.h>

namespace hm::test {
namespace {

using testing::ElementsAreArray;
using Packet = std::vector<std::uint8_t>;

constexpr std::uint32_t mark = 0x3ffe;

/// Hexadecimal digits, blanks between them as one likes.
Packet hex( std::string_view text ) {
   Packet bytes;
   std::string digits;
   std::ranges::copy_if( text, std::back_inserter( digits ), []( char c ) { return c != ' '; } );
   for ( std::size_t i = 0; i < digits.size(); i += 2 ) {
      bytes.push_back( static_cast<std::uint8_t>( std::stoi( digits.substr( i, 2 ), nullptr, 16 ) ) );
   }
   return bytes;
}

/// A header, filled up with bytes that tell their place.
Packet filled( Packet packet, std::size_t bytes ) {
   const auto header = packet.size();
   packet.resize( bytes );
   for ( auto i = header; i < bytes; ++i ) {
      packet[i] = static_cast<std::uint8_t>( i );
   }
   return packet;
}

/// From 10.0.0.1:0x8001, time to live 61.
Packet ipv4( std::uint8_t protocol, std::size_t bytes = 44, const char * to = "192.0.2.10" ) {
   auto packet = hex( "45000000 00000000 3d000000 0a000001 00000000 80010050" );
   packet[9] = protocol;
   std::ranges::copy( ip( to ).bytes(), packet.begin() + 16 );
   return filled( packet, bytes );
}

/// From 2001:db8::1, port 0x8002, hop limit 62.
Packet ipv6( std::uint8_t nextHeader, std::size_t bytes = 64, const char * to = "2001:db8::10" ) {
   auto packet = hex( "60000000 0000003e 20010db8 00000000 00000000 00000001"
                      "00000000 00000000 00000000 00000000 800201bb" );
   packet[6] = nextHeader;
   std::ranges::copy( ip( to ).bytes(), packet.begin() + 24 );
   return filled( packet, bytes );
}

class PacketPath : public testing::Test {
 protected:
   PacketPath() {
      status_->probeSrcIpIs( ip( "10.0.0.1" ) );
      status_->probeSrcIp6Is( ip( "2001:db8::1" ) );
      config_->encapDstMacIs( *EthAddr::fromText( "02:00:00:00:00:0a" ) );
      config_->encapUdpDstPortIs( 4789 );
      bridging_->bridgeMacIs( *EthAddr::fromText( "02:00:00:00:00:0b" ) );
      data_->markToServerIpIs( mark, ip( "10.1.1.1" ) );
      data_->markToServerIpIs( mark + 1, ip( "2001:db8:1::1" ) );
   }
   std::uint64_t count( PacketCount what ) const { return data_->packetCounters()[what]; }

   /// Through processPkt(), in memory of exactly the packet's size.
   int process( const Packet & packet, std::uint32_t itsMark = 0, int etherType = 0, int error = 0 ) {
      const bool six = !packet.empty() && packet[0] >> 4 == 6;
      const std::unique_ptr<std::uint8_t[]> exact( new std::uint8_t[packet.size()] );
      std::ranges::copy( packet, exact.get() );
      header_.hw_protocol = htons( static_cast<std::uint16_t>( etherType ? etherType
                                                               : six     ? 0x86dd
                                                                         : 0x0800 ) );
      std::uint32_t len = 0;
      const int verdict = processPkt( { .nfqPh = &header_,
                                            .payload = exact.get(),
                                            .payloadBytes = error ? -1 : static_cast<int>( packet.size() ),
                                            .error = error,
                                            .mark = itsMark },
            args_.get(), len );
      out_.assign( encapBuf, encapBuf + ( verdict == 0 ? len : 0 ) );
      return verdict;
   }

   const Ptr<Bridging::Config> bridging_ = new Bridging::Config;
   const Ptr<HmState::ProbeConfig> config_ = new HmState::ProbeConfig;
   const Ptr<HmState::ServerStatus> status_ = new HmState::ServerStatus;
   const Ptr<CommonData> data_ = new CommonData;
   nfqnl_msg_packet_hdr header_{};
   Packet out_; // what is to leave in the packet's place
   struct Sent {
      int sock;
      Packet packet;
      IpGenAddr to;
   };
   std::vector<Sent> sent_;
   ssize_t sendResult_ = 1;
   const Ptr<CallbackArgs> args_ = new CallbackArgs( 4, bridging_, config_, status_, data_, 6,
         [this]( int sock, std::span<const std::uint8_t> packet, const IpGenAddr & to ) {
            sent_.push_back( { sock, { packet.begin(), packet.end() }, to } );
            return sendResult_;
         } );
};

TEST_F( PacketPath, ProbesLeaveInATunnelToTheirServer ) {
   const auto tcp = ipv4( 6 ), six = ipv6( 6 );
   Packet tunnelled, tunnelledSix;
   const auto lines = linesOf( [&] {
      EXPECT_EQ( process( tcp, mark ), 0 );
      tunnelled = out_;
      EXPECT_EQ( process( six, mark + 1 ), 0 );
      tunnelledSix = out_;
   } );
   auto wanted =
         hex( "45 00 005e 0000 4000 3d 11 288d 0a000001 0a010101" // 44 + 50 bytes, don't fragment, TTL 61
              "8001 12b5 004a 0000"                               // the probe's port to 4789, 74 bytes
              "08 000000 003ffe 00"                               // the mark as network identifier
              "02000000000a 02000000000b 0800" );
   wanted.insert( wanted.end(), tcp.begin(), tcp.end() );
   EXPECT_THAT( tunnelled, ElementsAreArray( wanted ) );
   wanted = hex( "60000000 005e 11 3e 20010db8000000000000000000000001 20010db8000100000000000000000001"
                 "8002 12b5 005e 0000"
                 "08 000000 003fff 00"
                 "02000000000a 02000000000b 86dd" );
   wanted.insert( wanted.end(), six.begin(), six.end() );
   EXPECT_THAT( tunnelledSix, ElementsAreArray( wanted ) );

   EXPECT_EQ( data_->nfQueueRcvCnt(), 2u );
   EXPECT_EQ( data_->encapDropCnt(), 0u );
   EXPECT_EQ( count( PacketCount::encapsulatedIpv4 ), 1u );
   EXPECT_EQ( count( PacketCount::encapsulatedIpv6 ), 1u );
   expectLines( lines,
         { { 9, "processPkt:" }, { 9, "validateCallbackData:" }, { 9, "buildAndSendHmProbe:mark:16382" },
               { 9, "putIpv4Addresses:mark v4:16382 serverIp:10.1.1.1" },
               { 9, "putIpv4Addresses:srcIp:10.0.0.1" }, { 9, "putIpv6Addresses:outerIp:2001:db8:1::1" },
               { 9, "putIpv6Addresses:srcIp6:2001:db8::1" }, { 9, "buildUdpEncap: dport:4789" },
               { 9, "buildVxlanEncap:vni:16382" },
               { 9, "buildL2Encap:hw_protocol:0x0800 smac:02:00:00:00:00:0b dmac:02:00:00:00:00:0a" } } );
}

TEST_F( PacketPath, TheNetworkIdentifierIsTheLow24BitsOfTheMark ) {
   data_->markToServerIpIs( 0xfe123456, ip( "10.1.1.1" ) );
   ASSERT_EQ( process( ipv4( 17 ), 0xfe123456 ), 0 );
   EXPECT_THAT(
         Packet( out_.begin() + 28, out_.begin() + 36 ), ElementsAreArray( hex( "0800000012345600" ) ) );
}

TEST_F( PacketPath, AnIpv4ProbeWithoutPortsGetsOneOfItsOwn ) {
   for ( int i = 0; i < 100; ++i ) {
      ASSERT_EQ( process( ipv4( 47, 20 ), mark ), 0 );
      EXPECT_GE( getBe16( out_, 20 ), 49152 );
      EXPECT_LE( getBe16( out_, 20 ), 65534 );
   }
}

TEST_F( PacketPath, TheLargestProbeFillsTheBuffer ) {
   EXPECT_EQ( process( ipv4( 6, 16384 - 50 ), mark ), 0 );
   EXPECT_EQ( out_.size(), 16384u );
   EXPECT_EQ( process( ipv6( 6, 16384 - 70 ), mark + 1 ), 0 );
   EXPECT_EQ( out_.size(), 16384u );
}

TEST_F( PacketPath, DropsWhatItCannotHandleAndSaysSo ) {
   const auto foreign = []( Packet packet ) {
      packet[packet[0] >> 4 == 6 ? 23 : 15] = 2;
      return packet;
   };
   const struct {
      Packet packet;
      std::uint32_t mark;
      PacketCount count;
      bool encapDrop;
      TraceRow trace;
      int etherType = 0, error = 0;
   } rows[] = {
         { ipv4( 6 ), mark, PacketCount::etherType, true,
               { 9, "processPkt:Received invalid etherType:0x0806" }, 0x0806 },
         { {}, mark, PacketCount::payloadUnread, true,
               { 2, "processPkt:get payload failed:Message too long" }, 0x0800, EMSGSIZE },
         { ipv4( 6, 16384 - 49 ), mark, PacketCount::tooBig, false,
               { 2, "processPkt:payload too big:16335" } },
         { ipv6( 6, 16384 - 69 ), mark + 1, PacketCount::tooBig, false,
               { 2, "processPkt:payload too big:16315" } },
         { ipv4( 6 ), 0, PacketCount::noMark, true, { 2, "processPkt:Received pkt without mark:" } },
         { foreign( ipv6( 6 ) ), mark + 1, PacketCount::probeSource, true,
               { 2, "verifyIP6Hdr:Invalid ipv6 pkt src IP expected:2001:db8::1 got:2001:db8::2" } },
         { foreign( ipv4( 6 ) ), mark, PacketCount::probeSource, true,
               { 2, "verifyIPHdr:Invalid pkt src IP expected:10.0.0.1 got:10.0.0.2" } },
         { ipv6( 44 ), mark + 1, PacketCount::probeHeader, true,
               { 2, "verifyIP6Hdr:Unexpected IPv6 nexthdr:44" } },
         { ipv4( 6 ), 77, PacketCount::noServer, true,
               { 2, "buildAndSendHmProbe:ip address not found for mark:77" } },
         { ipv6( 6 ), 78, PacketCount::noServer, true,
               { 2, "buildAndSendHmProbe:ip address not found for mark:78" } },
         { ipv4( 6 ), mark + 1, PacketCount::serverFamily, true,
               { 2, "buildAndSendHmProbe:mark:16383 serverIp:2001:db8:1::1 is of another family than the "
                    "packet" } },
         { ipv6( 6 ), mark, PacketCount::serverFamily, true,
               { 2, "buildAndSendHmProbe:mark:16382 serverIp:10.1.1.1 is of another family than the "
                    "packet" } },
   };
   data_->markToServerIpIs( 78, ip( "::" ) );
   for ( const auto & row : rows ) {
      SCOPED_TRACE( row.trace.text );
      const auto received = data_->nfQueueRcvCnt(), drops = data_->encapDropCnt(),
                 counted = count( row.count );
      expectLines(
            linesOf( [&] { EXPECT_EQ( process( row.packet, row.mark, row.etherType, row.error ), 1 ); } ),
            { row.trace } );
      EXPECT_EQ( count( row.count ), counted + 1 );
      EXPECT_EQ( data_->nfQueueRcvCnt(), received + 1 );
      EXPECT_EQ( data_->encapDropCnt(), drops + row.encapDrop );
   }
}

TEST_F( PacketPath, WithoutItsSourceAddressAFamilyIsDroppedUncounted ) {
   for ( const auto * unset : { "", "0.0.0.0", "::" } ) {
      status_->probeSrcIpIs( ip( unset ) );
      status_->probeSrcIp6Is( ip( unset ) );
      for ( const auto & packet : { ipv4( 6 ), ipv4( 1 ), ipv6( 6 ), ipv6( 58 ) } ) {
         EXPECT_EQ( process( packet, mark ), 1 ) << unset;
      }
   }
   EXPECT_EQ( count( PacketCount::noSourceIpv4 ), 6u );
   EXPECT_EQ( count( PacketCount::noSourceIpv6 ), 6u );
   EXPECT_EQ( data_->encapDropCnt(), 0u );
   EXPECT_TRUE( sent_.empty() );
}

TEST_F( PacketPath, EveryTruncatedLengthIsJudgedByWhatIsThere ) {
   using enum PacketCount;
   const struct {
      Packet packet;
      std::uint32_t mark;
      std::size_t whole; // from this length on it is taken
      PacketCount shorter, taken;
   } rows[] = {
         { ipv4( 6 ), mark, 22, probeLength, encapsulatedIpv4 },
         { ipv4( 17 ), mark, 22, probeLength, encapsulatedIpv4 },
         { ipv4( 47 ), mark, 20, probeLength, encapsulatedIpv4 },
         { ipv6( 6 ), mark + 1, 42, probeLength, encapsulatedIpv6 },
         { ipv4( 1 ), 0, 28, noMark, repliedIpv4 },
         { ipv6( 58 ), 0, 48, noMark, repliedIpv6 },
   };
   for ( const auto & row : rows ) {
      const int etherType = row.packet[0] >> 4 == 6 ? 0x86dd : 0x0800;
      for ( std::size_t bytes = 0; bytes <= row.packet.size(); ++bytes ) {
         const auto what = bytes < row.whole ? row.shorter : row.taken;
         const auto before = count( what );
         auto packet = row.packet;
         packet.resize( bytes );
         process( packet, row.mark, etherType );
         EXPECT_EQ( count( what ), before + 1 ) << &row - rows << ", " << bytes << " bytes";
      }
   }
}

TEST_F( PacketPath, EchoRequestsAreAnswered ) {
   /// The one reply, its checksum taken out after it was found right.
   const auto replyTo = [this]( const Packet & request, const Sent & expected, std::size_t checked,
                              std::uint32_t pseudoHeader, std::size_t checksumAt ) {
      sent_.clear();
      EXPECT_EQ( process( request ), 1 );
      EXPECT_EQ( sent_.size(), 1u );
      auto [sock, reply, to] = sent_.at( 0 );
      EXPECT_EQ( sock, expected.sock );
      EXPECT_EQ( to, expected.to );
      EXPECT_EQ(
            ipChecksumCalc( ipChecksumChunk( std::span( reply ).subspan( checked ) ) + pseudoHeader ), 0 );
      putBe16( reply, checksumAt, 0 );
      return reply;
   };
   for ( const std::size_t bytes : { 28, 29, 83, 84, 1500, 16384 - 50 } ) {
      const auto request = ipv4( 1, bytes );
      auto reply = replyTo( request, { 4, {}, ip( "10.0.0.1" ) }, 20, 0, 22 );
      putBe16( reply, 4, 0 ); // an identification by chance
      auto wanted = hex( "4500 0000 0000 0000 3d01 0000 c000020a 0a000001 0000 0000" );
      putBe16( wanted, 2, static_cast<std::uint16_t>( bytes ) );
      wanted.insert( wanted.end(), request.begin() + 24, request.end() );
      EXPECT_THAT( reply, ElementsAreArray( wanted ) ) << bytes;
   }
   for ( const std::size_t bytes : { 48, 49, 104, 16384 - 70 } ) {
      const auto request = ipv6( 58, bytes );
      const auto message = static_cast<std::uint16_t>( bytes - 40 );
      // The addresses, the message, and of the pseudo-header its length and the protocol.
      const auto reply = replyTo( request, { 6, {}, ip( "2001:db8::1" ) }, 8, message + 58u, 42 );
      auto wanted =
            hex( "60000000 0000 3a 3e 20010db8000000000000000000000010 20010db8000000000000000000000001"
                 "8100 0000" );
      putBe16( wanted, 4, message );
      wanted.insert( wanted.end(), request.begin() + 44, request.end() );
      EXPECT_THAT( reply, ElementsAreArray( wanted ) ) << bytes;
   }
   EXPECT_EQ( data_->encapDropCnt(), 0u );
}

TEST_F( PacketPath, SilencedAddressesAndFailedRepliesAreCounted ) {
   config_->pingDisabledVipIs( ip( "192.0.2.10" ) );
   config_->pingDisabledVipIs( ip( "2001:db8::10" ) );
   expectLines( linesOf( [this] {
      EXPECT_EQ( process( ipv4( 1 ) ), 1 );
      EXPECT_EQ( process( ipv6( 58 ) ), 1 );
   } ),
         { { 2, "verifyIcmpPingHdr:Ping reply disabled for vip: 192.0.2.10" },
               { 2, "verifyIcmp6PingHdr:Ping reply disabled for vip: 2001:db8::10" } } );
   EXPECT_TRUE( sent_.empty() );
   EXPECT_EQ( count( PacketCount::pingDisabled ), 2u );
   EXPECT_EQ( count( PacketCount::noMark ), 2u );
   EXPECT_EQ( data_->encapDropCnt(), 2u );
   // A silenced address does not make a probe of what carries a mark.
   EXPECT_EQ( process( ipv6( 58 ), mark + 1 ), 1 );
   EXPECT_EQ( count( PacketCount::probeHeader ), 1u );

   const auto lines = linesOf( [this] {
      for ( const auto result : { 64, -1 } ) {
         sendResult_ = result;
         EXPECT_EQ( process( ipv4( 1, 64, "192.0.2.11" ) ), 1 );
         EXPECT_EQ( process( ipv6( 58, 64, "2001:db8::11" ) ), 1 );
      }
   } );
   expectLines(
         lines, { { 5, "buildAndSendIcmpPingReply:Successfully sent ICMP echo reply bytes: 64" },
                      { 2, "buildAndSendIcmp6PingReply:Successfully sent ICMPv6 echo reply bytes: 64" } } );
   EXPECT_EQ( countOf( lines, "buildAndSendIcmpPingReply:Sending ICMP echo reply failed " ), 1 );
   for ( const auto what : { PacketCount::repliedIpv4, PacketCount::repliedIpv6, PacketCount::replyFailedIpv4,
               PacketCount::replyFailedIpv6 } ) {
      EXPECT_EQ( count( what ), 1u );
   }
}

using PacketPathDeathTest = PacketPath;

TEST_F( PacketPathDeathTest, StopsWithoutItsOwnObjects ) {
   std::uint32_t len = 0;
   std::uint16_t port = 0;
   std::uint8_t ttl = 0;
   const auto processWith = [&]( const CallbackArgs * args, const nfqnl_msg_packet_hdr * header ) {
      return [=, &len] { processPkt( { .nfqPh = header }, args, len ); };
   };
   const Ptr<CallbackArgs> unconfigured = new CallbackArgs( 4, bridging_, nullptr, status_, data_, 6 );
   const Ptr<CallbackArgs> dataless = new CallbackArgs( 4, bridging_, config_, status_, nullptr, 6 );
   expectDeaths( {
         { "assertion failed: nfqPh:", processWith( args_.get(), nullptr ) },
         { "assertion failed: callbackData:", processWith( nullptr, &header_ ) },
         { "assertion failed: callbackData->probeConfig():", processWith( unconfigured.get(), &header_ ) },
         { "assertion failed: callbackData->commonData():", processWith( dataless.get(), &header_ ) },
         { "assertion failed: ipHdr:", [&] { verifyIPHdr( {}, *args_, port, ttl ); } },
         { "assertion failed: ip6Hdr:", [&] { verifyIP6Hdr( {}, *args_, port, ttl ); } },
         { "assertion failed: ipHdr:", [&] { verifyIcmpPingHdr( {}, *args_ ); } },
         { "assertion failed: ip6Hdr:", [&] { verifyIcmp6PingHdr( {}, *args_ ); } },
         { "assertion failed: origIpHdr:", [&] { buildAndSendIcmpPingReply( {}, *args_ ); } },
         { "assertion failed: origIp6Hdr:", [&] { buildAndSendIcmp6PingReply( {}, *args_ ); } },
   } );
}

TEST( KernelQueue, IsReadFromTheTableOfTheKernel ) {
   const auto * const table = "    3  4711     1 2 65535     9     8        7  1\n"
                              "    0  12345    5 2 65535    17    42     1000  1\n";
   const auto queue = kernelQueueFromText( table, 0 );
   ASSERT_TRUE( queue );
   EXPECT_EQ( queue->waiting, 5u );
   EXPECT_EQ( queue->queueDropped, 17u );
   EXPECT_EQ( queue->userDropped, 42u );
   for ( const auto * text : { "", "\n", "0 1 2\n", "x\n", "3  4711 1 2 65535 9 8 7 1\n" } ) {
      EXPECT_FALSE( kernelQueueFromText( text, 0 ) ) << text;
   }
}

} // namespace
} // namespace hm::test
