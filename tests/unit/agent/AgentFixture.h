#pragma once

#include "HealthMonitor/HmAgent.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "platform/state/Profile.h"
#include "tests/unit/agent/RecordingEngine.h"
#include "tests/unit/agent/TestValues.h"
#include "tests/unit/CliReader.h"

#include <map>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace hm::test {

using Json = nlohmann::ordered_json;

/// An agent host in small: entities, a main loop turned by the test, a clock moved by hand.
class AgentFixture : public testing::Test {
 protected:
   AgentFixture() {
      RecordingEngine::reset();
      probeConfig_->monitoringEnabledIs( true );
   }
   ~AgentFixture() override {
      stop();
      RecordingEngine::reset();
   }

   static Ptr<EntityManager> mounted() {
      const Ptr<EntityManager> entities = new EntityManager;
      entities->profileIs( healthMonitorProfile() );
      return entities;
   }
   template<class T>
   Ptr<T> at( const std::string & path ) {
      return dynamicPtrCast<T>( entities_->entity( path ) );
   }

   void make() {
      agent_ = new HmAgent( "HmTest" );
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
         removeFiles( infoSm() );
      }
      agent_ = nullptr;
   }
   const NetCHASMInfoSm & infoSm() const { return *agent_->configSm()->netChasmInfoSm(); }

   void group( const NexthopGroupName & name, const std::string & httpUrl, const std::string & tcpUrl,
         const std::vector<std::string> & servers ) {
      const auto probes = probeConfig_->nhgProbeConfigIs( name );
      probes->httpUrlIs( httpUrl );
      probes->tcpUrlIs( tcpUrl );
      const auto config = serverConfig_->nhgConfigIs( name );
      for ( const auto & server : servers ) {
         config->serverIpIs( ip( server ) );
      }
   }
   void groupDel( const NexthopGroupName & name ) {
      serverConfig_->nhgConfigDel( name );
      probeConfig_->nhgProbeConfigDel( name );
   }
   Ptr<HmState::ProbeStatus> published( const NexthopGroupName & name, const char * server ) {
      return status_->nhgProbeStatus( name )->serverProbeStatus( ip( server ) );
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
   void takeResults() {
      loop_->runOnce();
      scheduler_->runUntilIdle();
   }

   ManualClock clock_;
   const Ptr<EventLoop> loop_ = new EventLoop( clock_ );
   const Ptr<TaskScheduler> scheduler_ = new TaskScheduler( loop_, clock_ );
   const Ptr<EntityManager> entities_ = mounted();
   std::map<std::string, std::string> environment_{ { "FLASHLOG_DISABLE", "1" } };
   const Ptr<HmState::ProbeConfig> probeConfig_ =
         at<HmState::ProbeConfig>( "healthMonitor/config/probeConfig" );
   const Ptr<HmState::ServerConfig> serverConfig_ =
         at<HmState::ServerConfig>( "healthMonitor/config/serverConfig" );
   const Ptr<HmState::ServerStatus> status_ =
         at<HmState::ServerStatus>( "healthMonitor/status/serverStatus" );
   Ptr<HmAgent> agent_;
};

/// A running agent and an operator who asks it.
class CliFixture : public AgentFixture {
 protected:
   CliFixture() { start(); }

   /// One result of the engine, with its running totals.
   void result(
         const std::string & hostName, bool answered, std::uint32_t checks, std::uint16_t weight = 0 ) {
      settle();
      agent_->netChasmResultQueue()->push(
            new ProbeResult( hostName, answered ? HM_RESPONSE_ANSWERED : HM_RESPONSE_CONNECT_FAILURE, 200, {},
                  answered ? HM_REASON_NONE : HM_REASON_CONNECT_REFUSED, checks, checks - 6, 3, 2, 1, 12,
                  1'700'000'000'123, weight ) );
      takeResults();
   }

   Ptr<CommandRun> run( const std::string & command, CliFormat format = CliFormat::text ) {
      return agent_->commandRequestDirectory()->run(
            command, reader_.socket(), static_cast<unsigned>( format ) );
   }
   /// What `command` prints, `between` being called with its number after each slice.
   std::string show(
         const std::string & command, CliFormat format = CliFormat::text,
         const std::function<void( int )> & between = []( int ) {} ) {
      const auto shown = run( command, format );
      std::string all;
      for ( slices_ = 0; !shown->finished() && slices_ < 100'000; ) {
         shown->step();
         all += reader_.read();
         between( ++slices_ );
      }
      EXPECT_TRUE( shown->finished() ) << command;
      for ( auto more = reader_.read(); !more.empty(); more = reader_.read() ) {
         all += more;
      }
      return all;
   }
   Json showJson( const std::string & command ) { return Json::parse( show( command, CliFormat::json ) ); }
   /// As short as can be: from now on a slice is over as soon as it asks.
   void slicesAreShort() {
      auto context = agent_->context();
      context.clock = &slowClock_;
      agent_->contextIs( context );
   }

   struct SlowClock : ManualClock {
      TimePoint now() const override {
         const_cast<SlowClock *>( this )->advance( Seconds{ 1 } );
         return ManualClock::now();
      }
   };
   SlowClock slowClock_;
   CliReader reader_;
   int slices_ = 0; // of the last command
};

} // namespace hm::test
