#include "host/StatisticsKeeper.h"

namespace host {

using namespace platform;

namespace {

constexpr std::size_t valuesAtATime = 512;

} // namespace

StatisticsKeeper::StatisticsKeeper(
      const Ptr<TaskScheduler> & scheduler, Ptr<StateStore> store, std::vector<Statistics> sources )
      : store_( std::move( store ) ),
        sources_( std::move( sources ) ),
        task_( new TimerTask( scheduler, TaskPriority{}, "statistics-keep" ) ) {
   task_->runHandlerIs( [this] { slice(); } );
   task_->scheduleTaskDelay( period );
}

void StatisticsKeeper::counted() {
   underWay_ = false;
   if ( std::exchange( waiting_, false ) ) {
      task_->scheduleTask();
   }
}

void StatisticsKeeper::forgotten() {
   known_.clear();
}

void StatisticsKeeper::slice() {
   if ( frames_.empty() ) {
      ++round_;
      for ( const auto & source : sources_ ) {
         frames_.push_back( { source.entity, source.collection, {} } );
      }
   }
   while ( true ) {
      if ( underWay_ ) {
         waiting_ = true; // counted() goes on
         return;
      }
      if ( task_->taskShouldYield() ) {
         task_->scheduleTask();
         return;
      }
      if ( !step() ) {
         roundEnd();
         task_->scheduleTaskDelay( period );
         return;
      }
   }
}

bool StatisticsKeeper::step() {
   if ( frames_.empty() ) {
      return false;
   }
   auto & frame = frames_.back();
   frame.after = frame.collection->nextKey( *frame.entity, frame.after );
   if ( !frame.after ) {
      frames_.pop_back();
      return true;
   }
   entry( frame.collection->entry( *frame.entity, *frame.after ),
         frame.path + ( frame.path.empty() ? "" : "/" ) + pathEscape( *frame.after ) );
   return true;
}

void StatisticsKeeper::entry( const Ptr<const Entity> & entity, const std::string & path ) {
   StoreChange change{ StoreChange::Kind::fields, path };
   std::string all;
   for ( const auto * attribute : entity->type().attributes() ) {
      if ( const auto * scalar = attribute->scalar() ) {
         change.fields.emplace_back( attribute->name(), scalar->text( *entity ) );
         all += change.fields.back().second + '\n';
      } else if ( const auto * collection = attribute->collection() ) {
         frames_.push_back( { entity, collection, path } );
      }
   }
   if ( change.fields.empty() ) {
      return;
   }
   auto & known = known_[path];
   const bool fresh = known.round == 0;
   known.round = round_;
   if ( const auto hash = std::hash<std::string>{}( all ); fresh || known.hash != hash ) {
      known.hash = hash;
      if ( !filling_ ) {
         filling_ = new StoreStatistics();
      }
      filling_->changes.push_back( std::move( change ) );
      if ( filling_->changes.size() >= valuesAtATime ) {
         hand();
      }
   }
}

// Entries that were not met have gone.
void StatisticsKeeper::roundEnd() {
   std::erase_if( known_, [this]( const auto & each ) {
      const bool gone = each.second.round != round_;
      if ( gone ) {
         if ( !filling_ ) {
            filling_ = new StoreStatistics();
         }
         filling_->changes.push_back( { StoreChange::Kind::remove, each.first } );
      }
      return gone;
   } );
   hand();
}

void StatisticsKeeper::hand() {
   if ( filling_ ) {
      underWay_ = true;
      store_->push( std::exchange( filling_, nullptr ) );
   }
}

} // namespace host
