#include "platform/EventMpmcQueue.h"

namespace platform {

EventMpmcQueue::EventMpmcQueue( std::size_t capacityHint, Ptr<FifoEvent> consumerEvent,
      Ptr<FifoEvent> producerEvent, bool wakeOnEveryPush )
      : queue_( capacityHint ),
        consumerEvent_( std::move( consumerEvent ) ),
        producerEvent_( std::move( producerEvent ) ),
        wakeOnEveryPush_( wakeOnEveryPush ) {}

void EventMpmcQueue::push( Ptr<QueueElement> element ) {
   const bool wake = wakeOnEveryPush_ || empty();
   queue_.enqueue( std::move( element ) );
   if ( wake && consumerEvent_ ) {
      consumerEvent_->signal();
   }
}

Ptr<QueueElement> EventMpmcQueue::pop() {
   Ptr<QueueElement> element;
   queue_.try_dequeue( element );
   if ( element && producerEvent_ && empty() ) {
      producerEvent_->signal();
   }
   return element;
}

} // namespace platform
