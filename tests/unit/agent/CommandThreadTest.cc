// What reaches the engine: every command, in the order of the queue, from the one thread that may call it.
#include "HealthMonitor/HmNetCHASMInterface.h"
#include "tests/unit/agent/RecordingEngine.h"
#include "tests/unit/agent/TestValues.h"
#include "tests/unit/agent/TraceLines.h"

using namespace hm;
using namespace hm::test;
using testing::ElementsAre;

namespace {

class CommandThread : public testing::Test {
 protected:
   CommandThread() {
      RefCounted::threadSafeRefCountsIs();
      RecordingEngine::reset();
   }
   ~CommandThread() override { RecordingEngine::reset(); }

   static Ptr<CmdBase> init() { return new CmdInit( "/tmp/a.yaml" ); }
   static Ptr<CmdBase> reload( const char * path ) { return new CmdReload( path ); }
   static Ptr<CmdBase> host( bool remove, const char * address = "192.0.2.1" ) {
      return new CmdDnsAndMark( "web-http", "http/web/10.1.1.1", ip( address ), 7, remove );
   }
   void push( const std::vector<Ptr<CmdBase>> & commands ) {
      for ( const auto & command : commands ) {
         commands_->push( command );
      }
   }
   void start() { interface_->notificationsEnabledIs( true ); }
   /// Until the engine has been called so often in all.
   void run( std::size_t calls ) {
      start();
      EXPECT_TRUE( RecordingEngine::waitForCalls( calls ) );
      interface_->notificationsEnabledIs( false );
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
   push( { init(), reload( "/tmp/b.yaml" ) } );
   start();
   ASSERT_TRUE( RecordingEngine::waitForCalls( 4 ) );
   push( { host( true ), reload( "/tmp/a.yaml" ), host( false ) } );
   run( 9 );
   push( { reload( "/tmp/c.yaml" ) } ); // while it does not run
   run( 10 );
   EXPECT_THAT( RecordingEngine::calls(),
         ElementsAre( "log", "observer", "healthCheck /tmp/a.yaml level 3 start", "reload /tmp/b.yaml",
               "-address http/web/10.1.1.1 192.0.2.1", "-mark web-http http/web/10.1.1.1 192.0.2.1 7",
               "reload /tmp/a.yaml", "+address http/web/10.1.1.1 192.0.2.1",
               "+mark web-http http/web/10.1.1.1 192.0.2.1 7", "reload /tmp/c.yaml" ) );
   EXPECT_TRUE( RecordingEngine::calledFromOneThreadOtherThan( std::this_thread::get_id() ) );
   EXPECT_EQ( RecordingEngine::engines(), 1u );
   EXPECT_EQ( interface_->reloadCount(), 3u );
   EXPECT_EQ( interface_->dnsAndMarkAddCount(), 1u );
   EXPECT_EQ( interface_->dnsAndMarkDeleteCount(), 1u );
}

TEST_F( CommandThread, RemembersALevelThatComesBeforeTheEngineAndPassesOnLaterOnes ) {
   push( { new CmdSetTrace( 7 ), init(), new CmdSetTrace( 0x105 ) } ); // the engine knows the low byte
   run( 4 );
   EXPECT_THAT( RecordingEngine::calls(),
         ElementsAre( "log", "observer", "healthCheck /tmp/a.yaml level 7 start", "level 5" ) );
   EXPECT_EQ( interface_->traceLevel(), 0x105 );
}

TEST_F( CommandThread, ResultsFromSeveralEngineThreadsReachTheQueueEvenWhenTheAgentHasGone ) {
   push( { init() } );
   run( 3 );
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
   push( { init() } );
   run( 3 );
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
   EXPECT_EQ( result->responsePayload, std::string( "a\0b", 3 ) );
   EXPECT_THAT(
         ( std::vector<std::uint64_t>{ result->response, result->reason, result->responseCode,
               result->numChecks, result->numResponses, result->numConnectFailures, result->numFailures,
               result->numTimeouts, result->lastResponseTime, result->lastCheckTime, result->weight } ),
         ElementsAre(
               HM_RESPONSE_TIMEOUT, HM_REASON_REPLY_TIMEOUT, 503, 1, 2, 3, 4, 5, 6, 1'700'000'000'123, 0 ) );
}

TEST_F( CommandThread, EngineLogEntriesGoToTheirFacilityAtTheirLevel ) {
   push( { init() } );
   run( 3 );
   const auto facility = TraceFacility::find( "NetCHASM" );
   facility->levelsIs( 1 << 5 );
   const auto lines = linesOf( [] {
      const auto log = RecordingEngine::log();
      EXPECT_TRUE( log->openLog( "any" ) );
      for ( const std::int8_t level : { -2, 3, 5, 9 } ) {
         const std::string text = fmt::format( "entry {{}} at {}", level );
         HMLogBase::LogEntry entry{ text.c_str(), level };
         log->writeLog( &entry );
      }
   } );
   facility->levelsIs( TraceFacility::defaultLevels );
   EXPECT_EQ( countOf( lines, "NetCHASM 5 HmNetCHASMLog:28 writeLog:entry {} at 5" ), 1 );
   EXPECT_EQ( countOf( lines, "entry " ), 1 );
}

using CommandThreadDeathTest = CommandThread;

TEST_F( CommandThreadDeathTest, ACommandThatCannotBeExecutedStopsTheProcess ) {
   struct Disguised : CmdBase {
      explicit Disguised( CmdOp op ) : CmdBase( op ) {}
   };
   const auto disguised = []( CmdOp op ) -> Ptr<CmdBase> { return new Disguised( op ); };
   /// The queued commands, the engine refusing what begins with `refused`.
   const auto doing = [this]( const std::vector<Ptr<CmdBase>> & commands, const char * refused = "" ) {
      return [this, commands, refused] {
         push( commands );
         RecordingEngine::refuse( refused );
         start();
         (void)RecordingEngine::waitForCalls( 1000 );
      };
   };
   expectDeaths( {
         { "assertion failed: ret: NetCHASM init failed", doing( { init() }, "healthCheck" ) },
         { "assertion failed: ret: NetCHASM reload failed", doing( { init(), reload( "/b" ) }, "reload" ) },
         { "assertion failed: ret: Failed to add static DNS address for hostname:http/web/10.1.1.1 "
           "ip:192.0.2.1",
               doing( { init(), host( false ) }, "+address" ) },
         { "assertion failed: ret: Failed to set host mark for hostGroup:web-http hostName:http/web/10.1.1.1 "
           "ip:192.0.2.1 mark:7",
               doing( { init(), host( false ) }, "+mark" ) },
         { "assertion failed: ret: Failed to remove static DNS address for host:http/web/10.1.1.1 "
           "address:192.0.2.1",
               doing( { init(), host( true ) }, "-address" ) },
         { "assertion failed: ret: Failed to remove host mark for hostGroup:web-http "
           "hostName:http/web/10.1.1.1 ip:192.0.2.1 mark:7",
               doing( { init(), host( true ) }, "-mark" ) },
         { "assertion failed: ret: Failed to create HMIPAddress", doing( { init(), host( false, "" ) } ) },
         { "assertion failed: initialized(): NetCHASM not initialized", doing( { reload( "/b" ) } ) },
         { "assertion failed: !initialized(): NetCHASM already initialized", doing( { init(), init() } ) },
         { "cmd: invalid init command", doing( { disguised( CmdOp::init ) } ) },
         { "cmd: invalid reload command", doing( { init(), disguised( CmdOp::reload ) } ) },
         { "cmd: invalid dnsAndMark command", doing( { init(), disguised( CmdOp::dnsAndMark ) } ) },
         { "cmd: invalid setTrace command", doing( { init(), disguised( CmdOp::setTrace ) } ) },
         { "false: Unknown cmdOp: 9", doing( { init(), disguised( static_cast<CmdOp>( 9 ) ) } ) },
   } );
}
