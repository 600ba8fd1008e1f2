#pragma once

#include "host/Applier.h"
#include "host/CrossCheck.h"
#include "host/Document.h"
#include "platform/EventLoop.h"
#include "platform/EventMpmcQueue.h"
#include "platform/Task.h"

#include <deque>
#include <functional>
#include <memory>

namespace host {

/// How a change ended.
struct ChangeOutcome {
   std::vector<std::string> errors{}; // one line each; then nothing was changed
   std::uint64_t changes = 0;
   bool stale = false; // nothing was changed: what it was drawn up against stands no more
};

/// The one way into the configuration, for documents and single changes alike. Requests are checked whole on
/// a thread of its own, in their order, and then held against the state and applied on the main loop, one at
/// a time and in slices: no document, however large or wrong, holds the main loop. Between the slices of one
/// that is being applied the loop serves descriptors and timers, but no other task: an agent that began with
/// half of a document would come to the rest only in its next round.
///
/// Main thread, as all of its callbacks.
class ConfigQueue : public platform::RefCounted {
 public:
   static constexpr std::size_t maxWaiting = 1024;
   using Done = std::function<void( const ChangeOutcome & )>;

   ConfigQueue( platform::Ptr<platform::EventLoop> mainLoop,
         platform::Ptr<platform::EntityManager> entityManager,
         const platform::Ptr<platform::TaskScheduler> & scheduler, std::shared_ptr<const Schema> schema );
   /// Ends the checker thread; requests that have not been applied are dropped without an outcome, and one
   /// that is being applied stays as far as it has come.
   ~ConfigQueue() override;

   /// `done` runs once, on the main loop and never inside this call. Takes what it is given; whoever passes
   /// on requests from outside asks full() first.
   void submit( ChangeRequest request, Done done );
   /// The same for a change that is checked by itself already. `stale` is asked when its turn comes.
   void submit( platform::Ptr<CheckedChange> change, std::function<bool()> stale, Done done );
   bool full() const { return waiting_.size() >= maxWaiting; }

 private:
   class CheckThread;
   struct Job;
   // At most so many are checked, or wait checked, at a time: a small document may unfold into a large
   // change.
   static constexpr std::size_t maxChecked = 2;

   void handOut();
   void checked();
   void slice( platform::Task & task );
   void finish( const ChangeOutcome & outcome );

   const platform::Ptr<platform::EntityManager> entityManager_;
   platform::Ptr<platform::FifoEvent> checkedEvent_;
   platform::Ptr<CheckThread> checkThread_;
   platform::Ptr<platform::Task> task_;
   platform::Ptr<platform::Task> applyTask_; // goes on with what has begun to be applied, before other tasks
   std::deque<platform::Ptr<Job>> waiting_;  // in the order of submission; the front is applied
   std::size_t handedOut_ = 0;               // of them, to the checker thread
   std::unique_ptr<CrossCheck> crossCheck_;  // of the front, once it is checked by itself
   std::unique_ptr<Applier> applier_;        // of the front, once it is checked against the state
};

} // namespace host
