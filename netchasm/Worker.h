#pragma once

#include "netchasm/Check.h"
#include "netchasm/FaultLog.h"
#include "netchasm/HMStorageObserver.h"
#include "netchasm/Host.h"
#include "netchasm/Log.h"
#include "netchasm/ProbeDelays.h"
#include "netchasm/TimerHeap.h"
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace netchasm {

/// What the thread that calls the engine asks of a worker.
struct Command {
   enum class Kind : std::uint8_t {
      take,   ///< the host is this worker's from now on, with `group` and `target`; goes on with the schedule
              ///< it has
      group,  ///< new settings, and the target that goes with them, for a host that stays
      target, ///< new address or mark
      drop,   ///< forget the host; a running check ends unreported
      probe,  ///< check it once beside its schedule
      move,   ///< as drop, but another worker will take it: a running check is due again at once
   };
   Kind kind;
   Host * host;
   std::shared_ptr< const HostGroup > group;
   Target target;
   HMProbeDone done; ///< of a probe
};

/// One thread with one event loop and the hosts that were given to it: starts their checks when they are due,
/// drives them, reports them.
///
/// A turn of the loop: wait for events; drive the checks that have some; hand over the results; take
/// commands; end what timed out and start what is due (at ticks only, so that one wake-up serves several
/// checks); hand over the results of that. Checks start only after all events of a turn were handled, so an
/// event never meets a check that began later over the same descriptor.
///
/// Why no event library: the loop needs no more than epoll, a heap and a clock reading a turn; with libevent
/// each check would pay for adding and deleting its events and timeouts. bench/ holds the loop against a bare
/// one.
class Worker {
 public:
   /// `number` names the thread. All references must outlive the worker.
   Worker( unsigned number, const Log & log, SocketCalls & calls,
         std::shared_ptr< HMStorageObserver > observer );
   /// Stops the thread; hosts still held stay untouched afterwards.
   ~Worker();
   Worker( const Worker & ) = delete;
   Worker & operator=( const Worker & ) = delete;

   /// False with errno: no descriptor or thread for the loop.
   [[nodiscard]] bool start();

   // The thread that calls the engine.
   void post( std::vector< Command > commands );
   /// Waits until everything posted before has taken effect and earlier results were handed over.
   void settle();

   // Any thread.
   const ProbeDelays & delays() const { return delays_; }

 private:
   using State = Host::State;

   static constexpr std::size_t startsPerTurn = 64; ///< then events get their turn
   static constexpr std::size_t resultsPerBatch = 64;
   static constexpr std::chrono::seconds trimPeriod{ 10 };

   void run();
   void abandonAll();
   int waitMs() const;
   void runTimers();
   void begin( Host & host );
   void finish( Host & host, const Outcome & ended );
   void report( const Host & host, const Check * check, const Outcome & outcome, HM_REASON reason );
   void fill( HMCheckData & data, const Host & host, const Check * check, const Outcome & outcome,
         HM_REASON reason ) const;
   void logOutcome( const Host & host, const Check * check, const Outcome & outcome, bool last );
   void flushResults();
   void release( Host & host, bool answered );
   void probe( const Host & host, HMProbeDone done );
   void probeEnd( Host & standIn, const Outcome & outcome );
   void probesEnd( const Host & host );
   std::optional< Outcome > attempt( Host & host );
   void wait( Host & host );
   void waitForNext( Host & host );
   std::unique_ptr< Check > takeCheck( ConnectionPool & pool );
   void trimPools();

   void takeCommands();
   void execute( Command & command );
   void settingsIs( Host & host, std::shared_ptr< const HostGroup > settings );
   void abandon( Host & host );
   void prepare( Host & host );
   void wake();
   bool closeIdle();

   // Constant after construction.
   const unsigned number_;
   const Log & log_;
   const std::shared_ptr< HMStorageObserver > observer_;

   // This worker's thread.
   CheckContext checks_;
   FaultLog faults_;
   TimerHeap< Host > timers_;
   std::map< HMIPAddress, ConnectionPool > pools_[2]; ///< by source address, for IPv4 and IPv6 peers
   TimePoint now_;
   TimePoint nextTrim_;
   bool moreEvents_ = false; ///< this turn could not fetch all events that stood
   bool stopped_ = false;
   std::uint64_t spread_;
   std::vector< std::unique_ptr< Host > > probes_; ///< stand-ins of hosts that somebody asked about
   std::vector< HMCheckData > results_;
   std::size_t resultCount_ = 0;
   ProbeDelays delays_;

   // Shared, under mutex_.
   std::mutex mutex_;
   std::condition_variable settled_;
   std::vector< Command > mailbox_; ///< unbounded: no command may be lost, and each answers one call
   std::uint64_t asked_ = 0;        ///< rounds of commands posted
   std::uint64_t done_ = 0;         ///< of them taken and executed
   bool stop_ = false;

   int wakeUp_ = -1; ///< eventfd
   std::thread thread_;
};

} // namespace netchasm
