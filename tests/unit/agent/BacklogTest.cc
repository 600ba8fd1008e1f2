#include "ConfigFixture.h"
#include "TraceLines.h"

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
   /// The agent has told the engine of these servers of a group "web".
   void settledWeb( std::initializer_list<const char *> servers ) {
      web( "web", servers );
      runUntilIdle();
      engine.log.clear();
   }
};

TEST_F( Backlog, ServerThatLeavesAndReturnsBeforeTheUpdateCycleIsNotTouchedInTheEngine ) {
   settledWeb( { "10.1.1.1" } );
   const auto before = mark( "10.1.1.1" );
   // One server a slice: the withdrawal is in the model and its command pending when the server returns.
   scheduler->sliceBudgetIs( Clock::Duration{ 0 } );
   nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   nhg( "web" )->serverIpIs( ip( "10.9.9.9" ) );
   scheduler->runSlice();
   ASSERT_EQ( configSm->netChasmInfo()->updateCmdInfos(), 1u );
   ASSERT_TRUE( commonData->delMarkPendingListHas( ip( "10.1.1.1" ) ) );
   ASSERT_EQ( commonData->markToServerIp( before.first ), ip( "10.1.1.1" ) ); // packets may still carry it
   nhg( "web" )->serverIpIs( ip( "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_THAT( engine.log, ElementsAre( "reload", "add http/web/10.9.9.9 at 10.9.9.9" ) );
   EXPECT_EQ( mark( "10.1.1.1" ), before );
}

TEST_F( Backlog, NewVirtualAddressMovesAllServersEachUnderItsOneMark ) {
   probe( "web" )->vipIs( ip( "192.0.2.1" ) );
   settledWeb( { "10.1.1.1", "10.1.1.2" } );
   const auto before = mark( "10.1.1.1" );
   probe( "web" )->vipIs( ip( "192.0.2.2" ) );
   runUntilIdle();
   EXPECT_THAT( engine.log,
         ElementsAre( "remove http/web/10.1.1.1 at 192.0.2.1", "remove http/web/10.1.1.2 at 192.0.2.1",
               "reload", "add http/web/10.1.1.1 at 192.0.2.2", "add http/web/10.1.1.2 at 192.0.2.2" ) );
   EXPECT_EQ( mark( "10.1.1.1" ), before );
}

TEST_F( Backlog, GroupSettingsFollowWithoutTouchingTheHosts ) {
   settledWeb( { "10.1.1.1" } );
   struct Row {
      double global, own;
      std::uint32_t ttl;
   };
   for ( const auto & row : { Row{ 3, 5, 3000 }, Row{ 3, 5.5, 5500 }, Row{ 9, 5.5, 5500 }, Row{ 9, 5, 9000 },
               Row{ 1e12, 5, 4294967295u } } ) {
      probeConfig->probeIntervalIs( Seconds{ row.global } );
      probe( "web" )->probeIntervalIs( Seconds{ row.own } );
      runUntilIdle();
      EXPECT_EQ( webGroup()->ttl(), row.ttl );
   }
   EXPECT_THAT( engine.log, testing::Each( "reload" ) );
}

TEST_F( Backlog, EachSliceResumesInTheBacklogWhereTheLastOneStopped ) {
   scheduler->sliceBudgetIs( Clock::Duration{ 0 } );
   web( "web", { "10.1.1.1", "10.1.1.2" } );
   probe( "other" )->httpUrlIs( "http://o/" );
   for ( std::size_t left = 2; left > 0; --left ) {
      ASSERT_EQ( backlog().nhgServerBacklogCount(), left );
      scheduler->runSlice();
   }
   ASSERT_EQ( backlog().nhgLocalAttrsBacklogCount(), 2u );
   nhg( "other" )->serverIpIs( ip( "10.2.2.2" ) ); // for a backlog that this pass has left behind
   scheduler->runSlice();
   EXPECT_EQ( backlog().nhgLocalAttrsBacklogCount(), 1u );
   EXPECT_EQ( backlog().nhgServerBacklogCount(), 1u );
   runUntilIdle();
   EXPECT_EQ( engine.marks.size(), 3u );
}

TEST_F( Backlog, MarksAreNotHandedOutTwiceByAReactorThatComesLater ) {
   settledWeb( { "10.1.1.1" } );
   const Ptr<Task> task = new Task( scheduler, TaskPriority{ 3 }, "backlogSmTask" );
   const Ptr<BacklogSm> later = new BacklogSm( probeConfig, serverConfig, serverStatus, sslStatus,
         new BacklogInfo(), new NetCHASMInfo(), commonData, task );
   EXPECT_EQ( later->findOrCreateMarkForServer( ip( "10.1.1.1" ) ), mark( "10.1.1.1" ).first );
   EXPECT_NE( later->findOrCreateMarkForServer( ip( "10.1.1.2" ) ), mark( "10.1.1.1" ).first );
   EXPECT_EQ( later->deleteMarkForServer( ip( "10.1.1.3" ) ), 0u );
   EXPECT_EQ( commonData->delMarkPendingListCount(), 0u );
}

TEST_F( Backlog, WhenMarksRunOutServersWaitAndAreServedOnceSomeAreFreed ) {
   commonData->serverMarkBitmapIs( "small", 4, false )->setBit( 0 );
   const auto lines = linesOf( [this] {
      settledWeb( { "10.1.1.1", "10.1.1.2", "10.1.1.3", "10.1.1.4", "10.1.1.5" } );
   } );
   EXPECT_EQ( countOf( lines, "Server Mark bitmap full" ), 1 );
   EXPECT_EQ( engine.marks.size(), 3u );
   EXPECT_FALSE( configSm->backlogTask()->taskScheduled() );

   nhg( "web" )->serverIpDel( ip( "10.1.1.4" ) ); // one of those who wait: nothing to tell the engine
   nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
   runUntilIdle();
   EXPECT_EQ( engine.marks.size(), 3u );
   EXPECT_NE( engine.marks["http/web/10.1.1.5 at 10.1.1.5"], 0u );
}

class SslProfiles : public Backlog {
 public:
   using State = Mgmt::Security::Ssl::ProfileState;
   SslProfiles() {
      web( "web", { "10.1.1.1" } );
      probe( "web" )->httpUrlIs( "https://h/" );
   }
   static Ptr<Mgmt::Security::Ssl::ProfileStatus> profile( State state ) {
      const Ptr<Mgmt::Security::Ssl::ProfileStatus> status = new Mgmt::Security::Ssl::ProfileStatus();
      status->caFilePathIs( "/ca.pem" );
      status->certFilePathIs( "/cert.pem" );
      status->stateIs( state );
      return status;
   }
   /// What the checks of the group work with after its next change.
   std::string groupFiles() {
      probe( "web" )->timeoutIs( probe( "web" )->timeout() + 1 );
      runUntilIdle();
      return files( *webGroup() );
   }
   std::string globalFiles() {
      runUntilIdle();
      return files( *commonData );
   }

 private:
   template<class T>
   std::string files( const T & of ) {
      return fmt::format( "{} {} {}", webGroup()->checkType(), of.caFilePath(), of.certFilePath() );
   }
};

TEST_F( SslProfiles, FilesFollowTheStateOfTheGlobalProfile ) {
   EXPECT_EQ( globalFiles(), "https-no-peer-check  " );
   probeConfig->sslProfileIs( "corp" );
   EXPECT_EQ( globalFiles(), "https  " ) << "a name alone asks for the peer's verification";
   const auto corp = profile( State::valid );
   sslStatus->profileStatusInsert( "corp", corp ); // finished as it appears
   EXPECT_EQ( globalFiles(), "https /ca.pem /cert.pem" );
   corp->caFilePathIs( "/next.pem" );
   corp->stateIs( State::updating );
   EXPECT_EQ( globalFiles(), "https /ca.pem /cert.pem" );
   corp->certFilePathIs( "" );
   corp->stateIs( State::valid );
   EXPECT_EQ( globalFiles(), "https /next.pem " );
   sslStatus->profileStatusDel( "corp" );
   EXPECT_EQ( globalFiles(), "https  " );
   probeConfig->sslProfileIs( "" );
   EXPECT_EQ( globalFiles(), "https-no-peer-check  " );
}

TEST_F( SslProfiles, GroupsUseTheFilesOfTheirOwn ) {
   probeConfig->globalUrlIs( "https://g/" );
   probe( "web" )->sslProfileIs( "own" );
   EXPECT_EQ( groupFiles(), "https  " );
   const auto own = profile( State::updating );
   sslStatus->profileStatusInsert( "own", own );
   EXPECT_EQ( groupFiles(), "https  " ) << "there are none from before";
   own->stateIs( State::valid );
   EXPECT_EQ( groupFiles(), "https /ca.pem /cert.pem" );
   EXPECT_EQ( globalFiles(), "https  " );
   own->caFilePathIs( "/next.pem" );
   own->stateIs( State::updating );
   EXPECT_EQ( groupFiles(), "https /ca.pem /cert.pem" ) << "those evaluated before stay";
   own->stateIs( State::invalid );
   EXPECT_TRUE( configSm->backlogSm()->allBacklogsEmpty() ) << "looked at with the group's next change";
   EXPECT_EQ( groupFiles(), "https  " );
   own->stateIs( State::valid );
   EXPECT_EQ( groupFiles(), "https /next.pem /cert.pem" );
   probeConfig->nhgProbeConfigDel( "web" );
   runUntilIdle();
   EXPECT_EQ( webGroup()->caFilePath() + webGroup()->certFilePath(), "" );
   EXPECT_EQ( webGroup()->checkType(), "https-no-peer-check" );
   EXPECT_EQ( commonData->nhgSslParamsCount(), 0u );
}

} // namespace
} // namespace hm::test
