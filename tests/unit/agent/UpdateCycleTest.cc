// From the model to the engine: the file pairs, the order of commands, slices, and the release of marks.
#include "HealthMonitor/HmNetCHASMInfoSm.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "HealthMonitor/HmUtils.h"
#include "HealthMonitor/HmYamlHelper.h"
#include "tests/unit/agent/TestValues.h"

#include <filesystem>
#include <fstream>
#include <sys/resource.h>

#include <gmock/gmock.h>

using namespace hm;
using namespace hm::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// From here on this process can open no file.
void exhaustDescriptors() {
   const rlimit none{ 3, 3 };
   setrlimit( RLIMIT_NOFILE, &none );
}

class UpdateCycle : public testing::Test {
 protected:
   UpdateCycle() {
      model_->hostConfigIs();
      data_->serverMarkBitmapIs( "marks", 64, false )->setBit( 0 );
      probeConfig_->maxNumberOfThreadsIs( 32 );
      start();
   }
   ~UpdateCycle() override {
      for ( const auto & cfg : { sm_->workingCfg(), sm_->getNetChasmConfig() } ) {
         std::filesystem::remove( cfg->masterConfigPath() );
         std::filesystem::remove( cfg->hostConfigPath() );
      }
   }
   void start() {
      sm_ = new NetCHASMInfoSm( data_, model_, task_, commands_, probeConfig_ );
      sm_->notificationsEnabledIs( true );
   }

   Ptr<HostGrpCfg> group( const NexthopGroupName & nhg, ProbeType type = ProbeType::http ) {
      const auto settings =
            model_->hostConfigIs()->hostGrpCfgIs( hostGroupNameFromNhgAndProbeType( nhg, type ) );
      settings->ttlIs( 5000 );
      settings->timeoutIs( 10000 );
      settings->checkRetriesIs( 3 );
      settings->checkTypeIs( type == ProbeType::http ? "http" : "tcp" );
      settings->dnsTypeIs( "static" );
      settings->checkInfoIs( type == ProbeType::http ? "/" : "" );
      model_->nhgHostListIs( { nhg, type } );
      return settings;
   }
   void host( const NexthopGroupName & nhg, const std::string & server, ProbeType type = ProbeType::http ) {
      model_->nhgHostListIs( { nhg, type } )
            ->hostListIs( hostNameFromNhgAndServerIp( nhg, type, ip( server ) ) );
   }
   void update( const NexthopGroupName & nhg, const std::string & server, std::uint32_t mark, bool remove ) {
      const auto info = model_->updateCmdInfoIs( { nhg, ProbeType::http, ip( server ), ip( "192.0.2.1" ) } );
      info->markIs( mark );
      info->removeIs( remove );
   }
   void mark( const std::string & server, std::uint32_t value, std::uint32_t references ) {
      data_->serverIpToMarkIs( ip( server ) )->markIs( value );
      data_->serverIpToMark( ip( server ) )->refCountInc( references );
      data_->markToServerIpIs( value, ip( server ) );
      data_->serverMarkBitmap()->setBit( value );
   }

   void beginCycle() {
      data_->configPhaseIs( ConfigPhase::netChasmInfoProcessing );
      task_->scheduleTask();
   }
   /// Slices until the task waits, and their number.
   int runSlices() {
      int slices = 0;
      while ( scheduler_->runSlice() ) {
         ++slices;
      }
      return slices;
   }
   /// What the command thread would find, in a word each.
   std::vector<std::string> takeCommands() {
      std::vector<std::string> taken;
      while ( const auto command = dynamicPtrCast<CmdBase>( commands_->pop() ) ) {
         if ( const auto init = dynamicPtrCast<CmdInit>( command ) ) {
            taken.push_back( "init " + init->masterConfigPath );
         } else if ( const auto reload = dynamicPtrCast<CmdReload>( command ) ) {
            taken.push_back( "reload " + reload->masterConfigPath );
         } else if ( const auto change = dynamicPtrCast<CmdDnsAndMark>( command ) ) {
            taken.push_back( fmt::format( "{}{} {} {} {}", change->remove ? "-" : "+", change->hostGroupName,
                  change->hostName, change->hostIp, change->mark ) );
         }
      }
      return taken;
   }
   /// A whole cycle, the command thread taking what is queued; what it took, and the pair that was written.
   std::vector<std::string> cycle() {
      takeCommands();
      beginCycle();
      runSlices();
      const auto taken = takeCommands();
      clock_.advance( std::chrono::seconds( 5 ) );
      runSlices();
      EXPECT_EQ( data_->configPhase(), ConfigPhase::backlogProcessing );
      return taken;
   }
   std::string hostFile() const { return contentOf( sm_->getNetChasmConfig()->hostConfigPath() ); }
   std::string masterFile() const { return contentOf( sm_->getNetChasmConfig()->masterConfigPath() ); }

   ManualClock clock_;
   const Ptr<EventLoop> loop_ = new EventLoop( clock_ );
   const Ptr<TaskScheduler> scheduler_ = new TaskScheduler( loop_, clock_ );
   const Ptr<TimerTask> task_ = new TimerTask( scheduler_, TaskPriority{ 3 }, "netChasmInfoTask" );
   const Ptr<EventMpmcQueue> commands_ = new EventMpmcQueue( 0, new FifoEvent( loop_ ), nullptr, true );
   const Ptr<CommonData> data_ = new CommonData;
   const Ptr<NetCHASMInfo> model_ = new NetCHASMInfo;
   const Ptr<HmState::ProbeConfig> probeConfig_ = new HmState::ProbeConfig;
   Ptr<NetCHASMInfoSm> sm_;
};

} // namespace

TEST_F( UpdateCycle, StartsTheEngineOnAPairOfItsOwnWithoutHosts ) {
   const auto first = sm_->getNetChasmConfig(), second = sm_->workingCfg();
   EXPECT_NE( first, second );
   EXPECT_THAT( takeCommands(), ElementsAre( "init " + first->masterConfigPath() ) );
   EXPECT_EQ( masterFile(), "threads.max: 32\nconnectiontimeout: 3000\ndb.type: notifier\n"
                            "log.type: registered\nsocket.path: /tmp/netchasm" );
   for ( const auto & path : { first->masterConfigPath(), first->hostConfigPath(), second->masterConfigPath(),
               second->hostConfigPath() } ) {
      EXPECT_THAT( path, testing::MatchesRegex( "/tmp/......\\.yaml" ) );
      const auto others = std::filesystem::perms::group_all | std::filesystem::perms::others_all;
      EXPECT_EQ( std::filesystem::status( path ).permissions() & others, std::filesystem::perms::none );
   }
   sm_->handleInitialized();
   EXPECT_THAT( takeCommands(), IsEmpty() );
}

TEST_F( UpdateCycle, WritesTheGroupsAsTheEngineReadsThem ) {
   group( "nhg1" )->sourceAddressIs( "10.0.0.1" );
   host( "nhg1", "10.1.1.1" );
   host( "nhg1", "10.1.1.2" );
   cycle();
   EXPECT_EQ( hostFile(), "- name: nhg1-http\n"
                          "  ttl: 5000\n"
                          "  source-address: 10.0.0.1\n"
                          "  timeout: 10000\n"
                          "  check-retry-delay: 0\n"
                          "  check-retries: 3\n"
                          "  check-type: http\n"
                          "  dns-type: static\n"
                          "  check-info: /\n"
                          "  host:\n"
                          "    - http/nhg1/10.1.1.1\n"
                          "    - http/nhg1/10.1.1.2" );
   EXPECT_EQ( masterFile(), "threads.max: 32\nconnectiontimeout: 3000\nconfig.load-file: " +
                                  sm_->getNetChasmConfig()->hostConfigPath() +
                                  "\ndb.type: notifier\nlog.type: registered\nsocket.path: /tmp/netchasm" );
}

TEST_F( UpdateCycle, WritesWhatIsSetAndLeavesOutWhatIsEmpty ) {
   const auto full = group( "full" );
   full->sourceAddressIs( "2001:db8::1" );
   full->checkRetryDelayIs( 2000 );
   full->checkPortIs( "8080" );
   full->dualStackModeIs( "ipv6-only" );
   full->caFilePathIs( "/etc/ca.pem" );
   full->certFilePathIs( "/etc/cert.pem" );
   group( "lonely", ProbeType::tcp );
   data_->caFilePathIs( "/etc/global-ca.pem" );
   data_->certFilePathIs( "/etc/global-cert.pem" );
   cycle();
   const auto groups = YAML::Load( hostFile() );
   std::vector<std::string> keys;
   for ( const auto & entry : groups[0] ) {
      keys.push_back( entry.first.as<std::string>() );
   }
   EXPECT_THAT( keys, ElementsAre( "name", "ttl", "source-address", "timeout", "check-retry-delay",
                            "check-retries", "check-type", "dns-type", "check-info", "check-port",
                            "dual-stack-mode", "ca-file", "cert-file" ) );
   EXPECT_EQ( groups[0]["source-address"].as<std::string>(), "2001:db8::1" );
   EXPECT_EQ( groups[1]["name"].as<std::string>(), "lonely-tcp" );
   EXPECT_EQ( groups[1]["check-info"].as<std::string>(), "" );
   EXPECT_EQ( groups[1].size(), 8u );
   EXPECT_THAT( masterFile(),
         testing::EndsWith( "\nca-file: /etc/global-ca.pem\ncert-file: /etc/global-cert.pem" ) );
}

// Names come from configuration, so anything may stand in them.
TEST_F( UpdateCycle, NoNameLeavesItsPlaceOrHidesTheFile ) {
   const std::string names[] = { "a\n- name: b", "- name: ", "\"quoted\" 'too'", "# comment", "a: b", "{a}",
         "*alias", "&anchor", "!tag", "%dir", "@at", "| ", "> ", "tab\there", " blank ", "~", "null", "true",
         "\x01\x7f", "\\", "caf\xc3\xa9", "\xe2\x80\xa8", std::string( 4000, 'x' ), "../../etc", "---",
         "..." };
   for ( const auto & name : names ) {
      group( name );
      host( name, "10.1.1.1" );
      cycle();
      EXPECT_THAT( masterFile(), testing::HasSubstr( "config.load-file: " ) ) << name;
      const auto groups = YAML::Load( hostFile() );
      ASSERT_EQ( groups.size(), 1u ) << name;
      EXPECT_EQ( groups[0]["name"].as<std::string>(), name + "-http" );
      EXPECT_EQ( groups[0]["host"][0].as<std::string>(), "http/" + name + "/10.1.1.1" );
      model_->nhgHostListDelAll();
      model_->hostConfigIs()->hostGrpCfgDelAll();
   }
}

TEST_F( UpdateCycle, GivesTheTextThatTheWholeDocumentAsOneNodeGives ) {
   YAML::Node document;
   for ( const std::string nhg : { "a", "b: #", "c\n\td" } ) {
      group( nhg )->checkInfoIs( "/x?y=1&z=[ü]: #" );
      YAML::Node node = YamlHelper( model_ ).initializeHostGroupConfig( nhg + "-http" );
      for ( const std::string server : { "10.1.1.1", "2001:db8::1" } ) {
         host( nhg, server );
         node["host"].push_back( hostNameFromNhgAndServerIp( nhg, ProbeType::http, ip( server ) ) );
      }
      document.push_back( node );
   }
   cycle();
   EXPECT_EQ( hostFile(), YAML::Dump( document ) );
   model_->nhgHostListDelAll();
   cycle();
   EXPECT_EQ( hostFile(), YAML::Dump( YAML::Node() ) );
   EXPECT_THAT( masterFile(), testing::Not( testing::HasSubstr( "config.load-file" ) ) );
}

TEST_F( UpdateCycle, RemovalsPrecedeTheReloadAndAdditionsFollowIt ) {
   const auto working = sm_->workingCfg()->masterConfigPath();
   update( "a", "10.1.1.1", 1, false );
   update( "b", "10.1.1.2", 2, true );
   update( "c", "10.1.1.3", 3, false );
   update( "d", "10.1.1.4", 4, true );
   EXPECT_THAT(
         cycle(), ElementsAre( "-b-http http/b/10.1.1.2 192.0.2.1 2", "-d-http http/d/10.1.1.4 192.0.2.1 4",
                        "reload " + working, "+a-http http/a/10.1.1.1 192.0.2.1 1",
                        "+c-http http/c/10.1.1.3 192.0.2.1 3" ) );
   EXPECT_EQ( model_->updateCmdInfoCount(), 0u );
}

TEST_F( UpdateCycle, YieldingBeforeEveryItemChangesNothing ) {
   for ( const std::string nhg : { "", "a", "b" } ) {
      group( nhg );
      for ( const std::string server : { "10.1.1.1", "10.1.1.2", "10.1.1.3" } ) {
         host( nhg, server );
      }
   }
   const auto configure = [this] {
      for ( std::uint32_t n = 1; n <= 6; ++n ) {
         update( "a", fmt::format( "10.1.1.{}", n ), n, n % 2 );
      }
   };
   configure();
   auto inOneGo = cycle();
   const auto file = hostFile();
   configure();
   scheduler_->sliceBudgetIs( {} );
   takeCommands();
   beginCycle();
   EXPECT_GE( runSlices(), 9 + 6 );
   auto sliced = takeCommands();
   EXPECT_EQ( contentOf( sm_->workingCfg()->hostConfigPath() ), file );
   for ( auto * commands : { &inOneGo, &sliced } ) { // the pair differs
      EXPECT_THAT( ( *commands )[3], testing::StartsWith( "reload " ) );
      ( *commands )[3] = "reload";
   }
   EXPECT_EQ( sliced, inOneGo );
}

TEST_F( UpdateCycle, WritesTheTwoPairsInTurn ) {
   const auto first = sm_->getNetChasmConfig()->masterConfigPath();
   const auto second = sm_->workingCfg()->masterConfigPath();
   EXPECT_THAT( cycle(), ElementsAre( "reload " + second ) );
   EXPECT_THAT( cycle(), ElementsAre( "reload " + first ) );
   EXPECT_THAT( cycle(), ElementsAre( "reload " + second ) );
}

TEST_F( UpdateCycle, EndsOnlyWhenTheCommandThreadHasTakenEverythingAndLooksEveryFiveSeconds ) {
   probeConfig_->probeIntervalIs( Seconds{ 7.9 } );
   beginCycle();
   runSlices();
   for ( int i = 0; i < 3; ++i ) {
      clock_.advance( std::chrono::milliseconds( 4999 ) );
      EXPECT_EQ( runSlices(), 0 );
      clock_.advance( std::chrono::milliseconds( 1 ) );
      EXPECT_EQ( runSlices(), 1 );
      EXPECT_EQ( data_->configPhase(), ConfigPhase::netChasmInfoProcessing );
   }
   EXPECT_EQ( data_->probeInterval(), 0u );
   takeCommands();
   clock_.advance( std::chrono::seconds( 5 ) );
   runSlices();
   EXPECT_EQ( data_->configPhase(), ConfigPhase::backlogProcessing );
   EXPECT_EQ( data_->probeInterval(), 7u );
}

TEST_F( UpdateCycle, FreesMarksThatNothingUsesAndKeepsThoseInUseAgain ) {
   mark( "10.1.1.1", 1, 0 );
   mark( "10.1.1.2", 2, 1 );
   data_->delMarkPendingListIs( ip( "10.1.1.1" ) );
   data_->delMarkPendingListIs( ip( "10.1.1.2" ) );
   beginCycle();
   runSlices();
   EXPECT_TRUE( data_->serverMarkBitmap()->bit( 1 ) ) << "while commands are queued";
   takeCommands();
   clock_.advance( std::chrono::seconds( 5 ) );
   scheduler_->sliceBudgetIs( {} );
   EXPECT_EQ( runSlices(), 2 );
   EXPECT_FALSE( data_->serverMarkBitmap()->bit( 1 ) );
   EXPECT_FALSE( data_->serverIpToMarkHas( ip( "10.1.1.1" ) ) );
   EXPECT_FALSE( data_->markToServerIpHas( 1 ) );
   EXPECT_TRUE( data_->serverMarkBitmap()->bit( 2 ) );
   EXPECT_EQ( data_->markToServerIp( 2 ), ip( "10.1.1.2" ) );
   EXPECT_EQ( data_->delMarkPendingListCount(), 0u );
}

using UpdateCycleDeathTest = UpdateCycle;

TEST_F( UpdateCycleDeathTest, BrokenInvariantsStopTheProcess ) {
   EXPECT_DEATH( sm_->handleNcTask(), "commonData\\(\\)->configPhase\\(\\) == "
                                      "ConfigPhase::netChasmInfoProcessing_: ConfigPhase set is "
                                      "backlogProcessing" );
   EXPECT_DEATH(
         {
            model_->nhgHostListIs( { "ghost", ProbeType::tcp } );
            cycle();
         },
         "netchasmInfo\\(\\)->hostConfig\\(\\)->hostGrpCfgHas\\( hostGroupName \\)" );
   EXPECT_DEATH(
         {
            data_->delMarkPendingListIs( ip( "10.1.1.1" ) );
            cycle();
         },
         "serverMark: mark missing for server 10.1.1.1" );
   EXPECT_DEATH(
         {
            update( "b", "10.1.1.1", 1, false );
            update( "c", "10.1.1.1", 1, false );
            scheduler_->sliceBudgetIs( {} );
            beginCycle();
            while ( model_->updateCmdInfoCount() == 2 ) {
               scheduler_->runSlice();
            }
            update( "a", "10.1.1.1", 1, false ); // before the place that the pass has reached
            runSlices();
         },
         "netchasmInfo\\(\\)->updateCmdInfos\\(\\) == 0: dnsAndMark commands not generated for all the "
         "servers" );
   EXPECT_DEATH(
         {
            exhaustDescriptors();
            cycle();
         },
         "doesFileExist\\( fileName \\): host-config file /tmp/.* doesn't exist" );
   EXPECT_DEATH(
         {
            exhaustDescriptors();
            start();
         },
         "fd > 0: failed to create master-config, error Too many open files" );
}
