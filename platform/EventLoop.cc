#include "platform/EventLoop.h"

#include "platform/Assert.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <sys/eventfd.h>
#include <unistd.h>

#include <event2/event.h>
#include <event2/thread.h>

namespace platform {

namespace {

event_base * newBase() {
   static std::once_flag once;
   std::call_once( once, [] { evthread_use_pthreads(); } );
   auto * base = event_base_new();
   HM_ASSERT( base, "failed to create an event loop: {}", std::strerror( errno ) );
   return base;
}

int newEventFd() {
   const int fd = eventfd( 0, EFD_NONBLOCK | EFD_CLOEXEC );
   HM_ASSERT( fd >= 0, "failed to create an event descriptor: {}", std::strerror( errno ) );
   return fd;
}

} // namespace

EventLoop::EventLoop( const Clock & clock ) : base_( newBase() ), clock_( clock ) {}

EventLoop::~EventLoop() {
   event_base_free( base_ );
}

void EventLoop::run() {
   while ( !stopRequested_.exchange( false ) ) {
      event_base_loop( base_, EVLOOP_NO_EXIT_ON_EMPTY );
   }
}

void EventLoop::runOnce() {
   event_base_loop( base_, EVLOOP_NONBLOCK );
}

void EventLoop::stop() {
   stopRequested_.store( true );
   // A zero timer rather than a loop break, which is forgotten by a loop that has not begun.
   const timeval now{};
   event_base_once(
         base_, -1, EV_TIMEOUT,
         []( evutil_socket_t, short, void * base ) {
            event_base_loopbreak( static_cast<event_base *>( base ) );
         },
         base_, &now );
}

void EventLoop::dispatch( const std::function<void()> & callback ) {
   const auto start = clock_.now();
   callback();
   longestHold_ = std::max( longestHold_, clock_.now() - start );
}

FdWatcher::FdWatcher( Ptr<EventLoop> loop, int fd, std::function<void()> readable )
      : loop_( std::move( loop ) ),
        readable_( std::make_shared<std::function<void()>>( std::move( readable ) ) ) {
   event_ = event_new(
         loop_->base(), fd, EV_READ | EV_PERSIST,
         []( evutil_socket_t, short, void * self ) {
            // The callback may release this watcher, and the loop's last other holder with it.
            const auto held = static_cast<FdWatcher *>( self )->loop_;
            const auto callback = static_cast<FdWatcher *>( self )->readable_;
            held->dispatch( *callback );
         },
         this );
   HM_ASSERT( event_ && event_add( event_, nullptr ) == 0, "failed to watch descriptor {}", fd );
}

FdWatcher::~FdWatcher() {
   event_free( event_ );
}

LoopTimer::LoopTimer( Ptr<EventLoop> loop, std::function<void()> expired )
      : loop_( std::move( loop ) ),
        expired_( std::make_shared<std::function<void()>>( std::move( expired ) ) ) {
   event_ = evtimer_new(
         loop_->base(),
         []( evutil_socket_t, short, void * self ) {
            const auto held = static_cast<LoopTimer *>( self )->loop_;
            const auto callback = static_cast<LoopTimer *>( self )->expired_;
            held->dispatch( *callback );
         },
         this );
   HM_ASSERT( event_, "failed to create a timer" );
}

LoopTimer::~LoopTimer() {
   event_free( event_ );
}

void LoopTimer::start( Clock::Duration after ) {
   const auto micros = std::chrono::duration_cast<std::chrono::microseconds>( std::max( after, {} ) ).count();
   const timeval interval{
         static_cast<time_t>( micros / 1'000'000 ), static_cast<suseconds_t>( micros % 1'000'000 ) };
   evtimer_add( event_, &interval );
}

void LoopTimer::stop() {
   evtimer_del( event_ );
}

FifoEvent::FifoEvent( Ptr<EventLoop> loop ) : loop_( std::move( loop ) ), fd_( newEventFd() ) {}

FifoEvent::~FifoEvent() {
   watcher_ = nullptr;
   close( fd_ );
}

void FifoEvent::signal() {
   if ( !signalled_.exchange( true ) ) {
      const std::uint64_t one = 1;
      [[maybe_unused]] const auto written = write( fd_, &one, sizeof one ); // full: it wakes the loop as well
   }
}

void FifoEvent::watch( std::function<void()> callback ) {
   auto shared = std::make_shared<std::function<void()>>( std::move( callback ) );
   watcher_ = new FdWatcher( loop_, fd_, [this, shared] {
      handle();
      ( *shared )();
   } );
   handle();
   ( *shared )();
}

void FifoEvent::unwatch() {
   watcher_ = nullptr;
}

void FifoEvent::handle() {
   std::uint64_t count;
   [[maybe_unused]] const auto got = read( fd_, &count, sizeof count );
   // Cleared before the consumer looks: what is pushed from here on signals anew.
   signalled_.store( false );
}

} // namespace platform
