#include "platform/Task.h"

#include <gmock/gmock.h>

using namespace platform;
using namespace std::chrono_literals;

namespace {

class Tasks : public testing::Test {
 protected:
   ManualClock clock;
   Ptr<EventLoop> loop = new EventLoop( clock );
   Ptr<TaskScheduler> scheduler = new TaskScheduler( loop, clock );
   std::string log;

   template<class T = Task>
   Ptr<T> task( const std::string & name, unsigned priority = 3 ) {
      Ptr<T> made = new T( scheduler, TaskPriority{ priority }, name );
      made->runHandlerIs( [this, name] { log += name; } );
      return made;
   }
   /// What ran in this time.
   std::string ranAfter( std::chrono::seconds time ) {
      log.clear();
      clock.advance( time );
      scheduler->runUntilIdle();
      return log;
   }
};

} // namespace

TEST_F( Tasks, RunByPriorityThenInTurnAndOnceForManyRequests ) {
   auto a = task( "a" ), b = task( "b" ), urgent = task( "u", 1 );
   a->scheduleTask();
   b->scheduleTask();
   a->scheduleTask();
   urgent->scheduleTask();
   EXPECT_TRUE( a->taskScheduled() );
   EXPECT_EQ( ranAfter( 0s ), "uab" );
   EXPECT_FALSE( a->taskScheduled() );
}

TEST_F( Tasks, ASliceEndsWithItsBudgetButAlwaysMovesOn ) {
   auto worker = task( "w" );
   int items = 10, slices = 0;
   worker->runHandlerIs( [&] {
      ++slices;
      while ( items > 0 ) {
         if ( worker->taskShouldYield() ) {
            worker->scheduleTask();
            return;
         }
         --items;
         clock.advance( 1ms );
      }
   } );
   worker->scheduleTask();
   scheduler->runUntilIdle();
   EXPECT_EQ( items, 0 );
   EXPECT_EQ( slices, 3 ); // 4 ms a slice, and the first question is free
   items = 5;
   slices = 0;
   scheduler->sliceBudgetIs( 0ms );
   worker->scheduleTask();
   scheduler->runUntilIdle();
   EXPECT_EQ( slices, 5 );
   EXPECT_TRUE( worker->taskShouldYield() ); // outside a slice
}

TEST_F( Tasks, DelaysHoldTheEarlierAndGiveWayToAPlainRequest ) {
   auto timer = task<TimerTask>( "t" );
   timer->scheduleTaskDelay( Seconds{ 5 } );
   timer->scheduleTaskDelay( Seconds{ 2 } );
   timer->scheduleTaskDelay( Seconds{ 9 } );
   EXPECT_EQ( ranAfter( 1s ), "" );
   EXPECT_EQ( ranAfter( 1s ), "t" );
   EXPECT_EQ( ranAfter( 20s ), "" ); // the other two were merged into the first
   timer->scheduleTaskDelay( Seconds{ 5 } );
   timer->scheduleTask();
   EXPECT_EQ( ranAfter( 0s ), "t" );
   EXPECT_EQ( ranAfter( 20s ), "" );
}

TEST_F( Tasks, ATaskThatGoesAwayIsForgotten ) {
   auto gone = task( "g" );
   auto delayed = task<TimerTask>( "d" );
   auto self = task( "s" );
   self->runHandlerIs( [&] { self = nullptr; } );
   gone->scheduleTask();
   delayed->scheduleTaskDelay( Seconds{ 1 } );
   self->scheduleTask();
   gone = nullptr;
   delayed = nullptr;
   EXPECT_EQ( ranAfter( 2s ), "" );
   EXPECT_EQ( self, nullptr );
}

TEST_F( Tasks, TheLoopServesOthersBetweenSlices ) {
   Ptr<FifoEvent> event = new FifoEvent( loop );
   auto busy = task( "b" );
   busy->runHandlerIs( [&] {
      log += "b";
      event->signal();
      if ( log.size() < 6 ) {
         busy->scheduleTask();
      }
   } );
   event->watch( [this] { log += "e"; } );
   log.clear();
   busy->scheduleTask();
   for ( int turn = 0; turn < 20; ++turn ) {
      loop->runOnce();
   }
   EXPECT_EQ( log, "bebebebe" );
}
