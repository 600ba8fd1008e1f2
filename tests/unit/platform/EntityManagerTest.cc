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

TEST_F( StateTree, ResolvesEntitiesAttributesAndKeys ) {
   StatePlace place;
   ASSERT_EQ( manager->resolve( "healthMonitor/config/probeConfig", place ), std::nullopt );
   EXPECT_EQ( place.attribute, nullptr );
   ASSERT_EQ(
         manager->resolve( "healthMonitor/config/probeConfig/nhgProbeConfig/a%2Fb", place ), std::nullopt );
   EXPECT_EQ( place.entity->path(), "healthMonitor/config/probeConfig/nhgProbeConfig/a%2Fb" );
   ASSERT_EQ( manager->resolve( "healthMonitor/config/probeConfig/responseCodeRule", place ), std::nullopt );
   EXPECT_EQ( place.entity->type().name(), "ResponseRule" );
   ASSERT_EQ(
         manager->resolve( "healthMonitor/config/probeConfig/nhgProbeConfig/new", place ), std::nullopt );
   EXPECT_EQ( place.key, "new" );
   ASSERT_EQ( manager->resolve( "healthMonitor/config/probeConfig/nhgProbeConfig/a%2Fb/timeout", place ),
         std::nullopt );
   EXPECT_EQ( place.attribute->name(), "timeout" );
}

TEST_F( StateTree, SaysWhichComponentIsUnknown ) {
   const std::pair<const char *, const char *> cases[] = {
         { "", "no such path: " },
         { "healthMonitor/config/probeConfigX", "no such path: healthMonitor/config/probeConfigX" },
         { "ip/status/nope", "ip/status has no attribute \"nope\"" },
         { "healthMonitor/config/probeConfig/pingDisabledVip/10.0.0",
               "healthMonitor/config/probeConfig/pingDisabledVip: key \"10.0.0\": expected an IPv4 or IPv6 "
               "address" },
         { "healthMonitor/config/probeConfig/globalUrl/x",
               "nothing stands below healthMonitor/config/probeConfig/globalUrl" },
         { "healthMonitor/config/probeConfig/nhgProbeConfig/none/timeout",
               "nothing stands below healthMonitor/config/probeConfig/nhgProbeConfig/none" },
         { "healthMonitor/config/probeConfig/nhgProbeConfig/%zz",
               "healthMonitor/config/probeConfig/nhgProbeConfig: key \"%zz\": is not escaped well" },
   };
   for ( const auto & [path, message] : cases ) {
      StatePlace place;
      EXPECT_EQ( manager->resolve( path, place ), message );
      EXPECT_EQ( place.entity, nullptr );
   }
}

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
