#include "host/Applier.h"

#include "host/ChangeFeed.h"
#include "tests/unit/host/TestState.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace host {

using namespace platform;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Json = nlohmann::json;

class Apply : public StateTest {
 protected:
   // Every change as "path attribute=value", "path attribute+key" or "path attribute-key", below the roots.
   std::vector<std::string> changesOf( const std::string & text ) {
      std::vector<std::string> changes;
      const Ptr<ChangeFeed> feed = new ChangeFeed( manager );
      feed->subscribe( "", [&]( const std::string & line ) {
         const auto json = Json::parse( line );
         const auto path = json["path"].get<std::string>();
         const auto below = path.find( "Config/" );
         auto change = below == path.npos ? "" : path.substr( below + 7 ) + " ";
         change += json["attribute"].get<std::string>();
         change += json.contains( "key" )
                         ? ( json["change"] == "added" ? "+" : "-" ) + json["key"].get<std::string>()
                         : "=" + json["value"].dump();
         changes.push_back( change );
      } );
      count = apply( text );
      return changes;
   }
   std::uint64_t count = 0;
};

TEST_F( Apply, ChangesOnlyWhatDiffers ) {
   const auto text = probe +
                     ":\n  probeInterval: 7\n  responseCodeRule: { pattern: \"5..\" }\n  nhgProbeConfig:\n" +
                     "    web: { timeout: 3 }\n    db: { tcpUrl: \"tcp://h:1\" }\n" + servers +
                     ":\n  nhgConfig: { web: { serverIp: [ 10.1.1.2, 10.1.1.1 ] } }\n";
   EXPECT_THAT( changesOf( text ), ElementsAre( "probeInterval=7", "responseCodeRule pattern=\"5..\"",
                                         "nhgProbeConfig+web", "nhgProbeConfig+db", "nhgConfig+web" ) );
   EXPECT_EQ( count, 9u ); // the attributes of the new entries count as well
   EXPECT_THAT( changesOf( text ), IsEmpty() );
   EXPECT_EQ( count, 0u );

   // What the paths do not name goes back to its default or goes; what no path names stays.
   EXPECT_THAT( changesOf( probe + ":\n  nhgProbeConfig:\n    web: { timeout: 3, retryCount: 1 }\n" ),
         ElementsAre( "probeInterval=5", "nhgProbeConfig-db", "nhgProbeConfig/web retryCount=1",
               "responseCodeRule pattern=\"invalid\"" ) );
   EXPECT_THAT( changesOf( servers + "/nhgConfig/web: { serverIp: [ 10.1.1.2, 10.1.1.0 ] }\n" ),
         ElementsAre( "nhgConfig/web serverIp-10.1.1.1", "nhgConfig/web serverIp+10.1.1.0" ) );
   EXPECT_THAT( changesOf( servers + ":\n" ), ElementsAre( "nhgConfig-web" ) );

   // Paths of any depth, with what is missing on the way.
   EXPECT_THAT(
         changesOf( servers + "/nhgConfig/a%2Fb/serverIp: [ \"::1\" ]\n" + probe + "/probeInterval: 9\n" +
                    "ip6/status/intf: { Lo: { addr: [ \"2001:db8::1/128\" ] } }\n" ),
         ElementsAre( "nhgConfig+a/b", "probeInterval=9", "intf+Lo" ) );
   EXPECT_TRUE( serverConfig()->nhgConfig( "a/b" )->serverIpHas( ip( "::1" ) ) );
}

TEST_F( Apply, NeverShowsAHalfSetEntity ) {
   std::vector<std::string> seen;
   const Ptr<ChangeFeed> feed = new ChangeFeed( manager );
   feed->subscribe( probe, [&]( const std::string & ) {
      const auto group = probeConfig()->nhgProbeConfig( "web" );
      seen.push_back( group->httpUrl() + " " + std::to_string( group->timeout() ) );
   } );
   apply( probe + "/nhgProbeConfig/web: { httpUrl: \"http://a/\", timeout: 3 }\n" );
   apply( probe + "/nhgProbeConfig: { web: { httpUrl: \"http://b/\", timeout: 4 } }\n" );
   EXPECT_THAT( seen, ElementsAre( "http://a/ 3", "http://b/ 4", "http://b/ 4" ) );
}

TEST_F( Apply, BuildsALargeEntryApartOverManySteps ) {
   Applier applier( manager, checked( manyServers( 1000 ) ) );
   int steps = 0;
   while ( applier.step() ) {
      ++steps;
      const auto group = serverConfig()->nhgConfig( "web" );
      ASSERT_TRUE( !group || group->serverIpCount() == 1000 ) << group->serverIpCount();
   }
   EXPECT_GT( steps, 1000 );
   EXPECT_TRUE( serverConfig()->nhgConfigHas( "web" ) );
}

class Queue : public StateTest {
 protected:
   Queue() { scheduler->sliceBudgetIs( {} ); } // one step a slice
   const Ptr<ConfigQueue> queue = new ConfigQueue( loop, manager, scheduler, schema );
};

TEST_F( Queue, AppliesOneAfterTheOtherAndCheckedOnesOnly ) {
   std::vector<std::string> ended;
   const auto submit = [&]( const std::string & text, bool checkOnly = false ) {
      queue->submit( document( text, checkOnly ), [&ended]( const ChangeOutcome & outcome ) {
         ended.push_back( outcome.errors.empty() ? std::to_string( outcome.changes ) : outcome.errors[0] );
      } );
   };
   submit( manyServers( 500 ) );
   submit( "x: {}\n" + servers + ": {}\n" );
   submit( servers + ": {}\n", true );
   submit( manyServers( 499 ) );
   // Held against what stands when its turn comes.
   const auto mixed = probe + "/nhgProbeConfig/web/vip: \"2001:db8::1\"\n";
   submit( mixed, true );
   submit( mixed );
   ASSERT_TRUE( turnUntil( [&] { return ended.size() == 6; } ) );
   const auto refused = HasSubstr( "f.yaml:1: " + probe + "/nhgProbeConfig/web: vip: 2001:db8::1 is IPv6" );
   EXPECT_THAT( ended, ElementsAre( "501", "f.yaml:1: no such path: x", "0", "1", refused, refused ) );
   EXPECT_EQ( serverConfig()->nhgConfig( "web" )->serverIpCount(), 499u );
}

TEST_F( Queue, ServesTheLoopButNoOtherTaskWhileADocumentIsApplied ) {
   bool done = false;
   int served = 0;
   std::size_t seen = 0; // of the document's servers, by a task when it first saw any
   Ptr<LoopTimer> timer;
   timer = new LoopTimer( loop, [&] {
      ++served;
      if ( !done ) { // a loop with something due at all times never comes back
         timer->start( {} );
      }
   } );
   const Ptr<Task> agent = new Task( scheduler, TaskPriority{}, "agent" );
   agent->runHandlerIs( [&] {
      const auto group = serverConfig()->nhgConfig( "web" );
      seen = group ? group->serverIpCount() : 0;
      if ( seen == 0 && !done ) {
         agent->scheduleTask();
      }
   } );
   queue->submit( document( manyServers( 300 ) ), [&]( const ChangeOutcome & ) { done = true; } );
   timer->start( {} );
   agent->scheduleTask();
   ASSERT_TRUE( turnUntil( [&] { return done && seen > 0; } ) );
   EXPECT_GT( served, 300 );
   EXPECT_EQ( seen, 300u );
}

TEST_F( Queue, StopsWithWorkLeftOver ) {
   for ( int i = 0; i < 20; ++i ) {
      queue->submit( document( manyServers( 5000 ) ), []( const ChangeOutcome & ) {} );
   }
   loop->runOnce();
}

using Written = StateTest;

TEST_F( Written, YamlIsTakenBackAsItIs ) {
   const auto group = probeConfig()->nhgProbeConfigIs( "a: \"b\"\n\t#'%/ é \x7f-" );
   group->sslProfileIs( "null" );
   group->probeIntervalIs( Seconds{ 0.1 } );
   probeConfig()->nhgProbeConfigIs( "~" )->vipIs( ip( "2001:db8::" ) );
   probeConfig()->nhgProbeConfigIs( "- x" )->httpUrlIs( "http://h/?a=b&c:#d" );
   probeConfig()->pingDisabledVipIs( ip( "::" ) );
   probeConfig()->pingDisabledVipIs( ip( "10.1.1.1" ) );
   for ( const auto * below :
         { "", "/nhgProbeConfig", "/pingDisabledVip", "/responseCodeRule", "/nhgProbeConfig/~/vip" } ) {
      const auto text = written( probe + below );
      EXPECT_EQ( apply( text ), 0u ) << text;
   }
}

TEST_F( Written, JsonIsValidWhateverNamesHold ) {
   // The last ones are no text; an agent could still use them.
   const std::string names[] = { "\"", "\\", "\n\x01", "é", "</script>", "a/b", "\xff", "\xff\xfe" };
   for ( const auto & name : names ) {
      probeConfig()->nhgProbeConfigIs( name )->sslProfileIs( name );
   }
   probeConfig()->sslProfileIs( "\xff" );
   const auto content = Json::parse( written( probe, StateWriter::Format::json ) )[probe];
   EXPECT_EQ( content["nhgProbeConfig"].size(), std::size( names ) );
   EXPECT_EQ( content["nhgProbeConfig"]["\n\x01"]["sslProfile"], "\n\x01" );
   EXPECT_EQ( content["sslProfile"], "\xef\xbf\xbd" );
   EXPECT_EQ( content["probeInterval"], 5 );
   EXPECT_EQ( content["monitoringEnabled"], false );
   EXPECT_TRUE( content["pingDisabledVip"].is_array() );
}

TEST_F( Written, JsonIsValidThoughTheStateChangesUnderIt ) {
   for ( int i = 0; i < 20'000; ++i ) {
      probeConfig()->nhgProbeConfigIs( "group" + std::to_string( i ) );
   }
   auto writing = writer( probe, StateWriter::Format::json );
   std::string text;
   writing.write( text );
   for ( int i = 0; i < 20'000; i += 2 ) {
      probeConfig()->nhgProbeConfigDel( "group" + std::to_string( i ) );
   }
   while ( writing.write( text ) ) {}
   const auto groups = Json::parse( text )[probe]["nhgProbeConfig"].size();
   EXPECT_GE( groups, 10'000u );
   EXPECT_LT( groups, 15'000u ); // most was not written yet
}

} // namespace host
