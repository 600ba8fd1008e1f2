#pragma once

#include <chrono>
#include <cstdint>

/// When checks are due. Pure arithmetic on the monotonic clock; the worker supplies `now`.
namespace netchasm {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Duration = Clock::duration;

/// Checks due within one tick are started together, so that one wake-up serves them all.
inline constexpr std::chrono::milliseconds tick{ 4 };

/// A turn of a worker that took this much longer than it meant to wait kept replies waiting: the checks that
/// run get that time back.
inline constexpr std::chrono::milliseconds overrunBound{ 50 };

/// The most that a check gets back. When it lost more and still times out, the machine was too slow to say
/// anything about the server.
inline constexpr std::chrono::seconds stallBound{ 2 };

/// A check whose turn comes more than this after its due time is given up for this time: one interval, but at
/// least one second and at most five.
Duration lateBound( Duration interval );

/// The n-th of a sequence of fractions in [0, 1) that at every length covers the unit interval evenly.
double spreadFraction( std::uint64_t n );

/// The least time from a host's readiness to its first check: its address and its mark come in two calls, and
/// a check type that does not need the mark must not send without it in between.
inline constexpr std::chrono::milliseconds settleTime{ 20 };

/// A host's two points in time: its first check comes soon, while its phase lies anywhere in the interval, so
/// that hosts that were added together do not stay together.
struct FirstDue {
   TimePoint first;
   TimePoint phase; ///< the second check
};
/// `fraction` in [0, 1). The first check comes within the shorter of the interval and one second; the second
/// one follows it after a quarter of the interval at least and one and a quarter at most.
FirstDue firstDue( TimePoint now, double fraction, Duration interval );

/// The first point of the phase { due + k × interval } that lies after `now`.
TimePoint nextDue( TimePoint due, TimePoint now, Duration interval );

/// The due time under a new interval: unchanged unless it lies further ahead than the new interval, then
/// moved by whole new intervals, which keeps hosts apart.
TimePoint dueAfterIntervalChange( TimePoint due, TimePoint now, Duration interval );

/// `when` rounded up to a tick.
TimePoint atTick( TimePoint when );

} // namespace netchasm
