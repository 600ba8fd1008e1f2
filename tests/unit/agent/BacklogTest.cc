#include "ConfigFixture.h"

namespace hm::test {
namespace {

using testing::ElementsAre;

class Backlog : public ConfigFixture {
 public:
   Backlog() {
      probeConfig->monitoringEnabledIs( true );
      startAgent();
      runUntilIdle();
      engine.log.clear();
   }
};

TEST_F( Backlog, NewServerReachesTheEngineWithGroupAddressAndMark ) {
   serverStatus->probeSrcIpIs( ip( "10.0.0.1" ) );
   const auto settings = probe( "web" );
   settings->httpUrlIs( "http://h/health" );
   settings->tcpUrlIs( "tcp://h:8080" );
   settings->vipIs( ip( "192.0.2.1" ) );
   nhg( "web" )->serverIpIs( ip( "10.1.1.1" ) );
   runUntilIdle();

   const auto & sm = *configSm->backlogSm();
   sm.verifyHostConfig( "web", ProbeType::http, "http://h/health", ip( "192.0.2.1" ), Seconds{ 5 },
         ip( "10.0.0.1" ), "", 10, 0, 3, true );
   sm.verifyHostConfig( "web", ProbeType::tcp, "tcp://h:8080", ip( "192.0.2.1" ), Seconds{ 5 },
         ip( "10.0.0.1" ), "", 10, 0, 3, true );
   EXPECT_EQ( group( "web-http" )->checkType(), "http-mark" );
   EXPECT_THAT( hosts( "web", ProbeType::tcp ), ElementsAre( "tcp/web/10.1.1.1" ) );
   EXPECT_NE( mark( "10.1.1.1" ), 0u );
   EXPECT_EQ( markReferences( "10.1.1.1" ), 2u );
   EXPECT_EQ( engine.marks["http/web/10.1.1.1 at 192.0.2.1"], mark( "10.1.1.1" ) );
   EXPECT_EQ( engine.marks["tcp/web/10.1.1.1 at 192.0.2.1"], mark( "10.1.1.1" ) );
}

TEST_F( Backlog, RemovalsPrecedeTheReloadAndAdditionsFollowIt ) {
   web( "web", { "10.1.1.1" } );
   runUntilIdle();
   engine.log.clear();
   nhg( "web" )->serverIpIs( ip( "10.1.1.2" ) );
   nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_THAT( engine.log, ElementsAre( "remove http/web/10.1.1.1 at 10.1.1.1", "reload",
                                  "add http/web/10.1.1.2 at 10.1.1.2" ) );
}

TEST_F( Backlog, LaterWishForAServerReplacesTheEarlierOne ) {
   web( "web", { "10.1.1.1" } );
   nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   EXPECT_EQ( backlog().nhgServerBacklog( { "web", ip( "10.1.1.1" ) } ), false );
   EXPECT_EQ( backlog().nhgServerBacklogCount(), 1u );
   runUntilIdle();
   EXPECT_THAT( engine.log, ElementsAre( "reload" ) );
   EXPECT_EQ( commonData->serverIpToMarkCount(), 0u );
}

TEST_F( Backlog, ServerThatLeavesAndReturnsBeforeTheUpdateCycleIsNotTouchedInTheEngine ) {
   web( "web", { "10.1.1.1" } );
   runUntilIdle();
   const auto before = mark( "10.1.1.1" );
   engine.log.clear();
   // One server a slice: the withdrawal is in the model and its command pending when the server returns.
   scheduler->sliceBudgetIs( Clock::Duration{ 0 } );
   nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   nhg( "web" )->serverIpIs( ip( "10.9.9.9" ) );
   scheduler->runSlice();
   ASSERT_EQ( configSm->netChasmInfo()->updateCmdInfos(), 1u );
   ASSERT_TRUE( commonData->delMarkPendingListHas( ip( "10.1.1.1" ) ) );
   ASSERT_EQ( commonData->markToServerIp( before ), ip( "10.1.1.1" ) ); // packets may still carry it
   nhg( "web" )->serverIpIs( ip( "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_THAT( engine.log, ElementsAre( "reload", "add http/web/10.9.9.9 at 10.9.9.9" ) );
   EXPECT_EQ( mark( "10.1.1.1" ), before );
   EXPECT_EQ( markReferences( "10.1.1.1" ), 1u );
}

TEST_F( Backlog, NewVirtualAddressMovesEachServerUnderItsOneMark ) {
   web( "web", { "10.1.1.1" } );
   probe( "web" )->vipIs( ip( "192.0.2.1" ) );
   runUntilIdle();
   const auto before = mark( "10.1.1.1" );
   engine.log.clear();
   probe( "web" )->vipIs( ip( "192.0.2.2" ) );
   runUntilIdle();
   EXPECT_THAT( engine.log, ElementsAre( "remove http/web/10.1.1.1 at 192.0.2.1", "reload",
                                  "add http/web/10.1.1.1 at 192.0.2.2" ) );
   EXPECT_EQ( mark( "10.1.1.1" ), before );
   EXPECT_EQ( markReferences( "10.1.1.1" ), 1u );
}

TEST_F( Backlog, LosingTheUrlOfAProbeTypeWithdrawsThatTypeOnly ) {
   web( "web", { "10.1.1.1" } );
   probe( "web" )->tcpUrlIs( "tcp://h:80" );
   runUntilIdle();
   EXPECT_EQ( markReferences( "10.1.1.1" ), 2u );
   probe( "web" )->httpUrlIs( "no url" );
   runUntilIdle();
   EXPECT_FALSE( group( "web-http" ) );
   EXPECT_FALSE( commonData->hostNameToIpNhgPairHas( "http/web/10.1.1.1" ) );
   EXPECT_THAT( hosts( "web", ProbeType::tcp ), ElementsAre( "tcp/web/10.1.1.1" ) );
   EXPECT_EQ( markReferences( "10.1.1.1" ), 1u );
}

TEST_F( Backlog, GroupSettingsFollowWithoutTouchingTheHosts ) {
   web( "web", { "10.1.1.1" } );
   runUntilIdle();
   engine.log.clear();
   struct Row {
      Seconds global;
      Seconds own;
      std::uint32_t ttl;
   };
   for ( const auto & row :
         { Row{ Seconds{ 3 }, Seconds{ 5 }, 3000 }, Row{ Seconds{ 3 }, Seconds{ 5.5 }, 5500 },
               Row{ Seconds{ 9 }, Seconds{ 5.5 }, 5500 }, Row{ Seconds{ 9 }, Seconds{ 5 }, 9000 },
               Row{ Seconds{ 1e12 }, Seconds{ 5 }, 4294967295u } } ) {
      probeConfig->probeIntervalIs( row.global );
      probe( "web" )->probeIntervalIs( row.own );
      runUntilIdle();
      EXPECT_EQ( group( "web-http" )->ttl(), row.ttl );
   }
   probe( "web" )->timeoutIs( 2 );
   probe( "web" )->retryDelayIs( 1 );
   probe( "web" )->retryCountIs( 7 );
   serverStatus->probeSrcIpIs( ip( "10.0.0.1" ) );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->timeout(), 2000u );
   EXPECT_EQ( group( "web-http" )->checkRetryDelay(), 1000u );
   EXPECT_EQ( group( "web-http" )->checkRetries(), 7u );
   EXPECT_EQ( group( "web-http" )->sourceAddress(), "10.0.0.1" );
   EXPECT_THAT( engine.log, testing::Each( "reload" ) );
}

TEST_F( Backlog, GroupThatLosesItsLastIpv4ServerTakesTheIpv6SourceAddress ) {
   serverStatus->probeSrcIpIs( ip( "10.0.0.1" ) );
   serverStatus->probeSrcIp6Is( ip( "2001:db8::1" ) );
   web( "web", { "10.1.1.1", "2001:db8::2" } );
   runUntilIdle();
   nhg( "web" )->serverIpIs( ip( "2001:db8::3" ) );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->sourceAddress(), "10.0.0.1" );
   nhg( "web" )->serverIpDel( ip( "2001:db8::3" ) );
   scheduler->sliceBudgetIs( Clock::Duration{ 0 } );
   scheduler->runSlice();
   EXPECT_EQ( backlog().nhgLocalAttrsBacklogCount(), 0u ) << "its family stays";
   nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->sourceAddress(), "2001:db8::1" );
   EXPECT_EQ( group( "web-http" )->dualStackMode(), "ipv6-only" );
}

TEST_F( Backlog, EachSliceMovesOnByOneEntryAndResumesWhereItStopped ) {
   scheduler->sliceBudgetIs( Clock::Duration{ 0 } );
   web( "web", { "10.1.1.1", "10.1.1.2", "10.1.1.3" } );
   probe( "other" )->httpUrlIs( "http://o/" );
   for ( std::size_t left = 3; left > 0; --left ) {
      ASSERT_EQ( backlog().nhgServerBacklogCount(), left );
      scheduler->runSlice();
   }
   // The last slice used its budget up on a server; the groups' settings wait for the next one.
   ASSERT_EQ( configSm->backlogSm()->backlogTypeBookmark(), BacklogType::nhgLocalAttrsChange );
   const auto nhgs = backlog().nhgLocalAttrsBacklogCount();
   ASSERT_GT( nhgs, 1u );
   nhg( "other" )->serverIpIs( ip( "10.2.2.2" ) ); // for a backlog that this pass has left behind
   scheduler->runSlice();
   EXPECT_EQ( backlog().nhgLocalAttrsBacklogCount(), nhgs - 1 );
   while ( configSm->backlogSm()->backlogTypeBookmark() == BacklogType::nhgLocalAttrsChange ) {
      ASSERT_TRUE( scheduler->runSlice() );
   }
   EXPECT_EQ( commonData->configPhase(), ConfigPhase::backlogProcessing );
   EXPECT_TRUE( configSm->backlogTask()->taskScheduled() );
   runUntilIdle();
   EXPECT_EQ( engine.marks.size(), 4u );
}

class Marks : public Backlog {};

TEST_F( Marks, AreSharedByAllGroupsOfAServerUntilTheLastLetsGo ) {
   web( "a", { "10.1.1.1" } );
   web( "b", { "10.1.1.1" } );
   runUntilIdle();
   const auto before = mark( "10.1.1.1" );
   EXPECT_EQ( markReferences( "10.1.1.1" ), 2u );
   serverConfig->nhgConfigDel( "a" );
   runUntilIdle();
   EXPECT_EQ( mark( "10.1.1.1" ), before );
   EXPECT_EQ( markReferences( "10.1.1.1" ), 1u );
   serverConfig->nhgConfigDel( "b" );
   runUntilIdle();
   EXPECT_EQ( commonData->serverIpToMarkCount(), 0u );
   EXPECT_FALSE( commonData->markToServerIpHas( before ) );
   EXPECT_EQ( commonData->serverMarkBitmap()->bitsSet(), 1u );
}

TEST_F( Marks, AreNotHandedOutTwiceByAReactorThatComesLater ) {
   web( "web", { "10.1.1.1" } );
   runUntilIdle();
   const Ptr<Task> task = new Task( scheduler, TaskPriority{ 3 }, "backlogSmTask" );
   const Ptr<BacklogSm> later = new BacklogSm( probeConfig, serverConfig, serverStatus, sslStatus,
         new BacklogInfo(), new NetCHASMInfo(), commonData, task );
   EXPECT_EQ( later->findOrCreateMarkForServer( ip( "10.1.1.1" ) ), mark( "10.1.1.1" ) );
   EXPECT_NE( later->findOrCreateMarkForServer( ip( "10.1.1.2" ) ), mark( "10.1.1.1" ) );
}

TEST_F( Marks, ServerWithoutAMarkHasNothingToRelease ) {
   EXPECT_EQ( configSm->backlogSm()->deleteMarkForServer( ip( "10.1.1.1" ) ), 0u );
   EXPECT_EQ( commonData->delMarkPendingListCount(), 0u );
}

TEST_F( Marks, WhenTheyRunOutServersWaitAndAreServedOnceSomeAreFreed ) {
   commonData->serverMarkBitmapIs( "small", 4, false )->setBit( 0 );
   traceToStderrIs( true );
   testing::internal::CaptureStderr();
   web( "web", { "10.1.1.1", "10.1.1.2", "10.1.1.3", "10.1.1.4", "10.1.1.5" } );
   runUntilIdle();
   traceToStderrIs( false );
   const auto trace = testing::internal::GetCapturedStderr();
   const auto report = trace.find( "Server Mark bitmap full" );
   EXPECT_NE( report, std::string::npos );
   EXPECT_EQ( trace.find( "Server Mark bitmap full", report + 1 ), std::string::npos ) << trace;
   EXPECT_EQ( engine.marks.size(), 3u );
   EXPECT_EQ( hosts( "web", ProbeType::http ).size(), 5u );
   EXPECT_FALSE( configSm->backlogTask()->taskScheduled() );

   nhg( "web" )->serverIpDel( ip( "10.1.1.4" ) ); // one of those who wait: nothing to tell the engine
   nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_EQ( engine.marks.size(), 3u );
   EXPECT_NE( engine.marks["http/web/10.1.1.5 at 10.1.1.5"], 0u );
   EXPECT_EQ( markReferences( "10.1.1.5" ), 1u );
}

class SslProfiles : public Backlog {
 public:
   using State = Mgmt::Security::Ssl::ProfileState;

   SslProfiles() {
      web( "web", { "10.1.1.1" } );
      probe( "web" )->httpUrlIs( "https://h/" );
   }
   Ptr<Mgmt::Security::Ssl::ProfileStatus> profile( const char * name, State state ) {
      const auto status = sslStatus->profileStatusIs( name );
      status->caFilePathIs( "/ca.pem" );
      status->certFilePathIs( "/cert.pem" );
      status->stateIs( state );
      return status;
   }
   std::string checkType() { return group( "web-http" )->checkType(); }
};

TEST_F( SslProfiles, PeersAreNotVerifiedOnlyWhileNoProfileIsNamed ) {
   runUntilIdle();
   EXPECT_EQ( checkType(), "https-no-peer-check" );
   probeConfig->sslProfileIs( "unknown" );
   runUntilIdle();
   EXPECT_EQ( checkType(), "https" );
   EXPECT_EQ( commonData->caFilePath(), "" );
   probeConfig->sslProfileIs( "" );
   probe( "web" )->sslProfileIs( "own" );
   runUntilIdle();
   EXPECT_EQ( checkType(), "https" );
   probe( "web" )->sslProfileIs( "" );
   runUntilIdle();
   EXPECT_EQ( checkType(), "https-no-peer-check" );
}

TEST_F( SslProfiles, FilesFollowTheStateOfTheGlobalProfile ) {
   const auto corp = profile( "corp", State::valid );
   probeConfig->sslProfileIs( "corp" );
   runUntilIdle();
   EXPECT_EQ( commonData->caFilePath(), "/ca.pem" );
   EXPECT_EQ( commonData->certFilePath(), "/cert.pem" );

   corp->caFilePathIs( "/next.pem" );
   corp->stateIs( State::updating );
   runUntilIdle();
   EXPECT_EQ( commonData->caFilePath(), "/ca.pem" );

   corp->certFilePathIs( "" );
   corp->stateIs( State::valid );
   runUntilIdle();
   EXPECT_EQ( commonData->caFilePath(), "/next.pem" );
   EXPECT_EQ( commonData->certFilePath(), "" );

   sslStatus->profileStatusDel( "corp" );
   runUntilIdle();
   EXPECT_EQ( commonData->caFilePath(), "" );
   EXPECT_EQ( checkType(), "https" );
}

TEST_F( SslProfiles, GlobalProfileThatAppearsFinishedTakesEffect ) {
   probeConfig->sslProfileIs( "corp" );
   runUntilIdle();
   const Ptr<Mgmt::Security::Ssl::ProfileStatus> corp = new Mgmt::Security::Ssl::ProfileStatus();
   corp->caFilePathIs( "/ca.pem" );
   corp->stateIs( State::valid );
   sslStatus->profileStatusInsert( "corp", corp );
   runUntilIdle();
   EXPECT_EQ( commonData->caFilePath(), "/ca.pem" );
}

TEST_F( SslProfiles, GroupsUseTheFilesOfTheirOwn ) {
   profile( "own", State::valid );
   probe( "web" )->sslProfileIs( "own" );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->caFilePath(), "/ca.pem" );
   EXPECT_EQ( group( "web-http" )->certFilePath(), "/cert.pem" );
   EXPECT_EQ( commonData->caFilePath(), "" );
   // While its files are being replaced those evaluated before stay.
   const auto own = sslStatus->profileStatus( "own" );
   own->caFilePathIs( "/next.pem" );
   own->stateIs( State::updating );
   probe( "web" )->timeoutIs( 3 );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->caFilePath(), "/ca.pem" );
   // A group's profile is looked at again with the group's next change.
   own->stateIs( State::invalid );
   EXPECT_TRUE( configSm->backlogSm()->allBacklogsEmpty() );
   probe( "web" )->timeoutIs( 2 );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->caFilePath(), "" );
}

TEST_F( SslProfiles, ProfileOfAGroupMayComeAfterItsNameAndBeforeItsFiles ) {
   probe( "web" )->sslProfileIs( "own" );
   runUntilIdle();
   EXPECT_EQ( checkType(), "https" );
   const auto own = profile( "own", State::updating );
   probe( "web" )->timeoutIs( 3 );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->caFilePath(), "" ); // there are none from before
   EXPECT_EQ( checkType(), "https" );
   own->stateIs( State::valid );
   probe( "web" )->timeoutIs( 2 );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->caFilePath(), "/ca.pem" );
   EXPECT_EQ( group( "web-http" )->certFilePath(), "/cert.pem" );
}

TEST_F( SslProfiles, FilesOfAGroupGoWithItsSettings ) {
   probeConfig->globalUrlIs( "https://g/" );
   profile( "own", State::valid );
   probe( "web" )->sslProfileIs( "own" );
   runUntilIdle();
   ASSERT_EQ( group( "web-http" )->caFilePath(), "/ca.pem" );
   probeConfig->nhgProbeConfigDel( "web" );
   runUntilIdle();
   EXPECT_EQ( group( "web-http" )->caFilePath(), "" );
   EXPECT_EQ( group( "web-http" )->certFilePath(), "" );
   EXPECT_EQ( checkType(), "https-no-peer-check" );
   EXPECT_EQ( commonData->nhgSslParamsCount(), 0u );
}

} // namespace
} // namespace hm::test
