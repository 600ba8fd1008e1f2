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

/// From 10.0.0.1:0x8001, time to live 61.
Packet ipv4( std::uint8_t protocol, std::size_t bytes = 44, const char * to = "192.0.2.10" ) {
   auto packet = hex( "45000000 00000000 3d000000 0a000001 00000000 80010050" );
   packet[9] = protocol;
   std::ranges::copy( ip( to ).bytes(), packet.begin() + 16 );
   const auto header = packet.size();
   packet.resize( bytes );
   for ( auto i = header; i < bytes; ++i ) {
      packet[i] = static_cast<std::uint8_t>( i );
   }
   return packet;
}

/// From 2001:db8::1, port 0x8002, hop limit 62.
Packet ipv6( std::uint8_t nextHeader, std::size_t bytes = 64, const char * to = "2001:db8::10" ) {
   auto packet = hex( "60000000 0000003e 20010db8 00000000 00000000 00000001" );
   packet[6] = nextHeader;
   const auto address = ip( to );
   packet.insert( packet.end(), address.bytes().begin(), address.bytes().end() );
   for ( const auto byte : { 0x80, 0x02, 0x01, 0xbb } ) {
      packet.push_back( static_cast<std::uint8_t>( byte ) );
   }
   const auto header = packet.size();
   packet.resize( bytes );
   for ( auto i = header; i < bytes; ++i ) {
      packet[i] = static_cast<std::uint8_t>( i );
   }
   return packet;
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
   int process( const Packet & packet, std::uint32_t itsMark = 0, int etherType = 0 ) {
      const bool six = !packet.empty() && packet[0] >> 4 == 6;
      return process( packet, itsMark,
            etherType ? etherType
            : six     ? 0x86dd
                      : 0x0800,
            static_cast<int>( packet.size() ) );
   }
   int process( const Packet & packet, std::uint32_t itsMark, int etherType, int payloadBytes ) {
      const std::unique_ptr<std::uint8_t[]> exact( new std::uint8_t[packet.size()] );
      std::ranges::copy( packet, exact.get() );
      header_.hw_protocol = htons( static_cast<std::uint16_t>( etherType ) );
      std::uint32_t len = 0;
      const int verdict = processPkt( { .nfqPh = &header_,
                                            .payload = exact.get(),
                                            .payloadBytes = payloadBytes,
                                            .error = EMSGSIZE,
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
   const auto tcp = ipv4( 6 );
   ASSERT_EQ( process( tcp, mark ), 0 );
   auto wanted =
         hex( "45 00 005e 0000 4000 3d 11 288d 0a000001 0a010101" // 44 + 50 bytes, don't fragment, TTL 61
              "8001 12b5 004a 0000"                               // the probe's port to 4789, 74 bytes
              "08 000000 003ffe 00"                               // the mark as network identifier
              "02000000000a 02000000000b 0800" );
   wanted.insert( wanted.end(), tcp.begin(), tcp.end() );
   EXPECT_THAT( out_, ElementsAreArray( wanted ) );

   const auto six = ipv6( 6 );
   ASSERT_EQ( process( six, mark + 1 ), 0 );
   wanted = hex( "60000000 005e 11 3e 20010db8000000000000000000000001 20010db8000100000000000000000001"
                 "8002 12b5 005e 0000"
                 "08 000000 003fff 00"
                 "02000000000a 02000000000b 86dd" );
   wanted.insert( wanted.end(), six.begin(), six.end() );
   EXPECT_THAT( out_, ElementsAreArray( wanted ) );

   EXPECT_EQ( data_->nfQueueRcvCnt(), 2u );
   EXPECT_EQ( data_->encapDropCnt(), 0u );
   EXPECT_EQ( count( PacketCount::encapsulatedIpv4 ), 1u );
   EXPECT_EQ( count( PacketCount::encapsulatedIpv6 ), 1u );
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
   const struct {
      const char * name;
      Packet packet;
      std::uint32_t mark;
      PacketCount count;
      bool encapDrop;
      int level;
      const char * trace;
      int etherType = 0;
   } rows[] = {
         { "ARP", ipv4( 6 ), mark, PacketCount::etherType, true, 9,
               "processPkt:Received invalid etherType:0x0806", 0x0806 },
         { "too big", ipv4( 6, 16384 - 49 ), mark, PacketCount::tooBig, false, 2,
               "processPkt:payload too big:16335" },
         { "too big for IPv6", ipv6( 6, 16384 - 69 ), mark + 1, PacketCount::tooBig, false, 2,
               "processPkt:payload too big:16315" },
         { "no mark", ipv4( 6 ), 0, PacketCount::noMark, true, 2, "processPkt:Received pkt without mark:" },
         { "another's probe", ipv6( 6, 64, "2001:db8::10" ), mark + 1, PacketCount::probeSource, true, 2,
               "verifyIP6Hdr:Invalid ipv6 pkt src IP expected:2001:db8::1 got:2001:db8::2" },
         { "another's IPv4 probe", ipv4( 6 ), mark, PacketCount::probeSource, true, 2,
               "verifyIPHdr:Invalid pkt src IP expected:10.0.0.1 got:10.0.0.2" },
         { "extension header", ipv6( 44 ), mark + 1, PacketCount::probeHeader, true, 2,
               "verifyIP6Hdr:Unexpected IPv6 nexthdr:44" },
         { "unknown mark", ipv4( 6 ), 77, PacketCount::noServer, true, 2,
               "buildAndSendHmProbe:ip address not found for mark:77" },
         { "mark of ::", ipv6( 6 ), 78, PacketCount::noServer, true, 2,
               "buildAndSendHmProbe:ip address not found for mark:78" },
         { "IPv4 to an IPv6 server", ipv4( 6 ), mark + 1, PacketCount::serverFamily, true, 2,
               "buildAndSendHmProbe:mark:16383 serverIp:2001:db8:1::1 is of another family than the packet" },
         { "IPv6 to an IPv4 server", ipv6( 6 ), mark, PacketCount::serverFamily, true, 2,
               "buildAndSendHmProbe:mark:16382 serverIp:10.1.1.1 is of another family than the packet" },
   };
   data_->markToServerIpIs( 78, ip( "::" ) );
   for ( auto row : rows ) {
      if ( row.count == PacketCount::probeSource ) {
         row.packet[row.packet[0] >> 4 == 6 ? 23 : 15] = 2;
      }
      const auto received = data_->nfQueueRcvCnt(), drops = data_->encapDropCnt(),
                 counted = count( row.count );
      int verdict = 0;
      const auto lines = linesOf( [&] { verdict = process( row.packet, row.mark, row.etherType ); } );
      EXPECT_EQ( verdict, 1 ) << row.name;
      EXPECT_EQ( count( row.count ), counted + 1 ) << row.name;
      EXPECT_EQ( data_->nfQueueRcvCnt(), received + 1 ) << row.name;
      EXPECT_EQ( data_->encapDropCnt(), drops + row.encapDrop ) << row.name;
      expectLines( lines, { { row.level, row.trace } } );
   }
   const auto lines = linesOf( [this] { EXPECT_EQ( process( {}, mark, 0x0800, -1 ), 1 ); } );
   EXPECT_EQ( count( PacketCount::payloadUnread ), 1u );
   expectLines( lines, { { 2, "processPkt:get payload failed:Message too long" } } );
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
   const struct {
      const char * name;
      Packet packet;
      std::uint32_t mark;
      int etherType;
      std::size_t whole; // from this length on it is taken
      PacketCount shorter, taken;
   } rows[] = {
         { "IPv4 TCP", ipv4( 6 ), mark, 0x0800, 22, PacketCount::probeLength, PacketCount::encapsulatedIpv4 },
         { "IPv4 UDP", ipv4( 17 ), mark, 0x0800, 22, PacketCount::probeLength,
               PacketCount::encapsulatedIpv4 },
         { "IPv4 GRE", ipv4( 47 ), mark, 0x0800, 20, PacketCount::probeLength,
               PacketCount::encapsulatedIpv4 },
         { "IPv6 TCP", ipv6( 6 ), mark + 1, 0x86dd, 42, PacketCount::probeLength,
               PacketCount::encapsulatedIpv6 },
         { "echo", ipv4( 1 ), 0, 0x0800, 28, PacketCount::noMark, PacketCount::repliedIpv4 },
         { "IPv6 echo", ipv6( 58 ), 0, 0x86dd, 48, PacketCount::noMark, PacketCount::repliedIpv6 },
   };
   for ( const auto & row : rows ) {
      for ( std::size_t bytes = 0; bytes <= row.packet.size(); ++bytes ) {
         const auto what = bytes < row.whole ? row.shorter : row.taken;
         const auto before = count( what );
         process( { row.packet.begin(), row.packet.begin() + static_cast<std::ptrdiff_t>( bytes ) }, row.mark,
               row.etherType );
         EXPECT_EQ( count( what ), before + 1 ) << row.name << ", " << bytes << " bytes";
      }
   }
}

TEST_F( PacketPath, EchoRequestsAreAnswered ) {
   for ( const std::size_t bytes : { 28, 29, 83, 84, 1500, 16384 - 50 } ) {
      sent_.clear();
      const auto request = ipv4( 1, bytes, "192.0.2.10" );
      EXPECT_EQ( process( request ), 1 );
      ASSERT_EQ( sent_.size(), 1u ) << bytes;
      EXPECT_EQ( sent_[0].sock, 4 );
      EXPECT_EQ( sent_[0].to, ip( "10.0.0.1" ) );
      auto reply = sent_[0].packet;
      ASSERT_EQ( reply.size(), bytes );
      EXPECT_EQ( ipChecksumCalc( ipChecksumChunk( std::span( reply ).subspan( 20 ) ) ), 0 ) << bytes;
      auto wanted = hex( "4500 0000 0000 0000 3d01 0000 c000020a 0a000001 0000 0000" );
      putBe16( wanted, 2, static_cast<std::uint16_t>( bytes ) );
      wanted.insert( wanted.end(), request.begin() + 24, request.end() );
      putBe16( reply, 4, 0 ); // an identification by chance
      putBe16( reply, 22, 0 );
      EXPECT_THAT( reply, ElementsAreArray( wanted ) ) << bytes;
   }
   for ( const std::size_t bytes : { 48, 49, 104, 16384 - 70 } ) {
      sent_.clear();
      const auto request = ipv6( 58, bytes );
      EXPECT_EQ( process( request ), 1 );
      ASSERT_EQ( sent_.size(), 1u ) << bytes;
      EXPECT_EQ( sent_[0].sock, 6 );
      EXPECT_EQ( sent_[0].to, ip( "2001:db8::1" ) );
      auto reply = sent_[0].packet;
      ASSERT_EQ( reply.size(), bytes );
      // The addresses, the message, and of the pseudo-header its length and the protocol.
      const auto sum = ipChecksumChunk( std::span( reply ).subspan( 8 ) );
      EXPECT_EQ( ipChecksumCalc( sum + static_cast<std::uint32_t>( bytes - 40 + 58 ) ), 0 ) << bytes;
      auto wanted =
            hex( "60000000 0000 3a 3e 20010db8000000000000000000000010 20010db8000000000000000000000001"
                 "8100 0000" );
      putBe16( wanted, 4, static_cast<std::uint16_t>( bytes - 40 ) );
      wanted.insert( wanted.end(), request.begin() + 44, request.end() );
      putBe16( reply, 42, 0 );
      EXPECT_THAT( reply, ElementsAreArray( wanted ) ) << bytes;
   }
   EXPECT_EQ( data_->encapDropCnt(), 0u );
}

TEST_F( PacketPath, SilencedAddressesAndFailedRepliesAreCounted ) {
   config_->pingDisabledVipIs( ip( "192.0.2.10" ) );
   config_->pingDisabledVipIs( ip( "2001:db8::10" ) );
   auto lines = linesOf( [this] {
      EXPECT_EQ( process( ipv4( 1 ) ), 1 );
      EXPECT_EQ( process( ipv6( 58 ) ), 1 );
   } );
   expectLines( lines, { { 2, "verifyIcmpPingHdr:Ping reply disabled for vip: 192.0.2.10" },
                             { 2, "verifyIcmp6PingHdr:Ping reply disabled for vip: 2001:db8::10" },
                             { 2, "processPkt:Received pkt without mark:" } } );
   EXPECT_TRUE( sent_.empty() );
   EXPECT_EQ( count( PacketCount::pingDisabled ), 2u );
   EXPECT_EQ( count( PacketCount::noMark ), 2u );
   EXPECT_EQ( data_->encapDropCnt(), 2u );
   // A silenced address does not make a probe of what carries a mark.
   EXPECT_EQ( process( ipv6( 58 ), mark + 1 ), 1 );
   EXPECT_EQ( count( PacketCount::probeHeader ), 1u );

   lines = linesOf( [this] {
      for ( sendResult_ = 64; sendResult_ >= -1; sendResult_ -= 65 ) {
         EXPECT_EQ( process( ipv4( 1, 64, "192.0.2.11" ) ), 1 );
         EXPECT_EQ( process( ipv6( 58, 64, "2001:db8::11" ) ), 1 );
      }
   } );
   expectLines(
         lines, { { 5, "buildAndSendIcmpPingReply:Successfully sent ICMP echo reply bytes: 64" },
                      { 2, "buildAndSendIcmp6PingReply:Successfully sent ICMPv6 echo reply bytes: 64" } } );
   EXPECT_TRUE( std::ranges::any_of( lines, []( const auto & line ) {
      return line.find( "buildAndSendIcmpPingReply:Sending ICMP echo reply failed " ) != line.npos;
   } ) );
   EXPECT_EQ( count( PacketCount::repliedIpv4 ), 1u );
   EXPECT_EQ( count( PacketCount::repliedIpv6 ), 1u );
   EXPECT_EQ( count( PacketCount::replyFailedIpv4 ), 1u );
   EXPECT_EQ( count( PacketCount::replyFailedIpv6 ), 1u );
}

TEST_F( PacketPath, TracesWhatItBuilds ) {
   const auto lines = linesOf( [this] {
      process( ipv4( 6 ), mark );
      process( ipv6( 6 ), mark + 1 );
   } );
   expectLines( lines,
         { { 9, "processPkt:" }, { 9, "validateCallbackData:" }, { 9, "buildAndSendHmProbe:mark:16382" },
               { 9, "putIpv4Addresses:mark v4:16382 serverIp:10.1.1.1" },
               { 9, "putIpv4Addresses:srcIp:10.0.0.1" }, { 9, "putIpv6Addresses:outerIp:2001:db8:1::1" },
               { 9, "putIpv6Addresses:srcIp6:2001:db8::1" }, { 9, "buildUdpEncap: dport:4789" },
               { 9, "buildVxlanEncap:vni:16382" },
               { 9, "buildL2Encap:hw_protocol:0x0800 smac:02:00:00:00:00:0b dmac:02:00:00:00:00:0a" } } );
}

using PacketPathDeathTest = PacketPath;

TEST_F( PacketPathDeathTest, StopsWithoutItsOwnObjects ) {
   std::uint32_t len = 0;
   const auto processWith = [&]( const Ptr<CallbackArgs> & args, const nfqnl_msg_packet_hdr * header ) {
      processPkt( { .nfqPh = header }, args.get(), len );
   };
   EXPECT_DEATH( processWith( args_, nullptr ), "assertion failed: nfqPh:" );
   EXPECT_DEATH( processWith( nullptr, &header_ ), "assertion failed: callbackData:" );
   EXPECT_DEATH( processWith( new CallbackArgs( 4, bridging_, nullptr, status_, data_, 6 ), &header_ ),
         "assertion failed: callbackData->probeConfig\\(\\):" );
   EXPECT_DEATH( processWith( new CallbackArgs( 4, bridging_, config_, status_, nullptr, 6 ), &header_ ),
         "assertion failed: callbackData->commonData\\(\\):" );
   std::uint16_t port = 0;
   std::uint8_t ttl = 0;
   EXPECT_DEATH( verifyIPHdr( {}, *args_, port, ttl ), "assertion failed: ipHdr:" );
   EXPECT_DEATH( verifyIP6Hdr( {}, *args_, port, ttl ), "assertion failed: ip6Hdr:" );
   EXPECT_DEATH( verifyIcmpPingHdr( {}, *args_ ), "assertion failed: ipHdr:" );
   EXPECT_DEATH( verifyIcmp6PingHdr( {}, *args_ ), "assertion failed: ip6Hdr:" );
   EXPECT_DEATH( buildAndSendIcmpPingReply( {}, *args_ ), "assertion failed: origIpHdr:" );
   EXPECT_DEATH( buildAndSendIcmp6PingReply( {}, *args_ ), "assertion failed: origIp6Hdr:" );
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
