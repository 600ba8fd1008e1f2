// The whole agent in this process, from configuration to published state and back to nothing.
#include "tests/unit/agent/AgentFixture.h"

using namespace hm;
using namespace hm::test;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class AgentTest : public AgentFixture {
 protected:
   void report( HM_RESPONSE response, HM_REASON reason ) {
      HMCheckData data;
      data.m_hostName = "http/web/10.1.1.1";
      data.m_response = response;
      data.m_reason = reason;
      data.m_responseCode = 200;
      std::thread( [&] { RecordingEngine::observer()->storeHostCheckResult( data ); } ).join();
      takeResults();
   }
};

} // namespace

TEST_F( AgentTest, FromConfigurationToPublishedHealthAndBackToNothing ) {
   at<Ip::Status>( "ip/status" )->ipIntfStatusIs( IntfId( "Loopback0" ) )->ipAddrIs( ip( "10.0.0.1" ) );
   probeConfig_->localTunnelIntfIs( IntfId( "Loopback0" ) );
   start();
   group( "web", "http://192.0.2.10/health", "", { "10.1.1.1", "10.1.1.2" } );
   probeConfig_->nhgProbeConfig( "web" )->vipIs( ip( "192.0.2.10" ) );
   settle();
   EXPECT_TRUE( RecordingEngine::waitForCall( "+address http/web/10.1.1.1 192.0.2.10" ) );
   EXPECT_TRUE( RecordingEngine::waitForCall( "+mark web-http http/web/10.1.1.2 192.0.2.10 2" ) );
   EXPECT_THAT( contentOf( infoSm().getNetChasmConfig()->hostConfigPath() ),
         testing::AllOf( HasSubstr( "- name: web-http\n" ), HasSubstr( "source-address: 10.0.0.1\n" ) ) );
   EXPECT_THAT( agent_->doCheckAgentCleanState(), "serverStatus::nhgProbeStatus[] is not empty: 1" );

   using enum HmState::ServerOperState;
   const auto server = published( "web", "10.1.1.1" );
   EXPECT_EQ( server->operState(), down );
   report( HM_RESPONSE_ANSWERED, HM_REASON_NONE );
   EXPECT_EQ( server->operState(), up );
   EXPECT_EQ( published( "web", "10.1.1.2" )->operState(), down );
   report( HM_RESPONSE_CONNECT_FAILURE, HM_REASON_NO_VERDICT );
   EXPECT_EQ( server->operState(), up );
   report( HM_RESPONSE_CONNECT_FAILURE, HM_REASON_CONNECT_REFUSED );
   EXPECT_EQ( server->operState(), down );

   groupDel( "web" );
   settle();
   EXPECT_TRUE( RecordingEngine::waitForCall( "-address http/web/10.1.1.1 192.0.2.10" ) );
   EXPECT_THAT( agent_->doCheckAgentCleanState(), IsEmpty() );

   // The engine outlives the agent, without checks.
   EXPECT_THAT( RecordingEngine::calls(), Not( Contains( "drop hosts" ) ) );
   stop();
   EXPECT_EQ( RecordingEngine::calls().back(), "drop hosts" );
   report( HM_RESPONSE_ANSWERED, HM_REASON_NONE );
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
   // The new one is who hears of results.
   const auto before = replaced->task()->taskWorkCount();
   results->push( new ProbeResult( "http/x/10.1.1.1", 1, 0, "", 0, 0, 0, 0, 0, 0, 0, 0, 0 ) );
   takeResults();
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

   const auto callback = agent_->cliCallback();
   EXPECT_EQ( agent_->cliCallbackIs( "HealthMonitorCli", "HmCli", agent_.get() ), callback );
   EXPECT_NE( agent_->cliCallbackIs( "HealthMonitorCli", "Other", agent_.get() ), callback );
   EXPECT_EQ( callback->parent(), nullptr );
}

TEST_F( AgentTest, ReportsTheFirstLeftOver ) {
   make();
   EXPECT_THAT( agent_->doCheckAgentCleanState(), IsEmpty() ) << "nothing is wired yet";
   agent_->doInit();
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
