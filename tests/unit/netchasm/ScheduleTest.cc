#include "netchasm/Schedule.h"
#include "netchasm/ProbeDelays.h"
#include "netchasm/TimerHeap.h"
#include <algorithm>
#include <gtest/gtest.h>
#include <random>

using namespace netchasm;
using namespace std::chrono_literals;

namespace {
const TimePoint zero{ 1000s };
}

TEST( Schedule, NewHostsSpreadOverTheirFirstSecondAndThenOverTheInterval ) {
   for ( const Duration interval : { Duration{ 10ms }, Duration{ 700ms }, Duration{ 5s }, Duration{ 1h } } ) {
      const Duration soon = std::min< Duration >( interval, 1s );
      std::vector< int > firsts( 10 ), phases( 10 );
      for ( std::uint64_t n = 0; n < 1000; ++n ) {
         const FirstDue due = firstDue( zero, spreadFraction( n ), interval );
         ASSERT_GE( due.first, zero );
         ASSERT_LT( due.first, zero + soon );
         ASSERT_GE( due.phase - due.first, interval / 4 );
         ASSERT_LE( due.phase - due.first, interval + interval / 4 );
         ++firsts[static_cast< std::size_t >( ( due.first - zero ) * 10 / soon )];
         ++phases[static_cast< std::size_t >( ( ( due.phase - zero ) % interval ) * 10 / interval )];
      }
      EXPECT_LE( *std::max_element( phases.begin(), phases.end() ), 103 );
      EXPECT_GE( *std::min_element( phases.begin(), phases.end() ), 97 );
      EXPECT_LE( *std::max_element( firsts.begin(), firsts.end() ), 140 );
   }
}

TEST( Schedule, KeepsThePhaseAndSkipsWhatWasMissed ) {
   EXPECT_EQ( nextDue( zero, zero - 1ms, 5s ), zero );
   EXPECT_EQ( nextDue( zero, zero, 5s ), zero + 5s );
   EXPECT_EQ( nextDue( zero, zero + 4999ms, 5s ), zero + 5s );
   EXPECT_EQ( nextDue( zero, zero + 12s, 5s ), zero + 15s );
}

TEST( Schedule, AShorterIntervalBringsDistantChecksNearerButNotTogether ) {
   EXPECT_EQ( dueAfterIntervalChange( zero + 3s, zero, 5s ), zero + 3s );
   EXPECT_EQ( dueAfterIntervalChange( zero + 58s, zero, 5s ), zero + 3s );
   EXPECT_EQ( dueAfterIntervalChange( zero + 59s, zero, 5s ), zero + 4s );
}

TEST( Schedule, CountsDelaysBySecondsOpenBelowAndClosedAbove ) {
   const std::pair< Duration, std::size_t > rows[] = { { -1s, 0 }, { 1s, 0 }, { 1s + 1ns, 1 }, { 2s, 1 },
         { 120s, 119 }, { 120s + 1ns, 120 }, { 24h, 120 } };
   for ( const auto & [delay, bucket] : rows )
      EXPECT_EQ( ProbeDelays::bucket( delay ), bucket ) << delay.count();
}

TEST( TimerHeap, AgreesWithASortedListUnderRandomUse ) {
   struct Item {
      TimePoint when;
      std::size_t timerIndex = TimerHeap< Item >::npos;
   };
   std::mt19937 random{ 42 };
   std::vector< Item > items( 300 );
   TimerHeap< Item > heap;
   for ( int round = 0; round < 20'000; ++round ) {
      Item & item = items[random() % items.size()];
      if ( random() % 3 == 0 ) {
         heap.cancel( item );
      } else {
         item.when = zero + std::chrono::milliseconds{ random() % 1000 };
         heap.schedule( item, item.when );
      }
      TimePoint earliest = TimePoint::max();
      std::size_t count = 0;
      for ( const Item & each : items ) {
         if ( each.timerIndex != TimerHeap< Item >::npos ) {
            ++count;
            earliest = std::min( earliest, each.when );
         }
      }
      ASSERT_EQ( heap.size(), count );
      ASSERT_TRUE( heap.empty() || ( heap.earliest() == earliest && heap.front().when == earliest ) );
   }
}
