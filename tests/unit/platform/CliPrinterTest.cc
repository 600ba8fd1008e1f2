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

constexpr auto text = static_cast<unsigned>( CliFormat::text );

Json printedJson( const std::function<void( CliPrinter & )> & content ) {
   CliReader reader;
   CliPrinter printer( reader.socket(), static_cast<unsigned>( CliFormat::json ) );
   printer.start();
   content( printer );
   printer.end();
   printer.flush();
   return Json::parse( reader.read() );
}

} // namespace

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
      const auto document = printedJson( [&]( CliPrinter & printer ) {
         printer.dictStart( row.name );
         printer.attributeJson( row.name, row.name );
         printer.dictEnd();
      } );
      EXPECT_EQ( document.at( row.read ).at( row.read ), row.read );
   }
}

TEST( CliPrinter, NumbersAreWrittenInFull ) {
   const auto document = printedJson( []( CliPrinter & printer ) {
      printer.attributeJson( "u64", std::numeric_limits<std::uint64_t>::max() );
      printer.attributeJson( "i64", std::numeric_limits<std::int64_t>::min() );
      printer.attributeJson( "third", 100.0f / 3 );
      printer.attributeJson( "none", 0.0 );
      printer.attributeJson( "nan", std::nan( "" ) );
   } );
   EXPECT_EQ( document.dump(),
         R"({"u64":18446744073709551615,"i64":-9223372036854775808,"third":33.333332,"none":0,"nan":null})" );
}

TEST( CliPrinter, KeepsWhatTheReaderDoesNotTakeForThePrintersThatFollow ) {
   CliReader reader;
   const std::string line( 2999, 'x' ); // longer than any buffer
   std::string expected;
   CliPrinter first( reader.socket(), text );
   for ( int i = 0; i < 100; ++i ) {
      first.frill( "%s\n", line.c_str() );
      expected += line + "\n";
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
   EXPECT_EQ( all, expected + "end\n" );
}
