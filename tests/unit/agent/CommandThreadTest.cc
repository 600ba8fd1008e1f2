// What reaches the engine: every command, in the order of the queue, from the one thread that may call it.
#include "HealthMonitor/HmNetCHASMInterface.h"
#include "tests/unit/agent/RecordingEngine.h"

#include <gmock/gmock.h>

using namespace hm;
using testing::ElementsAre;

namespace {

class CommandThread : public testing::Test {
 protected:
   CommandThread() {
      RefCounted::threadSafeRefCountsIs();
      RecordingEngine::reset();
   }
   ~CommandThread() override { RecordingEngine::reset(); }

   void start() { interface_->notificationsEnabledIs( true ); }
   void stop() { interface_->notificationsEnabledIs( false ); }
   void push( Ptr<CmdBase> cmd ) { commands_->push( cmd ); }
   void pushInit() { push( new CmdInit( "/tmp/a.yaml" ) ); }
   void pushHost( bool remove, std::uint32_t mark = 7 ) {
      push( new CmdDnsAndMark(
            "web-http", "http/web/10.1.1.1", *IpGenAddr::fromText( "192.0.2.1" ), mark, remove ) );
   }
   /// Runs the queued commands, the engine refusing what begins with `refused`. For death tests.
   void runRefusing( const std::string & refused ) {
      RecordingEngine::refuse( refused );
      start();
      (void)RecordingEngine::waitForCalls( 1000 );
   }

   const Ptr<EventLoop> loop_ = new EventLoop;
   const Ptr<EventLoop> mainLoop_ = new EventLoop;
   const Ptr<EventMpmcQueue> commands_ = new EventMpmcQueue( 0, new FifoEvent( loop_ ), nullptr, true );
   const Ptr<EventMpmcQueue> results_ = new EventMpmcQueue( 0, new FifoEvent( mainLoop_ ), nullptr, true );
   const Ptr<CommonData> data_ = new CommonData;
   const Ptr<NetCHASMInterface> interface_ = netChasmInterfaceFactory( loop_, commands_, results_, data_ );
};

} // namespace

TEST_F( CommandThread, ExecutesWhatWasQueuedBeforeItRanAndABurstAfterInOrder ) {
   pushInit();
   push( new CmdReload( "/tmp/b.yaml" ) );
   start();
   ASSERT_TRUE( RecordingEngine::waitForCalls( 4 ) );
   pushHost( true );
   push( new CmdReload( "/tmp/a.yaml" ) );
   pushHost( false );
   ASSERT_TRUE( RecordingEngine::waitForCalls( 9 ) );
   stop();
   EXPECT_THAT( RecordingEngine::calls(),
         ElementsAre( "log", "observer", "healthCheck /tmp/a.yaml level 3 start", "reload /tmp/b.yaml",
               "-address http/web/10.1.1.1 192.0.2.1", "-mark web-http http/web/10.1.1.1 192.0.2.1 7",
               "reload /tmp/a.yaml", "+address http/web/10.1.1.1 192.0.2.1",
               "+mark web-http http/web/10.1.1.1 192.0.2.1 7" ) );
   EXPECT_TRUE( RecordingEngine::calledFromOneThreadOtherThan( std::this_thread::get_id() ) );
   EXPECT_EQ( interface_->reloadCount(), 2u );
   EXPECT_EQ( interface_->dnsAndMarkAddCount(), 1u );
   EXPECT_EQ( interface_->dnsAndMarkDeleteCount(), 1u );
   EXPECT_NE( interface_->netChasmStateMgr(), nullptr );
}

TEST_F( CommandThread, RemembersALevelThatComesBeforeTheEngineAndPassesOnLaterOnes ) {
   push( new CmdSetTrace( 7 ) );
   pushInit();
   push( new CmdSetTrace( 0x105 ) ); // the engine knows the low byte
   start();
   ASSERT_TRUE( RecordingEngine::waitForCalls( 4 ) );
   stop();
   EXPECT_THAT( RecordingEngine::calls(),
         ElementsAre( "log", "observer", "healthCheck /tmp/a.yaml level 7 start", "level 5" ) );
   EXPECT_EQ( interface_->traceLevel(), 0x105 );
}

TEST_F( CommandThread, GoesOnAfterItsNotificationsWereOff ) {
   pushInit();
   start();
   ASSERT_TRUE( RecordingEngine::waitForCalls( 3 ) );
   stop();
   push( new CmdReload( "/tmp/b.yaml" ) );
   start();
   ASSERT_TRUE( RecordingEngine::waitForCalls( 4 ) );
   EXPECT_EQ( RecordingEngine::engines(), 1u );
}

TEST_F( CommandThread, ResultsFromSeveralEngineThreadsReachTheQueueEvenWhenTheAgentHasGone ) {
   pushInit();
   start();
   ASSERT_TRUE( RecordingEngine::waitForCalls( 3 ) );
   stop();
   mainLoop_->runOnce();
   constexpr std::uint32_t threads = 4, each = 500;
   std::vector<std::thread> engineThreads;
   for ( std::uint32_t i = 0; i < threads; ++i ) {
      engineThreads.emplace_back( [i, observer = RecordingEngine::observer()] {
         for ( std::uint32_t n = 0; n < each; ++n ) {
            HMCheckData data;
            data.m_hostName = "http/web/10.1.1." + std::to_string( i );
            data.m_numChecks = n;
            EXPECT_TRUE( observer->storeHostCheckResult( data ) );
         }
      } );
   }
   for ( auto & thread : engineThreads ) {
      thread.join();
   }
   std::map<std::string, std::uint32_t> next;
   while ( const auto result = dynamicPtrCast<ProbeResult>( results_->pop() ) ) {
      EXPECT_EQ( result->numChecks, next[result->hostName]++ );
   }
   EXPECT_EQ( next.size(), threads );
   EXPECT_EQ( next["http/web/10.1.1.0"], each );
}

TEST_F( CommandThread, AResultCarriesEveryFieldOfItsCheck ) {
   pushInit();
   start();
   ASSERT_TRUE( RecordingEngine::waitForCalls( 3 ) );
   stop();
   HMCheckData data;
   data.m_hostName = "http/web/10.1.1.1";
   data.m_response = HM_RESPONSE_TIMEOUT;
   data.m_reason = HM_REASON_REPLY_TIMEOUT;
   data.m_responseCode = 503;
   data.m_responsePayload = std::string( "a\0b", 3 );
   data.m_numChecks = 1;
   data.m_numResponses = 2;
   data.m_numConnectFailures = 3;
   data.m_numFailures = 4;
   data.m_numTimeouts = 5;
   data.m_responseTimeMs = 6;
   data.m_checkTime.setTime( 1'700'000'000'123 );
   EXPECT_TRUE( RecordingEngine::observer()->storeHostCheckResult( data ) );
   const auto result = dynamicPtrCast<ProbeResult>( results_->pop() );
   ASSERT_TRUE( result );
   EXPECT_EQ( result->hostName, "http/web/10.1.1.1" );
   EXPECT_EQ( result->response, HM_RESPONSE_TIMEOUT );
   EXPECT_EQ( result->reason, HM_REASON_REPLY_TIMEOUT );
   EXPECT_EQ( result->responseCode, 503u );
   EXPECT_EQ( result->responsePayload, std::string( "a\0b", 3 ) );
   EXPECT_THAT( ( std::vector{ result->numChecks, result->numResponses, result->numConnectFailures,
                      result->numFailures, result->numTimeouts, result->lastResponseTime } ),
         ElementsAre( 1, 2, 3, 4, 5, 6 ) );
   EXPECT_EQ( result->lastCheckTime, 1'700'000'000'123u );
   EXPECT_EQ( result->weight, 0 );
}

TEST_F( CommandThread, EngineLogEntriesGoToTheirFacilityAtTheirLevel ) {
   pushInit();
   start();
   ASSERT_TRUE( RecordingEngine::waitForCalls( 3 ) );
   stop();
   const auto facility = TraceFacility::find( "NetCHASM" );
   facility->levelsIs( 1 << 5 );
   traceToStderrIs( true );
   testing::internal::CaptureStderr();
   const auto log = RecordingEngine::log();
   EXPECT_TRUE( log->openLog( "any" ) );
   for ( const std::int8_t level : { -2, 3, 5, 9 } ) {
      const std::string text = fmt::format( "entry {{}} at {}", level );
      HMLogBase::LogEntry entry{ text.c_str(), level };
      log->writeLog( &entry );
   }
   const auto lines = testing::internal::GetCapturedStderr();
   traceToStderrIs( false );
   facility->levelsIs( TraceFacility::defaultLevels );
   EXPECT_THAT( lines, testing::HasSubstr( "NetCHASM 5 HmNetCHASMLog:28 writeLog:entry {} at 5\n" ) );
   EXPECT_EQ( std::ranges::count( lines, '\n' ), 1 ) << lines;
}

using CommandThreadDeathTest = CommandThread;

TEST_F( CommandThreadDeathTest, AnEngineThatDisagreesStopsTheProcess ) {
   pushInit();
   EXPECT_DEATH( runRefusing( "healthCheck" ), "assertion failed: ret: NetCHASM init failed" );
   push( new CmdReload( "/tmp/b.yaml" ) );
   EXPECT_DEATH( runRefusing( "reload" ), "assertion failed: ret: NetCHASM reload failed" );
}

TEST_F( CommandThreadDeathTest, ARefusedAdditionNamesTheHost ) {
   pushInit();
   pushHost( false );
   EXPECT_DEATH( runRefusing( "+address" ),
         "ret: Failed to add static DNS address for hostname:http/web/10.1.1.1 ip:192.0.2.1" );
   EXPECT_DEATH( runRefusing( "+mark" ), "ret: Failed to set host mark for hostGroup:web-http "
                                         "hostName:http/web/10.1.1.1 ip:192.0.2.1 mark:7" );
}

TEST_F( CommandThreadDeathTest, ARefusedRemovalNamesTheHost ) {
   pushInit();
   pushHost( true );
   EXPECT_DEATH( runRefusing( "-address" ),
         "ret: Failed to remove static DNS address for host:http/web/10.1.1.1 address:192.0.2.1" );
   EXPECT_DEATH( runRefusing( "-mark" ), "ret: Failed to remove host mark for hostGroup:web-http "
                                         "hostName:http/web/10.1.1.1 ip:192.0.2.1 mark:7" );
}

TEST_F( CommandThreadDeathTest, CommandsOutOfOrderStopTheProcess ) {
   push( new CmdReload( "/tmp/b.yaml" ) );
   EXPECT_DEATH( runRefusing( "none" ), "assertion failed: initialized\\(\\): NetCHASM not initialized" );
   while ( commands_->pop() ) {}
   pushInit();
   pushInit();
   EXPECT_DEATH(
         runRefusing( "none" ), "assertion failed: !initialized\\(\\): NetCHASM already initialized" );
}

TEST_F( CommandThreadDeathTest, ACommandThatIsNotWhatItSaysStopsTheProcess ) {
   struct Disguised : CmdBase {
      explicit Disguised( CmdOp op ) : CmdBase( op ) {}
   };
   const std::pair<CmdOp, const char *> rows[] = {
         { CmdOp::init, "cmd: invalid init command" },
         { CmdOp::reload, "cmd: invalid reload command" },
         { CmdOp::dnsAndMark, "cmd: invalid dnsAndMark command" },
         { CmdOp::setTrace, "cmd: invalid setTrace command" },
         { static_cast<CmdOp>( 9 ), "false: Unknown cmdOp: 9" },
   };
   for ( const auto & [op, message] : rows ) {
      while ( commands_->pop() ) {}
      if ( op != CmdOp::init ) {
         pushInit();
      }
      push( new Disguised( op ) );
      EXPECT_DEATH( runRefusing( "none" ), message );
   }
}

TEST_F( CommandThreadDeathTest, AHostWithoutAnAddressStopsTheProcess ) {
   pushInit();
   push( new CmdDnsAndMark( "web-http", "http/web/10.1.1.1", IpGenAddr{}, 7, false ) );
   EXPECT_DEATH( runRefusing( "none" ), "assertion failed: ret: Failed to create HMIPAddress" );
}
