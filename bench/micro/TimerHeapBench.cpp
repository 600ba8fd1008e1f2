// A worker's timers, as a check uses them: moved from the due time to the connect timeout, from there to the
// check timeout, and on to the next due time; against a std::set, the plain structure with cheap cancelling.
#include "netchasm/TimerHeap.h"

#include <benchmark/benchmark.h>
#include <memory>
#include <set>
#include <vector>

namespace {

using namespace std::chrono_literals;
using netchasm::TimePoint;

struct Item {
   std::size_t timerIndex = netchasm::TimerHeap< Item >::npos;
   TimePoint when;
};

constexpr auto interval = 5s;

void timerHeap( benchmark::State & state ) {
   std::vector< Item > items( static_cast< std::size_t >( state.range( 0 ) ) );
   netchasm::TimerHeap< Item > timers;
   const TimePoint begin{};
   for ( std::size_t i = 0; i < items.size(); ++i ) {
      timers.schedule( items[i], begin + interval * i / items.size() );
   }
   for ( auto _ : state ) {
      const TimePoint due = timers.earliest();
      Item & item = timers.front();
      timers.schedule( item, due + 3s );
      timers.schedule( item, due + 10s );
      timers.schedule( item, due + interval );
   }
}
BENCHMARK( timerHeap )->Arg( 2048 )->Arg( 32768 );

void timerSet( benchmark::State & state ) {
   std::vector< Item > items( static_cast< std::size_t >( state.range( 0 ) ) );
   std::set< std::pair< TimePoint, Item * > > timers;
   const auto schedule = [&]( Item & item, TimePoint when ) {
      timers.erase( { item.when, &item } );
      item.when = when;
      timers.insert( { when, &item } );
   };
   const TimePoint begin{};
   for ( std::size_t i = 0; i < items.size(); ++i ) {
      schedule( items[i], begin + interval * i / items.size() );
   }
   for ( auto _ : state ) {
      const auto [due, item] = *timers.begin();
      schedule( *item, due + 3s );
      schedule( *item, due + 10s );
      schedule( *item, due + interval );
   }
}
BENCHMARK( timerSet )->Arg( 2048 )->Arg( 32768 );

} // namespace
