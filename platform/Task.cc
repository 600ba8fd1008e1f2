#include "platform/Task.h"

#include <algorithm>

namespace platform {

TaskScheduler::TaskScheduler( Ptr<EventLoop> loop, const Clock & clock )
      : loop_( std::move( loop ) ),
        clock_( clock ),
        timer_( new LoopTimer( loop_, [this] { runSlice(); } ) ) {}

TaskScheduler::~TaskScheduler() = default;

void TaskScheduler::ready( Task & task ) {
   ready_[task.priority_].push_back( &task );
   arm();
}

void TaskScheduler::delayed( Task & task, Clock::Duration delay ) {
   auto due = clock_.now() + delay;
   const auto earlier =
         std::ranges::find_if( delayed_, [&task]( const auto & entry ) { return entry.second == &task; } );
   if ( earlier != delayed_.end() ) {
      due = std::min( due, earlier->first );
      delayed_.erase( earlier );
   }
   delayed_.emplace( due, &task );
   arm();
}

void TaskScheduler::undelayed( Task & task ) {
   std::erase_if( delayed_, [&task]( const auto & entry ) { return entry.second == &task; } );
}

void TaskScheduler::forget( Task & task ) {
   for ( auto & [priority, tasks] : ready_ ) {
      std::erase( tasks, &task );
   }
   undelayed( task );
   if ( running_ == &task ) {
      running_ = nullptr;
   }
}

void TaskScheduler::collectExpired() {
   while ( !delayed_.empty() && delayed_.begin()->first <= clock_.now() ) {
      Task * task = delayed_.begin()->second;
      delayed_.erase( delayed_.begin() );
      task->delayPending_ = false;
      ready_[task->priority_].push_back( task );
   }
}

// A zero timer fires only after the loop has looked at its descriptors, which is what gives them their turn
// between two slices.
void TaskScheduler::arm() {
   const bool anyReady =
         std::ranges::any_of( ready_, []( const auto & entry ) { return !entry.second.empty(); } );
   if ( anyReady ) {
      timer_->start( {} );
   } else if ( !delayed_.empty() ) {
      timer_->start( delayed_.begin()->first - clock_.now() );
   } else {
      timer_->stop();
   }
}

bool TaskScheduler::runSlice() {
   const Ptr<TaskScheduler> self( this );
   collectExpired();
   const auto next =
         std::ranges::find_if( ready_, []( const auto & entry ) { return !entry.second.empty(); } );
   if ( running_ || next == ready_.end() ) {
      arm();
      return false;
   }
   const Ptr<Task> task( next->second.front() );
   next->second.pop_front();
   task->scheduled_ = false;
   running_ = task.get();
   sliceStart_ = clock_.now();
   sliceAsked_ = false;
   if ( const auto handler = task->handler_ ) {
      ( *handler )();
   }
   running_ = nullptr;
   arm();
   return true;
}

void TaskScheduler::runUntilIdle() {
   while ( runSlice() ) {}
}

Task::Task( Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name )
      : scheduler_( std::move( scheduler ) ),
        priority_( priority ),
        name_( std::move( name ) ) {}

Task::~Task() {
   scheduler_->forget( *this );
}

void Task::runHandlerIs( std::function<void()> handler ) {
   handler_ = handler ? std::make_shared<std::function<void()>>( std::move( handler ) ) : nullptr;
}

void Task::scheduleTask() {
   if ( scheduled_ && !delayPending_ ) {
      return;
   }
   if ( delayPending_ ) {
      scheduler_->undelayed( *this );
      delayPending_ = false;
   }
   scheduled_ = true;
   scheduler_->ready( *this );
}

bool Task::taskShouldYield() {
   if ( !taskCurrentlyRunning() ) {
      return true;
   }
   if ( !scheduler_->sliceAsked_ ) {
      scheduler_->sliceAsked_ = true;
      return false;
   }
   return scheduler_->clock_.now() - scheduler_->sliceStart_ >= scheduler_->sliceBudget_;
}

void TimerTask::scheduleTaskDelay( Seconds delay ) {
   if ( taskScheduled() && !delayPending_ ) {
      return;
   }
   scheduled_ = true;
   delayPending_ = true;
   scheduler_->delayed(
         *this, std::chrono::duration_cast<Clock::Duration>( std::max( delay, Seconds{ 0 } ) ) );
}

} // namespace platform
