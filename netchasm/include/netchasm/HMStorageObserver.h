#pragma once

#include "netchasm/HMCheckData.h"

/// Receives the results. Given to the engine with HMStateManager::registerStorageObserver(); the engine
/// shares its ownership.
class HMStorageObserver {
 public:
   virtual ~HMStorageObserver() = default;

   /// Called once for every finished check, in order for each host, on the engine's threads, possibly on
   /// several at once; results of one turn of an engine thread come back to back. `data` is valid only during
   /// the call; it may be changed, and its strings moved away (copying is cheaper: the engine keeps their
   /// storage). Must not block, throw or call the engine. The engine counts a false return in its log and
   /// goes on.
   virtual bool storeHostCheckResult( HMCheckData & data ) = 0;
};
