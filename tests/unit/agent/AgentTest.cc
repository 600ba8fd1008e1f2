// The whole agent in this process, from configuration to published state and back to nothing.
#include "HealthMonitor/HmAgent.h"
#include "platform/state/Profile.h"
#include "tests/unit/agent/RecordingEngine.h"
#include "tests/unit/agent/TestValues.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

using namespace hm;
using namespace hm::test;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

extern "C" platform::Agent * hmAgentFactory( const char * name );

namespace {

/// An agent host in small: entities, a main loop turned by the test, a clock moved by hand.
class AgentTest : public testing::Test {
 protected:
   AgentTest() {
      RecordingEngine::reset();
      entities_->profileIs( healthMonitorProfile() );
      environment_["FLASHLOG_DISABLE"] = "1";
   }
   ~AgentTest() override {
      stop();
      RecordingEngine::reset();
   }

   template<class T>
   Ptr<T> at( const std::string & path ) {
      return dynamicPtrCast<T>( entities_->entity( path ) );
   }

   void make() {
      agent_ = dynamicPtrCast<HmAgent>( Ptr<Agent>( hmAgentFactory( "HmTest" ) ) );
      agent_->contextIs( { loop_, entities_, scheduler_, &clock_, [this]( const char * name ) {
                             const auto found = environment_.find( name );
                             return found == environment_.end() ? nullptr : found->second.c_str();
                          } } );
   }
   void start() {
      make();
      agent_->doInit();
   }
   void stop() {
      if ( agent_ && agent_->configSm() ) {
         for ( const auto & cfg : { agent_->configSm()->netChasmInfoSm()->workingCfg(),
                     agent_->configSm()->netChasmInfoSm()->getNetChasmConfig() } ) {
            std::filesystem::remove( cfg->masterConfigPath() );
            std::filesystem::remove( cfg->hostConfigPath() );
         }
      }
      agent_ = nullptr;
   }
   /// Turns the main loop until the agent has nothing left to do, the command thread taking its commands.
   void settle() {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 30 );
      scheduler_->runUntilIdle();
      while ( agent_->hmCommonData()->configPhase() != ConfigPhase::backlogProcessing ||
              !agent_->configSm()->backlogSm()->allBacklogsEmpty() ) {
         ASSERT_LT( std::chrono::steady_clock::now(), deadline ) << "the agent does not come to rest";
         if ( agent_->configSm()->cmdQueue()->empty() ) {
            clock_.advance( std::chrono::seconds( 5 ) );
         } else {
            std::this_thread::yield();
         }
         scheduler_->runUntilIdle();
      }
   }
   void configureWeb() {
      probeConfig_->monitoringEnabledIs( true );
      const auto probes = probeConfig_->nhgProbeConfigIs( "web" );
      probes->httpUrlIs( "http://192.0.2.10/health" );
      probes->vipIs( ip( "192.0.2.10" ) );
      const auto servers = serverConfig_->nhgConfigIs( "web" );
      servers->serverIpIs( ip( "10.1.1.1" ) );
      servers->serverIpIs( ip( "10.1.1.2" ) );
   }
   void report( const std::string & hostName, HM_RESPONSE response, HM_REASON reason ) {
      const auto observer = RecordingEngine::observer();
      std::thread( [&] {
         HMCheckData data;
         data.m_hostName = hostName;
         data.m_response = response;
         data.m_reason = reason;
         data.m_responseCode = 200;
         observer->storeHostCheckResult( data );
      } ).join();
      loop_->runOnce();
      scheduler_->runUntilIdle();
   }
   HmState::ServerOperState operState( const std::string & server ) {
      return status_->nhgProbeStatus( "web" )->serverProbeStatus( ip( server ) )->operState();
   }

   ManualClock clock_;
   const Ptr<EventLoop> loop_ = new EventLoop( clock_ );
   const Ptr<TaskScheduler> scheduler_ = new TaskScheduler( loop_, clock_ );
   const Ptr<EntityManager> entities_ = new EntityManager;
   std::map<std::string, std::string> environment_;
   Ptr<HmAgent> agent_;
   Ptr<HmState::ProbeConfig> probeConfig_;
   Ptr<HmState::ServerConfig> serverConfig_;
   Ptr<HmState::ServerStatus> status_;

   void SetUp() override {
      probeConfig_ = at<HmState::ProbeConfig>( "healthMonitor/config/probeConfig" );
      serverConfig_ = at<HmState::ServerConfig>( "healthMonitor/config/serverConfig" );
      status_ = at<HmState::ServerStatus>( "healthMonitor/status/serverStatus" );
   }
};

} // namespace

TEST_F( AgentTest, FromConfigurationToPublishedHealthAndBackToNothing ) {
   start();
   configureWeb();
   settle();
   EXPECT_TRUE( RecordingEngine::waitForCall( "+address http/web/10.1.1.1 192.0.2.10" ) );
   EXPECT_TRUE( RecordingEngine::waitForCall( "+mark web-http http/web/10.1.1.2 192.0.2.10 2" ) );
   EXPECT_THAT( contentOf( agent_->configSm()->netChasmInfoSm()->getNetChasmConfig()->hostConfigPath() ),
         HasSubstr( "- name: web-http\n" ) );
   EXPECT_THAT( agent_->doCheckAgentCleanState(), "serverStatus::nhgProbeStatus[] is not empty: 1" );

   EXPECT_EQ( operState( "10.1.1.1" ), HmState::ServerOperState::down );
   report( "http/web/10.1.1.1", HM_RESPONSE_ANSWERED, HM_REASON_NONE );
   EXPECT_EQ( operState( "10.1.1.1" ), HmState::ServerOperState::up );
   EXPECT_EQ( operState( "10.1.1.2" ), HmState::ServerOperState::down );
   report( "http/web/10.1.1.1", HM_RESPONSE_CONNECT_FAILURE, HM_REASON_NO_VERDICT );
   EXPECT_EQ( operState( "10.1.1.1" ), HmState::ServerOperState::up );
   report( "http/web/10.1.1.1", HM_RESPONSE_CONNECT_FAILURE, HM_REASON_CONNECT_REFUSED );
   EXPECT_EQ( operState( "10.1.1.1" ), HmState::ServerOperState::down );

   serverConfig_->nhgConfigDelAll();
   probeConfig_->nhgProbeConfigDelAll();
   settle();
   EXPECT_TRUE( RecordingEngine::waitForCall( "-address http/web/10.1.1.1 192.0.2.10" ) );
   EXPECT_THAT( agent_->doCheckAgentCleanState(), IsEmpty() );

   // The engine outlives the agent, without checks.
   const auto observer = RecordingEngine::observer();
   EXPECT_THAT( RecordingEngine::calls(), Not( Contains( "drop hosts" ) ) );
   stop();
   EXPECT_EQ( RecordingEngine::calls().back(), "drop hosts" );
   HMCheckData late;
   late.m_hostName = "http/web/10.1.1.1";
   EXPECT_TRUE( observer->storeHostCheckResult( late ) );
   loop_->runOnce();
   scheduler_->runUntilIdle();
}

TEST_F( AgentTest, CreatingWithTheSameArgumentsKeepsAndWithOthersReplaces ) {
   start();
   const Ptr<const HmState::ProbeConfig> config = probeConfig_;
   const auto data = agent_->hmCommonDataIs();
   const auto results = agent_->netChasmResultQueue();
   const auto sm = agent_->probeStatusSm();
   EXPECT_EQ( agent_->probeStatusSmIs( config, status_, results, data, scheduler_ ), sm );
   const Ptr<CommonData> other = new CommonData;
   const auto replaced = agent_->probeStatusSmIs( config, status_, results, other, scheduler_ );
   EXPECT_NE( replaced, sm );
   EXPECT_FALSE( sm->notificationsEnabled() );
   EXPECT_TRUE( replaced->notificationsEnabled() );
   // The new one is who hears of results.
   const auto before = replaced->task()->taskWorkCount();
   results->push( new ProbeResult( "http/x/10.1.1.1", 1, 0, "", 0, 0, 0, 0, 0, 0, 0, 0, 0 ) );
   loop_->runOnce();
   scheduler_->runUntilIdle();
   EXPECT_EQ( replaced->task()->taskWorkCount(), before + 1 );
   agent_->probeStatusSmDel();
   EXPECT_FALSE( agent_->probeStatusSm() );

   // Netfilter queue 0 can be had once: who still holds the old reactor does not keep it from the new one.
   const Ptr<const Bridging::Config> bridging = at<Bridging::Config>( "bridging/config" );
   const Ptr<const HmState::ServerStatus> published = status_;
   const auto queue = agent_->nfQueueSm();
   EXPECT_EQ( agent_->nfQueueSmIs( bridging, config, published, data ), queue );
   EXPECT_NE( agent_->nfQueueSmIs( bridging, config, published, other ), queue );
   EXPECT_FALSE( queue->initialized() );
   EXPECT_TRUE( agent_->nfQueueSm()->initialized() );
}

TEST_F( AgentTest, ProbesComeFromTheTunnelSourceInterface ) {
   at<Ip::Status>( "ip/status" )->ipIntfStatusIs( IntfId( "Loopback0" ) )->ipAddrIs( ip( "10.0.0.1" ) );
   probeConfig_->localTunnelIntfIs( IntfId( "Loopback0" ) );
   start();
   configureWeb();
   settle();
   EXPECT_EQ( status_->probeSrcIp(), ip( "10.0.0.1" ) );
   const auto hostConfig =
         contentOf( agent_->configSm()->netChasmInfoSm()->getNetChasmConfig()->hostConfigPath() );
   EXPECT_THAT( hostConfig, HasSubstr( "10.0.0.1" ) );
}

TEST_F( AgentTest, ReportsTheFirstLeftOver ) {
   start();
   settle();
   const auto & data = agent_->hmCommonData();
   EXPECT_EQ( data->serverMarkBitmap()->bitsSet(), 1u );
   EXPECT_THAT( agent_->doCheckAgentCleanState(), IsEmpty() );
   agent_->configSm()->backlogInfo()->nhgServerBacklogIs( { "web", ip( "10.1.1.1" ) }, false );
   EXPECT_EQ( agent_->doCheckAgentCleanState(), "backlogInfo::nhgServerBacklog[] is not empty: 1" );
   data->serverMarkBitmap()->setBit( 9 );
   EXPECT_EQ( agent_->doCheckAgentCleanState(), "hmCommonData::serverMarkBitmap has bits set: 2" );
   data->hostNameToIpNhgPairIs( "http/a/10.1.1.1", { "a", ip( "10.1.1.1" ) } );
   data->hostNameToIpNhgPairIs( "http/b/10.1.1.1", { "b", ip( "10.1.1.1" ) } );
   EXPECT_EQ( agent_->doCheckAgentCleanState(), "hmCommonData::hostNameToIpNhgPair[] is not empty: 2" );
}

TEST_F( AgentTest, IsCleanBeforeItIsWired ) {
   make();
   EXPECT_THAT( agent_->doCheckAgentCleanState(), IsEmpty() );
}

TEST_F( AgentTest, TheTraceFileIsNamedByTheEnvironment ) {
   const auto directory = std::filesystem::temp_directory_path() / fmt::format( "hm-agent-{}", getpid() );
   TraceFacility::find( "HealthMonitor" )->levelsIs( 0x1f );
   environment_["FLASHLOGDIR"] = directory.string();
   start();
   EXPECT_FALSE( std::filesystem::exists( directory ) ) << "tracing to a file is disabled";
   stop();
   environment_.erase( "FLASHLOG_DISABLE" );
   start();
   EXPECT_THAT( contentOf( directory / "HmTest.flog" ), HasSubstr( "doInit: flogPrefix: HmTest.flog\n" ) );
   stop();
   fastTraceClose();
   TraceFacility::find( "HealthMonitor" )->levelsIs( TraceFacility::defaultLevels );
   std::filesystem::remove_all( directory );
}

using AgentDeathTest = AgentTest;

TEST_F( AgentDeathTest, StopsWithoutItsMounts ) {
   make();
   EXPECT_DEATH( agent_->doMountsComplete( MountStatus::unknownProfile, entities_ ),
         "status == MountStatus::success" );
   EXPECT_DEATH( agent_->doMountsComplete( MountStatus::success, new EntityManager ),
         "no entity of the expected type at healthMonitor/config/probeConfig" );
}
