#pragma once

#include <cstddef>
#include <vector>

namespace netchasm {
class Engine;
}

/// How late checks start against their due time, counted by the second. Any thread, while the engine runs;
/// never holds up a check. Owned by the HMStateManager.
class HMWorkQueue {
 public:
   /// Number of elements of the histogram: seconds 1 to 120, then everything later.
   static constexpr std::size_t probeDelayBuckets = 121;

   explicit HMWorkQueue( netchasm::Engine & engine ) : engine_{ engine } {}
   HMWorkQueue( const HMWorkQueue & ) = delete;
   HMWorkQueue & operator=( const HMWorkQueue & ) = delete;

   /// Replaces `histogram` by `probeDelayBuckets` elements: element i counts the checks that were (i, i+1]
   /// seconds late (element 0 also those in time), the last one all later ones. Checks given up because their
   /// turn came too late count, retries do not.
   void getProbeDelay( std::vector< unsigned long > & histogram ) const;

   /// Sets all counts to zero. Checks that start meanwhile fall to either side.
   void clearProbeDelay();

 private:
   netchasm::Engine & engine_;
};
