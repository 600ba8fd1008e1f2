#pragma once

#include "netchasm/Config.h"
#include "netchasm/HMProbeReport.h"
#include "netchasm/TimerHeap.h"
#include "netchasm/TlsConnection.h"
#include <memory>

namespace netchasm {

class Check;
struct ConnectionPool;
struct Host;

/// Where a host is reached. Chosen by the engine from the host's static addresses and marks.
struct Target {
   HMIPAddress address;    ///< empty: none known
   std::uint32_t mark = 0; ///< 0: none

   bool operator==( const Target & ) const = default;
};

/// A check that somebody asked for, and what it has seen so far.
struct Probe {
   HMProbeDone done;
   const Host * of = nullptr; ///< the host whose stand-in runs the check
   TimePoint connected{};     ///< none while it has not got there, as the two below
   TimePoint secured{};
   TimePoint firstByte{};
};

/// One host of one host group. Made and freed by the thread that calls the engine, lent to one worker in
/// between.
struct Host {
   enum class State : std::uint8_t {
      quiet,   ///< lacks an address or its mark; no timer
      waiting, ///< timer: `due`, or the next attempt of a retry
      running, ///< `check` is under way; timer: its next time limit
   };

   explicit Host( std::string hostName ) : name{ std::move( hostName ) } {}

   // Constant.
   const std::string name;

   // The thread that calls the engine.
   std::size_t worker = 0;
   std::uint64_t load = 0; ///< the last configuration load that named it
   Target told;            ///< what its worker was told last
   bool settled = true;    ///< and has taken up for certain

   // The worker.
   std::shared_ptr< const HostGroup > group;
   Target target;
   std::string authority; ///< the Host header's value for the target
   ConnectionPool * pool = nullptr;
   State state = State::quiet;
   bool retrying = false; ///< this attempt follows a failed one
   std::uint16_t retriesLeft = 0;
   TimePoint due;     ///< of the check that comes next, or the last one that came due
   TimePoint retryAt; ///< with `retrying`: the attempt that comes next, or the last one
   TimePoint phase;   ///< a point of the schedule, which is this and every interval before and after
   Check * check = nullptr;
   std::size_t timerIndex = TimerHeap< Host >::npos;
   std::uint32_t numChecks = 0;
   std::uint32_t numResponses = 0;
   std::uint32_t numConnectFailures = 0;
   std::uint32_t numFailures = 0;
   std::uint32_t numTimeouts = 0;
   TlsTicket ticket;
   std::unique_ptr< Probe > probe; ///< of a stand-in, which has no schedule: else none

   /// The timer of a waiting host.
   TimePoint next() const { return retrying ? retryAt : due; }
   bool ready() const { return !target.address.empty() && ( !group->needsMark || target.mark != 0 ); }
};

} // namespace netchasm
