// The engine's log level follows the levels of the facility that its entries are written under.
#include "HealthMonitor/HmNetCHASMTrace.h"
#include "HealthMonitor/HmQueueRecords.h"

#include <gmock/gmock.h>

using namespace hm;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class TraceBridge : public testing::Test {
 protected:
   ~TraceBridge() override { facility_->levelsIs( TraceFacility::defaultLevels ); }

   void levels( const char * text ) { facility_->levelsIs( traceLevelsFromText( text ).value() ); }
   void start() {
      bridge_ = netChasmTraceReactorSmFactory( commands_ );
      bridge_->notificationsEnabledIs( true );
   }
   /// The levels that the engine was told since the last call.
   std::vector<int> told() {
      std::vector<int> told;
      while ( const auto command = dynamicPtrCast<CmdSetTrace>( commands_->pop() ) ) {
         told.push_back( command->traceLevel );
      }
      return told;
   }

   const Ptr<TraceFacility> facility_ = TraceFacility::find( "NetCHASM" );
   const Ptr<EventMpmcQueue> commands_ =
         new EventMpmcQueue( 0, new FifoEvent( new EventLoop ), nullptr, true );
   Ptr<NetCHASMTraceReactorSm> bridge_;
};

} // namespace

TEST_F( TraceBridge, TellsTheHighestLevelWhenItChanges ) {
   const struct {
      const char * levels;
      std::vector<int> told;
   } rows[] = {
         { "5,7,3", {} },
         { "5", { 5 } },
         { "5,9", { 9 } },
         { "9", {} },
         { "none", { 2 } },
         { "0-2", {} },
         { "3-9", { 3, 4, 5, 6, 7, 8, 9 } },
   };
   levels( "5,7" );
   start();
   EXPECT_THAT( told(), ElementsAre( 2, 5, 7 ) );
   for ( const auto & row : rows ) {
      levels( row.levels );
      EXPECT_EQ( told(), row.told ) << row.levels;
   }
   facility_->levelsIs( static_cast<std::uint16_t>( facility_->levels() | 1 << 10 ) );
   EXPECT_THAT( told(), IsEmpty() );
   bridge_->notificationsEnabledIs( false );
   levels( "none" );
   EXPECT_THAT( told(), IsEmpty() );
}

TEST_F( TraceBridge, CountsALevelOnceAndKnowsMinusTwoToNine ) {
   levels( "none" );
   start();
   told();
   bridge_->setTraceLevel( 5, true );
   bridge_->setTraceLevel( 5, true );
   bridge_->setTraceLevel( -2, true );
   EXPECT_THAT( told(), ElementsAre( 5 ) );
   bridge_->setTraceLevel( 2, false );
   bridge_->setTraceLevel( 5, false );
   EXPECT_THAT( told(), ElementsAre( -2 ) );
   bridge_->setTraceLevel( -2, false );
   EXPECT_THAT( told(), ElementsAre( 2 ) ); // the floor
   for ( const int level : { 10, 40, -3, -100 } ) {
      bridge_->setTraceLevel( level, true );
   }
   EXPECT_EQ( bridge_->traceBitMap(), 0 );
   EXPECT_THAT( told(), IsEmpty() );
}
