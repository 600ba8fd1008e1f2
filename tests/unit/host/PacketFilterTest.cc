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
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

PacketFilterTargets someTargets() {
   return { { ip( "10.100.0.1" ), ip( "10.100.0.2" ), ip( "fd00:100::1" ) },
         { ip( "10.255.0.1" ), ip( "fd00:255::1" ) } };
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
      for ( const auto & targets : { PacketFilterTargets{}, someTargets() } ) {
         append( packetFilter::update( form, targets ) );
         append( packetFilter::look( form, targets ) );
      }
      if ( form == PacketFilterForm::native ) {
         for ( const auto * what : { "flush set inet health-monitor vips4",
                     "flush set inet health-monitor vips6", "delete table inet health-monitor" } ) {
            missed( form, fmt::format( "nft {}", what ) );
         }
      } else {
         for ( const auto * what : { "F PREROUTING", "F HEALTH-MONITOR-OUT", "F HEALTH-MONITOR-IN",
                     "F HEALTH-MONITOR-STRAY", "F HEALTH-MONITOR-ECHO", "D OUTPUT -j HEALTH-MONITOR-OUT" } ) {
            missed( form, fmt::format( "iptables-nft -t mangle -{}", what ) );
            missed( form, fmt::format( "ip6tables-nft -t mangle -{}", what ) );
         }
      }
      append( packetFilter::remove( form ) );
   }
   script += "test \"$before\" = \"$( iptables-nft -t mangle -S )\"\n";
   script += "! nft list tables | grep health-monitor\n";
   EXPECT_EQ( ran( { "unshare", "--net", "sh", "-s" }, script ), std::nullopt ) << script;
}

// Of the native form nft itself refuses an address in a set of the other family.
TEST( PacketFilterRules, NameEveryAddressInItsOwnFamily ) {
   const auto commands = packetFilter::update( PacketFilterForm::xtables, someTargets() );
   ASSERT_EQ( commands.size(), 2u );
   EXPECT_THAT( commands[0].input, AllOf( HasSubstr( "-A HEALTH-MONITOR-ECHO -d 10.100.0.2 -j NFQUEUE" ),
                                         HasSubstr( "-A HEALTH-MONITOR-STRAY -d 10.100.0.2 -j DROP" ),
                                         HasSubstr( "-s 10.255.0.1 " ), Not( HasSubstr( "fd00" ) ) ) );
   EXPECT_THAT( commands[1].input,
         AllOf( HasSubstr( "-d fd00:100::1 " ), HasSubstr( "-s fd00:255::1 " ), Not( HasSubstr( "10." ) ) ) );
   // No bypass in either form: an unserved queue must not let probes out as they are.
   for ( const auto form : { PacketFilterForm::native, PacketFilterForm::xtables } ) {
      for ( const auto & command : packetFilter::install( form, someTargets() ) ) {
         EXPECT_THAT( command.input, Not( HasSubstr( "bypass" ) ) );
      }
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
      filter = new PacketFilter( loop, scheduler, manager, root<HostStatus>( HostStatus::path ),
            [this]( const std::string & line ) { told.push_back( line ); } );
   }
   ~PacketFilterTest() override {
      filter = nullptr;
      setenv( "PATH", path.c_str(), 1 );
      std::filesystem::remove_all( home );
   }

   std::string status() const { return root<HostStatus>( HostStatus::path )->packetFilter(); }
   /// What was run since the last question.
   std::string log() {
      std::ifstream file( home / "log" );
      const std::string text( std::istreambuf_iterator<char>( file ), {} );
      return text.substr( std::exchange( read, text.size() ) );
   }
   void failing() { std::ofstream( home / "fail" ); }
   void working() { std::filesystem::remove( home / "fail" ); }
   /// What is run in the next time.
   std::string logAfter( Seconds time ) {
      clock.advance( time );
      scheduler->runUntilIdle();
      EXPECT_TRUE( turnUntil( [this] { return filter->idle(); } ) );
      return log();
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
   EXPECT_EQ( status(), "native" );
   EXPECT_THAT( log(), AllOf( HasSubstr( "delete table" ), Not( HasSubstr( "add element" ) ) ) );
   for ( int each = 1; each <= 200; ++each ) {
      probeConfig()
            ->nhgProbeConfigIs( fmt::format( "web{}", each ) )
            ->vipIs( ip( fmt::format( "10.100.0.{}", each ) ) );
   }
   clock.advance( Seconds( 1 ) );
   scheduler->runUntilIdle();
   probeConfig()->nhgProbeConfigDel( "web7" ); // while the program runs: seen once it has ended
   const auto lines = logAfter( Seconds( 1 ) );
   EXPECT_EQ( lines.find( "run " ), lines.rfind( "run " ) ) << lines;
   EXPECT_THAT( lines, AllOf( HasSubstr( "10.100.0.200" ), HasSubstr( "10.100.0.7," ),
                             Not( HasSubstr( "delete table" ) ) ) );
   EXPECT_THAT(
         logAfter( Seconds( 1 ) ), AllOf( HasSubstr( "10.100.0.200" ), Not( HasSubstr( "10.100.0.7," ) ) ) );
   serverStatus()->probeSrcIpIs( ip( "10.255.0.1" ) );
   EXPECT_THAT( logAfter( Seconds( 1 ) ), HasSubstr( "sources4 { 10.255.0.1 }" ) );
   serverStatus()->probeSrcIpIs( ip( "10.255.0.2" ) ); // late answers to the former one still come
   EXPECT_THAT( logAfter( Seconds( 1 ) ), HasSubstr( "sources4 { 10.255.0.2, 10.255.0.1 }" ) );
   serverStatus()->probeSrcIp6Is( ip( "fd00:255::1" ) );
   EXPECT_THAT( logAfter( Seconds( 1 ) ), HasSubstr( "sources6 { fd00:255::1 }" ) );
   filter = nullptr;
   EXPECT_THAT( log(), HasSubstr( "delete table" ) );
   EXPECT_THAT( told, IsEmpty() );
}

TEST_F( PacketFilterTest, AFailureIsToldOnceAndTriedAgain ) {
   failing();
   filter->start();
   EXPECT_THAT( status(), HasSubstr( "failed: nft: no room" ) );
   logAfter( Seconds( 10 ) );
   EXPECT_THAT( told, ElementsAre( HasSubstr( "nft: no room (status 1)" ) ) );
   working();
   EXPECT_THAT( logAfter( Seconds( 10 ) ), HasSubstr( "table inet" ) );
   EXPECT_EQ( status(), "native" );
   EXPECT_THAT( told, ElementsAre( HasSubstr( "no room" ), HasSubstr( "in place again" ) ) );
}

TEST_F( PacketFilterTest, RulesThatSomebodyFlushedComeBack ) {
   filter->start();
   failing(); // as a look at a table that is gone does
   logAfter( Seconds( 30 ) );
   working();
   EXPECT_THAT( logAfter( Seconds( 1 ) ), HasSubstr( "delete table" ) );
   EXPECT_THAT( told, IsEmpty() );
}

} // namespace host
