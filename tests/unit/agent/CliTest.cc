// What an operator reads: the show commands as text and JSON, in one slice or many, whatever happens
// meanwhile.
#include "tests/unit/agent/AgentFixture.h"

#include <ctime>

using namespace hm;
using namespace hm::test;
using testing::HasSubstr;

namespace {

constexpr const char * counters = "show health-monitor counters";
constexpr const char * timestamps = "show health-monitor timestamps";
constexpr const char * statusDetail = "show health-monitor status detail";
constexpr const char * summary = "show health-monitor summary";

class CliTest : public CliFixture {
 protected:
   CliTest() {
      ::setenv( "TZ", "UTC", 1 );
      ::tzset();
   }
   void threeGroups() {
      group( "database-replicas", "", "tcp://10.2.0.10:5432", { "10.2.0.1" } );
      group( "six", "http://[2001:db8::10]/", "", { "2001:db8::1" } );
      group( "web", "https://192.0.2.10/health", "tcp://192.0.2.10:443", { "10.1.1.1", "10.1.1.20" } );
      result( "http/web/10.1.1.1", true, 1000, 10 );
      result( "tcp/web/10.1.1.1", false, 4'000'000'000 );
      result( "http/six/2001:db8::1", true, 7 );
   }
   void manyGroups( int count ) {
      for ( int i = 0; i < count; ++i ) {
         group( fmt::format( "group{:05}", i ), "http://h/", "", { "10.1.1.1" } );
      }
   }
};

} // namespace

TEST_F( CliTest, Counters ) {
   threeGroups();
   EXPECT_EQ( "\n" + show( counters ), R"(
Nexthop Group     Server IP       Probe Type Checks     Responses  Connect Failures Misc Failures Timeouts
-------------     --------------- ---------- ---------- ---------- ---------------- ------------- ----------
database-replicas 10.2.0.1        tcp        0          0          0                0             0         
six               2001:db8::1     http       7          1          3                2             1         
web               10.1.1.1        https      1000       994        3                2             1         
web               10.1.1.1        tcp        4000000000 3999999994 3                2             1         
web               10.1.1.20       https      0          0          0                0             0         
web               10.1.1.20       tcp        0          0          0                0             0         
)" );
}

TEST_F( CliTest, Timestamps ) {
   threeGroups();
   EXPECT_EQ( "\n" + show( timestamps ), R"(
Nexthop Group     Server IP       Probe Type Last Response Time Last Check Time      Next Check Time
-------------     --------------- ---------- ------------------ -------------------- --------------------
database-replicas 10.2.0.1           tcp        0 ms            Jan:01:1970 00:00:00 Jan:01:1970 00:00:00
six               2001:db8::1        http       12 ms           Nov:14:2023 22:13:20 Nov:14:2023 22:13:25
web               10.1.1.1           https      12 ms           Nov:14:2023 22:13:20 Nov:14:2023 22:13:25
web               10.1.1.1           tcp        12 ms           Nov:14:2023 22:13:20 Nov:14:2023 22:13:20
web               10.1.1.20          https      0 ms            Jan:01:1970 00:00:00 Jan:01:1970 00:00:00
web               10.1.1.20          tcp        0 ms            Jan:01:1970 00:00:00 Jan:01:1970 00:00:00
)" );
}

TEST_F( CliTest, StatusDetailIsWhatEachKindOfCheckSays ) {
   threeGroups();
   probeConfig_->responseCodeRule()->patternIs( "200" );
   probeConfig_->responseCodeRule()->actionIs( HmState::ruleActionShutdown );
   result( "http/six/2001:db8::1", true, 8 );
   EXPECT_EQ( "\n" + show( statusDetail ), R"(
Nexthop Group     Server IP       Probe Type AdminState OperState Weight
-------------     --------------- ---------- ---------- --------- ------
database-replicas 10.2.0.1        tcp        enabled    down       0               
six               2001:db8::1     http       shutdown   up         0               
web               10.1.1.1        https      enabled    up         10              
web               10.1.1.1        tcp        enabled    down       0               
web               10.1.1.20       https      enabled    down       0               
web               10.1.1.20       tcp        enabled    down       0               
)" );
}

TEST_F( CliTest, JsonToTheByte ) {
   probeConfig_->responseCodeRule()->patternIs( "200" );
   probeConfig_->responseCodeRule()->actionIs( HmState::ruleActionShutdown );
   group( "web", "https://192.0.2.10/health", "tcp://192.0.2.10:443", { "10.1.1.1" } );
   result( "http/web/10.1.1.1", true, 1000, 10 );
   result( "tcp/web/10.1.1.1", false, 4'000'000'000 );
   EXPECT_EQ( show( counters, CliFormat::json ), R"({
  "hmCounters": {
    "web": {
      "servers": {
        "10.1.1.1": {
          "probeType": {
            "https": {
              "numChecks": 1000,
              "numResponses": 994,
              "numConnectFailures": 3,
              "numFailures": 2,
              "numTimeouts": 1
            },
            "tcp": {
              "numChecks": 4000000000,
              "numResponses": 3999999994,
              "numConnectFailures": 3,
              "numFailures": 2,
              "numTimeouts": 1
            }
          }
        }
      }
    }
  }
}
)" );
   EXPECT_EQ( show( timestamps, CliFormat::json ), R"({
  "hmTimestamps": {
    "web": {
      "servers": {
        "10.1.1.1": {
          "probeType": {
            "https": {
              "lastResponseTime": 12,
              "lastCheckTime": 1700000000123,
              "nextCheckTime": 1700000005123
            },
            "tcp": {
              "lastResponseTime": 12,
              "lastCheckTime": 1700000000123,
              "nextCheckTime": 1700000000123
            }
          }
        }
      }
    }
  }
}
)" );
   EXPECT_EQ( show( statusDetail, CliFormat::json ), R"({
  "hmStatusDetail": {
    "web": {
      "servers": {
        "10.1.1.1": {
          "probeType": {
            "https": {
              "adminState": "shutdown",
              "operState": "up",
              "weight": 10
            },
            "tcp": {
              "adminState": "enabled",
              "operState": "down",
              "weight": 0
            }
          }
        }
      }
    }
  }
}
)" );
}

TEST_F( CliTest, WithoutGroupsOnlyHeadingsAndAnEmptyDictionary ) {
   for ( const auto & [command, key] : { std::pair{ counters, "hmCounters" }, { timestamps, "hmTimestamps" },
               { statusDetail, "hmStatusDetail" } } ) {
      EXPECT_THAT(
            show( command ), testing::MatchesRegex( "Nexthop Group Server IP       Probe Type .*\n"
                                                    "------------- --------------- ---------- [- ]*\n" ) );
      EXPECT_EQ( show( command, CliFormat::json ), fmt::format( "{{\n  \"{}\": {{}}\n}}\n", key ) );
   }
}

TEST_F( CliTest, AKindOfCheckWithoutAnUrlIsNotShown ) {
   group( "web", "http://h/", "tcp://h:1", { "10.1.1.1" } );
   probeConfig_->nhgProbeConfig( "web" )->httpUrlIs( "" );
   EXPECT_THAT( show( counters ), testing::Not( HasSubstr( "http" ) ) );
   probeConfig_->nhgProbeConfig( "web" )->tcpUrlIs( "" );
   EXPECT_TRUE( showJson( counters )["hmCounters"]["web"]["servers"]["10.1.1.1"]["probeType"].empty() );
   probeConfig_->globalUrlIs( "https://h/" );
   EXPECT_THAT( show( statusDetail ), HasSubstr( " https " ) );
}

TEST_F( CliTest, NamesMayHoldAnything ) {
   const std::string hostile = "a\"\\\n\x1b[2J\xff";
   const std::string longest( 255, 'n' );
   group( hostile, "http://h/", "", { "10.1.1.1" } );
   group( longest, "http://h/", "", { "10.1.1.2" } );
   const auto text = show( counters );
   EXPECT_EQ( std::ranges::count( text, '\n' ), 4 ) << text;
   EXPECT_EQ( text.find( '\x1b' ), text.npos );
   EXPECT_THAT( text, HasSubstr( "\n" + longest + " 10.1.1.2        http " ) );
   const auto document = showJson( counters );
   EXPECT_TRUE( document["hmCounters"].contains( "a\"\\\n\x1b[2J\xef\xbf\xbd" ) );
}

TEST_F( CliTest, ForcedYieldsChangeNothingOfTheOutput ) {
   threeGroups();
   manyGroups( 300 );
   const std::pair<const char *, int> rows[] = {
         { "1", 303 }, { "2", 303 }, { "100", 4 }, { "200", 2 }, { "0", 1 }, { "256", 1 }, { "no", 1 } };
   for ( const auto * command : { counters, timestamps, statusDetail } ) {
      for ( const auto format : { CliFormat::text, CliFormat::json } ) {
         environment_.erase( "TEST_YIELD" );
         const auto whole = show( command, format );
         for ( const auto & [value, slices] : rows ) {
            environment_["TEST_YIELD"] = value;
            EXPECT_EQ( show( command, format ), whole ) << value;
            EXPECT_GE( slices_, slices ) << value; // those that wait for the reader come on top
         }
      }
   }
}

TEST_F( CliTest, ALargeGroupIsPrintedInSlicesToo ) {
   std::vector<std::string> servers;
   for ( int i = 0; i < 1000; ++i ) {
      servers.push_back( fmt::format( "10.1.{}.{}", i / 256, i % 256 ) );
   }
   group( "large", "http://h/", "", servers );
   group( "next", "http://h/", "", { "10.2.1.1" } );
   const auto whole = showJson( counters );
   EXPECT_EQ( whole["hmCounters"]["large"]["servers"].size(), 1000u );
   slicesAreShort();
   EXPECT_EQ( showJson( counters ), whole );
   EXPECT_GT( slices_, 300 );
   // The group goes, and comes again, while it is half printed.
   const auto json = show( counters, CliFormat::json, [&]( int slice ) {
      if ( slice == 50 ) {
         groupDel( "large" );
      } else if ( slice == 60 ) {
         group( "large", "http://h/", "", { "10.1.1.1" } );
      }
   } );
   EXPECT_TRUE( Json::parse( json )["hmCounters"].contains( "next" ) );
}

TEST_F( CliTest, GroupsMayComeAndGoBetweenSlices ) {
   manyGroups( 20 );
   environment_["TEST_YIELD"] = "2";
   const auto text = show( counters, CliFormat::text, [&]( int slice ) {
      if ( slice == 5 ) {
         groupDel( "group00005" ); // the one at which the next slice would go on
         group( "aaa", "http://h/", "", { "10.1.1.1" } );
         group( "zzz", "http://h/", "", { "10.1.1.1" } );
      } else if ( slice == 15 ) {
         groupDel( "group00000" );
      }
   } );
   EXPECT_EQ( std::ranges::count( text, '\n' ), 2 + 5 + 1 + 19 + 1 ) << text;
   EXPECT_THAT( text, HasSubstr( "\nzzz " ) );
   // All of them go.
   const auto json = show( statusDetail, CliFormat::json, [&]( int ) {
      serverConfig_->nhgConfigDelAll();
      probeConfig_->nhgProbeConfigDelAll();
   } );
   EXPECT_EQ( Json::parse( json )["hmStatusDetail"].size(), 1u );
}

TEST_F( CliTest, AReaderThatGoesAwayEndsARequest ) {
   manyGroups( 2000 );
   const auto shown = run( counters, CliFormat::json );
   shown->step();
   EXPECT_FALSE( shown->finished() );
   reader_.goAway();
   shown->step();
   EXPECT_TRUE( shown->finished() );
   EXPECT_TRUE( shown->interrupted() );
   EXPECT_TRUE( run( summary )->interrupted() );
   EXPECT_TRUE( run( "show health-monitor probe delay" )->interrupted() );
}

TEST( CliDeathTest, ASliceBeforeTheStartIsDeferredAndOneAfterTheEndStopsTheProcess ) {
   CliReader reader;
   ManualClock clock;
   const Ptr<HmAgent> agent = new HmAgent( "HmTest" );
   agent->hmCommonDataIs();
   const Ptr<ShowCountersAsyncCommandRequestSm> sm = new ShowCountersAsyncCommandRequestSm( "name",
         new AgentCommandRequest( "name", counters, reader.socket(), 0 ), Seconds{ 0.1 }, clock,
         agent.get() );
   sm->handleAsyncCommand( reader.socket(), 0 );
   EXPECT_TRUE( sm->deferred() );
   EXPECT_TRUE( reader.read().empty() );
   sm->handleInitialized();
   sm->handleAsyncCommand( reader.socket(), 0 );
   EXPECT_FALSE( sm->deferred() );
   EXPECT_TRUE( sm->executionCompleted() );
   EXPECT_DEATH( sm->handleAsyncCommand( reader.socket(), 0 ),
         "executionCompleted\\(\\) == false: execution completed before start" );
}

TEST_F( CliTest, SummaryFollowsTheConfigurationToTheEngine ) {
   probeConfig_->probeIntervalIs( Seconds{ 10.9 } );
   const auto files = infoSm().getNetChasmConfig();
   EXPECT_EQ( show( summary ), fmt::format( "Monitoring: enabled\n"
                                            "Config processing: pending\n"
                                            "Master Config File: {}\n"
                                            "Host Config File: {}\n"
                                            "Load balancer: \n"
                                            "   Probe interval: 10 seconds\n"
                                            "   SSL Profile: not configured\n"
                                            "   SSL Profile State: invalid\n"
                                            "   Trusted Root CA File: not configured\n",
                                     files->masterConfigPath(), files->hostConfigPath() ) );
   const auto profile =
         at<Mgmt::Security::Ssl::Status>( "mgmt/security/ssl/status" )->profileStatusIs( "corp" );
   profile->caFilePathIs( "/etc/hm/ca.pem" );
   profile->stateIs( Mgmt::Security::Ssl::ProfileState::valid );
   probeConfig_->sslProfileIs( "corp" );
   settle();
   const auto next = infoSm().getNetChasmConfig();
   EXPECT_NE( next, files );
   EXPECT_EQ( show( summary, CliFormat::json ), fmt::format( R"({{
  "monitoring": true,
  "configProcessed": true,
  "masterConfigFile": "{}",
  "hostConfigFile": "{}",
  "lbSummary": {{
    "probeInterval": 10,
    "sslProfile": "corp",
    "sslProfileValid": true,
    "caFile": "/etc/hm/ca.pem"
  }}
}}
)",
                                                      next->masterConfigPath(), next->hostConfigPath() ) );
   // What is configured may not be there, or not be valid.
   profile->stateIs( Mgmt::Security::Ssl::ProfileState::updating );
   EXPECT_THAT( show( summary ), HasSubstr( "   SSL Profile: corp\n   SSL Profile State: invalid\n" ) );
   probeConfig_->sslProfileIs( "none\x1b[2J" );
   probeConfig_->monitoringEnabledIs( false );
   const auto text = show( summary );
   EXPECT_THAT( text, HasSubstr( "Monitoring: disabled\nConfig processing: pending\n" ) );
   EXPECT_THAT( text, HasSubstr( "   SSL Profile: none\\x1b[2J\n   SSL Profile State: invalid\n" ) );
}
