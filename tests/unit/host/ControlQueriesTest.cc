#include "host/ControlQueries.h"

#include "platform/Trace.h"
#include "tests/unit/host/TestState.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace host {

using namespace platform;
using ::testing::HasSubstr;
using Json = nlohmann::json;

class ControlQueries : public StateTest {
 protected:
   /// The one line that comes before "done", or the refusal.
   Json complete( const std::string & path, const std::string & begin = {}, bool configurationOnly = false ) {
      ControlServices services;
      services.entityManager = manager;
      services.schema = schema;
      const auto answer = completionAnswer( services, path, begin, configurationOnly );
      std::string out;
      turns = 1;
      while ( answer->produce( out ) ) {
         ++turns;
      }
      return Json::parse( out.substr( 0, out.find( '\n' ) ) );
   }
   static std::vector<std::string> names( const Json & answer ) {
      std::vector<std::string> names;
      for ( const auto & attribute : answer["attributes"] ) {
         names.push_back( attribute["name"].get<std::string>() + " " + attribute["kind"].get<std::string>() +
                          " " + attribute["type"].get<std::string>() );
      }
      return names;
   }

   int turns = 0;
};

TEST_F( ControlQueries, CompletePathsFromTheTopToAMember ) {
   const std::string config = "healthMonitor/config/";
   serverConfig()->nhgConfigIs( "a/b" )->serverIpIs( *IpGenAddr::fromText( "10.1.1.1" ) );
   EXPECT_EQ( complete( "" )["keys"], Json( { "bridging", "healthMonitor", "host", "ip", "ip6", "mgmt" } ) );
   EXPECT_EQ( complete( "", "h" )["keys"], Json( { "healthMonitor", "host" } ) );
   EXPECT_EQ( complete( "", "h", true )["keys"], Json( { "healthMonitor" } ) );
   EXPECT_EQ( complete( "healthMonitor" )["keys"], Json( { "config", "status" } ) );
   EXPECT_EQ( names( complete( config + "serverConfig" ) ),
         std::vector<std::string>{ "nhgConfig collection text" } );
   EXPECT_EQ( complete( config + "serverConfig/nhgConfig" )["keys"], Json( { "a/b" } ) );
   EXPECT_EQ( names( complete( config + "serverConfig/nhgConfig/a%2Fb" ) ),
         std::vector<std::string>{ "serverIp set IP address" } );
   EXPECT_EQ( complete( config + "serverConfig/nhgConfig/a%2Fb/serverIp" )["keys"], Json( { "10.1.1.1" } ) );
   for ( const auto & [path, kind] : std::vector<std::pair<std::string, std::string>>{
               { "healthMonitor", "beginning" },
               { config + "serverConfig", "entity" },
               { config + "serverConfig/nhgConfig", "collection" },
               { config + "serverConfig/nhgConfig/a%2Fb", "entity" },
               { config + "serverConfig/nhgConfig/a%2Fb/serverIp", "set" },
               { config + "serverConfig/nhgConfig/a%2Fb/serverIp/10.1.1.1", "member" },
               { config + "probeConfig/responseCodeRule/action", "scalar" },
         } ) {
      EXPECT_EQ( complete( path )["kind"], kind ) << path;
   }
   // An entry that is yet to be made has attributes and no keys.
   EXPECT_EQ( names( complete( config + "serverConfig/nhgConfig/new" ) ).size(), 1u );
   EXPECT_EQ( complete( config + "serverConfig/nhgConfig/new/serverIp" )["keys"], Json::array() );
   EXPECT_EQ( complete( "host/status", "", true )["attributes"], Json::array() );
   EXPECT_THAT( complete( "healthMonitor/x" ).dump(), HasSubstr( "no such path: healthMonitor/x" ) );
   EXPECT_THAT( complete( config + "probeConfig/x" ).dump(), HasSubstr( "has no attribute" ) );
}

TEST_F( ControlQueries, CompleteManyKeysWithinOneBoundedLineOverManyTurns ) {
   for ( int i = 0; i < 3000; ++i ) {
      probeConfig()->nhgProbeConfigIs( "group" + std::to_string( i ) );
   }
   const std::string path = "healthMonitor/config/probeConfig/nhgProbeConfig";
   const auto all = complete( path );
   EXPECT_EQ( all["keys"].size(), 1000u );
   EXPECT_EQ( all["more"], true );
   EXPECT_GT( turns, 3 );
   const auto some = complete( path, "group299" );
   EXPECT_EQ( some["keys"].size(), 11u );
   EXPECT_FALSE( some.contains( "more" ) );
   EXPECT_GT( turns, 10 );
   for ( int i = 0; i < 1000; ++i ) {
      probeConfig()->nhgProbeConfigIs( std::string( 200, '\x01' ) + std::to_string( i ) );
   }
   EXPECT_LT( complete( path ).dump().size(), 200'000u );
   EXPECT_EQ( complete( path )["more"], true );
}

TEST_F( ControlQueries, TraceLevelsAreListedAndChanged ) {
   const auto facility = TraceFacility::find( "QueriesTest" );
   EXPECT_THAT( Json::parse( traceTable().substr( 0, traceTable().find( '\n' ) ) )["text"],
         HasSubstr( "\nQueriesTest  0-2\n" ) );
   EXPECT_EQ( traceLevelsIs( "QueriesTest", "0-4,7" ), "{\"done\":true}\n" );
   EXPECT_EQ( facility->levels(), 0b10011111 );
   EXPECT_EQ( Json::parse( traceTable().substr( 0, traceTable().find( '\n' ) ) )["facilities"]["QueriesTest"],
         "0-4,7" );
   EXPECT_THAT( traceLevelsIs( "QueriesTest", "0-99" ), HasSubstr( "\\\"0-99\\\" is not a list of levels" ) );
   EXPECT_THAT( traceLevelsIs( "Queries", "5" ), HasSubstr( "no such trace facility: Queries; there are " ) );
   EXPECT_EQ( facility->levels(), 0b10011111 );
}

} // namespace host
