// The commands that an operator begins with: the table of all states, and a check of one server now.
#include "tests/unit/agent/AgentFixture.h"

#include <regex>

using namespace hm;
using namespace hm::test;

namespace {

class OperatorCliTest : public CliFixture {
 protected:
   std::string refusal( const std::string & command ) {
      const auto run = this->run( command );
      run->step();
      EXPECT_TRUE( run->finished() ) << command;
      EXPECT_TRUE( reader_.read().empty() ) << command;
      return run->refusal();
   }
};

} // namespace

TEST_F( OperatorCliTest, StatusSaysWhatIsPublishedAndWhy ) {
   group( "database-replicas", "", "tcp://10.2.0.10:5432", { "10.2.0.1" } );
   group( "größe 中 'x'", "http://h/", "", { "10.3.0.1" } );
   group( "web", "https://192.0.2.10/health", "tcp://192.0.2.10:443", { "10.1.1.1", "10.1.1.20" } );
   probeConfig_->nhgProbeConfig( "web" )->vipIs( ip( "192.0.2.10" ) );
   result( "http/web/10.1.1.1", true, 10 );
   result( "tcp/web/10.1.1.1", true, 10 );
   result( "tcp/web/10.1.1.1", false, 11 );
   const std::regex time( R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)" );
   EXPECT_EQ( "\n" + std::regex_replace( show( "status" ), time, "YYYY-MM-DD HH:MM:SS" ), R"(
Nexthop Group     VIP        Server          State    HTTP     TCP      Since               Last Check                   Response
-------------     ---        --------------- -------- -------- -------- ------------------- ---------------------------- --------
database-replicas            10.2.0.1        down     -        down     -                   -                            -
größe 中 'x'                 10.3.0.1        down     down     -        -                   -                            -
web               192.0.2.10 10.1.1.1        down     up       down     YYYY-MM-DD HH:MM:SS connection refused           12 ms
web               192.0.2.10 10.1.1.20       down     down     down     -                   -                            -
)" );
   EXPECT_EQ( std::ranges::count( show( "status web" ), '\n' ), 4 );
   EXPECT_EQ( std::ranges::count( show( "status größe 中 'x'" ), '\n' ), 3 );
   EXPECT_EQ( refusal( "status nobody" ), "no nexthop group \"nobody\" is monitored" );
   EXPECT_EQ( refusal( "status " ), "no nexthop group \"\" is monitored" );

   const auto document = showJson( "status" )["hmStatus"];
   EXPECT_EQ( document["database-replicas"].dump(),
         R"({"vip":"","servers":{"10.2.0.1":{"probeType":{"tcp":{"state":"down"}},"state":"down","weight":0,)"
         R"("since":0}}})" );
   const auto & server = document["web"]["servers"]["10.1.1.1"];
   EXPECT_EQ( server["probeType"]["tcp"]["lastReason"], "connection refused" );
   EXPECT_GT( server["since"].get<std::uint64_t>(), 1'700'000'000'000u );
   // A state that stays is not since now.
   const auto status = published( "web", "10.1.1.1" );
   status->sinceIs( 5 );
   result( "tcp/web/10.1.1.1", false, 12 );
   EXPECT_EQ( status->since(), 5u );
   result( "tcp/web/10.1.1.1", true, 13 );
   EXPECT_GT( status->since(), 5u );
}

TEST_F( OperatorCliTest, ALongTableIsPrintedOnceWhateverChangesMeanwhile ) {
   for ( int i = 0; i < 300; ++i ) {
      group( fmt::format( "group{:03}", i % 3 ), "http://h/", "",
            { fmt::format( "10.1.{}.{}", i / 200, i % 200 + 1 ) } );
   }
   group( "with the longest name of all", "http://h/", "", { "2001:db8::1" } );
   settle();
   const auto whole = show( "status" );
   EXPECT_EQ( std::ranges::count( whole, '\n' ), 303 );
   slicesAreShort();
   EXPECT_EQ( show( "status" ), whole );
   EXPECT_GT( slices_, 303 );
   const auto cut = show( "status", CliFormat::json, [&]( int slice ) {
      if ( slice == 150 ) {
         groupDel( "group001" );
         settle();
      }
   } );
   EXPECT_TRUE( Json::accept( cut ) ) << cut.substr( 0, 300 );
}

TEST_F( OperatorCliTest, ProbeShowsPhasesAndWhatTheRulesSay ) {
   group( "web", "http://192.0.2.10/health", "", { "10.1.1.1" } );
   probeConfig_->responseCodeRule()->patternIs( "50." );
   probeConfig_->responsePayloadRule()->patternIs( "drain" );
   probeConfig_->responsePayloadRule()->actionIs( HmState::ruleActionShutdown );
   settle();
   const auto probed = [&]( CliFormat format ) {
      const auto probe = run( "probe web 10.1.1.1", format );
      probe->step();
      EXPECT_FALSE( probe->finished() );
      EXPECT_TRUE( RecordingEngine::waitForCall( "probe web-http http/web/10.1.1.1" ) );
      HMProbeReport report;
      report.m_check.m_response = HM_RESPONSE_ANSWERED;
      report.m_check.m_responseCode = 200;
      report.m_check.m_responsePayload = "drain\n\xff" + std::string( 100, 'x' );
      EXPECT_TRUE( report.m_address.set( "10.1.1.1" ) );
      report.m_connectUs = 400;
      report.m_firstByteUs = 12'345;
      report.m_totalUs = 12'400;
      for ( const auto & done : RecordingEngine::probes() ) {
         done( report );
      }
      probe->step();
      probe->step();
      EXPECT_TRUE( probe->finished() );
      return reader_.read();
   };
   EXPECT_EQ( probed( CliFormat::text ), "http://192.0.2.10/health\n"
                                         "   Address:      10.1.1.1\n"
                                         "   Result:       answered\n"
                                         "   Connect:      0.400 ms\n"
                                         "   First byte:   12.345 ms\n"
                                         "   Total:        12.400 ms\n"
                                         "   Status:       200\n"
                                         "   Body:         \"drain\\x0a\xff" +
                                               std::string( 57, 'x' ) +
                                               "\" and 43 bytes more\n"
                                               "   Payload rule: matches: shutdown\n"
                                               "   Code rule:    does not match\n" );
   const auto web = Json::parse( probed( CliFormat::json ) )["hmProbe"]["http"];
   EXPECT_EQ( web["firstByteUs"], 12'345 );
   EXPECT_EQ( web["bodyBytes"], 107 );
   EXPECT_EQ( web["payloadRule"], "matches: shutdown" );
   // The operator's check is not one of those that count.
   EXPECT_EQ( published( "web", "10.1.1.1" )->adminState(), HmState::ServerAdminState::enabled );
   EXPECT_EQ( published( "web", "10.1.1.1" )->since(), 0u );
}

TEST_F( OperatorCliTest, ProbeIsRefusedForWhatThereIsNot ) {
   group( "web", "http://h/", "", { "10.1.1.1" } );
   settle();
   const std::pair<const char *, const char *> rows[] = {
         { "probe", "usage: probe NHG SERVER" },
         { "probe web", "usage: probe NHG SERVER" },
         { "probe web 10.1.1", "\"10.1.1\" is not an IP address" },
         { "probe no such 10.1.1.1", "no nexthop group \"no such\" is monitored" },
         { "probe web 10.1.1.2", "nexthop group \"web\" has no server 10.1.1.2" },
   };
   for ( const auto & [command, why] : rows ) {
      EXPECT_EQ( refusal( command ), why ) << command;
   }
   RecordingEngine::refuse( "probe" );
   EXPECT_EQ( refusal( "probe web 10.1.1.1" ), "the check engine does not know this server yet" );
}

TEST_F( OperatorCliTest, PacketsAreShownByWhatBecameOfThem ) {
   auto & data = *agent_->hmCommonData();
   data.nfQueueRcvCntInc( 7 );
   data.encapDropCntInc( 3 );
   data.packetCounters().inc( PacketCount::encapsulatedIpv6 );
   data.packetCounters().inc( PacketCount::verdictFailed );
   EXPECT_THAT( show( "show health-monitor packets" ),
         testing::MatchesRegex( "Received:                              7\n"
                                "Encapsulated, IPv4:                    0\n"
                                "Encapsulated, IPv6:                    1\n"
                                "(.*\n)*"
                                "Verdicts not taken:                    1\n"
                                "Encapsulation drops together:          3\n"
                                "Kernel, waiting for a verdict:         0\n"
                                "Kernel, dropped for a full queue:      0\n"
                                "Kernel, dropped for a full buffer:     0\n" ) );
   const auto packets = showJson( "show health-monitor packets" )["hmPackets"];
   EXPECT_EQ( packets["received"], 7 );
   EXPECT_EQ( packets["kernelUserDropped"], 0 );
   EXPECT_EQ( packets.size(), 1 + static_cast<std::size_t>( PacketCount::last ) + 4 );
}

TEST_F( OperatorCliTest, ChecksThatNobodyWaitsForAreCountedUntilTheyEnd ) {
   group( "two words", "http://h/", "", { "10.1.1.1" } );
   settle();
   for ( int i = 0; i < 64; ++i ) {
      run( "probe two words 10.1.1.1" )->step(); // and is dropped
   }
   EXPECT_EQ( refusal( "probe two words 10.1.1.1" ), "too many checks are under way" );
   EXPECT_EQ( RecordingEngine::probes().size(), 64u ); // they end
   const auto probe = run( "probe two words 10.1.1.1" );
   probe->step();
   EXPECT_FALSE( probe->finished() );
   RecordingEngine::probes();
}
