#include "host/InterfaceTable.h"
#include "tests/unit/host/TestState.h"

#include <cerrno>
#include <cstring>

#include <gmock/gmock.h>

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

namespace host {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;
using Origin = InterfaceTable::Origin;

namespace {

template<class T>
Bytes bytesOf( const T & value ) {
   Bytes bytes( sizeof value );
   std::memcpy( bytes.data(), &value, sizeof value );
   return bytes;
}

/// One message as the kernel writes it.
Bytes message( std::uint16_t type, const Bytes & fixed,
      const std::vector<std::pair<std::uint16_t, Bytes>> & attributes = {} ) {
   Bytes bytes( 1024 );
   auto * header = mnl_nlmsg_put_header( bytes.data() );
   header->nlmsg_type = type;
   std::ranges::copy(
         fixed, static_cast<std::uint8_t *>( mnl_nlmsg_put_extra_header( header, fixed.size() ) ) );
   for ( const auto & [name, value] : attributes ) {
      mnl_attr_put( header, name, value.size(), value.data() );
   }
   bytes.resize( header->nlmsg_len );
   return bytes;
}

Bytes withLength( Bytes bytes, std::uint32_t length ) {
   std::memcpy( bytes.data(), &length, sizeof length );
   return bytes;
}

Bytes linkOf( std::uint8_t family = AF_UNSPEC ) {
   const Bytes kind{ 11, 0, IFLA_INFO_KIND, 0, 'b', 'r', 'i', 'd', 'g', 'e', 0 };
   return message( RTM_NEWLINK, bytesOf( ifinfomsg{ family, 0, ARPHRD_ETHER, 7, IFF_UP, 0 } ),
         { { IFLA_IFNAME, { 'L', 'o', '0', 0 } }, { IFLA_ADDRESS, { 2, 0, 0, 0, 0, 9 } },
               { IFLA_LINKINFO, kind } } );
}

Bytes addressOf( std::uint8_t family, std::uint8_t length, std::uint8_t scope = RT_SCOPE_UNIVERSE,
      const std::vector<std::pair<std::uint16_t, Bytes>> & attributes = {} ) {
   return message( RTM_NEWADDR, bytesOf( ifaddrmsg{ family, length, 0, scope, 7 } ), attributes );
}

} // namespace

TEST( RtNetlink, ReadsLinksAndAddressesOfOneDatagram ) {
   const auto own = ip( "2001:db8::1" ).bytes(), own4 = ip( "10.0.0.1" ).bytes();
   const Bytes ipv6( own.begin(), own.end() ), ipv4( own4.begin(), own4.end() );
   Bytes bytes;
   for ( const auto & each : { linkOf(),
               addressOf( AF_INET, 24, RT_SCOPE_UNIVERSE,
                     { { IFA_LOCAL, ipv4 }, { IFA_FLAGS, bytesOf<std::uint32_t>( IFA_F_SECONDARY ) } } ),
               addressOf( AF_INET6, 64, RT_SCOPE_UNIVERSE,
                     { { IFA_ADDRESS, ipv6 },
                           { IFA_FLAGS, bytesOf<std::uint32_t>( IFA_F_TENTATIVE | IFA_F_NOPREFIXROUTE ) } } ),
               addressOf( AF_INET6, 128, RT_SCOPE_HOST, { { IFA_ADDRESS, ipv6 } } ) } ) {
      bytes.insert( bytes.end(), each.begin(), each.end() );
   }
   const auto read = rtMessages( bytes );
   EXPECT_EQ( read.malformed, 0u );
   ASSERT_EQ( read.messages.size(), 4u );
   const auto & link = std::get<LinkMessage>( read.messages[0].content );
   EXPECT_EQ( link.index, 7 );
   EXPECT_EQ( link.name, "Lo0" );
   EXPECT_EQ( link.mac.text(), "02:00:00:00:00:09" );
   EXPECT_TRUE( link.up && link.ethernet && link.bridge && !link.removed );
   const auto address = [&]( std::size_t at ) {
      return std::get<AddressMessage>( read.messages[at].content );
   };
   EXPECT_EQ( address( 1 ).prefix.text(), "10.0.0.1/24" );
   EXPECT_TRUE( address( 1 ).secondary && address( 1 ).usable && address( 1 ).global );
   EXPECT_EQ( address( 2 ).prefix.text(), "2001:db8::1/64" );
   EXPECT_FALSE( address( 2 ).usable || address( 3 ).usable );
}

TEST( RtNetlink, LeavesOutWhatIsOdd ) {
   const struct {
      const char * name;
      Bytes bytes;
      std::size_t malformed;
   } rows[] = {
         { "length below the header", withLength( linkOf(), 15 ), 1 },
         { "length beyond the datagram", withLength( linkOf(), 4000 ), 1 },
         { "length that is negative as int", withLength( linkOf(), 0xfffffff0 ), 1 },
         { "rest of two bytes", { 1, 2 }, 1 },
         { "empty", {}, 0 },
         { "port of a bridge", linkOf( AF_BRIDGE ), 0 },
         { "address of another protocol", addressOf( AF_PHONET, 0 ), 0 },
         { "link that is too short", message( RTM_NEWLINK, { AF_UNSPEC, 0, 0 } ), 1 },
         { "address that is empty", message( RTM_NEWADDR, {} ), 1 },
         { "link without a name", message( RTM_NEWLINK, bytesOf( ifinfomsg{ AF_UNSPEC, 0, 1, 7, 0, 0 } ) ),
               1 },
         { "address without one", addressOf( AF_INET, 24 ), 1 },
         { "address of the other length", addressOf( AF_INET6, 24, 0, { { IFA_ADDRESS, Bytes( 4 ) } } ), 1 },
         { "prefix that is too long", addressOf( AF_INET, 33, 0, { { IFA_LOCAL, Bytes( 4, 1 ) } } ), 1 },
         { "unknown kind", message( RTM_NEWROUTE, Bytes( 12 ) ), 0 },
         { "error without a code", message( NLMSG_ERROR, {} ), 1 },
   };
   for ( const auto & row : rows ) {
      const auto read = rtMessages( row.bytes );
      EXPECT_THAT( read.messages, IsEmpty() ) << row.name;
      EXPECT_EQ( read.malformed, row.malformed ) << row.name;
   }
}

// Whatever is cut off, nothing behind it is read (the sanitizer build looks), and nothing half is kept.
TEST( RtNetlink, EveryTruncationIsSafe ) {
   for ( const auto & whole :
         { linkOf(), addressOf( AF_INET6, 64, 0, { { IFA_ADDRESS, Bytes( 16, 1 ) } } ) } ) {
      for ( std::uint32_t length = 0; length < whole.size(); ++length ) {
         const Bytes cut( whole.begin(), whole.begin() + length );
         EXPECT_THAT( rtMessages( cut ).messages, IsEmpty() ) << length;
         if ( length >= MNL_NLMSG_HDRLEN ) { // the header says so too
            EXPECT_LE( rtMessages( withLength( cut, length ) ).messages.size(), 1u ) << length;
         }
      }
   }
}

TEST( RtNetlink, EndsOfListsCarryTheirErrorAndInterruption ) {
   auto done = message( NLMSG_DONE, Bytes( 4 ) );
   reinterpret_cast<nlmsghdr *>( done.data() )->nlmsg_flags = NLM_F_DUMP_INTR;
   const auto end = rtMessages( done ).messages.at( 0 );
   EXPECT_TRUE( end.interrupted );
   EXPECT_EQ( std::get<DumpEnd>( end.content ).error, 0 );
   const auto refused = rtMessages( message( NLMSG_ERROR, bytesOf( -EBUSY ) ) ).messages.at( 0 );
   EXPECT_EQ( std::get<DumpEnd>( refused.content ).error, EBUSY );
}

class Table : public ::testing::Test {
 protected:
   void link(
         int index, const char * name, bool up = true, bool bridge = false, Origin origin = Origin::event ) {
      table.apply( LinkMessage{ .index = index,
                         .name = name,
                         .up = up,
                         .ethernet = true,
                         .bridge = bridge,
                         .mac = mac( index ) },
            origin );
   }
   void linkGone( int index ) {
      table.apply( LinkMessage{ .index = index, .removed = true, .name = "x" }, Origin::event );
   }
   static AddressMessage message( int index, const char * prefix ) {
      const auto read = platform::IpGenPrefix::fromText( prefix ).value();
      return { .index = index,
            .prefix = read,
            .peer = read.address.isIpv4() ? read.address : platform::IpGenAddr{},
            .usable = true,
            .global = true };
   }
   void address( int index, const char * prefix, Origin origin = Origin::event ) {
      table.apply( message( index, prefix ), origin );
   }
   void addressGone( AddressMessage gone ) {
      gone.removed = true;
      table.apply( gone, Origin::event );
   }
   // A list of one link and its one address.
   void list( int index, const char * name, const char * prefix, bool complete = true ) {
      table.dumpBegin();
      link( index, name, true, false, Origin::dump );
      address( index, prefix, Origin::dump );
      table.dumpEnd( complete );
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
   addressGone( message( 1, "192.0.2.1/32" ) );
   EXPECT_EQ( ipv4( "lo" ), "10.0.0.1" );
   address( 1, "172.16.0.1/32" );
   second.secondary = false; // promoted: behind those that were primary before
   table.apply( second, Origin::event );
   addressGone( message( 1, "10.0.0.1/24" ) );
   EXPECT_EQ( ipv4( "lo" ), "172.16.0.1" );
}

TEST_F( Table, OneAddressMayHaveSeveralPeersAndLengths ) {
   link( 1, "ppp" );
   auto other = message( 1, "10.0.0.1/32" );
   other.peer = ip( "10.0.0.2" );
   table.apply( other, Origin::event );
   address( 1, "10.0.0.1/32" );
   address( 1, "10.0.0.1/16" );
   addressGone( message( 1, "10.0.0.1/32" ) );
   addressGone( message( 1, "10.0.0.1/16" ) );
   EXPECT_EQ( ipv4( "ppp" ), "10.0.0.1" );
   addressGone( other );
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
   addressGone( message( 1, "10.0.0.1/24" ) );
   EXPECT_THAT( changed(), IsEmpty() );
}

TEST_F( Table, AnEventIsNewerThanTheListOfItsTime ) {
   const auto fromList = [this]( int index, const char * name ) {
      link( index, name, true, false, Origin::dump );
   };
   table.dumpBegin();
   fromList( 1, "e1" );
   fromList( 2, "e2" );
   linkGone( 2 );
   fromList( 2, "e2" );
   addressGone( message( 1, "10.0.0.1/24" ) );
   address( 1, "10.0.0.1/24", Origin::dump ); // was written down before it went
   table.dumpEnd( true );
   EXPECT_EQ( ipv4( "e1" ), "" );
   EXPECT_EQ( table.bridgeMac(), mac( 1 ) );
   list( 1, "e1", "10.0.0.1/24" ); // but the list of a later time is
   EXPECT_EQ( ipv4( "e1" ), "10.0.0.1" );
}

TEST_F( Table, ACompleteListTakesAwayWhatItDoesNotName ) {
   for ( const bool complete : { false, true } ) {
      link( 1, "e1" );
      link( 2, "e2" );
      address( 1, "10.0.0.1/24" );
      address( 2, "10.0.1.1/24" );
      changed();
      list( 1, "e1", "10.0.0.2/32", complete );
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
      link( index, "br", false, true );
      EXPECT_EQ( table.bridgeMac(), mac( index ) );
   }
}

} // namespace host
