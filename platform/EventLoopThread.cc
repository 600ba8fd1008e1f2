#include "platform/EventLoopThread.h"

#include "platform/Assert.h"

#include <csignal>
#include <pthread.h>

namespace platform {

EventLoopThread::EventLoopThread( std::string name, Ptr<EventLoop> loop )
      : name_( std::move( name ) ),
        loop_( std::move( loop ) ) {}

EventLoopThread::~EventLoopThread() {
   HM_ASSERT( !thread_.joinable(), "thread {} is still running", name_ );
}

void EventLoopThread::start() {
   // Signals are the main loop's business: the thread starts with all of them blocked.
   sigset_t all, before;
   sigfillset( &all );
   pthread_sigmask( SIG_SETMASK, &all, &before );
   thread_ = std::thread( [this] {
      pthread_setname_np( pthread_self(), name_.substr( 0, 15 ).c_str() );
      doInitSm();
      loop_->run();
      doDelSm();
   } );
   pthread_sigmask( SIG_SETMASK, &before, nullptr );
}

void EventLoopThread::stop() {
   if ( thread_.joinable() ) {
      loop_->stop();
      thread_.join();
   }
}

void EventLoopThread::join() {
   if ( thread_.joinable() ) {
      thread_.join();
   }
}

} // namespace platform
