#include "platform/Clock.h"

namespace platform {

const Clock & Clock::steady() {
   struct SteadyClock : Clock {
      TimePoint now() const override { return std::chrono::steady_clock::now(); }
   };
   static const SteadyClock clock;
   return clock;
}

} // namespace platform
