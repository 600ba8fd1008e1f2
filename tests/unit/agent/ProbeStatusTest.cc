// From check results to what is published: the states by kind of check, the rules, the two kinds together.
#include "HealthMonitor/HmNetCHASMStorageObserver.h"
#include "HealthMonitor/HmProbeStatusSm.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "HealthMonitor/HmUtils.h"
#include "TestValues.h"
#include "TraceLines.h"

using namespace hm;
using namespace hm::test;

namespace {

class ProbeStatusTest : public testing::Test {
 protected:
   ProbeStatusTest() {
      // A server as the configuration side leaves it, checked over HTTP and TCP.
      probes_->httpUrlIs( "http://192.0.2.1/" );
      probes_->tcpUrlIs( "tcp://192.0.2.1:80" );
      status_->nhgProbeStatusIs( "web" )->serverProbeStatusIs( ip_ );
      data_->httpProbeStatusIs( "web" )->serverProbeStatusIs( ip_ );
      data_->tcpProbeStatusIs( "web" )->serverProbeStatusIs( ip_ );
      for ( const auto type : { ProbeType::http, ProbeType::tcp } ) {
         data_->probeCountersIs( "web" )->serverIpIs( ip_ )->probeTypeCountersIs( type );
         data_->hostNameToIpNhgPairIs( hostNameFromNhgAndServerIp( "web", type, ip_ ), { "web", ip_ } );
      }
      data_->probeIntervalIs( 5 );
      start();
   }
   void start() {
      sm_ = probeStatusSmFactory( config_, status_, results_, data_, scheduler_ );
      sm_->notificationsEnabledIs( true );
   }

   void httpRules( const char * payloadPattern, std::uint8_t payloadAction, const char * codePattern,
         std::uint8_t codeAction ) {
      config_->responsePayloadRule()->patternIs( payloadPattern );
      config_->responsePayloadRule()->actionIs( payloadAction );
      config_->responseCodeRule()->patternIs( codePattern );
      config_->responseCodeRule()->actionIs( codeAction );
   }

   void push( const std::string & hostName, std::uint8_t response, std::uint8_t reason = 2,
         std::uint32_t code = 200, const std::string & payload = {}, std::uint16_t weight = 0 ) {
      results_->push( new ProbeResult(
            hostName, response, code, payload, reason, 1, 2, 3, 4, 5, 6, 1'000'000, weight ) );
   }
   void process() {
      loop_->runOnce();
      scheduler_->runUntilIdle();
   }
   void http( std::uint8_t response, std::uint8_t reason = 2, std::uint32_t code = 200,
         const std::string & payload = {}, std::uint16_t weight = 0 ) {
      push( "http/web/10.1.1.1", response, reason, code, payload, weight );
      process();
   }
   void tcp( std::uint8_t response, std::uint8_t reason = 2, std::uint16_t weight = 0 ) {
      push( "tcp/web/10.1.1.1", response, reason, 0, {}, weight );
      process();
   }
   /// An answer as the engine hands it over, on its way through the observer.
   void observe( const std::string & payload, std::uint32_t code = 200 ) {
      HMCheckData data;
      data.m_hostName = "http/web/10.1.1.1";
      data.m_response = HM_RESPONSE_ANSWERED;
      data.m_responseCode = code;
      data.m_responsePayload = payload;
      data.m_numChecks = ++checks_;
      observer_.storeHostCheckResult( data );
   }
   std::size_t waitingBytes() const { return data_->payloadIntake()->waitingBytes(); }
   Ptr<HmState::ProbeStatus> entry() { return status_->nhgProbeStatus( "web" )->serverProbeStatus( ip_ ); }
   std::string published() { return word( *entry() ); }
   /// A state as one word for the tables.
   static std::string word( const HmState::ProbeStatus & status ) {
      return ValueTraits<HmState::ServerAdminState>::toText( status.adminState() ) + " " +
             ValueTraits<HmState::ServerOperState>::toText( status.operState() );
   }
   Ptr<ProbeTypeCounters> counters( ProbeType type ) {
      return data_->probeCounters( "web" )->serverIp( ip_ )->probeTypeCounters( type );
   }

   const IpGenAddr ip_ = ip( "10.1.1.1" );
   ManualClock clock_;
   const Ptr<EventLoop> loop_ = new EventLoop( clock_ );
   const Ptr<TaskScheduler> scheduler_ = new TaskScheduler( loop_, clock_ );
   const Ptr<EventMpmcQueue> results_ = new EventMpmcQueue( 0, new FifoEvent( loop_ ), nullptr, true );
   const Ptr<CommonData> data_ = new CommonData;
   const Ptr<HmState::ProbeConfig> config_ = new HmState::ProbeConfig;
   const Ptr<HmState::NexthopGroupProbeConfig> probes_ = config_->nhgProbeConfigIs( "web" );
   const Ptr<HmState::ServerStatus> status_ = new HmState::ServerStatus;
   NetCHASMStorageObserver observer_{ results_, data_->payloadIntake() };
   std::uint32_t checks_ = 0;
   Ptr<ProbeStatusSm> sm_;
};

} // namespace

TEST_F( ProbeStatusTest, AFailureWithoutVerdictHoldsTheStateAndAnyOtherTakesItDown ) {
   const struct {
      std::uint8_t response, reason;
      const char * afterUp;
      const char * afterShutdown;
   } rows[] = {
         { 1, 0, "enabled up", "enabled up" },
         { 1, 1, "enabled up", "enabled up" },
         { 2, 1, "enabled up", "shutdown up" },
         { 0, 1, "enabled up", "shutdown up" },
         { 2, 2, "enabled down", "shutdown down" },
         { 3, 0, "enabled down", "shutdown down" },
         { 255, 255, "enabled down", "shutdown down" },
   };
   httpRules( "invalid", 0, "418", 1 );
   for ( const auto & row : rows ) {
      SCOPED_TRACE( fmt::format( "response {} reason {}", row.response, row.reason ) );
      tcp( 1 );
      http( 1 );
      http( row.response, row.reason );
      EXPECT_EQ( published(), row.afterUp );
      http( 1, 0, 418 );
      EXPECT_EQ( published(), "shutdown up" );
      http( row.response, row.reason );
      EXPECT_EQ( published(), row.afterShutdown );
      http( 1 );
      tcp( row.response, row.reason );
      EXPECT_EQ( published(), row.afterUp );
   }
}

TEST_F( ProbeStatusTest, RulesOnResponses ) {
   const struct {
      const char * payloadPattern;
      std::uint8_t payloadAction;
      const char * codePattern;
      std::uint8_t codeAction;
      std::uint32_t code;
      std::string payload;
      const char * expected;
   } rows[] = {
         { "invalid", 0, "invalid", 1, 503, "invalid", "enabled up" },
         { "maint", 0, "invalid", 0, 200, "in maintenance", "enabled down" },
         { "maint", 1, "invalid", 0, 200, "in maintenance", "shutdown up" },
         { "maint", 2, "invalid", 0, 200, "in maintenance", "enabled up" },
         { "maint", 0, "invalid", 0, 200, "fine", "enabled up" },
         { "maint", 0, "invalid", 0, 200, std::string( "fine\0maint", 10 ), "enabled up" },
         { "invalid", 0, "50", 0, 503, "", "enabled up" },
         { "invalid", 0, "50.", 0, 503, "", "enabled down" },
         { "invalid", 0, "50.", 1, 503, "", "shutdown up" },
         { "invalid", 0, "50.", 7, 503, "", "enabled up" },
         { "invalid", 0, "4294967295", 0, 4294967295u, "", "enabled down" },
         { "x", 0, "503", 1, 503, "x", "shutdown down" },
         { "x", 1, "503", 0, 503, "x", "shutdown down" },
         { "(", 0, "50.", 0, 503, "(", "enabled down" },
         { "(a)\\1", 1, "[", 1, 503, "aa", "enabled up" },
   };
   tcp( 1 );
   for ( const auto & row : rows ) {
      httpRules( row.payloadPattern, row.payloadAction, row.codePattern, row.codeAction );
      http( 1, 0, row.code, row.payload );
      EXPECT_EQ( published(), row.expected ) << &row - rows;
   }
}

TEST_F( ProbeStatusTest, APatternThatIsNoneIsTracedOnceAChange ) {
   const auto lines = linesOf( [this] {
      for ( const auto * pattern : { "[", "[", "(" } ) {
         httpRules( pattern, 0, "invalid", 0 );
         http( 1 );
      }
   } );
   EXPECT_EQ( countOf( lines, "is ignored: " ), 2 );
   EXPECT_EQ( countOf( lines, "responsePayloadRule: pattern \"[\" is ignored: a bracket" ), 1 );
}

TEST_F( ProbeStatusTest, AChangedPatternAppliesToABodySeenBefore ) {
   tcp( 1 );
   httpRules( "old", 0, "invalid", 0 );
   http( 1, 0, 200, "new" );
   EXPECT_EQ( published(), "enabled up" );
   httpRules( "new", 0, "invalid", 0 );
   http( 1, 0, 200, "new" );
   EXPECT_EQ( published(), "enabled down" );
   config_->responsePayloadRule()->patternIs( std::string( "ne\0x", 4 ) );
   http( 1, 0, 200, "never" );
   EXPECT_EQ( published(), "enabled down" );
}

TEST_F( ProbeStatusTest, BodiesTravelOnlyWhileARuleReadsThem ) {
   const auto expect = [this]( std::size_t waiting, const char * state ) {
      EXPECT_EQ( waitingBytes(), waiting );
      process();
      EXPECT_EQ( published(), state );
      EXPECT_EQ( waitingBytes(), 0u );
   };
   tcp( 1 );
   observe( "in maintenance" );
   expect( 0, "enabled up" );
   observe( "in maintenance" );
   httpRules( "maint", 0, "invalid", 0 );
   expect( 0, "enabled up" ); // its body was left out before there was a rule
   observe( "in maintenance" );
   expect( 14, "enabled down" );
   observe( "in maintenance" );
   httpRules( "invalid", 0, "invalid", 0 );
   observe( "in maintenance" );
   expect( 14, "enabled up" );
   sm_->notificationsEnabledIs( false );
   httpRules( "maint", 0, "invalid", 0 );
   sm_->notificationsEnabledIs( true );
   observe( "in maintenance" );
   expect( 14, "enabled down" );
}

TEST_F( ProbeStatusTest, BodiesThatNobodyTakesAreBoundedAndTheRestOfTheResultArrives ) {
   constexpr std::size_t bodyBytes = 16 * 1024, roomFor = PayloadIntake::maxWaitingBytes / bodyBytes;
   const std::string fine( bodyBytes, '.' );
   httpRules( "maint", 1, "503", 0 );
   tcp( 1 );
   const auto fill = [&]( const std::string & last ) {
      for ( std::size_t i = 1; i < roomFor; ++i ) {
         observe( fine );
      }
      observe( last );
      EXPECT_EQ( waitingBytes(), PayloadIntake::maxWaitingBytes );
   };
   const auto lines = linesOf( [&] {
      fill( "maint" + fine.substr( 5 ) );
      fill( fine );
      process();
      EXPECT_EQ( published(), "shutdown up" ) << "the last body that is known says so";
      EXPECT_EQ( counters( ProbeType::http )->numChecks(), 2 * roomFor );
      EXPECT_EQ( waitingBytes(), 0u );
      fill( fine );
      observe( fine, 503 );
      process();
      EXPECT_EQ( published(), "enabled down" ) << "the rule on codes needs no body";
      fill( fine );
      observe( "maint" );
      observe( {} );
      process();
      EXPECT_EQ( published(), "enabled up" );
   } );
   EXPECT_EQ( countOf( lines, "more are left out" ), 3 ) << "one each time that it begins";
}

TEST_F( ProbeStatusTest, EveryConfiguredKindOfCheckHasItsSay ) {
   http( 1 );
   EXPECT_EQ( published(), "enabled down" ) << "before the first TCP check";
   tcp( 1 );
   EXPECT_EQ( published(), "enabled up" );
   tcp( 2 );
   http( 1 );
   EXPECT_EQ( published(), "enabled down" );
   probes_->tcpUrlIs( "" );
   http( 1 );
   EXPECT_EQ( published(), "enabled up" ) << "the group runs no TCP check any more";
   http( 2 );
   probes_->httpUrlIs( "" );
   probes_->tcpUrlIs( "tcp://192.0.2.1:80" );
   tcp( 1 );
   EXPECT_EQ( published(), "enabled up" ) << "the group runs no HTTP check any more";
}

TEST_F( ProbeStatusTest, EachChangeOfAPublishedStateIsOneLineOfTheTrace ) {
   httpRules( "invalid", 0, "503", 0 );
   const auto lines = linesOf( [this] {
      tcp( 1, 0 );
      http( 1, 0 ); // up
      http( 1, 0 );
      http( 2, 1 ); // a retry is to come
      http( 2, 4 ); // down
      http( 3, 10 );
      http( 1, 0 );      // up
      http( 1, 0, 503 ); // down
   } );
   EXPECT_EQ( countOf( lines, "NHG: web, server: 10.1.1.1, old state: " ), 4 );
   EXPECT_EQ( countOf( lines, "old state: enabled down, new state: enabled up, reason: http check: "
                              "answered 200, checks: 1" ),
         2 );
   EXPECT_EQ( countOf( lines, "old state: enabled up, new state: enabled down, reason: http check: "
                              "no connection in time, checks: 1" ),
         1 );
   EXPECT_EQ( entry()->lastChange(), "old state: enabled up, new state: enabled down, reason: http check: "
                                     "answered 503, matches a response rule, checks: 1" );
}

TEST_F( ProbeStatusTest, WhoeverWatchesAnEntrySeesAllOfAChange ) {
   struct Watcher : Reactor {
      explicit Watcher( const Ptr<HmState::ProbeStatus> & status ) {
         watch( Ptr<const HmState::ProbeStatus>( status ), HmState::ProbeStatus::operStateAttr(),
               [this, status] { seen.push_back( word( *status ) ); } );
         notificationsEnabledIs( true );
      }
      std::vector<std::string> seen;
   };
   tcp( 1 );
   httpRules( "invalid", 0, "418", 1 );
   const Ptr<Watcher> watcher = new Watcher( entry() );
   http( 1, 0, 418 );
   EXPECT_THAT( watcher->seen, testing::ElementsAre( "shutdown up" ) );
}

TEST_F( ProbeStatusTest, CountersAreTheEnginesAndTheNextCheckIsKnownAfterAnAnswer ) {
   http( 1, 0, 200, {}, 10 );
   const auto of = counters( ProbeType::http );
   EXPECT_THAT( ( std::vector<std::uint64_t>{ of->numChecks(), of->numResponses(), of->numConnectFailures(),
                      of->numFailures(), of->numTimeouts(), of->lastResponseTime(), of->lastCheckTime(),
                      of->nextCheckTime() } ),
         testing::ElementsAre( 1, 2, 3, 4, 5, 6, 1'000'000, 1'005'000 ) );
   EXPECT_EQ( counters( ProbeType::tcp )->numChecks(), 0u );
   tcp( 2, 1, 99 );
   EXPECT_EQ( counters( ProbeType::tcp )->nextCheckTime(), 1'000'000u );
   EXPECT_EQ( entry()->weight(), 10 ) << "the one of HTTP";
   EXPECT_EQ( data_->tcpProbeStatus( "web" )->serverProbeStatus( ip_ )->weight(), 99 );
}

TEST_F( ProbeStatusTest, ResultsOfWhatHasGoneChangeNothingAndCountAsWork ) {
   http( 1 );
   tcp( 1 );
   const auto before = sm_->task()->taskWorkCount();
   push( "http/gone/10.1.1.1", 1, 0 );
   process();
   EXPECT_EQ( sm_->task()->taskWorkCount(), before + 1 );
   // The published entry is missing: caches stay, counters go on.
   status_->nhgProbeStatusDel( "web" );
   push( "http/web/10.1.1.1", 2 );
   process();
   EXPECT_EQ( data_->httpProbeStatus( "web" )->serverProbeStatus( ip_ )->operState(),
         HmState::ServerOperState::up );
   EXPECT_EQ( counters( ProbeType::http )->nextCheckTime(), 1'000'000u );
   // The counters are missing: the state is published.
   status_->nhgProbeStatusIs( "web" )->serverProbeStatusIs( ip_ );
   data_->probeCountersDel( "web" );
   http( 1 );
   EXPECT_EQ( published(), "enabled up" );
}

TEST_F( ProbeStatusTest, TakesABurstInSlicesAndWhatWasQueuedBeforeItExisted ) {
   sm_ = nullptr;
   for ( int i = 0; i < 5; ++i ) {
      push( "http/web/10.1.1.1", 1 );
   }
   push( "tcp/web/10.1.1.1", 1 );
   scheduler_->sliceBudgetIs( {} );
   start();
   EXPECT_TRUE( scheduler_->runSlice() );
   EXPECT_FALSE( results_->empty() );
   EXPECT_EQ( published(), "enabled down" );
   scheduler_->runUntilIdle();
   EXPECT_EQ( published(), "enabled up" );
   EXPECT_EQ( sm_->task()->taskWorkCount(), 6u );
   // Gone while results wait and arrive.
   push( "tcp/web/10.1.1.1", 2 );
   sm_ = nullptr;
   push( "tcp/web/10.1.1.1", 2 );
   process();
   EXPECT_EQ( published(), "enabled up" );
}

using ProbeStatusDeathTest = ProbeStatusTest;

TEST_F( ProbeStatusDeathTest, AMissingCacheOrCounterOfAKnownHostStopsTheProcess ) {
   const auto without = [this]( auto removeIt ) {
      return [this, removeIt] {
         removeIt();
         http( 1 );
      };
   };
   expectDeaths( {
         { "probe status cache missing for 10.1.1.1 in web",
               without( [this] { data_->httpProbeStatus( "web" )->serverProbeStatusDel( ip_ ); } ) },
         { "probe status cache missing for tcp, web",
               without( [this] { data_->tcpProbeStatusDel( "web" ); } ) },
         { "assertion failed: probeTypeCounters: probeTypeCounters missing for 10.1.1.1 in web",
               without( [this] {
                  data_->probeCounters( "web" )->serverIp( ip_ )->probeTypeCountersDel( ProbeType::http );
               } ) },
   } );
}
