#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <netchasm/HMStateManager.h>

/// Stands in for the engine: the classes of its public headers, linked in place of the library. It checks
/// nothing and writes down what it is asked to do. Any thread.
///
///     healthCheck PATH level L start     reload PATH          level L          log        observer
///     +address HOST IP    -address HOST IP    +mark GROUP HOST IP M    -mark GROUP HOST IP M
class RecordingEngine {
 public:
   /// Forgets all and refuses nothing. The adapters of an earlier engine are let go.
   static void reset();
   /// Calls that begin with this text return false.
   static void refuse( std::string prefix );

   static std::vector<std::string> calls();
   /// Waits until that many calls were made; false when they do not come.
   [[nodiscard]] static bool waitForCalls( std::size_t count );
   [[nodiscard]] static bool waitForCall( const std::string & call ); // as above
   static std::size_t engines();                                      // made since reset()
   static bool calledFromOneThreadOtherThan( std::thread::id thread );

   /// The histogram that the engine tells; clearing it is a call "clearProbeDelay" and makes it all zero.
   static void probeDelaysAre( std::vector<unsigned long> histogram );

   /// Whom the checks asked for by "probe GROUP HOST" report to; each once.
   static std::vector<HMProbeDone> probes();

   /// What the agent gave to the engine.
   static std::shared_ptr<HMStorageObserver> observer();
   static std::shared_ptr<HMLogBase> log();
};
