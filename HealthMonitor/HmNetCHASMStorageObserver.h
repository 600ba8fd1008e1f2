#pragma once

#include "platform/EventMpmcQueue.h"

#include <netchasm/HMStorageObserver.h>

namespace hm {

/// Copies each finished check into a ProbeResult and pushes it on the result queue, which wakes the main
/// thread. Called on the engine's threads, several at once; touches nothing of the agent but the queue.
///
/// The engine outlives the agent, and so do this observer and the queue that it holds: what is pushed when
/// nobody consumes any more stays in the queue and wakes nobody.
class NetCHASMStorageObserver final : public HMStorageObserver {
 public:
   explicit NetCHASMStorageObserver( platform::Ptr<platform::EventMpmcQueue> resultQueue );
   bool storeHostCheckResult( HMCheckData & data ) override; // always true

 private:
   const platform::Ptr<platform::EventMpmcQueue> resultQueue_;
};

} // namespace hm
