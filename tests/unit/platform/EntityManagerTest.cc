#include "platform/EntityManager.h"

#include "platform/state/HmState.h"
#include "platform/state/Profile.h"

#include <gmock/gmock.h>

using namespace platform;

namespace {

class StateTree : public testing::Test {
 protected:
   StateTree() {
      manager->profileIs( healthMonitorProfile() );
      auto config =
            dynamicPtrCast<HmState::ProbeConfig>( manager->entity( "healthMonitor/config/probeConfig" ) );
      config->nhgProbeConfigIs( "a/b" );
   }
   Ptr<EntityManager> manager = new EntityManager;
};

} // namespace

TEST_F( StateTree, OnlyTheStatusIsTheAgents ) {
   EXPECT_TRUE( manager->agentWrites( "healthMonitor/status/serverStatus/nhgProbeStatus/web" ) );
   EXPECT_FALSE( manager->agentWrites( "healthMonitor/status/serverStatusX" ) );
   EXPECT_FALSE( manager->agentWrites( "healthMonitor/config/probeConfig" ) );
}

TEST_F( StateTree, MountsKnownProfilesOnly ) {
   std::vector<MountStatus> outcomes;
   for ( const char * name : { "HealthMonitor", "Other" } ) {
      Ptr<MountGroup> group =
            new MountGroup( manager, [&]( MountStatus status ) { outcomes.push_back( status ); } );
      group->mountProfile( name );
      group->close( false, "", Seconds{ 0 } );
      group->close( false, "", Seconds{ 0 } );
   }
   EXPECT_THAT( outcomes, testing::ElementsAre( MountStatus::success, MountStatus::unknownProfile ) );
}
