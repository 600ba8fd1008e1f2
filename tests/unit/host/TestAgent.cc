#include "platform/Agent.h"
#include "platform/state/HmState.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

/// The smallest agent that shows a host at work: it is clean when no servers are configured.
namespace {

using namespace platform;

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
      config_ = dynamicPtrCast<HmState::ServerConfig>(
            entityManager->entity( "healthMonitor/config/serverConfig" ) );
   }
   std::string doCheckAgentCleanState() const override {
      return config_->nhgConfigCount() == 0 ? "" : "nhgConfig[] is not empty";
   }

 private:
   Ptr<HmState::ServerConfig> config_;
};

} // namespace

extern "C" platform::Agent * hmAgentFactory( const char * name ) {
   return new TestAgent( name );
}
