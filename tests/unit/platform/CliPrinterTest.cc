#include "platform/CliPrinter.h"

#include "tests/unit/CliReader.h"

#include <cmath>
#include <functional>
#include <limits>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

using namespace platform;
using Json = nlohmann::ordered_json;

namespace {

constexpr unsigned text = static_cast<unsigned>( CliFormat::text );
constexpr unsigned json = static_cast<unsigned>( CliFormat::json );

std::string printed( unsigned format, const std::function<void( CliPrinter & )> & content ) {
   CliReader reader;
   CliPrinter printer( reader.socket(), format );
   printer.start();
   content( printer );
   printer.end();
   printer.flush();
   return reader.read();
}

void servers( CliPrinter & printer ) {
   printer.attribute( "monitoring", true, "Monitoring: %s\n", "enabled" );
   printer.subModelStart( "summary" );
   printer.frill( "Summary:\n" );
   printer.attribute( "interval", 10, "   Interval: %d seconds\n", 10 );
   printer.subModelEnd();
   printer.dictStart( "servers" );
   for ( const auto * name : { "10.1.1.1", "10.1.1.2" } ) {
      printer.entryStart( name );
      printer.row( { { "checks", 7u }, { "state", "up" } }, "%-10s %-5d %s\n", name, 7, "up" );
      printer.attributeJson( "since", std::uint64_t{ 1'700'000'000'000 } );
      printer.entryEnd();
   }
   printer.dictEnd();
   printer.dictStart( "none" );
   printer.dictEnd();
}

} // namespace

TEST( CliPrinter, TextAndJsonComeFromOneWalk ) {
   EXPECT_EQ( printed( text, servers ), "Monitoring: enabled\n"
                                        "Summary:\n"
                                        "   Interval: 10 seconds\n"
                                        "10.1.1.1   7     up\n"
                                        "10.1.1.2   7     up\n" );
   EXPECT_EQ( printed( json, servers ), R"({
  "monitoring": true,
  "summary": {
    "interval": 10
  },
  "servers": {
    "10.1.1.1": {
      "checks": 7,
      "state": "up",
      "since": 1700000000000
    },
    "10.1.1.2": {
      "checks": 7,
      "state": "up",
      "since": 1700000000000
    }
  },
  "none": {}
}
)" );
   EXPECT_EQ( printed( json, []( auto & ) {} ), "{}\n" );
   EXPECT_EQ( printed( 7, servers ), printed( text, servers ) );
}

TEST( CliPrinter, JsonIsValidWhateverNamesHold ) {
   const struct {
      std::string name;
      std::string read;
   } rows[] = {
         { "a\"b\\c", "a\"b\\c" },
         { "line\nfeed \x1b[2J \x7f", "line\nfeed \x1b[2J \x7f" },
         { std::string( "nul\0byte", 8 ), std::string( "nul\0byte", 8 ) },
         { "Gr\xc3\xbc\xc3\x9f", "Gr\xc3\xbc\xc3\x9f" },
         { "cut \xe2\x88", "cut \xef\xbf\xbd" },
         { "over \xff long", "over \xef\xbf\xbd long" },
         { "", "" },
   };
   for ( const auto & row : rows ) {
      const auto document = Json::parse( printed( json, [&]( CliPrinter & printer ) {
         printer.dictStart( row.name );
         printer.attributeJson( row.name, row.name );
         printer.dictEnd();
      } ) );
      EXPECT_EQ( document.at( row.read ).at( row.read ), row.read );
   }
}

TEST( CliPrinter, NumbersAreWrittenInFull ) {
   EXPECT_EQ( Json::parse( printed( json,
                                 []( CliPrinter & printer ) {
                                    printer.attributeJson( "u64", std::numeric_limits<std::uint64_t>::max() );
                                    printer.attributeJson( "i64", std::numeric_limits<std::int64_t>::min() );
                                    printer.attributeJson( "third", 100.0f / 3 );
                                    printer.attributeJson( "none", 0.0 );
                                    printer.attributeJson( "nan", std::nan( "" ) );
                                 } ) )
                    .dump(),
         R"({"u64":18446744073709551615,"i64":-9223372036854775808,"third":33.333332,"none":0,"nan":null})" );
}

TEST( CliPrinter, LinesMayBeLong ) {
   const std::string name( 3000, 'x' );
   EXPECT_EQ( printed( text, [&]( CliPrinter & printer ) { printer.frill( "%s|%d\n", name.c_str(), 1 ); } ),
         name + "|1\n" );
}

TEST( CliPrinter, KeepsWhatTheReaderDoesNotTakeForThePrintersThatFollow ) {
   CliReader reader;
   const std::string line( 999, 'x' );
   constexpr int lines = 400;
   CliPrinter first( reader.socket(), text );
   for ( int i = 0; i < lines; ++i ) {
      first.frill( "%s\n", line.c_str() );
   }
   first.flush();
   EXPECT_GT( first.pending(), 100'000u );
   CliPrinter second( reader.socket(), text );
   EXPECT_EQ( second.pending(), first.pending() );
   second.frill( "end\n" );
   const auto socket = CliSocket::find( reader.socket() );
   std::string all;
   while ( second.pending() > 0 ) {
      all += reader.read( 10'000 );
      ASSERT_TRUE( socket->drain() );
   }
   for ( auto more = reader.read(); !more.empty(); more = reader.read() ) {
      all += more;
   }
   std::string expected;
   for ( int i = 0; i < lines; ++i ) {
      expected += line + "\n";
   }
   EXPECT_EQ( all, expected + "end\n" );
}

TEST( CliPrinter, InterruptsWhoeverPrintsWhenTheReaderGoesAway ) {
   CliReader reader;
   CliPrinter printer( reader.socket(), json );
   printer.start();
   printer.flush();
   reader.goAway();
   const auto print = [&] {
      for ( int i = 0; i < 10'000; ++i ) {
         printer.attributeJson( "checks", i );
      }
   };
   EXPECT_THROW( print(), CliInterrupt );
   EXPECT_THROW( printer.attributeJson( "checks", 0 ), CliInterrupt );
   EXPECT_THROW( printer.flush(), CliInterrupt );
   EXPECT_THROW( printer.end(), CliInterrupt );
   EXPECT_EQ( printer.pending(), 0u );
}
