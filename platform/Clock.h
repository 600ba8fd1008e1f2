#pragma once

#include <chrono>

namespace platform {

/// Floating-point seconds: the unit of every interval in the configuration.
using Seconds = std::chrono::duration<double>;

/// Monotonic time, injected wherever a schedule or a budget needs it so that tests move time by hand.
class Clock {
 public:
   using TimePoint = std::chrono::steady_clock::time_point;
   using Duration = std::chrono::steady_clock::duration;

   virtual ~Clock() = default;
   virtual TimePoint now() const = 0;

   static const Clock & steady(); // the machine's own
};

/// Stands still until told otherwise.
class ManualClock : public Clock {
 public:
   TimePoint now() const override { return now_; }
   void advance( Seconds by ) { now_ += std::chrono::round<Duration>( by ); }

 private:
   TimePoint now_{ std::chrono::seconds{ 1000 } };
};

} // namespace platform
