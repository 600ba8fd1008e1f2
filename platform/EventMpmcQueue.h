#pragma once

#include "platform/EventLoop.h"
#include "platform/Ptr.h"

#include <concurrentqueue/concurrentqueue.h>

namespace platform {

/// Base of what crosses threads in a queue: immutable once pushed, shared by reference count.
class QueueElement : public RefCounted {};

/// Hands elements from any number of producer threads to consumers, whose loop a push wakes. Elements of one
/// producer come out in the order in which it pushed them.
///
/// Unbounded, so that a push never blocks: what waits grows while the consumers are slower than the
/// producers. Whoever pushes elements of a size that others decide, such as bytes of a server, bounds what of
/// it waits.
class EventMpmcQueue : public RefCounted {
 public:
   /// `capacityHint` elements are reserved; 0 leaves the growth to the queue. `consumerEvent` wakes the
   /// consumer; `producerEvent`, when given, is signalled by a pop that leaves the queue empty. Without
   /// `wakeOnEveryPush` only a push into an empty queue wakes.
   EventMpmcQueue( std::size_t capacityHint, Ptr<FifoEvent> consumerEvent, Ptr<FifoEvent> producerEvent,
         bool wakeOnEveryPush );

   void push( Ptr<QueueElement> element ); // any thread
   Ptr<QueueElement> pop();                // any thread; empty when there is nothing
   /// Exact for a thread that sees no concurrent push; otherwise a push may be missed that will wake the
   /// consumer.
   bool empty() const { return queue_.size_approx() == 0; }

   const Ptr<FifoEvent> & consumerEvent() const { return consumerEvent_; }

 private:
   moodycamel::ConcurrentQueue<Ptr<QueueElement>> queue_;
   const Ptr<FifoEvent> consumerEvent_;
   const Ptr<FifoEvent> producerEvent_;
   const bool wakeOnEveryPush_;
};

} // namespace platform
