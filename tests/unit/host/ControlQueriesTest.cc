#include "host/ControlQueries.h"

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
   int turns = 0;
};

TEST_F( ControlQueries, CompletePathsFromTheTopToAMember ) {
   serverConfig()->nhgConfigIs( "a/b" )->serverIpIs( ip( "10.1.1.1" ) );
   const auto attribute = []( const char * name, const char * kind, const char * type ) {
      return Json::array( { Json( { { "name", name }, { "kind", kind }, { "type", type } } ) } );
   };
   const auto group = attribute( "nhgConfig", "collection", "text" );
   const auto server = attribute( "serverIp", "set", "IP address" );
   const struct {
      std::string path, kind;
      const char * what;
      Json these;
   } rows[] = {
         { "", "beginning", "keys", { "bridging", "healthMonitor", "host", "ip", "ip6", "mgmt" } },
         { "healthMonitor", "beginning", "keys", { "config", "status" } },
         { servers, "entity", "attributes", group },
         { servers + "/nhgConfig", "collection", "keys", Json::array( { "a/b" } ) },
         { servers + "/nhgConfig/a%2Fb", "entity", "attributes", server },
         { servers + "/nhgConfig/a%2Fb/serverIp", "set", "keys", Json::array( { "10.1.1.1" } ) },
         { servers + "/nhgConfig/a%2Fb/serverIp/10.1.1.1", "member", "keys", Json::array() },
         { probe + "/responseCodeRule/action", "scalar", "keys", Json::array() },
         // An entry that is yet to be made has attributes and no keys.
         { servers + "/nhgConfig/new", "entity", "attributes", server },
         { servers + "/nhgConfig/new/serverIp", "set", "keys", Json::array() },
   };
   for ( const auto & row : rows ) {
      auto answer = complete( row.path );
      EXPECT_EQ( answer["kind"], row.kind ) << row.path;
      EXPECT_EQ( answer[row.what], row.these ) << row.path;
   }
   EXPECT_EQ( complete( "", "h" )["keys"], Json( { "healthMonitor", "host" } ) );
   EXPECT_EQ( complete( "", "h", true )["keys"], Json( { "healthMonitor" } ) );
   EXPECT_EQ( complete( "host/status", "", true )["attributes"], Json::array() );
   EXPECT_THAT( complete( "healthMonitor/x" ).dump(), HasSubstr( "no such path: healthMonitor/x" ) );
   EXPECT_THAT( complete( probe + "/x" ).dump(), HasSubstr( "has no attribute" ) );
}

TEST_F( ControlQueries, CompleteManyKeysWithinOneBoundedLineOverManyTurns ) {
   for ( int i = 0; i < 3000; ++i ) {
      probeConfig()->nhgProbeConfigIs( "group" + std::to_string( i ) );
   }
   const auto path = probe + "/nhgProbeConfig";
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

} // namespace host
