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
   }
   bool published( const NexthopGroupName & name, const char * server ) const {
      const auto status = serverStatus->nhgProbeStatus( name );
      return status && status->serverProbeStatusHas( ip( server ) );
   }
};

TEST_F( Monitoring, StartDropsPublishedStatusThatTheConfigurationNoLongerAsksFor ) {
   web( "web", { "10.1.1.1" } );
   nhg( "empty" );
   for ( const auto & [name, server] : { std::pair{ "gone", "10.9.9.9" }, { "web", "10.1.1.1" },
               { "web", "10.1.1.9" }, { "empty", "10.1.1.1" } } ) {
      serverStatus->nhgProbeStatusIs( name )->serverProbeStatusIs( ip( server ) );
   }
   serverStatus->nhgMonitoringDisabledIs( "gone" );
   startMonitoring();
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 1u );
   EXPECT_TRUE( published( "web", "10.1.1.1" ) );
   EXPECT_FALSE( published( "web", "10.1.1.9" ) );
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
   startMonitoring();
   const auto look = []( const Ptr<HmState::NexthopGroupProbeStatus> & group, const char * server ) {
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

TEST_F( Monitoring, OffWithdrawsWhatWasPublishedAndTellsTheEngineNothing ) {
   web( "web", { "10.1.1.1" } );
   serverStatus->monitoringEnabledIs( true );
   serverStatus->nhgProbeStatusIs( "web" )->serverProbeStatusIs( ip( "10.1.1.1" ) );
   startAgent();
   const auto isOff = [this] {
      EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
      EXPECT_FALSE( serverStatus->monitoringEnabled() );
      runUntilIdle();
      EXPECT_TRUE( engine.marks.empty() );
   };
   isOff();
   probeConfig->monitoringEnabledIs( true );
   EXPECT_TRUE( serverStatus->monitoringEnabled() );
   runUntilIdle();
   EXPECT_EQ( engine.marks.size(), 1u );
   probeConfig->monitoringEnabledIs( false );
   isOff();
   probeConfig->probeIntervalIs( Seconds{ 7 } );
   probeConfig->maxNumberOfThreadsIs( 9 );
   probeConfig->globalUrlIs( "http://g/" );
   nhg( "web" )->serverIpIs( ip( "10.1.1.3" ) );
   EXPECT_TRUE( configSm->backlogSm()->allBacklogsEmpty() );
}

TEST_F( Monitoring, DisabledGroupIsWithdrawnAndPublishedAsSuchWhileMonitoringIsOn ) {
   web( "web", { "10.1.1.1" } );
   startMonitoring();
   const auto flagged = [this](
                              const char * name ) { return serverStatus->nhgMonitoringDisabledHas( name ); };
   probe( "web" )->disabledIs( true );
   EXPECT_TRUE( flagged( "web" ) );
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
   probeConfig->monitoringEnabledIs( false );
   probe( "web" )->disabledIs( false );
   EXPECT_TRUE( flagged( "web" ) );
   probe( "web" )->disabledIs( true );
   probe( "other" )->disabledIs( true );
   EXPECT_FALSE( flagged( "other" ) );
   probeConfig->monitoringEnabledIs( true );
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
   probe( "web" )->disabledIs( false );
   EXPECT_FALSE( flagged( "web" ) );
   EXPECT_TRUE( published( "web", "10.1.1.1" ) );
   // The flag goes with its entry, also while monitoring is off.
   probe( "web" )->disabledIs( true );
   probeConfig->monitoringEnabledIs( false );
   probeConfig->nhgProbeConfigDel( "web" );
   EXPECT_FALSE( flagged( "web" ) );
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

TEST_F( Monitoring, WorkThatWaitedWhileNotificationsWereOffIsTakenUp ) {
   startMonitoring();
   web( "web", { "10.1.1.1" } );
   configSm->notificationsEnabledIs( false );
   web( "unseen", { "10.1.1.2" } );
   runUntilIdle();
   EXPECT_FALSE( serverStatus->nhgProbeStatusHas( "unseen" ) );
   EXPECT_TRUE( engine.marks.empty() );
   configSm->notificationsEnabledIs( true );
   scheduler->runUntilIdle();
   EXPECT_EQ( commonData->configPhase(), ConfigPhase::netChasmInfoProcessing );
   configSm->notificationsEnabledIs( false );
   runUntilIdle();
   EXPECT_EQ( commonData->configPhase(), ConfigPhase::netChasmInfoProcessing );
   configSm->notificationsEnabledIs( true );
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
      return processNice += increment;
   }
   int processNice = -1; // also what nice() returns on failure
   bool refused = false;
   std::vector<int> calls;
};

TEST_F( NiceValue, IsBroughtToTheConfiguredOneByTheDifference ) {
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
