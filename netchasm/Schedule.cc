#include "netchasm/Schedule.h"
#include <algorithm>
#include <cmath>

namespace netchasm {

namespace {
Duration scaled( Duration duration, double fraction ) {
   return Duration{ static_cast< Duration::rep >( static_cast< double >( duration.count() ) * fraction ) };
}
} // namespace

Duration lateBound( Duration interval ) {
   return std::clamp< Duration >( interval, std::chrono::seconds{ 1 }, std::chrono::seconds{ 5 } );
}

double spreadFraction( std::uint64_t n ) {
   // Multiples of the golden ratio: each new point falls into the widest gap. 2^64 / phi, taken as a 64-bit
   // fraction.
   constexpr std::uint64_t step = 0x9E3779B97F4A7C15ULL;
   return static_cast< double >( ( n * step ) >> 11 ) * 0x1.0p-53;
}

FirstDue firstDue( TimePoint now, double fraction, Duration interval ) {
   const Duration soon = std::min< Duration >( interval, std::chrono::seconds{ 1 } );
   const Duration settle = std::min< Duration >( settleTime, soon / 4 );
   const TimePoint first = now + settle + scaled( soon - settle, fraction );
   TimePoint phase = now + scaled( interval, fraction );
   if ( phase - first < interval / 4 )
      phase += interval;
   return { first, phase };
}

TimePoint nextDue( TimePoint due, TimePoint now, Duration interval ) {
   if ( due > now )
      return due;
   return due + ( ( now - due ) / interval + 1 ) * interval;
}

TimePoint dueAfterIntervalChange( TimePoint due, TimePoint now, Duration interval ) {
   if ( due - now <= interval )
      return due;
   return now + ( due - now ) % interval;
}

TimePoint atTick( TimePoint when ) {
   const Duration t = tick;
   const Duration since = when.time_since_epoch();
   return TimePoint{ ( since + t - Duration{ 1 } ) / t * t };
}

} // namespace netchasm
