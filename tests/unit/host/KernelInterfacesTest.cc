#include "host/InterfaceTable.h"

#include <cerrno>
#include <cstring>

#include <gmock/gmock.h>

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

namespace host {

using platform::IpGenAddr;
using platform::IpGenPrefix;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;
using Origin = InterfaceTable::Origin;

IpGenAddr ip( const char * text ) {
   return IpGenAddr::fromText( text ).value();
}

/// One message as the kernel writes it.
template<class Fixed>
class Message {
 public:
   Message( std::uint16_t type, const Fixed & fixed ) : bytes_( 1024 ) {
      header()->nlmsg_type = type;
      header()->nlmsg_len = MNL_NLMSG_HDRLEN;
      std::memcpy( mnl_nlmsg_put_extra_header( header(), sizeof fixed ), &fixed, sizeof fixed );
   }
   Message & text( std::uint16_t type, const char * value ) {
      mnl_attr_put_strz( header(), type, value );
      return *this;
   }
   Message & binary( std::uint16_t type, std::span<const std::uint8_t> value ) {
      mnl_attr_put( header(), type, value.size(), value.data() );
      return *this;
   }
   Message & kind( const char * name ) {
      auto * nest = mnl_attr_nest_start( header(), IFLA_LINKINFO );
      mnl_attr_put_strz( header(), IFLA_INFO_KIND, name );
      mnl_attr_nest_end( header(), nest );
      return *this;
   }
   Bytes bytes() { return { bytes_.begin(), bytes_.begin() + header()->nlmsg_len }; }
   nlmsghdr * header() { return reinterpret_cast<nlmsghdr *>( bytes_.data() ); }

 private:
   Bytes bytes_;
};

Message<ifinfomsg> linkBytes( std::uint8_t family = AF_UNSPEC ) {
   Message<ifinfomsg> message( RTM_NEWLINK, { family, 0, ARPHRD_ETHER, 7, IFF_UP, 0 } );
   message.text( IFLA_IFNAME, "Loopback0" )
         .binary( IFLA_ADDRESS, Bytes{ 2, 0, 0, 0, 0, 9 } )
         .kind( "bridge" );
   return message;
}

Message<ifaddrmsg> addressBytes( std::uint8_t family, const char * own, std::uint32_t flags = 0 ) {
   Message<ifaddrmsg> message( RTM_NEWADDR, { family, 24, 0, RT_SCOPE_UNIVERSE, 7 } );
   message.binary( IFA_ADDRESS, ip( own ).bytes() );
   if ( family == AF_INET ) {
      message.binary( IFA_LOCAL, ip( own ).bytes() );
   }
   Bytes wide( 4 );
   std::memcpy( wide.data(), &flags, 4 );
   message.binary( IFA_FLAGS, wide );
   return message;
}

TEST( RtNetlink, ReadsLinksAndAddressesOfOneDatagram ) {
   auto bytes = linkBytes().bytes();
   for ( auto more : { addressBytes( AF_INET, "10.0.0.1", IFA_F_SECONDARY ).bytes(),
               addressBytes( AF_INET6, "2001:db8::1", IFA_F_TENTATIVE | IFA_F_NOPREFIXROUTE ).bytes() } ) {
      bytes.insert( bytes.end(), more.begin(), more.end() );
   }
   const auto read = rtMessages( bytes );
   EXPECT_EQ( read.malformed, 0u );
   ASSERT_EQ( read.messages.size(), 3u );
   const auto & link = std::get<LinkMessage>( read.messages[0].content );
   EXPECT_EQ( link.index, 7 );
   EXPECT_EQ( link.name, "Loopback0" );
   EXPECT_EQ( link.mac.text(), "02:00:00:00:00:09" );
   EXPECT_TRUE( link.up && link.ethernet && link.bridge && !link.removed );
   const auto & ipv4 = std::get<AddressMessage>( read.messages[1].content );
   EXPECT_EQ( ipv4.prefix.text(), "10.0.0.1/24" );
   EXPECT_TRUE( ipv4.secondary && ipv4.usable && ipv4.global );
   const auto & ipv6 = std::get<AddressMessage>( read.messages[2].content );
   EXPECT_EQ( ipv6.prefix.text(), "2001:db8::1/24" );
   EXPECT_FALSE( ipv6.usable );
   Message<ifaddrmsg> ofHost( RTM_NEWADDR, { AF_INET6, 128, 0, RT_SCOPE_HOST, 7 } );
   const auto loopback = rtMessages( ofHost.binary( IFA_ADDRESS, ip( "::1" ).bytes() ).bytes() ).messages;
   EXPECT_FALSE( std::get<AddressMessage>( loopback.at( 0 ).content ).usable );
}

struct Odd {
   const char * name;
   Bytes bytes;
   std::size_t messages;
   std::size_t malformed;
};

void PrintTo( const Odd & odd, std::ostream * os ) {
   *os << odd.name;
}

class OddMessages : public ::testing::TestWithParam<Odd> {};

TEST_P( OddMessages, AreLeftOut ) {
   const auto read = rtMessages( GetParam().bytes );
   EXPECT_EQ( read.messages.size(), GetParam().messages );
   EXPECT_EQ( read.malformed, GetParam().malformed );
}

Bytes withLength( std::uint32_t length ) {
   auto bytes = linkBytes().bytes();
   std::memcpy( bytes.data(), &length, sizeof length );
   return bytes;
}

Bytes other( std::uint16_t type, Bytes payload = {} ) {
   Bytes bytes( MNL_NLMSG_HDRLEN );
   bytes.insert( bytes.end(), payload.begin(), payload.end() );
   auto * header = reinterpret_cast<nlmsghdr *>( bytes.data() );
   header->nlmsg_type = type;
   header->nlmsg_len = static_cast<std::uint32_t>( bytes.size() );
   return bytes;
}

Bytes truncatedFixed( std::uint16_t type ) {
   return other( type, { AF_UNSPEC, 0, 0 } );
}

INSTANTIATE_TEST_SUITE_P( Table, OddMessages,
      ::testing::Values( Odd{ "lengthBelowHeader", withLength( 15 ), 0, 1 },
            Odd{ "lengthBeyondTheDatagram", withLength( 4000 ), 0, 1 },
            Odd{ "lengthNegativeAsInt", withLength( 0xfffffff0 ), 0, 1 },
            Odd{ "restOfTwoBytes", Bytes{ 1, 2 }, 0, 1 }, Odd{ "empty", Bytes{}, 0, 0 },
            Odd{ "portOfABridge", linkBytes( AF_BRIDGE ).bytes(), 0, 0 },
            Odd{ "addressOfAnotherProtocol",
                  Message<ifaddrmsg>( RTM_NEWADDR, { AF_PHONET, 0, 0, 0, 7 } ).bytes(), 0, 0 },
            Odd{ "linkTooShort", truncatedFixed( RTM_NEWLINK ), 0, 1 },
            Odd{ "addressEmpty", other( RTM_NEWADDR ), 0, 1 },
            Odd{ "linkWithoutName", Message<ifinfomsg>( RTM_NEWLINK, { AF_UNSPEC, 0, 1, 7, 0, 0 } ).bytes(),
                  0, 1 },
            Odd{ "addressWithoutAddress", Message<ifaddrmsg>( RTM_NEWADDR, { AF_INET, 24, 0, 0, 7 } ).bytes(),
                  0, 1 },
            Odd{ "addressOfTheOtherLength",
                  Message<ifaddrmsg>( RTM_NEWADDR, { AF_INET6, 24, 0, 0, 7 } )
                        .binary( IFA_ADDRESS, Bytes( 4 ) )
                        .bytes(),
                  0, 1 },
            Odd{ "prefixTooLong",
                  Message<ifaddrmsg>( RTM_NEWADDR, { AF_INET, 33, 0, 0, 7 } )
                        .binary( IFA_LOCAL, Bytes( 4, 1 ) )
                        .bytes(),
                  0, 1 },
            Odd{ "unknownKind", other( RTM_NEWROUTE, Bytes( 12 ) ), 0, 0 },
            Odd{ "errorWithoutCode", other( NLMSG_ERROR ), 0, 1 } ) );

// Whatever is cut off, nothing behind it is read (the sanitizer build looks), and nothing half is kept.
TEST( RtNetlink, EveryTruncationIsSafe ) {
   for ( const auto & whole : { linkBytes().bytes(), addressBytes( AF_INET6, "2001:db8::1" ).bytes() } ) {
      for ( std::uint32_t length = 0; length < whole.size(); ++length ) {
         Bytes cut( whole.begin(), whole.begin() + length );
         EXPECT_THAT( rtMessages( cut ).messages, IsEmpty() ) << length;
         if ( length >= MNL_NLMSG_HDRLEN ) {
            std::memcpy( cut.data(), &length, sizeof length ); // the header says so too
            EXPECT_LE( rtMessages( cut ).messages.size(), 1u ) << length;
         }
      }
   }
}

TEST( RtNetlink, EndsOfListsCarryTheirErrorAndInterruption ) {
   auto done = other( NLMSG_DONE, Bytes( 4 ) );
   reinterpret_cast<nlmsghdr *>( done.data() )->nlmsg_flags = NLM_F_DUMP_INTR;
   const std::int32_t code = -EBUSY;
   Bytes refusal( 4 );
   std::memcpy( refusal.data(), &code, 4 );
   const auto read = rtMessages( done ).messages;
   ASSERT_EQ( read.size(), 1u );
   EXPECT_TRUE( read[0].interrupted );
   EXPECT_EQ( std::get<DumpEnd>( read[0].content ).error, 0 );
   EXPECT_EQ( std::get<DumpEnd>( rtMessages( other( NLMSG_ERROR, refusal ) ).messages.at( 0 ).content ).error,
         EBUSY );
}

class Table : public ::testing::Test {
 protected:
   void link( int index, const char * name, bool up = true, Origin origin = Origin::event ) {
      table.apply(
            LinkMessage{ .index = index, .name = name, .up = up, .ethernet = true, .mac = mac( index ) },
            origin );
   }
   void linkGone( int index ) {
      table.apply( LinkMessage{ .index = index, .removed = true, .name = "x" }, Origin::event );
   }
   AddressMessage message( int index, const char * prefix ) {
      const auto read = IpGenPrefix::fromText( prefix ).value();
      return { .index = index,
            .prefix = read,
            .peer = read.address.isIpv4() ? read.address : IpGenAddr{},
            .usable = true,
            .global = true };
   }
   void address( int index, const char * prefix, Origin origin = Origin::event ) {
      table.apply( message( index, prefix ), origin );
   }
   void addressGone( int index, const char * prefix ) {
      auto gone = message( index, prefix );
      gone.removed = true;
      table.apply( gone, Origin::event );
   }
   static platform::EthAddr mac( int index ) {
      return { { 2, 0, 0, 0, 0, static_cast<std::uint8_t>( index ) } };
   }
   std::vector<std::string> changed() {
      std::vector<std::string> names;
      while ( table.changedAny() ) {
         names.push_back( table.changedTake() );
      }
      return names;
   }
   std::string ipv4( const char * name ) { return table.ipv4( name ).text(); }
   std::vector<std::string> ipv6( const char * name ) {
      std::vector<std::string> texts;
      for ( const auto & each : table.ipv6( name ) ) {
         texts.push_back( each.text() );
      }
      return texts;
   }
   InterfaceTable table;
};

TEST_F( Table, Ipv4IsTheFirstGlobalPrimaryAddress ) {
   link( 1, "lo" );
   auto ofHost = message( 1, "127.0.0.1/8" ), second = message( 1, "10.0.0.9/24" );
   ofHost.global = false;
   second.secondary = true;
   table.apply( ofHost, Origin::event );
   table.apply( second, Origin::event );
   EXPECT_EQ( ipv4( "lo" ), "" );
   address( 1, "192.0.2.1/32" );
   address( 1, "10.0.0.1/24" );
   EXPECT_EQ( ipv4( "lo" ), "192.0.2.1" );
   addressGone( 1, "192.0.2.1/32" );
   EXPECT_EQ( ipv4( "lo" ), "10.0.0.1" );
   address( 1, "172.16.0.1/32" );
   second.secondary = false; // promoted: behind those that were primary before
   table.apply( second, Origin::event );
   addressGone( 1, "10.0.0.1/24" );
   EXPECT_EQ( ipv4( "lo" ), "172.16.0.1" );
}

TEST_F( Table, OneAddressMayHaveSeveralPeersAndLengths ) {
   link( 1, "ppp" );
   auto other = message( 1, "10.0.0.1/32" );
   other.peer = ip( "10.0.0.2" );
   table.apply( other, Origin::event );
   address( 1, "10.0.0.1/32" );
   address( 1, "10.0.0.1/16" );
   addressGone( 1, "10.0.0.1/32" );
   addressGone( 1, "10.0.0.1/16" );
   EXPECT_EQ( ipv4( "ppp" ), "10.0.0.1" );
   other.removed = true;
   table.apply( other, Origin::event );
   EXPECT_EQ( ipv4( "ppp" ), "" );
}

TEST_F( Table, Ipv6LeavesOutWhatMayBeSomebodyElses ) {
   link( 1, "e1" );
   auto tentative = message( 1, "2001:db8::2/64" );
   tentative.usable = false;
   address( 1, "fe80::1/64" );
   table.apply( tentative, Origin::event );
   EXPECT_THAT( ipv6( "e1" ), ElementsAre( "fe80::1/64" ) );
   changed();
   tentative.usable = true;
   table.apply( tentative, Origin::event );
   EXPECT_THAT( changed(), ElementsAre( "e1" ) );
   EXPECT_THAT( ipv6( "e1" ), ElementsAre( "2001:db8::2/64", "fe80::1/64" ) );
   table.apply( tentative, Origin::event ); // a new lifetime and the like
   EXPECT_THAT( changed(), IsEmpty() );
}

TEST_F( Table, DownRenamedAndRemovedInterfacesLoseTheirAddresses ) {
   link( 1, "e1" );
   address( 1, "10.0.0.1/24" );
   link( 1, "e1", false );
   EXPECT_EQ( ipv4( "e1" ), "" );
   link( 1, "e1" );
   EXPECT_EQ( ipv4( "e1" ), "10.0.0.1" );
   changed();
   link( 1, "tunnel" );
   EXPECT_THAT( changed(), ElementsAre( "e1", "tunnel" ) );
   EXPECT_EQ( ipv4( "e1" ), "" );
   EXPECT_EQ( ipv4( "tunnel" ), "10.0.0.1" );
   link( 2, "e1" ); // the name is taken again
   linkGone( 1 );
   EXPECT_THAT( changed(), ElementsAre( "e1", "tunnel" ) );
   EXPECT_EQ( ipv4( "tunnel" ), "" );
   addressGone( 1, "10.0.0.1/24" );
   EXPECT_THAT( changed(), IsEmpty() );
}

TEST_F( Table, AnEventIsNewerThanTheListOfItsTime ) {
   table.dumpBegin();
   link( 1, "e1", true, Origin::dump );
   link( 2, "e2", true, Origin::dump );
   linkGone( 2 );
   link( 2, "e2", true, Origin::dump );
   addressGone( 1, "10.0.0.1/24" );
   address( 1, "10.0.0.1/24", Origin::dump ); // was written down before it went
   table.dumpEnd( true );
   EXPECT_EQ( ipv4( "e1" ), "" );
   EXPECT_EQ( table.bridgeMac(), mac( 1 ) );
   table.dumpBegin(); // but the list of a later time is
   link( 1, "e1", true, Origin::dump );
   address( 1, "10.0.0.1/24", Origin::dump );
   table.dumpEnd( true );
   EXPECT_EQ( ipv4( "e1" ), "10.0.0.1" );
}

TEST_F( Table, ACompleteListTakesAwayWhatItDoesNotName ) {
   for ( const bool complete : { false, true } ) {
      link( 1, "e1" );
      link( 2, "e2" );
      address( 1, "10.0.0.1/24" );
      address( 2, "10.0.1.1/24" );
      changed();
      table.dumpBegin();
      link( 1, "e1", true, Origin::dump );
      address( 1, "10.0.0.2/32", Origin::dump );
      table.dumpEnd( complete );
      EXPECT_EQ( ipv4( "e1" ), complete ? "10.0.0.2" : "10.0.0.1" );
      EXPECT_EQ( ipv4( "e2" ), complete ? "" : "10.0.1.1" );
      EXPECT_EQ( changed().size(), complete ? 2u : 1u );
   }
}

TEST_F( Table, TheBridgesMacIsTheFirstBridgesOrElseOfTheFirstEthernetThatIsUp ) {
   EXPECT_EQ( table.bridgeMac(), platform::EthAddr{} );
   link( 3, "e3", false );
   link( 4, "e4" );
   EXPECT_EQ( table.bridgeMac(), mac( 4 ) );
   link( 3, "e3" );
   EXPECT_EQ( table.bridgeMac(), mac( 3 ) );
   for ( const int index : { 9, 8 } ) {
      table.apply( LinkMessage{ .index = index,
                         .name = "br",
                         .up = false,
                         .ethernet = true,
                         .bridge = true,
                         .mac = mac( index ) },
            Origin::event );
      EXPECT_EQ( table.bridgeMac(), mac( index ) );
   }
}

} // namespace host
