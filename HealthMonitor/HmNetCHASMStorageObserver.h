#pragma once

#include "HealthMonitor/HmPayloadIntake.h"
#include "platform/EventMpmcQueue.h"

#include <netchasm/HMStorageObserver.h>

namespace hm {

/// Copies each finished check into a ProbeResult and pushes it on the result queue, which wakes the main
/// thread. The body goes along as far as `payloadIntake` lets it. Called on the engine's threads, several at
/// once; touches nothing of the agent but the queue and the intake.
///
/// The engine outlives the agent, and so do this observer and what it holds: what is pushed when
/// nobody consumes any more stays in the queue and wakes nobody.
class NetCHASMStorageObserver final : public HMStorageObserver {
 public:
   explicit NetCHASMStorageObserver( platform::Ptr<platform::EventMpmcQueue> resultQueue,
         platform::Ptr<PayloadIntake> payloadIntake = new PayloadIntake() );
   bool storeHostCheckResult( HMCheckData & data ) override; // always true

 private:
   const platform::Ptr<platform::EventMpmcQueue> resultQueue_;
   const platform::Ptr<PayloadIntake> payloadIntake_;
};

} // namespace hm
