#pragma once

#include "netchasm/HMWorkQueue.h"
#include "netchasm/Schedule.h"
#include <array>
#include <atomic>

namespace netchasm {

/// One worker's part of the probe-delay histogram. Counted by the worker alone, without waiting; read by any
/// thread.
class ProbeDelays {
 public:
   static constexpr std::size_t buckets = HMWorkQueue::probeDelayBuckets;

   /// The element for a check that started this late: (i, i+1] seconds; in time or early counts as the first.
   static std::size_t bucket( Duration late ) {
      if ( late <= std::chrono::seconds{ 1 } )
         return 0;
      const auto seconds = ( late - Duration{ 1 } ) / std::chrono::seconds{ 1 };
      return seconds < static_cast< Duration::rep >( buckets ) ? static_cast< std::size_t >( seconds )
                                                               : buckets - 1;
   }

   void count( Duration late ) {
      auto & counter = counters_[bucket( late )];
      counter.store( counter.load( std::memory_order_relaxed ) + 1, std::memory_order_relaxed );
   }
   unsigned long at( std::size_t i ) const { return counters_[i].load( std::memory_order_relaxed ); }

 private:
   std::array< std::atomic< unsigned long >, buckets > counters_{};
};

} // namespace netchasm
