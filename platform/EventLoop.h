#pragma once

#include "platform/Clock.h"
#include "platform/Ptr.h"

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

struct event;
struct event_base;

namespace platform {

/// One libevent loop. It runs on the thread that calls run(); everything bound to it is called there. Only
/// stop(), and signalling a FifoEvent, are for other threads.
///
/// The loop keeps the longest time that one callback held it, which is how long everything else had to wait.
class EventLoop : public RefCounted {
 public:
   explicit EventLoop( const Clock & clock = Clock::steady() );
   ~EventLoop() override;

   void run();     // until stop()
   void runOnce(); // what is ready now; does not wait
   void stop();    // any thread; also ends a run() that has not begun

   Clock::Duration longestHold() const { return longestHold_; }
   void longestHoldReset() { longestHold_ = {}; }

   event_base * base() const { return base_; }
   /// Calls `callback` and takes its time. For those who bind to the loop.
   void dispatch( const std::function<void()> & callback );

 private:
   event_base * const base_;
   const Clock & clock_;
   std::atomic<bool> stopRequested_{ false };
   Clock::Duration longestHold_{};
};

/// Watches a descriptor that others own and calls `readable` on the loop's thread while there is something to
/// read. Created and destroyed on the loop's thread, or while the loop does not run.
class FdWatcher : public RefCounted {
 public:
   FdWatcher( Ptr<EventLoop> loop, int fd, std::function<void()> readable );
   ~FdWatcher() override;

 private:
   const Ptr<EventLoop> loop_;
   const std::shared_ptr<std::function<void()>> readable_;
   event * event_;
};

/// Calls `expired` once on the loop's thread, `after` the last start(). Same threads as FdWatcher.
class LoopTimer : public RefCounted {
 public:
   LoopTimer( Ptr<EventLoop> loop, std::function<void()> expired );
   ~LoopTimer() override;
   void start( Clock::Duration after );
   void stop();

 private:
   const Ptr<EventLoop> loop_;
   const std::shared_ptr<std::function<void()>> expired_;
   event * event_;
};

/// Wakes a loop from any thread. Signals that arrive before the loop has come round count as one.
///
/// watch() names the one callback, on the loop's thread (or before it runs), and calls it once at the start,
/// so that what was signalled earlier is not lost. unwatch() ends it.
class FifoEvent : public RefCounted {
 public:
   explicit FifoEvent( Ptr<EventLoop> loop );
   ~FifoEvent() override;

   void signal(); // any thread; one system call at most, and none while a signal is on its way
   void watch( std::function<void()> callback );
   void unwatch();

 private:
   void handle();

   const Ptr<EventLoop> loop_;
   const int fd_;
   std::atomic<bool> signalled_{ false };
   Ptr<FdWatcher> watcher_; // the loop's thread
};

} // namespace platform
