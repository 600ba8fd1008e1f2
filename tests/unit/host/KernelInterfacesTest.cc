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
   return message( RTM_NEWLINK, bytesOf( ifinfomsg{ family, 0, ARPHRD_ETHER, 7, IFF_UP, 0 } ),
         { { IFLA_IFNAME, { 'L', 'o', '0', 0 } }, { IFLA_ADDRESS, { 2, 0, 0, 0, 0, 9 } } } );
}

Bytes addressOf( std::uint8_t family, std::uint8_t length,
      const std::vector<std::pair<std::uint16_t, Bytes>> & attributes = {} ) {
   return message( RTM_NEWADDR, bytesOf( ifaddrmsg{ family, length, 0, RT_SCOPE_UNIVERSE, 7 } ), attributes );
}

} // namespace

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
         { "address of the other length", addressOf( AF_INET6, 24, { { IFA_ADDRESS, Bytes( 4 ) } } ), 1 },
         { "prefix that is too long", addressOf( AF_INET, 33, { { IFA_LOCAL, Bytes( 4, 1 ) } } ), 1 },
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
   for ( const auto & whole : { linkOf(), addressOf( AF_INET6, 64, { { IFA_ADDRESS, Bytes( 16, 1 ) } } ) } ) {
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
   void link( int index, const char * name, bool up = true, Origin origin = Origin::event ) {
      table.apply( LinkMessage{ .index = index, .name = name, .up = up }, origin );
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
      link( index, name, true, Origin::dump );
      address( index, prefix, Origin::dump );
      table.dumpEnd( complete );
   }
   std::vector<std::string> changed() {
      std::vector<std::string> names;
      while ( table.changedAny() ) {
         names.push_back( table.changedTake() );
      }
      return names;
   }
   std::string ipv4( const char * name ) { return table.ipv4( name ).text(); }
   InterfaceTable table;
};

TEST_F( Table, AnAddressThatIsPromotedComesLast ) {
   link( 1, "lo" );
   auto second = message( 1, "10.0.0.9/24" );
   second.secondary = true;
   table.apply( second, Origin::event );
   EXPECT_EQ( ipv4( "lo" ), "" );
   address( 1, "10.0.0.1/24" );
   address( 1, "172.16.0.1/32" );
   second.secondary = false;
   table.apply( second, Origin::event );
   EXPECT_EQ( ipv4( "lo" ), "10.0.0.1" );
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

TEST_F( Table, AnAddressCountsOnceItIsNobodyElses ) {
   link( 1, "e1" );
   auto tentative = message( 1, "2001:db8::2/64" );
   tentative.usable = false;
   table.apply( tentative, Origin::event );
   EXPECT_THAT( table.ipv6( "e1" ), IsEmpty() );
   changed();
   tentative.usable = true;
   table.apply( tentative, Origin::event );
   EXPECT_THAT( changed(), ElementsAre( "e1" ) );
   EXPECT_EQ( table.ipv6( "e1" ).size(), 1u );
   table.apply( tentative, Origin::event ); // a new lifetime and the like
   EXPECT_THAT( changed(), IsEmpty() );
}

TEST_F( Table, ANameMayPassToAnotherInterface ) {
   link( 1, "e1" );
   address( 1, "10.0.0.1/24" );
   changed();
   link( 1, "tunnel" );
   EXPECT_THAT( changed(), ElementsAre( "e1", "tunnel" ) );
   EXPECT_EQ( ipv4( "e1" ), "" );
   EXPECT_EQ( ipv4( "tunnel" ), "10.0.0.1" );
   // Another interface takes the name before the events of the first one come.
   link( 2, "tunnel" );
   address( 2, "10.0.0.2/24" );
   link( 1, "e1" );
   EXPECT_EQ( ipv4( "tunnel" ), "10.0.0.2" );
   link( 2, "e1" );
   linkGone( 1 );
   EXPECT_EQ( ipv4( "e1" ), "10.0.0.2" );
   changed();
   addressGone( message( 1, "10.0.0.1/24" ) );
   EXPECT_THAT( changed(), IsEmpty() );
}

TEST_F( Table, AnEventIsNewerThanTheListOfItsTime ) {
   table.dumpBegin();
   link( 1, "e1", true, Origin::dump );
   link( 2, "e2", true, Origin::dump );
   address( 2, "10.0.1.1/24", Origin::dump );
   linkGone( 2 );
   link( 2, "e2", true, Origin::dump );
   address( 2, "10.0.1.1/24", Origin::dump );
   addressGone( message( 1, "10.0.0.1/24" ) );
   address( 1, "10.0.0.1/24", Origin::dump ); // was written down before it went
   table.dumpEnd( true );
   EXPECT_EQ( ipv4( "e1" ), "" );
   EXPECT_EQ( ipv4( "e2" ), "" );
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

} // namespace host
