#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "platform/EventMpmcQueue.h"
#include "platform/Reactor.h"
#include "platform/Trace.h"

namespace hm {

/// Keeps the engine's log level in step with the levels that are enabled for the trace facility "NetCHASM",
/// under which its entries are written: the engine is told the highest one of 3 to 9, or 2 when none of them
/// is, and only when that changes. Main thread only; its one output is the command queue.
class NetCHASMTraceReactorSm final : public Reactor {
 public:
   explicit NetCHASMTraceReactorSm( Ptr<EventMpmcQueue> cmdQueue );

   void handleInitialized();
   void handleLevelsEnabled();
   /// Counts `level` (-2 to 9) as enabled or not.
   void setTraceLevel( int level, bool enable );

   const Ptr<EventMpmcQueue> & cmdQueue() const { return cmdQueue_; }
   const Ptr<TraceFacility> & facility() const { return facility_; }
   std::int32_t minTraceLevel() const { return minTraceLevel_; }
   std::uint16_t traceBitMap() const { return traceBitMap_; } // bit L + 2: level L
   bool initialized() const { return initialized_; }

 private:
   const Ptr<EventMpmcQueue> cmdQueue_;
   Ptr<TraceFacility> facility_;
   std::int32_t minTraceLevel_ = 0; // the facility's levels up to it are not passed on
   std::uint16_t traceBitMap_ = 0;
   bool initialized_ = false;
   TraceFacility::Token observation_;
};

Ptr<NetCHASMTraceReactorSm> netChasmTraceReactorSmFactory( Ptr<EventMpmcQueue> cmdQueue );

} // namespace hm
