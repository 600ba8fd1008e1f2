// Addresses, checksums, the bitmap.
#include "platform/Value.h"
#include "platform/Checksum.h"
#include "platform/HBitmap.h"

#include <random>
#include <set>

#include <gmock/gmock.h>

using namespace platform;

TEST( IpGenAddr, ReadsAndWritesItsTextForm ) {
   EXPECT_EQ( IpGenAddr::fromText( "2001:DB8:0:0::1" ).value().text(), "2001:db8::1" );
   EXPECT_EQ( IpGenAddr::fromText( "::ffff:1.2.3.4" ).value().text(), "::ffff:1.2.3.4" );
   using namespace std::string_view_literals;
   for ( const auto bad :
         { ""sv, "10.1.1"sv, "10.1.1.256"sv, "10.1.1.1/24"sv, "fe80::1%eth0"sv, " 10.1.1.1"sv, "010.1.1.1"sv,
               "10.1.1.1\0"sv, "1:2:3:4:5:6:7:8:9:1:2:3:4:5:6:7:8:9:1:2:3:4:5:6:7"sv } ) {
      EXPECT_EQ( IpGenAddr::fromText( bad ), std::nullopt ) << bad;
   }
   EXPECT_EQ( IpGenPrefix::fromText( "2001:db8::1/64" ).value().text(), "2001:db8::1/64" );
   EXPECT_EQ( IpGenPrefix::fromText( "10.0.0.1" ).value().text(), "10.0.0.1/32" );
   for ( const char * bad : { "10.0.0.1/33", "10.0.0.1/", "10.0.0.1/-1", "/8", "2001:db8::1/129" } ) {
      EXPECT_EQ( IpGenPrefix::fromText( bad ), std::nullopt ) << bad;
   }
}

TEST( IpGenAddr, OrdersByFamilyThenBytes ) {
   const auto at = []( const char * text ) { return *IpGenAddr::fromText( text ); };
   EXPECT_LT( IpGenAddr(), at( "0.0.0.0" ) );
   EXPECT_LT( at( "255.255.255.255" ), at( "::" ) );
   EXPECT_LT( at( "10.0.0.2" ), at( "10.0.0.10" ) );
   EXPECT_NE( at( "0.0.0.0" ), at( "::" ) );
   std::set<std::size_t> buckets;
   for ( std::uint8_t i = 0; i < 200; ++i ) {
      const std::uint8_t bytes[] = { 10, 1, 1, i };
      buckets.insert( IpGenAddr::fromBytes( bytes ).hash() % 1024 );
   }
   EXPECT_GT( buckets.size(), 150u );
}

TEST( Checksum, AgreesWithTheWorkedExampleAndAcrossChunks ) {
   const std::uint8_t example[] = { 0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7 }; // RFC 1071, section 3
   EXPECT_EQ( ipChecksumCalc( ipChecksumChunk( example ) ), static_cast<std::uint16_t>( ~0xddf2 ) );
   const std::vector<std::uint8_t> ones( 65535, 0xff );
   const auto whole = ipChecksumChunk( ones );
   const auto parts = ipChecksumChunk(
         std::span( ones ).subspan( 40'000 ), ipChecksumChunk( std::span( ones ).first( 40'000 ) ) );
   EXPECT_EQ( ipChecksumCalc( whole ), ipChecksumCalc( parts ) );
}

TEST( HBitmap, AgreesWithASetWhateverIsDoneToIt ) {
   std::mt19937 random( 7 );
   for ( const HBitmap::Index size : { 1u, 4u, 63u, 64u, 65u, 4'096u, 4'097u, 16'384u } ) {
      HBitmap bitmap( "test", size, false );
      std::set<HBitmap::Index> set;
      for ( int step = 0; step < 3'000; ++step ) {
         const auto index = random() % size;
         if ( random() % 3 ) {
            bitmap.setBit( index );
            set.insert( index );
         } else {
            bitmap.clearBit( index );
            set.erase( index );
         }
         ASSERT_EQ( bitmap.bitsSet(), set.size() );
      }
      // Fill up through the search itself: every clear bit is found, each once, then none.
      while ( true ) {
         const auto preference = random() % size;
         const auto found = bitmap.findBitInClearState( preference );
         if ( set.size() == size ) {
            EXPECT_EQ( found, HBitmap::nullIndex );
            break;
         }
         ASSERT_LT( found, size );
         ASSERT_TRUE( set.insert( found ).second );
         bitmap.setBit( found );
      }
   }
   EXPECT_EQ( HBitmap( "full", 100, true ).findBitInClearState(), HBitmap::nullIndex );
   EXPECT_EQ( HBitmap( "empty", 0, false ).findBitInClearState(), HBitmap::nullIndex );
}
