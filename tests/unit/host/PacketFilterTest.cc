#include "host/PacketFilter.h"
#include "tests/unit/host/TestState.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

namespace host {

using namespace platform;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

IpGenAddr address( const char * text ) {
   return *IpGenAddr::fromText( text );
}

PacketFilterTargets someTargets() {
   return { { address( "10.100.0.1" ), address( "10.100.0.2" ), address( "fd00:100::1" ) },
         { address( "10.255.0.1" ), address( "fd00:255::1" ) } };
}

std::string inputs( const PacketFilterCommands & commands ) {
   std::string all;
   for ( const auto & each : commands ) {
      all += each.input;
   }
   return all;
}

std::string replaced( std::string text, const std::string & from, const std::string & to ) {
   for ( auto at = text.find( from ); at != std::string::npos; at = text.find( from, at + to.size() ) ) {
      text.replace( at, from.size(), to );
   }
   return text;
}

std::optional<std::string> ran( const std::vector<std::string> & arguments, const std::string & input = {} ) {
   ChildProgram program( arguments, input );
   program.wait( std::chrono::seconds( 60 ) );
   return program.finish();
}

} // namespace

TEST( ChildProgram, TellsHowItEnded ) {
   EXPECT_EQ( ran( { "sh", "-c", "test \"$( cat )\" = input" }, "input" ), std::nullopt );
   EXPECT_EQ( ran( { "sh", "-c", "echo first >&2; echo second >&2; exit 3" } ), "sh: first (status 3)" );
   EXPECT_EQ( ran( { "sh", "-c", "kill -9 $$" } ), "sh: ended by signal 9" );
   EXPECT_EQ( ran( { "no-such-program" } ), "no-such-program: No such file or directory" );
   EXPECT_EQ( ran( { "cat" }, std::string( 1 << 20, 'x' ) ), std::nullopt ); // nobody waits for a full pipe
   ChildProgram hanging( { "sleep", "1000" }, "" );
   hanging.wait( {} );
   EXPECT_EQ( hanging.finish(), "sleep: did not end in time" );
}

TEST( PacketFilterRules, ToolsTakeWhatIsWrittenAndGiveItBackWhole ) {
   if ( ran( { "unshare", "--net", "true" } ) ) {
      GTEST_SKIP() << "needs root";
   }
   std::string script = "set -e\niptables-nft -t mangle -A OUTPUT -j ACCEPT\n"
                        "before=$( iptables-nft -t mangle -S )\n";
   // The kernel need not have the native form's statement itself.
   const auto append = [&script]( const PacketFilterCommands & commands, const char * otherwise = "exit 1" ) {
      for ( const auto & command : commands ) {
         script += fmt::format( "'{}' <<'END' || {}\n{}END\n", fmt::join( command.arguments, "' '" ),
               command.mayFail ? "true" : otherwise, replaced( command.input, " queue to 0", " accept" ) );
      }
   };
   // Whatever somebody empties is missed.
   const auto missed = [&]( PacketFilterForm form, const std::string & loss ) {
      append( packetFilter::install( form, someTargets() ) ); // over what an earlier run has left
      script += loss + "\nmissed=\n";
      append( packetFilter::look( form, someTargets() ), "missed=yes" );
      script += fmt::format( "test -n \"$missed\" || {{ echo '{}' >&2; exit 1; }}\n", loss );
   };
   for ( const auto form : { PacketFilterForm::native, PacketFilterForm::xtables } ) {
      append( packetFilter::install( form, someTargets() ) );
      append( packetFilter::update( form, {} ) );
      append( packetFilter::look( form, {} ) );
      append( packetFilter::update( form, someTargets() ) );
      append( packetFilter::look( form, someTargets() ) );
      if ( form == PacketFilterForm::native ) {
         missed( form, "nft flush set inet health-monitor vips4" );
         missed( form, "nft flush set inet health-monitor vips6" );
         missed( form, "nft delete table inet health-monitor" );
      } else {
         for ( const auto * chain : { "PREROUTING", "HEALTH-MONITOR-OUT", "HEALTH-MONITOR-IN",
                     "HEALTH-MONITOR-STRAY", "HEALTH-MONITOR-ECHO" } ) {
            missed( form, fmt::format( "iptables-nft -t mangle -F {}", chain ) );
            missed( form, fmt::format( "ip6tables-nft -t mangle -F {}", chain ) );
         }
         missed( form, "iptables-nft -t mangle -D OUTPUT -j HEALTH-MONITOR-OUT" );
         missed( form, "ip6tables-nft -t mangle -F OUTPUT" );
      }
      append( packetFilter::remove( form ) );
   }
   script += "test \"$before\" = \"$( iptables-nft -t mangle -S )\"\n";
   script += "! nft list tables | grep health-monitor\n";
   EXPECT_EQ( ran( { "unshare", "--net", "sh", "-s" }, script ), std::nullopt ) << script;
}

TEST( PacketFilterRules, NameEveryAddressInItsOwnFamily ) {
   const auto native = inputs( packetFilter::update( PacketFilterForm::native, someTargets() ) );
   EXPECT_THAT(
         native, AllOf( HasSubstr( "vips4 { 10.100.0.1, 10.100.0.2 }" ), HasSubstr( "vips6 { fd00:100::1 }" ),
                       HasSubstr( "sources4 { 10.255.0.1 }" ), HasSubstr( "sources6 { fd00:255::1 }" ) ) );
   const auto xtables = packetFilter::update( PacketFilterForm::xtables, someTargets() );
   ASSERT_EQ( xtables.size(), 2u );
   EXPECT_THAT( xtables[0].input, AllOf( HasSubstr( "-A HEALTH-MONITOR-ECHO -d 10.100.0.2 -j NFQUEUE" ),
                                        HasSubstr( "-A HEALTH-MONITOR-STRAY -d 10.100.0.2 -j DROP" ),
                                        HasSubstr( "-s 10.255.0.1 " ), Not( HasSubstr( "fd00" ) ) ) );
   EXPECT_THAT( xtables[1].input,
         AllOf( HasSubstr( "-d fd00:100::1 " ), HasSubstr( "-s fd00:255::1 " ), Not( HasSubstr( "10." ) ) ) );
   // No bypass in either form: an unserved queue must not let probes out as they are.
   for ( const auto form : { PacketFilterForm::native, PacketFilterForm::xtables } ) {
      EXPECT_THAT( inputs( packetFilter::install( form, someTargets() ) ), Not( HasSubstr( "bypass" ) ) );
   }
}

namespace {

/// The filter over an "nft" that writes down what it is given and fails as it is told.
class PacketFilterTest : public StateTest {
 protected:
   PacketFilterTest() {
      std::string pattern = "/tmp/hm-filter-XXXXXX";
      home = mkdtemp( pattern.data() );
      std::ofstream( home / "nft" ) << fmt::format( "#!/bin/sh\n"
                                                    "test \"$1\" = -c && exit 0\n"
                                                    "test -e {0}/fail && {{ echo no room >&2; exit 1; }}\n"
                                                    "echo \"run $1\" >>{0}/log\ncat >>{0}/log\n",
            home.string() );
      std::filesystem::permissions( home / "nft", std::filesystem::perms::owner_all );
      setenv( "PATH", ( home.string() + ":" + path ).c_str(), 1 );
      filter = new PacketFilter( loop, scheduler, manager, status(),
            [this]( const std::string & line ) { told.push_back( line ); } );
   }
   ~PacketFilterTest() override {
      filter = nullptr;
      setenv( "PATH", path.c_str(), 1 );
      std::filesystem::remove_all( home );
   }

   Ptr<HostStatus> status() const { return root<HostStatus>( HostStatus::path ); }
   /// What was run since the last question.
   std::string log() {
      std::ifstream file( home / "log" );
      std::string text( std::istreambuf_iterator<char>( file ), {} );
      const auto fresh = text.substr( read );
      read = text.size();
      return fresh;
   }
   void failing( bool yes ) {
      if ( yes ) {
         std::ofstream( home / "fail" );
      } else {
         std::filesystem::remove( home / "fail" );
      }
   }
   void pass( Seconds time ) {
      clock.advance( time );
      scheduler->runUntilIdle();
   }
   bool idle() {
      return turnUntil( [this] { return filter->idle(); } );
   }

   const std::string path = getenv( "PATH" );
   ManualClock clock;
   const Ptr<TaskScheduler> scheduler = new TaskScheduler( loop, clock );
   std::filesystem::path home;
   std::size_t read = 0;
   std::vector<std::string> told;
   Ptr<PacketFilter> filter;
};

} // namespace

TEST_F( PacketFilterTest, FollowsVirtualAddressesAndSourcesInOneGo ) {
   filter->start();
   EXPECT_EQ( status()->packetFilter(), "native" );
   EXPECT_THAT( log(), AllOf( HasSubstr( "delete table" ), Not( HasSubstr( "add element" ) ) ) );
   for ( int each = 1; each <= 200; ++each ) {
      probeConfig()
            ->nhgProbeConfigIs( fmt::format( "web{}", each ) )
            ->vipIs( address( fmt::format( "10.100.0.{}", each ).c_str() ) );
   }
   pass( Seconds( 1 ) );
   probeConfig()->nhgProbeConfigDel( "web7" ); // while the program runs: seen once it has ended
   pass( Seconds( 1 ) );
   ASSERT_TRUE( idle() );
   auto lines = log();
   EXPECT_EQ( lines.find( "run " ), lines.rfind( "run " ) ) << lines;
   EXPECT_THAT( lines, AllOf( HasSubstr( "10.100.0.200" ), HasSubstr( "10.100.0.7," ),
                             Not( HasSubstr( "delete table" ) ) ) );
   pass( Seconds( 1 ) );
   ASSERT_TRUE( idle() );
   EXPECT_THAT( log(), AllOf( HasSubstr( "10.100.0.200" ), Not( HasSubstr( "10.100.0.7," ) ) ) );
   const auto published = root<HmState::ServerStatus>( "healthMonitor/status/serverStatus" );
   published->probeSrcIpIs( address( "10.255.0.1" ) );
   pass( Seconds( 1 ) );
   ASSERT_TRUE( idle() );
   EXPECT_THAT( log(), HasSubstr( "sources4 { 10.255.0.1 }" ) );
   published->probeSrcIpIs( address( "10.255.0.2" ) ); // late answers to the former one still come
   pass( Seconds( 1 ) );
   ASSERT_TRUE( idle() );
   EXPECT_THAT( log(), HasSubstr( "sources4 { 10.255.0.2, 10.255.0.1 }" ) );
   published->probeSrcIp6Is( address( "fd00:255::1" ) );
   pass( Seconds( 1 ) );
   ASSERT_TRUE( idle() );
   EXPECT_THAT( log(), HasSubstr( "sources6 { fd00:255::1 }" ) );
   filter = nullptr;
   EXPECT_THAT( log(), HasSubstr( "delete table" ) );
   EXPECT_THAT( told, ElementsAre() );
}

TEST_F( PacketFilterTest, AFailureIsToldOnceAndTriedAgain ) {
   failing( true );
   filter->start();
   EXPECT_THAT( status()->packetFilter(), HasSubstr( "failed: nft: no room" ) );
   pass( Seconds( 10 ) );
   ASSERT_TRUE( idle() );
   EXPECT_THAT( told, ElementsAre( HasSubstr( "nft: no room (status 1)" ) ) );
   failing( false );
   pass( Seconds( 10 ) );
   ASSERT_TRUE( idle() );
   EXPECT_THAT( log(), HasSubstr( "table inet" ) );
   EXPECT_EQ( status()->packetFilter(), "native" );
   EXPECT_THAT( told, ElementsAre( HasSubstr( "no room" ), HasSubstr( "in place again" ) ) );
}

TEST_F( PacketFilterTest, RulesThatSomebodyFlushedComeBack ) {
   filter->start();
   log();
   failing( true ); // as a look at a table that is gone does
   pass( Seconds( 30 ) );
   ASSERT_TRUE( idle() );
   failing( false );
   pass( Seconds( 1 ) );
   ASSERT_TRUE( idle() );
   EXPECT_THAT( log(), HasSubstr( "delete table" ) );
   EXPECT_THAT( told, ElementsAre() );
}

} // namespace host
