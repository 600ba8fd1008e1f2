#pragma once

#include "platform/Clock.h"
#include "platform/EventLoop.h"
#include "platform/Ptr.h"

#include <deque>
#include <functional>
#include <map>
#include <string>

namespace platform {

class Task;

/// Lower values run first; tasks of one value take turns. 3 is the ordinary one.
struct TaskPriority {
   unsigned value = 3;
   auto operator<=>( const TaskPriority & ) const = default;
};

/// Runs tasks on a loop, one slice at a time, and lets the loop serve everything else between two slices.
/// Main thread only.
///
/// A slice is meant to end when taskShouldYield() says so: after `sliceBudget` of time. The first question of
/// a slice is always answered no, so that a task that asks before each item moves on by one at least,
/// whatever the budget.
class TaskScheduler : public RefCounted {
 public:
   static constexpr Clock::Duration defaultSliceBudget = std::chrono::milliseconds( 4 );

   explicit TaskScheduler( Ptr<EventLoop> loop, const Clock & clock = Clock::steady() );
   ~TaskScheduler() override;

   Clock::Duration sliceBudget() const { return sliceBudget_; }
   void sliceBudgetIs( Clock::Duration budget ) { sliceBudget_ = budget; }

   /// Runs the next slice when a task is due; false when none is. The loop does this by itself; tests that
   /// move the clock by hand call it.
   bool runSlice();
   void runUntilIdle(); // slices until no task is due

 private:
   friend class Task;
   friend class TimerTask;

   void ready( Task & task );
   void delayed( Task & task, Clock::Duration delay );
   void undelayed( Task & task );
   void forget( Task & task );
   void collectExpired();
   void arm();

   const Ptr<EventLoop> loop_;
   const Clock & clock_;
   Clock::Duration sliceBudget_ = defaultSliceBudget;
   std::map<TaskPriority, std::deque<Task *>> ready_;
   std::multimap<Clock::TimePoint, Task *> delayed_;
   Ptr<LoopTimer> timer_; // due when the next slice is
   Task * running_ = nullptr;
   Clock::TimePoint sliceStart_{};
   bool sliceAsked_ = false;
};

/// A piece of long work that runs in slices. Its handler runs on the main loop after scheduleTask(), never
/// inside it; it may schedule the task again for another slice. A task that goes away is taken off the
/// schedule.
class Task : public RefCounted {
 public:
   Task( Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name );
   ~Task() override;

   const std::string & name() const { return name_; }
   TaskPriority priority() const { return priority_; }
   void runHandlerIs( std::function<void()> handler ); // empty: none

   void scheduleTask(); // once more, however often it is called before the next slice
   bool taskScheduled() const { return scheduled_; } // waiting for a slice, delayed or not
   bool taskCurrentlyRunning() const { return scheduler_->running_ == this; }
   /// Whether the running slice has used up its budget. True outside a slice of this task.
   bool taskShouldYield();
   void taskWorkCountInc( std::uint64_t items ) { workCount_ += items; }
   std::uint64_t taskWorkCount() const { return workCount_; } // since the task was made

 private:
   friend class TaskScheduler;
   friend class TimerTask;
   const Ptr<TaskScheduler> scheduler_;
   const TaskPriority priority_;
   const std::string name_;
   std::shared_ptr<std::function<void()>> handler_;
   bool scheduled_ = false;
   bool delayPending_ = false; // on the scheduler's list of delays rather than ready
   std::uint64_t workCount_ = 0;
};

class TimerTask : public Task {
 public:
   using Task::Task;
   /// As scheduleTask(), `delay` from now. A task that is ready already stays so; of two delays the earlier
   /// holds.
   void scheduleTaskDelay( Seconds delay );
};

} // namespace platform
