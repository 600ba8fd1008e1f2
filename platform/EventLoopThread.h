#pragma once

#include "platform/EventLoop.h"

#include <string>
#include <thread>

namespace platform {

/// A thread that runs an event loop. start() is called once the most derived object exists; stop()
/// (idempotent, and called by the derived destructor at the latest) ends the loop and joins.
class EventLoopThread : public RefCounted {
 public:
   ~EventLoopThread() override;

   const std::string & name() const { return name_; }
   void start();
   void stop(); // not from the thread itself

 protected:
   EventLoopThread( std::string name, Ptr<EventLoop> loop );
   /// Waits for a thread that stops its loop by itself.
   void join();
   virtual void doInitSm() = 0; // on the thread, before the loop runs
   virtual void doDelSm() = 0;  // on the thread, after the loop has stopped

   const Ptr<EventLoop> & loop() const { return loop_; }

 private:
   const std::string name_;
   const Ptr<EventLoop> loop_;
   std::thread thread_;
};

} // namespace platform
