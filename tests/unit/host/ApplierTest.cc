#include "host/Applier.h"

#include "host/ChangeFeed.h"
#include "host/StateWriter.h"
#include "tests/unit/host/TestState.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace host {

using namespace platform;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Apply : public StateTest {
 protected:
   // Every change as "path attribute=value", "path attribute+key" or "path attribute-key", below
   // "healthMonitor/config".
   std::vector<std::string> changesOf( const std::string & text, std::uint64_t * count = nullptr ) {
      std::vector<std::string> changes;
      const Ptr<ChangeFeed> feed = new ChangeFeed( manager );
      feed->subscribe( "", [&]( const std::string & line ) {
         const auto json = nlohmann::json::parse( line );
         auto path = json["path"].get<std::string>();
         path = path.substr( std::min(
               path.size(), path.find( "Config" ) == path.npos ? path.size() : path.find( "Config" ) + 7 ) );
         const auto name = path + ( path.empty() ? "" : " " ) + json["attribute"].get<std::string>();
         changes.push_back( json.contains( "key" ) ? name + ( json["change"] == "added" ? "+" : "-" ) +
                                                           json["key"].get<std::string>()
                                                   : name + "=" + json["value"].dump() );
      } );
      Applier applier( manager, checked( text ) );
      while ( applier.step() ) {}
      EXPECT_THAT( applier.refusals(), IsEmpty() );
      if ( count ) {
         *count = applier.changes();
      }
      return changes;
   }
};

TEST_F( Apply, ChangesOnlyWhatDiffers ) {
   const auto text = probe +
                     ":\n  probeInterval: 7\n  responseCodeRule: { pattern: \"5..\" }\n  nhgProbeConfig:\n" +
                     "    web: { timeout: 3 }\n    db: { tcpUrl: \"tcp://h:1\" }\n" + servers +
                     ":\n  nhgConfig: { web: { serverIp: [ 10.1.1.2, 10.1.1.1 ] } }\n";
   std::uint64_t count = 0;
   EXPECT_THAT(
         changesOf( text, &count ), ElementsAre( "probeInterval=7", "responseCodeRule pattern=\"5..\"",
                                          "nhgProbeConfig+web", "nhgProbeConfig+db", "nhgConfig+web" ) );
   EXPECT_EQ( count, 9u ); // the attributes of the new entries count as well
   EXPECT_THAT( changesOf( text, &count ), IsEmpty() );
   EXPECT_EQ( count, 0u );

   // What the paths do not name goes back to its default or goes; what no path names stays.
   EXPECT_THAT( changesOf( probe + ":\n  nhgProbeConfig:\n    web: { timeout: 3, retryCount: 1 }\n" ),
         ElementsAre( "probeInterval=5", "nhgProbeConfig-db", "nhgProbeConfig/web retryCount=1",
               "responseCodeRule pattern=\"invalid\"" ) );
   EXPECT_THAT( changesOf( servers + "/nhgConfig/web: { serverIp: [ 10.1.1.2, 10.1.1.0 ] }\n" ),
         ElementsAre( "nhgConfig/web serverIp-10.1.1.1", "nhgConfig/web serverIp+10.1.1.0" ) );
   EXPECT_THAT( changesOf( servers + ":\n" ), ElementsAre( "nhgConfig-web" ) );
}

TEST_F( Apply, TakesPathsOfAnyDepth ) {
   EXPECT_THAT(
         changesOf( servers + "/nhgConfig/a%2Fb/serverIp: [ \"::1\" ]\n" + probe + "/probeInterval: 9\n" +
                    "ip6/status/intf: { Lo: { addr: [ \"2001:db8::1/128\" ] } }\n" ),
         ElementsAre( "nhgConfig+a/b", "probeInterval=9", "intf+Lo" ) );
   EXPECT_TRUE( serverConfig()->nhgConfig( "a/b" )->serverIpHas( *IpGenAddr::fromText( "::1" ) ) );
}

// What a reactor of a group's settings sees at each notification.
class Watcher final : public EntityObserver {
 public:
   explicit Watcher( Ptr<HmState::ProbeConfig> config ) : config_( std::move( config ) ) {
      config_->observe( *this );
   }
   ~Watcher() {
      if ( group_ ) {
         group_->unobserve( *this );
      }
      config_->unobserve( *this );
   }
   void attributeChanged( const AttributeInfo &, const void * ) override {
      if ( !group_ && config_->nhgProbeConfigHas( "web" ) ) {
         group_ = config_->nhgProbeConfig( "web" );
         group_->observe( *this );
      }
      seen.push_back( group_->httpUrl() + " " + std::to_string( group_->timeout() ) );
   }

   std::vector<std::string> seen;

 private:
   const Ptr<HmState::ProbeConfig> config_;
   Ptr<HmState::NexthopGroupProbeConfig> group_;
};

TEST_F( Apply, NeverShowsAHalfSetEntity ) {
   Watcher watcher( probeConfig() );
   changesOf( probe + "/nhgProbeConfig/web: { httpUrl: \"http://a/\", timeout: 3 }\n" );
   changesOf( probe + "/nhgProbeConfig: { web: { httpUrl: \"http://b/\", timeout: 4 } }\n" );
   EXPECT_THAT( watcher.seen, ElementsAre( "http://a/ 3", "http://b/ 4", "http://b/ 4" ) );
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
   ChangeRequest document( const std::string & text ) const {
      ChangeRequest request;
      request.source = "f.yaml";
      request.text = text;
      return request;
   }
   const Ptr<ConfigQueue> queue = new ConfigQueue( loop, manager, scheduler, schema );
};

TEST_F( Queue, AppliesOneAfterTheOtherAndCheckedOnesOnly ) {
   scheduler->sliceBudgetIs( {} ); // one step a slice
   std::vector<std::string> ended;
   const auto end = [&ended]( const char * name ) {
      return [&ended, name]( const ChangeOutcome & outcome ) {
         ended.push_back(
               name + std::string( " " ) +
               ( outcome.errors.empty() ? std::to_string( outcome.changes ) : outcome.errors.front() ) );
      };
   };
   queue->submit( document( manyServers( 500 ) ), end( "first" ) );
   queue->submit( document( "x: {}\n" + servers + ": {}\n" ), end( "wrong" ) );
   auto check = document( servers + ": {}\n" );
   check.checkOnly = true;
   queue->submit( std::move( check ), end( "check" ) );
   queue->submit( document( manyServers( 499 ) ), end( "last" ) );
   // Held against what stands when its turn comes.
   for ( const bool checkOnly : { true, false } ) {
      auto mixed = document( probe + "/nhgProbeConfig/web/vip: \"2001:db8::1\"\n" );
      mixed.checkOnly = checkOnly;
      queue->submit( std::move( mixed ), end( "mixed" ) );
   }
   ASSERT_TRUE( turnUntil( [&] { return ended.size() == 6; } ) );
   const auto mixed =
         "mixed f.yaml:1: " + probe +
         "/nhgProbeConfig/web: vip: 2001:db8::1 is IPv6, the servers of the group are IPv4: they "
         "cannot be probed through it";
   EXPECT_THAT( ended,
         ElementsAre( "first 501", "wrong f.yaml:1: no such path: x", "check 0", "last 1", mixed, mixed ) );
   EXPECT_EQ( serverConfig()->nhgConfig( "web" )->serverIpCount(), 499u );
}

TEST_F( Queue, ServesTheLoopButNoOtherTaskWhileADocumentIsApplied ) {
   scheduler->sliceBudgetIs( {} );
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

class Written : public StateTest {
 protected:
   std::string written( StateWriter::Format format, const std::string & path ) const {
      SchemaPlace place;
      EXPECT_FALSE( schema->resolve( path, place ) );
      StateWriter writer( format, { { place, entityAt( *manager, place ) } } );
      std::string text;
      while ( writer.write( text ) ) {}
      return text;
   }
};

TEST_F( Written, YamlIsTakenBackAsItIs ) {
   const std::string odd = "a: \"b\"\n\t#'%/ é \x7f-";
   const auto group = probeConfig()->nhgProbeConfigIs( odd );
   group->sslProfileIs( "null" );
   group->probeIntervalIs( Seconds{ 0.1 } );
   probeConfig()->nhgProbeConfigIs( "~" )->vipIs( *IpGenAddr::fromText( "2001:db8::" ) );
   probeConfig()->nhgProbeConfigIs( "- x" )->httpUrlIs( "http://h/?a=b&c:#d" );
   probeConfig()->pingDisabledVipIs( *IpGenAddr::fromText( "::" ) );
   probeConfig()->pingDisabledVipIs( *IpGenAddr::fromText( "10.1.1.1" ) );
   for ( const auto * path :
         { "healthMonitor/config/probeConfig", "healthMonitor/config/probeConfig/nhgProbeConfig",
               "healthMonitor/config/probeConfig/pingDisabledVip",
               "healthMonitor/config/probeConfig/responseCodeRule",
               "healthMonitor/config/probeConfig/nhgProbeConfig/~/vip" } ) {
      Applier applier( manager, checked( written( StateWriter::Format::yaml, path ) ) );
      while ( applier.step() ) {}
      EXPECT_EQ( applier.changes(), 0u ) << path << written( StateWriter::Format::yaml, path );
   }
}

TEST_F( Written, JsonIsValidWhateverNamesHold ) {
   // The last ones are no text; an agent could still use them.
   const std::string names[] = { "\"", "\\", "\n\x01", "é", "</script>", "a/b", "\xff", "\xff\xfe" };
   for ( const auto & name : names ) {
      probeConfig()->nhgProbeConfigIs( name )->sslProfileIs( name );
   }
   const auto json =
         nlohmann::json::parse( written( StateWriter::Format::json, "healthMonitor/config/probeConfig" ) );
   const auto & content = json["healthMonitor/config/probeConfig"];
   EXPECT_EQ( content["nhgProbeConfig"].size(), std::size( names ) );
   EXPECT_EQ( content["nhgProbeConfig"]["\n\x01"]["sslProfile"], "\n\x01" );
   probeConfig()->sslProfileIs( "\xff" );
   EXPECT_EQ( nlohmann::json::parse(
                    written( StateWriter::Format::json, "healthMonitor/config/probeConfig/sslProfile" ) )
                    .front(),
         "\xef\xbf\xbd" );
   EXPECT_EQ( content["probeInterval"], 5 );
   EXPECT_EQ( content["monitoringEnabled"], false );
   EXPECT_TRUE( content["pingDisabledVip"].is_array() );
}

} // namespace host
