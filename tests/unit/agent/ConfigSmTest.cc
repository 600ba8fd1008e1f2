#include "ConfigFixture.h"

#include <cerrno>

namespace hm::test {
namespace {

class Monitoring : public ConfigFixture {
 public:
   void startMonitoring() {
      probeConfig->monitoringEnabledIs( true );
      startAgent();
      runUntilIdle();
      engine.log.clear();
   }
   /// The phase in which the update cycle has the word and waits for the engine.
   void stopInUpdateCycle() {
      scheduler->runUntilIdle();
      ASSERT_EQ( commonData->configPhase(), ConfigPhase::netChasmInfoProcessing );
   }
   bool counted( const NexthopGroupName & name, const char * server ) {
      const auto counters = commonData->probeCounters( name );
      return counters && counters->serverIpHas( ip( server ) );
   }
   bool cached( const NexthopGroupName & name, const char * server ) {
      const auto http = commonData->httpProbeStatus( name );
      const auto tcp = commonData->tcpProbeStatus( name );
      return http && tcp && http->serverProbeStatusHas( ip( server ) ) &&
             tcp->serverProbeStatusHas( ip( server ) );
   }
};

TEST_F( Monitoring, StartDropsPublishedStatusThatTheConfigurationNoLongerAsksFor ) {
   web( "web", { "10.1.1.1" } );
   nhg( "empty" );
   for ( const auto & [name, server] : { std::pair{ "gone", "10.9.9.9" }, { "web", "10.1.1.1" },
               { "web", "10.1.1.9" }, { "empty", "10.1.1.1" } } ) {
      serverStatus->nhgProbeStatusIs( name )->serverProbeStatusIs( ip( server ) )->weightIs( 7 );
   }
   serverStatus->nhgMonitoringDisabledIs( "gone" );
   startMonitoring();
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 1u );
   EXPECT_FALSE( published( "web", "10.1.1.9" ) );
   ASSERT_TRUE( published( "web", "10.1.1.1" ) );
   EXPECT_EQ( serverStatus->nhgProbeStatus( "web" )->serverProbeStatus( ip( "10.1.1.1" ) )->weight(), 7 );
   EXPECT_TRUE( cached( "web", "10.1.1.1" ) );
   EXPECT_EQ( serverStatus->nhgMonitoringDisabledCount(), 0u );
   EXPECT_EQ( engine.marks.size(), 1u );
}

// Else a server with both kinds of check would go down with the first answer after a restart.
TEST_F( Monitoring, StartTakesWhatWasPublishedForWhatEachKindOfCheckSaw ) {
   web( "a", { "10.0.0.1", "10.0.0.2" } );
   const auto kept = serverStatus->nhgProbeStatusIs( "a" )->serverProbeStatusIs( ip( "10.0.0.1" ) );
   kept->operStateIs( HmState::ServerOperState::up );
   kept->adminStateIs( HmState::ServerAdminState::shutdown );
   kept->weightIs( 7 );
   probeConfig->monitoringEnabledIs( true );
   startAgent();
   const auto look = [this]( const Ptr<HmState::NexthopGroupProbeStatus> & group, const char * server ) {
      const auto status = group->serverProbeStatus( ip( server ) );
      return std::tuple( status->operState(), status->adminState(), status->weight() );
   };
   using enum HmState::ServerOperState;
   for ( const auto & view : { commonData->httpProbeStatus( "a" ), commonData->tcpProbeStatus( "a" ),
               serverStatus->nhgProbeStatus( "a" ) } ) {
      EXPECT_EQ( look( view, "10.0.0.1" ), std::tuple( up, HmState::ServerAdminState::shutdown, 7 ) );
      EXPECT_EQ( look( view, "10.0.0.2" ), std::tuple( down, HmState::ServerAdminState::enabled, 0 ) );
   }
   // What is published later is no view of a kind of check.
   kept->operStateIs( down );
   configSm->createProbeStatus( "a", ip( "10.0.0.1" ) );
   EXPECT_EQ( commonData->httpProbeStatus( "a" )->serverProbeStatus( ip( "10.0.0.1" ) )->operState(), up );
}

TEST_F( Monitoring, StartWithMonitoringOffWithdrawsWhatWasPublishedAndTellsTheEngineNothing ) {
   web( "web", { "10.1.1.1" } );
   serverStatus->monitoringEnabledIs( true );
   serverStatus->nhgProbeStatusIs( "web" )->serverProbeStatusIs( ip( "10.1.1.1" ) );
   startAgent();
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
   EXPECT_FALSE( serverStatus->monitoringEnabled() );
   runUntilIdle();
   EXPECT_TRUE( engine.marks.empty() );
}

TEST_F( Monitoring, SwitchingItOffAndOnWithdrawsEverythingAndBringsItBackAsConfiguredNow ) {
   web( "web", { "10.1.1.1", "10.1.1.2" } );
   startMonitoring();
   probeConfig->monitoringEnabledIs( false );
   EXPECT_FALSE( serverStatus->monitoringEnabled() );
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
   EXPECT_FALSE( counted( "web", "10.1.1.1" ) || cached( "web", "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_TRUE( engine.marks.empty() );

   probeConfig->probeIntervalIs( Seconds{ 7 } );
   probeConfig->maxNumberOfThreadsIs( 9 );
   probeConfig->globalUrlIs( "http://g/" );
   nhg( "web" )->serverIpDel( ip( "10.1.1.2" ) );
   nhg( "web" )->serverIpIs( ip( "10.1.1.3" ) );
   EXPECT_TRUE( configSm->backlogSm()->allBacklogsEmpty() );

   probeConfig->monitoringEnabledIs( true );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->ttl(), 7000u );
   EXPECT_TRUE(
         published( "web", "10.1.1.3" ) && cached( "web", "10.1.1.3" ) && counted( "web", "10.1.1.3" ) );
   EXPECT_FALSE( published( "web", "10.1.1.2" ) );
   EXPECT_EQ( engine.marks.size(), 2u );
}

TEST_F( Monitoring, ChangesDuringTheUpdateCycleWaitForItsEnd ) {
   startMonitoring();
   web( "web", { "10.1.1.1" } );
   stopInUpdateCycle();
   nhg( "web" )->serverIpIs( ip( "10.1.1.2" ) );
   nhg( "web" )->serverIpIs( ip( "10.1.1.3" ) );
   EXPECT_EQ( backlog().nhgServerBacklogCount(), 2u );
   EXPECT_FALSE( configSm->backlogTask()->taskScheduled() );
   commonData->configPhaseIs( ConfigPhase::backlogProcessing );
   EXPECT_TRUE( configSm->backlogTask()->taskScheduled() );
}

TEST_F( Monitoring, PhaseReturnsWithoutWorkWhenNothingIsWaiting ) {
   startMonitoring();
   probeConfig->maxNumberOfThreadsIs( 2 );
   stopInUpdateCycle();
   commonData->configPhaseIs( ConfigPhase::backlogProcessing );
   EXPECT_FALSE( configSm->backlogTask()->taskScheduled() );
}

TEST_F( Monitoring, DisabledGroupIsWithdrawnAndReturnsWithAllItsServers ) {
   web( "web", { "10.1.1.1" } );
   startMonitoring();
   probe( "web" )->disabledIs( true );
   EXPECT_TRUE( serverStatus->nhgMonitoringDisabledHas( "web" ) );
   nhg( "web" )->serverIpIs( ip( "10.1.1.2" ) );
   nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
   runUntilIdle();
   EXPECT_TRUE( engine.marks.empty() );
   probe( "web" )->disabledIs( false );
   EXPECT_FALSE( serverStatus->nhgMonitoringDisabledHas( "web" ) );
   EXPECT_TRUE( published( "web", "10.1.1.2" ) );
   EXPECT_FALSE( published( "web", "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_EQ( engine.marks.size(), 1u );
}

TEST_F( Monitoring, DisablingAGroupWhileMonitoringIsOffIsHeededButNotPublished ) {
   web( "web", { "10.1.1.1" } );
   startMonitoring();
   probe( "web" )->disabledIs( true );
   probeConfig->monitoringEnabledIs( false );
   probe( "web" )->disabledIs( false );
   EXPECT_TRUE( serverStatus->nhgMonitoringDisabledHas( "web" ) );
   probe( "web" )->disabledIs( true );
   probe( "other" )->disabledIs( true );
   EXPECT_FALSE( serverStatus->nhgMonitoringDisabledHas( "other" ) );
   probeConfig->monitoringEnabledIs( true );
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
   // The flag goes with its entry, also while monitoring is off.
   probeConfig->monitoringEnabledIs( false );
   probeConfig->nhgProbeConfigDel( "web" );
   EXPECT_FALSE( serverStatus->nhgMonitoringDisabledHas( "web" ) );
}

TEST_F( Monitoring, GroupWithoutSettingsOfItsOwnIsMonitoredWithTheGlobalOnes ) {
   probeConfig->globalUrlIs( "http://g/" );
   nhg( "plain" )->serverIpIs( ip( "10.1.1.1" ) );
   web( "web", { "10.1.1.2" } );
   probe( "web" )->disabledIs( true );
   startMonitoring();
   EXPECT_EQ( engine.marks.size(), 1u );
   probeConfig->nhgProbeConfigDel( "web" );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->checkInfo(), "/" );
   EXPECT_EQ( engine.marks.size(), 2u );
   probeConfig->globalUrlIs( "" );
   runUntilIdle();
   EXPECT_TRUE( engine.marks.empty() );
   EXPECT_TRUE( published( "plain", "10.1.1.1" ) );
}

TEST_F( Monitoring, RemovedGroupTakesAllOfItsStateAlong ) {
   web( "web", { "10.1.1.1", "10.1.1.2" } );
   startMonitoring();
   serverConfig->nhgConfigDel( "web" );
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
   EXPECT_EQ( commonData->httpProbeStatusCount() + commonData->tcpProbeStatusCount(), 0u );
   EXPECT_EQ( commonData->probeCountersCount(), 0u );
   EXPECT_EQ( backlog().nhgServerBacklog( { "web", ip( "10.1.1.1" ) } ), false );
   EXPECT_EQ( backlog().nhgServerBacklog( { "web", ip( "10.1.1.2" ) } ), false );
}

/// A switch that has been thrown while its notification is still held back must not make the agent look for
/// what it has not created yet.
TEST_F( Monitoring, ServerMayLeaveBeforeItsGroupsMonitoringIsToldToStart ) {
   web( "web", { "10.1.1.1", "10.1.1.2" } );
   startMonitoring();
   probe( "web" )->disabledIs( true );
   {
      const auto settings = probe( "web" );
      EntityUpdate update( *settings );
      settings->disabledIs( false );
      nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   }
   EXPECT_TRUE( published( "web", "10.1.1.2" ) );
   EXPECT_FALSE( published( "web", "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_EQ( engine.marks.size(), 1u );
}

TEST_F( Monitoring, OnlyTheGlobalSslProfileIsFollowedFromHere ) {
   web( "web", { "10.1.1.1" } );
   for ( const auto * name : { "corp", "other" } ) {
      sslStatus->profileStatusIs( name );
   }
   probeConfig->sslProfileIs( "corp" );
   startMonitoring();
   using State = Mgmt::Security::Ssl::ProfileState;
   sslStatus->profileStatus( "other" )->stateIs( State::valid );
   sslStatus->profileStatusDel( "other" );
   EXPECT_TRUE( configSm->backlogSm()->allBacklogsEmpty() );
   sslStatus->profileStatus( "corp" )->stateIs( State::valid );
   EXPECT_TRUE( backlog().nhgLocalAttrsBacklogHas( "web" ) );
}

TEST_F( Monitoring, NothingReactsWhileNotificationsAreOff ) {
   startMonitoring();
   configSm->notificationsEnabledIs( false );
   web( "web", { "10.1.1.1" } );
   commonData->configPhaseIs( ConfigPhase::netChasmInfoProcessing );
   scheduler->runUntilIdle();
   EXPECT_TRUE( configSm->backlogSm()->allBacklogsEmpty() );
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
}

TEST_F( Monitoring, WorkThatWaitedWhileNotificationsWereOffIsTakenUp ) {
   startMonitoring();
   const auto offAndOn = [this] {
      configSm->notificationsEnabledIs( false );
      runUntilIdle();
      configSm->notificationsEnabledIs( true );
   };
   web( "web", { "10.1.1.1" } );
   offAndOn();
   EXPECT_TRUE( engine.marks.empty() );
   stopInUpdateCycle();
   offAndOn();
   EXPECT_EQ( commonData->configPhase(), ConfigPhase::netChasmInfoProcessing );
   runUntilIdle();
   EXPECT_EQ( commonData->configPhase(), ConfigPhase::backlogProcessing );
   EXPECT_EQ( engine.marks.size(), 1u );
}

class NiceValue : public Monitoring {
 public:
   int nice( int increment ) override {
      calls.push_back( increment );
      if ( increment != 0 && refused ) {
         errno = EPERM;
         return -1;
      }
      return ConfigFixture::nice( increment );
   }
   bool refused = false;
   std::vector<int> calls;
};

TEST_F( NiceValue, IsBroughtToTheConfiguredOneByTheDifference ) {
   processNice = -1; // also what nice() returns on failure
   probeConfig->niceValueIs( -1 );
   startMonitoring();
   EXPECT_THAT( calls, testing::ElementsAre( 0 ) );
   probeConfig->niceValueIs( 10 );
   EXPECT_EQ( processNice, 10 );
   refused = true;
   probeConfig->niceValueIs( -20 );
   EXPECT_EQ( processNice, 10 );
   EXPECT_THAT( calls, testing::ElementsAre( 0, 0, 11, 0, -30 ) );
}

} // namespace
} // namespace hm::test
