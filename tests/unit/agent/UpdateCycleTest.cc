// From the model to the engine: the file pairs, the order of commands, slices, and the release of marks.
#include "HealthMonitor/HmQueueRecords.h"
#include "HealthMonitor/HmUtils.h"
#include "HealthMonitor/HmYamlHelper.h"
#include "tests/unit/agent/TestValues.h"

#include <sys/resource.h>

#include <gmock/gmock.h>

using namespace hm;
using namespace hm::test;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class UpdateCycle : public testing::Test {
 protected:
   UpdateCycle() {
      model_->hostConfigIs();
      data_->serverMarkBitmapIs( "marks", 64, false )->setBit( 0 );
      probeConfig_->maxNumberOfThreadsIs( 32 );
      start();
   }
   ~UpdateCycle() override { removeFiles( *sm_ ); }
   void start() {
      sm_ = new NetCHASMInfoSm( data_, model_, task_, commands_, probeConfig_ );
      sm_->notificationsEnabledIs( true );
   }

   /// A group of the model with these servers, checked over HTTP.
   Ptr<HostGrpCfg> group( const NexthopGroupName & nhg, const std::vector<std::string> & servers = {} ) {
      const auto settings = model_->hostConfigIs()->hostGrpCfgIs( nhg + "-http" );
      settings->ttlIs( 5000 );
      settings->timeoutIs( 10000 );
      settings->checkRetriesIs( 3 );
      settings->checkTypeIs( "http" );
      settings->dnsTypeIs( "static" );
      const auto hosts = model_->nhgHostListIs( { nhg, ProbeType::http } );
      for ( const auto & server : servers ) {
         hosts->hostListIs( hostNameFromNhgAndServerIp( nhg, ProbeType::http, ip( server ) ) );
      }
      return settings;
   }
   void update( const NexthopGroupName & nhg, const std::string & server, std::uint32_t mark, bool remove ) {
      const auto info = model_->updateCmdInfoIs( { nhg, ProbeType::http, ip( server ), ip( "192.0.2.1" ) } );
      info->markIs( mark );
      info->removeIs( remove );
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
      while ( const auto command = commands_->pop() ) {
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
   /// A whole cycle, the command thread taking what is queued; what it took.
   std::vector<std::string> cycle() {
      takeCommands();
      beginCycle();
      runSlices();
      const auto taken = takeCommands();
      clock_.advance( NetCHASMInfoSm::defaultTaskInterval );
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
   EXPECT_TRUE( takeCommands().empty() );
}

TEST_F( UpdateCycle, WritesWhatIsSetAndLeavesOutWhatIsEmpty ) {
   const auto full = group( "full", { "10.1.1.1", "10.1.1.2" } );
   full->sourceAddressIs( "2001:db8::1" );
   full->checkRetryDelayIs( 2000 );
   full->checkInfoIs( "/" );
   full->checkPortIs( "8080" );
   full->dualStackModeIs( "ipv6-only" );
   full->caFilePathIs( "/etc/ca.pem" );
   full->certFilePathIs( "/etc/cert.pem" );
   group( "lonely" );
   data_->caFilePathIs( "/etc/global-ca.pem" );
   data_->certFilePathIs( "/etc/global-cert.pem" );
   for ( const auto & pair : { sm_->workingCfg(), sm_->getNetChasmConfig(), sm_->workingCfg() } ) {
      EXPECT_THAT( cycle(), ElementsAre( "reload " + pair->masterConfigPath() ) );
   }
   EXPECT_EQ( hostFile(), R"(- name: full-http
  ttl: 5000
  source-address: 2001:db8::1
  timeout: 10000
  check-retry-delay: 2000
  check-retries: 3
  check-type: http
  dns-type: static
  check-info: /
  check-port: 8080
  dual-stack-mode: ipv6-only
  ca-file: /etc/ca.pem
  cert-file: /etc/cert.pem
  host:
    - http/full/10.1.1.1
    - http/full/10.1.1.2
- name: lonely-http
  ttl: 5000
  timeout: 10000
  check-retry-delay: 0
  check-retries: 3
  check-type: http
  dns-type: static
  check-info: "")" );
   EXPECT_EQ( masterFile(), "threads.max: 32\nconnectiontimeout: 3000\nconfig.load-file: " +
                                  sm_->getNetChasmConfig()->hostConfigPath() +
                                  "\ndb.type: notifier\nlog.type: registered\nsocket.path: /tmp/netchasm"
                                  "\nca-file: /etc/global-ca.pem\ncert-file: /etc/global-cert.pem" );
}

// Names come from configuration, so anything may stand in them.
TEST_F( UpdateCycle, NoNameLeavesItsPlaceOrHidesTheFile ) {
   const std::string names[] = { "a\n- name: b", "- name: ", "\"quoted\" 'too'", "# comment", "a: b", "{a}",
         "*alias", "&anchor", "!tag", "%dir", "@at", "| ", "> ", "tab\there", " blank ", "~", "null", "true",
         "\x01\x7f", "\\", "caf\xc3\xa9", "\xe2\x80\xa8", std::string( 4000, 'x' ), "../../etc", "---",
         "..." };
   for ( const auto & name : names ) {
      group( name, { "10.1.1.1" } )->checkInfoIs( "/x?y=1&z=[ü]: #" + name );
      cycle();
      EXPECT_THAT( masterFile(), HasSubstr( "config.load-file: " ) ) << name;
      const auto groups = YAML::Load( hostFile() );
      ASSERT_EQ( groups.size(), 1u ) << name;
      EXPECT_EQ( groups[0]["name"].as<std::string>(), name + "-http" );
      EXPECT_EQ( groups[0]["check-info"].as<std::string>(), "/x?y=1&z=[ü]: #" + name );
      EXPECT_EQ( groups[0]["host"][0].as<std::string>(), "http/" + name + "/10.1.1.1" );
      model_->nhgHostListDelAll();
      model_->hostConfigIs()->hostGrpCfgDelAll();
   }
   cycle();
   EXPECT_EQ( hostFile(), YAML::Dump( YAML::Node() ) );
   EXPECT_THAT( masterFile(), testing::Not( HasSubstr( "config.load-file" ) ) );
}

TEST_F( UpdateCycle, YieldingBeforeEveryItemChangesNothing ) {
   for ( const std::string nhg : { "", "a", "b" } ) {
      group( nhg, { "10.1.1.1", "10.1.1.2", "10.1.1.3" } );
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

TEST_F( UpdateCycle, EndsAndFreesMarksOnlyWhenTheCommandThreadHasTakenEverythingAndLooksEveryFiveSeconds ) {
   probeConfig_->probeIntervalIs( Seconds{ 7.9 } );
   data_->serverIpToMarkIs( ip( "10.1.1.1" ) )->markIs( 1 );
   data_->markToServerIpIs( 1, ip( "10.1.1.1" ) );
   data_->serverMarkBitmap()->setBit( 1 );
   data_->delMarkPendingListIs( ip( "10.1.1.1" ) );
   beginCycle();
   runSlices();
   for ( int i = 0; i < 3; ++i ) {
      clock_.advance( std::chrono::milliseconds( 4999 ) );
      EXPECT_EQ( runSlices(), 0 );
      clock_.advance( std::chrono::milliseconds( 1 ) );
      EXPECT_EQ( runSlices(), 1 );
      EXPECT_EQ( data_->configPhase(), ConfigPhase::netChasmInfoProcessing );
      EXPECT_TRUE( data_->serverMarkBitmap()->bit( 1 ) );
   }
   EXPECT_EQ( data_->probeInterval(), 0u );
   takeCommands();
   clock_.advance( std::chrono::seconds( 5 ) );
   runSlices();
   EXPECT_EQ( data_->configPhase(), ConfigPhase::backlogProcessing );
   EXPECT_EQ( data_->probeInterval(), 7u );
   EXPECT_FALSE( data_->serverMarkBitmap()->bit( 1 ) );
}

using UpdateCycleDeathTest = UpdateCycle;

TEST_F( UpdateCycleDeathTest, BrokenInvariantsStopTheProcess ) {
   const auto exhaustDescriptors = [] {
      const rlimit none{ 3, 3 };
      setrlimit( RLIMIT_NOFILE, &none );
   };
   expectDeaths( {
         { "commonData()->configPhase() == ConfigPhase::netChasmInfoProcessing_: ConfigPhase set is "
           "backlogProcessing",
               [&] { sm_->handleNcTask(); } },
         { "netchasmInfo()->hostConfig()->hostGrpCfgHas( hostGroupName )",
               [&] {
                  model_->nhgHostListIs( { "ghost", ProbeType::tcp } );
                  cycle();
               } },
         { "serverMark: mark missing for server 10.1.1.1",
               [&] {
                  data_->delMarkPendingListIs( ip( "10.1.1.1" ) );
                  cycle();
               } },
         { "netchasmInfo()->updateCmdInfos() == 0: dnsAndMark commands not generated for all the servers",
               [&] {
                  update( "b", "10.1.1.1", 1, false );
                  update( "c", "10.1.1.1", 1, false );
                  scheduler_->sliceBudgetIs( {} );
                  beginCycle();
                  while ( model_->updateCmdInfoCount() == 2 ) {
                     scheduler_->runSlice();
                  }
                  update( "a", "10.1.1.1", 1, false ); // before the place that the pass has reached
                  runSlices();
               } },
         { "doesFileExist( fileName ): host-config file /tmp/",
               [&] {
                  exhaustDescriptors();
                  cycle();
               } },
         { "fd > 0: failed to create master-config, error Too many open files",
               [&] {
                  exhaustDescriptors();
                  start();
               } },
   } );
}
