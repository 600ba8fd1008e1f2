#include "platform/Trace.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <stdlib.h>

using namespace platform;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

TraceFacility & traceFacility() {
   static const auto facility = TraceFacility::find( "TraceTest" );
   return *facility;
}

class TraceFile : public testing::Test {
 protected:
   TraceFile() {
      char name[] = "/tmp/hm-trace-XXXXXX";
      directory = mkdtemp( name );
      traceFacility().levelsIs( TraceFacility::defaultLevels );
   }
   ~TraceFile() override {
      fastTraceClose();
      std::filesystem::remove_all( directory );
   }
   std::string open( FastTraceConfig config ) {
      config.ringKiB.fill( 480 );
      return fastTraceInit( config, directory.c_str() );
   }
   static std::string contents( const std::string & path ) {
      std::ifstream file( path );
      return { std::istreambuf_iterator<char>( file ), {} };
   }
   std::string directory;
};

void traced( const std::string & text ) {
   HM_TRACE( 2, "value: {}", text );
}

} // namespace

TEST_F( TraceFile, LinesNameTheirFunctionAndStayOneLine ) {
   const auto path = open( { .fileName = "agent-%d.flog" } );
   EXPECT_THAT( path, EndsWith( "/agent-" + std::to_string( getpid() ) + ".flog" ) );
   traced( "a\nforged line \x1b[2J" );
   traced( std::string( 2000, 'x' ) );
   const auto text = contents( path );
   EXPECT_THAT( text, HasSubstr( "TraceTest 2 TraceTest.cc:" ) );
   EXPECT_THAT( text, HasSubstr( " traced:value: a\\x0aforged line \\x1b[2J\n" ) );
   EXPECT_THAT( text, HasSubstr( "xxx...\n" ) );
   EXPECT_EQ( std::ranges::count( text, '\n' ), 2 );
}

TEST_F( TraceFile, WritesEnabledLevelsOnlyAndLooksAtNoArgumentOfOthers ) {
   const auto path = open( { .fileName = "agent.flog" } );
   int evaluated = 0;
   HM_TRACE( 7, "hidden {}", ++evaluated );
   traceFacility().levelsIs( 1 << 7 );
   HM_TRACE( 7, "shown {}", ++evaluated );
   HM_TRACE( 2, "hidden {}", ++evaluated );
   EXPECT_EQ( evaluated, 1 );
   EXPECT_THAT( contents( path ), HasSubstr( "shown 1\n" ) );
   EXPECT_THAT( contents( path ), Not( HasSubstr( "hidden" ) ) );
}

TEST_F( TraceFile, StaysWithinItsSizeForGood ) {
   FastTraceConfig config{ .fileName = "agent.flog", .pieces = 4 };
   config.ringKiB[0] = 8;
   const auto path = fastTraceInit( config, directory.c_str() );
   for ( int i = 0; i < 1000; ++i ) {
      traced( std::string( 100, 'x' ) + std::to_string( i ) );
   }
   std::uintmax_t bytes = 0;
   for ( const auto & file : std::filesystem::directory_iterator( directory ) ) {
      bytes += file.file_size();
   }
   EXPECT_LE( bytes, 8u * 1024 );
   EXPECT_GE( bytes, 4u * 1024 );
   EXPECT_THAT( contents( path ), HasSubstr( "x999" ) );
}

TEST_F( TraceFile, ADiskThatIsFullCostsLinesOnly ) {
   std::filesystem::create_symlink( "/dev/full", directory + "/agent.flog" );
   ASSERT_NE( open( { .fileName = "agent.flog" } ), "" );
   traced( "lost" );
   traceFlush();
}

TEST( TraceLevels, AreReadAsOperatorsWriteThem ) {
   EXPECT_EQ( traceLevelsFromText( "0-4" ), 0b11111 );
   EXPECT_EQ( traceLevelsFromText( "0-2,7" ), 0b10000111 );
   EXPECT_EQ( traceLevelsFromText( "none" ), 0 );
   for ( const char * bad : { "", "x", "4-", "-4", "4-2", "10", "1,", ",1", "1 ", "0-99999999999" } ) {
      EXPECT_EQ( traceLevelsFromText( bad ), std::nullopt ) << bad;
   }
   EXPECT_EQ( traceLevelsText( 0b1010000111 ), "0-2,7,9" );
   EXPECT_EQ( traceLevelsText( 0 ), "none" );

   const auto a = TraceFacility::find( "A" ), b = TraceFacility::find( "B" );
   EXPECT_EQ( traceSpecApply( "A=0-1,5,B=9" ), std::nullopt );
   EXPECT_EQ( a->levels(), 0b100011 );
   EXPECT_EQ( b->levels(), 1 << 9 );
   EXPECT_THAT( *traceSpecApply( "A=3,B=17" ), HasSubstr( "\"B=17\" is not" ) );
   EXPECT_EQ( a->levels(), 0b100011 ); // nothing of a bad text is applied
}
