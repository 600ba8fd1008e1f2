#include "platform/Agent.h"
#include "platform/Reactor.h"
#include "platform/state/HmState.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

/// The smallest agent that shows a host at work: it publishes every configured server as up.
namespace {

using namespace platform;

class Publisher final : public Reactor {
 public:
   Publisher( Ptr<HmState::ServerConfig> config, Ptr<HmState::ServerStatus> status )
         : config_( std::move( config ) ),
           status_( std::move( status ) ) {
      watch<HmState::ServerConfig, NexthopGroupName>( config_, HmState::ServerConfig::nhgConfigAttr(),
            [this]( const NexthopGroupName & name ) { handleNhgConfig( name ); } );
      notificationsEnabledIs( true );
      for ( const auto & group : config_->nhgConfigItems() ) {
         handleNhgConfig( group.key );
      }
   }
   const Ptr<HmState::ServerStatus> & status() const { return status_; }

 private:
   void handleNhgConfig( const NexthopGroupName & name ) {
      const auto config = config_->nhgConfig( name );
      if ( !config ) {
         status_->nhgProbeStatusDel( name );
         return;
      }
      const auto group = status_->nhgProbeStatusIs( name );
      for ( const auto & server : config->serverIpItems() ) {
         group->serverProbeStatusIs( server.key )->operStateIs( HmState::ServerOperState::up );
      }
   }

   const Ptr<HmState::ServerConfig> config_;
   const Ptr<HmState::ServerStatus> status_;
};

class TestAgent final : public Agent {
 public:
   explicit TestAgent( const char * name ) : Agent( name ) {}
   // Makes the file that HM_TEST_GATE names and waits until somebody takes it away.
   ~TestAgent() override {
      const auto * gate = std::getenv( "HM_TEST_GATE" );
      if ( gate && std::ofstream( gate ).good() ) {
         while ( std::filesystem::exists( gate ) ) {
            std::this_thread::sleep_for( std::chrono::milliseconds( 2 ) );
         }
      }
   }

   void doInit() override {
      const auto group = mountGroup();
      group->mountProfile( "HealthMonitor" );
      group->close( false, "", Seconds{ 0 } );
   }
   void doMountsComplete( MountStatus, Ptr<EntityManager> entityManager ) override {
      publisher_ = new Publisher( dynamicPtrCast<HmState::ServerConfig>(
                                        entityManager->entity( "healthMonitor/config/serverConfig" ) ),
            dynamicPtrCast<HmState::ServerStatus>(
                  entityManager->entity( "healthMonitor/status/serverStatus" ) ) );
   }
   std::string doCheckAgentCleanState() const override {
      const auto count = publisher_->status()->nhgProbeStatusCount();
      return count == 0 ? "" : fmt::format( "nhgProbeStatus[] is not empty: {}", count );
   }

 private:
   Ptr<Publisher> publisher_;
};

} // namespace

extern "C" platform::Agent * hmAgentFactory( const char * name ) {
   return new TestAgent( name );
}
