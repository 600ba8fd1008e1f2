#include "host/ConfigQueue.h"

#include "platform/EventLoopThread.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace host {

using namespace platform;

// Crosses to the checker thread and back; `change` is set there, and read on the main thread afterwards.
struct ConfigQueue::Job : QueueElement {
   ChangeRequest request;
   std::function<bool()> stale; // empty: never
   Done done;
   Ptr<CheckedChange> change;
   bool checked = false; // main thread: the job has come back
};

class ConfigQueue::CheckThread final : public EventLoopThread {
 public:
   CheckThread( std::shared_ptr<const Schema> schema, const Ptr<FifoEvent> & checkedEvent )
         : EventLoopThread( "hm-config-check", new EventLoop() ),
           schema_( std::move( schema ) ),
           event_( new FifoEvent( loop() ) ),
           jobs_( 0, event_, nullptr, true ),
           results_( 0, checkedEvent, nullptr, true ) {}
   ~CheckThread() override { end(); }

   void end() {
      cancelled_.store( true );
      stop();
   }
   void push( const Ptr<QueueElement> & element ) { jobs_.push( element ); }
   Ptr<Job> pop() { return dynamicPtrCast<Job>( results_.pop() ); }

 private:
   void doInitSm() override {
      event_->watch( [this] {
         while ( const auto element = jobs_.pop() ) {
            if ( cancelled_.load() ) {
               return;
            }
            const auto job = dynamicPtrCast<Job>( element );
            if ( !job ) {
               continue; // a change that was applied comes here to be freed: that takes its time for a large
                         // one
            }
            if ( !job->change ) {
               job->change = checkChange( *schema_, job->request, [this] { return cancelled_.load(); } );
            }
            std::string().swap( job->request.text ); // freed here: it may be large
            results_.push( job );
         }
      } );
   }
   void doDelSm() override { event_->unwatch(); }

   const std::shared_ptr<const Schema> schema_;
   const Ptr<FifoEvent> event_;
   EventMpmcQueue jobs_;    // main thread to this one: jobs, and changes to free
   EventMpmcQueue results_; // back
   std::atomic<bool> cancelled_{ false };
};

ConfigQueue::ConfigQueue( Ptr<EventLoop> mainLoop, Ptr<EntityManager> entityManager,
      const Ptr<TaskScheduler> & scheduler, std::shared_ptr<const Schema> schema )
      : entityManager_( std::move( entityManager ) ),
        checkedEvent_( new FifoEvent( std::move( mainLoop ) ) ),
        checkThread_( new CheckThread( std::move( schema ), checkedEvent_ ) ),
        task_( new Task( scheduler, TaskPriority{}, "config-check" ) ),
        applyTask_( new Task( scheduler, TaskPriority{ TaskPriority{}.value - 1 }, "config-apply" ) ) {
   task_->runHandlerIs( [this] { slice( *task_ ); } );
   applyTask_->runHandlerIs( [this] { slice( *applyTask_ ); } );
   checkedEvent_->watch( [this] { checked(); } );
   checkThread_->start();
}

ConfigQueue::~ConfigQueue() {
   checkThread_->end();
   checkedEvent_->unwatch();
}

void ConfigQueue::submit( ChangeRequest request, Done done ) {
   const Ptr<Job> job = new Job();
   job->request = std::move( request );
   job->done = std::move( done );
   waiting_.push_back( job );
   handOut();
}

void ConfigQueue::submit( Ptr<CheckedChange> change, std::function<bool()> stale, Done done ) {
   const Ptr<Job> job = new Job();
   job->change = std::move( change );
   job->stale = std::move( stale );
   job->done = std::move( done );
   waiting_.push_back( job );
   handOut();
}

void ConfigQueue::handOut() {
   while ( handedOut_ < std::min( waiting_.size(), maxChecked ) ) {
      checkThread_->push( waiting_[handedOut_++] );
   }
}

void ConfigQueue::checked() {
   while ( const auto job = checkThread_->pop() ) {
      job->checked = true;
   }
   task_->scheduleTask();
}

void ConfigQueue::slice( Task & task ) {
   while ( !task.taskShouldYield() ) {
      if ( waiting_.empty() || !waiting_.front()->checked ) {
         return;
      }
      const auto & job = *waiting_.front();
      if ( !job.change->errors.empty() ) {
         finish( { job.change->errors, 0 } );
      } else if ( !crossCheck_ && job.stale && job.stale() ) {
         finish( { {}, 0, true } );
      } else if ( !crossCheck_ ) {
         crossCheck_ = std::make_unique<CrossCheck>( entityManager_, job.change );
      } else if ( crossCheck_->step() ) {
         continue;
      } else if ( !crossCheck_->errors().empty() || job.request.checkOnly ) {
         finish( { crossCheck_->errors().lines(), 0 } );
      } else if ( !applier_ ) {
         applier_ = std::make_unique<Applier>( entityManager_, job.change );
      } else if ( !applier_->step() ) {
         finish( { applier_->refusals(), applier_->changes() } );
      }
   }
   ( applier_ ? applyTask_ : task_ )->scheduleTask();
}

void ConfigQueue::finish( const ChangeOutcome & outcome ) {
   const auto job = waiting_.front();
   crossCheck_ = nullptr;
   applier_ = nullptr;
   waiting_.pop_front();
   --handedOut_;
   checkThread_->push( std::exchange( job->change, nullptr ) );
   handOut();
   // Taken out: the checker thread may be the last to let go of the job, and what `done` holds is this
   // thread's.
   job->stale = nullptr;
   const auto done = std::exchange( job->done, {} );
   done( outcome );
}

} // namespace host
