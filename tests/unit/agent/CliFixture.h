#pragma once

#include "HealthMonitor/HmAgent.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "platform/state/Profile.h"
#include "tests/unit/agent/RecordingEngine.h"
#include "tests/unit/CliReader.h"

#include <filesystem>
#include <map>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

/// A running agent and an operator who asks it.
namespace hm::test {

using Json = nlohmann::ordered_json;

class CliFixture : public testing::Test {
 protected:
   CliFixture() {
      RecordingEngine::reset();
      entities_->profileIs( healthMonitorProfile() );
      agent_->contextIs( { loop_, entities_, scheduler_, &clock_, [this]( const char * name ) {
                             const auto found = environment_.find( name );
                             return found == environment_.end() ? nullptr : found->second.c_str();
                          } } );
      agent_->doInit();
      probeConfig_ = at<HmState::ProbeConfig>( "healthMonitor/config/probeConfig" );
      serverConfig_ = at<HmState::ServerConfig>( "healthMonitor/config/serverConfig" );
      sslStatus_ = at<Mgmt::Security::Ssl::Status>( "mgmt/security/ssl/status" );
      probeConfig_->monitoringEnabledIs( true );
   }
   ~CliFixture() override {
      for ( const auto & files : { infoSm().workingCfg(), infoSm().getNetChasmConfig() } ) {
         std::filesystem::remove( files->masterConfigPath() );
         std::filesystem::remove( files->hostConfigPath() );
      }
      agent_ = nullptr;
      RecordingEngine::reset();
   }

   template<class T>
   Ptr<T> at( const std::string & path ) {
      return dynamicPtrCast<T>( entities_->entity( path ) );
   }
   static IpGenAddr ip( const std::string & text ) { return *IpGenAddr::fromText( text ); }
   const NetCHASMInfoSm & infoSm() const { return *agent_->configSm()->netChasmInfoSm(); }

   void group( const NexthopGroupName & name, const std::string & httpUrl, const std::string & tcpUrl,
         std::initializer_list<const char *> servers ) {
      const auto probes = probeConfig_->nhgProbeConfigIs( name );
      probes->httpUrlIs( httpUrl );
      probes->tcpUrlIs( tcpUrl );
      const auto config = serverConfig_->nhgConfigIs( name );
      for ( const auto * server : servers ) {
         config->serverIpIs( ip( server ) );
      }
   }
   void groupDel( const NexthopGroupName & name ) {
      serverConfig_->nhgConfigDel( name );
      probeConfig_->nhgProbeConfigDel( name );
   }
   /// Until all configuration has reached the engine.
   void settle() {
      do {
         scheduler_->runUntilIdle();
         while ( !agent_->netChasmCmdQueue()->empty() ) {
            std::this_thread::yield();
         }
         clock_.advance( NetCHASMInfoSm::defaultTaskInterval );
      } while ( scheduler_->runSlice() );
   }
   /// One result of the engine, with its running totals.
   void result(
         const std::string & hostName, bool answered, std::uint32_t checks, std::uint16_t weight = 0 ) {
      settle();
      agent_->netChasmResultQueue()->push(
            new ProbeResult( hostName, answered ? HM_RESPONSE_ANSWERED : HM_RESPONSE_CONNECT_FAILURE, 200, {},
                  answered ? HM_REASON_NONE : HM_REASON_CONNECT_REFUSED, checks, checks - 6, 3, 2, 1, 12,
                  1'700'000'000'123, weight ) );
      loop_->runOnce();
      scheduler_->runUntilIdle();
   }

   Ptr<CommandRun> run( const std::string & command, CliFormat format = CliFormat::text ) {
      return agent_->commandRequestDirectory()->run(
            command, reader_.socket(), static_cast<unsigned>( format ) );
   }
   /// What `command` prints, `between` being called after each slice.
   std::string show(
         const std::string & command, CliFormat format = CliFormat::text,
         const std::function<void()> & between = [] {} ) {
      const auto shown = run( command, format );
      std::string all;
      for ( slices_ = 0; !shown->finished() && slices_ < 100'000; ++slices_ ) {
         shown->step();
         all += reader_.read();
         between();
      }
      EXPECT_TRUE( shown->finished() ) << command;
      for ( auto more = reader_.read(); !more.empty(); more = reader_.read() ) {
         all += more;
      }
      return all;
   }
   /// As short as can be: from now on a slice is over as soon as it asks.
   void slicesAreShort() {
      auto context = agent_->context();
      context.clock = &slowClock_;
      agent_->contextIs( context );
   }
   Json showJson( const std::string & command ) { return Json::parse( show( command, CliFormat::json ) ); }

   struct SlowClock : ManualClock {
      TimePoint now() const override {
         const_cast<SlowClock *>( this )->advance( Seconds{ 1 } );
         return ManualClock::now();
      }
   };

   ManualClock clock_;
   SlowClock slowClock_;
   const Ptr<EventLoop> loop_ = new EventLoop( clock_ );
   const Ptr<TaskScheduler> scheduler_ = new TaskScheduler( loop_, clock_ );
   const Ptr<EntityManager> entities_ = new EntityManager;
   std::map<std::string, std::string> environment_{ { "FLASHLOG_DISABLE", "1" } };
   Ptr<HmAgent> agent_ = new HmAgent( "HmTest" );
   Ptr<HmState::ProbeConfig> probeConfig_;
   Ptr<HmState::ServerConfig> serverConfig_;
   Ptr<Mgmt::Security::Ssl::Status> sslStatus_;
   CliReader reader_;
   int slices_ = 0; // of the last command
};

} // namespace hm::test
