#include "host/StateKeeper.h"

#include "platform/Trace.h"

#include <algorithm>

namespace host {

using namespace platform;

namespace {

constexpr auto beatEvery = std::chrono::seconds( 1 );

} // namespace

StateKeeper::StateKeeper( Services services, std::vector<StoredRoot> roots, Ptr<StateStore> store )
      : services_( std::move( services ) ),
        roots_( std::move( roots ) ),
        store_( std::move( store ) ),
        task_( new Task( services_.scheduler, TaskPriority{}, "state-keep" ) ) {
   task_->runHandlerIs( [this] { slice(); } );
}

StateKeeper::~StateKeeper() {
   if ( observing_ ) {
      for ( const auto & root : roots_ ) {
         const auto entity = services_.entityManager->entity( root.path );
         entity->unobserveTree( *this );
         entity->unobserveTree( configuration_ );
      }
   }
   store_->events()->unwatch();
}

Refusal StateKeeper::restore() {
   StoredState state;
   std::vector<std::string> notes;
   if ( auto refusal = store_->open( state, notes ) ) {
      return refusal;
   }
   for ( const auto & note : notes ) {
      services_.report( note );
   }
   bool untidy = false;
   if ( store_->holdsState() ) {
      const auto change = storedChange( roots_, state, "stored state", untidy );
      services_.refusals( change->errors.size() );
      for ( const auto & error : std::exchange( change->errors, {} ) ) {
         services_.report( error );
      }
      apply( change );
   }
   begin();
   if ( untidy ) {
      wholeMark( true, true );
   }
   return std::nullopt;
}

// At the start: nobody watches and nothing else waits, so without slices.
void StateKeeper::apply( const Ptr<CheckedChange> & change ) {
   CrossCheck crossCheck( services_.entityManager, change );
   while ( crossCheck.step() ) {}
   if ( !crossCheck.errors().empty() ) {
      for ( const auto & error : crossCheck.errors().lines() ) {
         services_.report( error );
      }
      services_.report( "the stored configuration is left out" );
      std::erase_if( change->sections, []( const auto & section ) { return section.place.outsideWrites; } );
   }
   Applier applier( services_.entityManager, change );
   while ( applier.step() ) {}
}

void StateKeeper::begin() {
   observing_ = true;
   for ( const auto & root : roots_ ) {
      const auto entity = services_.entityManager->entity( root.path );
      entity->observeTree( *this );
      if ( root.configuration ) {
         entity->observeTree( configuration_ );
      }
   }
   store_->events()->watch( [this] { storeEvents(); } );
   if ( store_->isShared() ) {
      beat_ = new LoopTimer( services_.mainLoop, [this] {
         store_->push( new StoreBeat() );
         beat_->start( beatEvery );
      } );
      beat_->start( {} );
   }
}

void StateKeeper::agentStarted( const Ptr<ConfigQueue> & configQueue, std::vector<Statistics> statistics ) {
   configQueue_ = configQueue;
   if ( store_->isShared() && !statistics.empty() ) {
      statistics_ = new StatisticsKeeper( services_.scheduler, store_, std::move( statistics ) );
   }
   task_->scheduleTask();
}

void StateKeeper::finish() {
   configQueue_ = nullptr;
   statistics_ = nullptr;
   if ( observing_ ) {
      while ( !dirty_.empty() ) {
         step();
      }
      hand();
   }
   store_->close();
   storeEvents();
}

void StateKeeper::treeChanged(
      const Entity & entity, const AttributeInfo & attribute, const std::string & key ) {
   if ( attribute.scalar() && &entity == lastEntity_ ) {
      if ( std::ranges::find( lastPlace_->values, &attribute ) == lastPlace_->values.end() ) {
         lastPlace_->values.push_back( &attribute );
      }
   } else if ( attribute.scalar() ) {
      auto & place = dirty_[entity.path()];
      place.entity = &entity;
      if ( std::ranges::find( place.values, &attribute ) == place.values.end() ) {
         place.values.push_back( &attribute );
      }
      lastEntity_ = &entity;
      lastPlace_ = &place;
   } else if ( const auto * keyed = keyedOf( attribute ) ) {
      const auto below = entity.path() + "/" + attribute.name();
      const bool gone = !keyed->has( entity, key );
      if ( gone ) {
         forget( below + "/" + pathEscape( key ) );
      }
      auto & place = dirty_[below];
      place.entity = &entity;
      place.keyed = &attribute;
      auto & wasAway = place.keys[key];
      wasAway = wasAway || gone;
   } else {
      return;
   }
   task_->scheduleTask();
}

// Everything of an entity and below it.
void StateKeeper::entityMark( const std::string & path, const Ptr<const Entity> & entity ) {
   for ( const auto * attribute : entity->type().attributes() ) {
      const auto below = path + "/" + attribute->name();
      if ( const auto * child = attribute->child() ) {
         entityMark( below, child->child( *entity ) );
         continue;
      }
      auto & place = dirty_[attribute->scalar() ? path : below];
      place.entity = entity;
      if ( keyedOf( *attribute ) ) {
         place.keyed = attribute;
         place.all = true;
         place.after = std::nullopt;
         std::erase_if( place.keys, []( const auto & each ) { return !each.second; } );
      } else if ( std::ranges::find( place.values, attribute ) == place.values.end() ) {
         place.values.push_back( attribute );
      }
   }
}

void StateKeeper::forget( const std::string & path ) {
   dirty_.erase( path );
   dirty_.erase( dirty_.lower_bound( path + "/" ), dirty_.lower_bound( path + "0" ) ); // "0" follows "/"
   lastEntity_ = nullptr;
}

void StateKeeper::wholeMark( bool configuration, bool published ) {
   if ( !batch_ ) {
      batch_ = new StoreBatch();
   }
   for ( const auto & root : roots_ ) {
      if ( root.configuration ? configuration : published ) {
         if ( std::ranges::find( batch_->whole, root.path ) == batch_->whole.end() ) {
            batch_->whole.push_back( root.path );
         }
         entityMark( root.path, services_.entityManager->entity( root.path ) );
      }
   }
   task_->scheduleTask();
}

void StateKeeper::slice() {
   if ( underWay_ ) {
      return; // its end wakes the task
   }
   while ( !dirty_.empty() ) {
      if ( task_->taskShouldYield() ) {
         task_->scheduleTask();
         return;
      }
      step();
   }
   hand();
   if ( configQueue_ && std::exchange( readWanted_, false ) ) {
      store_->push( new StoreRead( configuration_.value ) );
   }
}

void StateKeeper::hand() {
   if ( batch_ ) {
      store_->push( std::exchange( batch_, nullptr ) );
      underWay_ = true;
   }
}

void StateKeeper::step() {
   if ( !batch_ ) {
      batch_ = new StoreBatch();
   }
   const auto at = dirty_.begin();
   auto & [path, place] = *at;
   if ( place.keyed ) {
      if ( !place.keys.empty() ) {
         const auto next = place.keys.extract( place.keys.begin() );
         keyStep( path, place, next.key(), next.mapped() );
         return;
      }
      if ( place.all ) {
         place.after = keyedOf( *place.keyed )->nextKey( *place.entity, place.after );
         if ( place.after ) {
            keyStep( path, place, *place.after, false );
            return;
         }
      }
   } else {
      StoreChange change{ StoreChange::Kind::fields, path };
      for ( const auto * attribute : place.values ) {
         change.fields.emplace_back( attribute->name(), attribute->scalar()->text( *place.entity ) );
      }
      batch_->changes.push_back( std::move( change ) );
   }
   dirty_.erase( at );
   lastEntity_ = nullptr;
}

void StateKeeper::keyStep(
      const std::string & path, const Place & place, const std::string & key, bool wasAway ) {
   const bool stands = keyedOf( *place.keyed )->has( *place.entity, key );
   if ( wasAway || !stands ) {
      batch_->changes.push_back( { StoreChange::Kind::remove, path, key } );
   }
   if ( stands ) {
      batch_->changes.push_back( { StoreChange::Kind::insert, path, key } );
      if ( const auto * collection = place.keyed->collection() ) {
         entityMark( path + "/" + pathEscape( key ), collection->entry( *place.entity, key ) );
      }
   }
}

void StateKeeper::storeEvents() {
   while ( const auto event = store_->pop() ) {
      switch ( event->kind ) {
      case StoreEvent::Kind::written:
         underWay_ = false;
         break;
      case StoreEvent::Kind::empty:
         statisticsForget();
         wholeMark( true, true );
         break;
      case StoreEvent::Kind::back:
         statisticsForget();
         wholeMark( false, true );
         readWanted_ = true;
         break;
      case StoreEvent::Kind::foreign:
         readWanted_ = true;
         break;
      case StoreEvent::Kind::content:
         contentCame( *event );
         break;
      case StoreEvent::Kind::counted:
         if ( statistics_ ) {
            statistics_->counted();
         }
         break;
      case StoreEvent::Kind::message:
         if ( !event->text.empty() ) {
            services_.report( event->text );
         }
         services_.refusals( event->refusals );
         break;
      }
      task_->scheduleTask();
   }
}

void StateKeeper::statisticsForget() {
   if ( statistics_ ) {
      statistics_->forgotten();
   }
}

void StateKeeper::contentCame( const StoreEvent & event ) {
   if ( !configQueue_ ) {
      return; // the host is ending
   }
   if ( !event.change->errors.empty() ) {
      refused( event.change->errors );
      return;
   }
   const auto stale = [this, stamp = event.stamp] { return stamp != configuration_.value; };
   configQueue_->submit( event.change, stale, [this, untidy = event.untidy]( const ChangeOutcome & outcome ) {
      if ( outcome.stale ) {
         readWanted_ = true;
         task_->scheduleTask();
      } else if ( !outcome.errors.empty() ) {
         refused( outcome.errors );
      } else {
         services_.changeEnded( outcome );
         if ( untidy ) {
            wholeMark( true, false );
         }
      }
   } );
}

void StateKeeper::refused( const std::vector<std::string> & errors ) {
   services_.changeEnded( { errors, 0 } );
   services_.refusals( errors.size() );
   store_->push( new StoreRefusal( errors ) );
   wholeMark( true, false );
}

} // namespace host
