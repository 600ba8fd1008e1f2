#include "host/RedisStore.h"

#include "platform/Printable.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>
#include <hiredis/hiredis.h>

/// How batches and statistics get to the server.
namespace host {

using namespace platform;

namespace {

constexpr std::size_t changesAtATime = 256; // that the server does as one
constexpr std::size_t maxChunksUnderWay = 8;
constexpr auto writeAgainAfter = std::chrono::seconds( 1 );
constexpr unsigned maxReadsDisturbed =
      10; // in a row: whoever never stops writing does not hold up the others
constexpr const char * statisticsKey = "hm:healthMonitor/counters";

// Statistics of an earlier process say nothing; a part of them at a time.
constexpr const char * purgeScript = R"(
if redis.call( 'TYPE', KEYS[1] ).ok ~= 'set' then
   redis.call( 'DEL', KEYS[1] )
   return 0
end
local members = redis.call( 'SPOP', KEYS[1], 1000 )
for _, member in ipairs( members ) do
   redis.call( 'UNLINK', KEYS[1] .. '/' .. member )
end
return #members
)";

// Part of the state as a batch makes it.
struct Target {
   std::map<std::string, std::map<std::string, std::string>> fields;
   std::map<std::string, std::set<std::string>> keys;

   template<class Map>
   static void eraseBelow( Map & map, const std::string & path ) {
      map.erase( path );
      map.erase( map.lower_bound( path + "/" ), map.lower_bound( path + "0" ) ); // "0" follows "/"
   }
   void take( const StoreChange & change ) {
      switch ( change.kind ) {
      case StoreChange::Kind::fields:
         for ( const auto & [name, value] : change.fields ) {
            fields[change.path][name] = value;
         }
         break;
      case StoreChange::Kind::insert:
         keys[change.path].insert( change.key );
         break;
      case StoreChange::Kind::remove:
         keys[change.path].erase( change.key );
         eraseBelow( fields, change.path + "/" + pathEscape( change.key ) );
         eraseBelow( keys, change.path + "/" + pathEscape( change.key ) );
         break;
      }
   }
};

// A `remove` without a key: of what stands at the path itself, whatever that is.
StoreChange dropOf( const std::string & path ) {
   return { StoreChange::Kind::remove, path };
}

// What makes `found` into `target`.
std::vector<StoreChange> differenceOf( const Target & target, const StoredState & found ) {
   std::vector<StoreChange> changes;
   for ( const auto & [path, why] : found.refused ) {
      changes.push_back( dropOf( path ) );
   }
   for ( const auto & [path, keys] : found.keys ) {
      const auto wanted = target.keys.find( path );
      for ( const auto & key : keys ) {
         if ( wanted == target.keys.end() || !wanted->second.contains( key ) ) {
            changes.push_back( { StoreChange::Kind::remove, path, key } );
         }
      }
   }
   std::set<std::string> anew;
   for ( const auto & [path, fields] : found.fields ) {
      const auto wanted = target.fields.find( path );
      if ( wanted == target.fields.end() || std::ranges::any_of( fields, [&]( const auto & field ) {
              return !wanted->second.contains( field.first );
           } ) ) {
         changes.push_back( dropOf( path ) );
         anew.insert( path );
      }
   }
   for ( const auto & [path, keys] : target.keys ) {
      const auto there = found.keys.find( path );
      const std::set<std::string> standing = there == found.keys.end()
                                                   ? std::set<std::string>{}
                                                   : std::set( there->second.begin(), there->second.end() );
      for ( const auto & key : keys ) {
         if ( !standing.contains( key ) ) {
            changes.push_back( { StoreChange::Kind::insert, path, key } );
         }
      }
   }
   for ( const auto & [path, fields] : target.fields ) {
      StoreChange change{ StoreChange::Kind::fields, path };
      const auto there = anew.contains( path ) ? found.fields.end() : found.fields.find( path );
      for ( const auto & field : fields ) {
         if ( there == found.fields.end() ||
               std::ranges::find( there->second, std::pair<std::string, std::string>( field ) ) ==
                     there->second.end() ) {
            change.fields.emplace_back( field );
         }
      }
      if ( !change.fields.empty() ) {
         changes.push_back( std::move( change ) );
      }
   }
   return changes;
}

} // namespace

void RedisStore::known( const StoredState & state ) {
   for ( const auto & [path, fields] : state.fields ) {
      known_.insert( path );
   }
   for ( const auto & [path, keys] : state.keys ) {
      known_.insert( path );
   }
}

void RedisStore::next() {
   if ( phase_ != Phase::ready || writing_ || pending_.empty() ) {
      return;
   }
   writing_ = true;
   if ( const auto read = dynamicPtrCast<StoreRead>( pending_.front() ) ) {
      configurationRead( *read );
      return;
   }
   writeFailed_.clear();
   wrongType_ = false;
   const auto batch = dynamicPtrCast<StoreBatch>( pending_.front() );
   if ( batch->whole.empty() ) {
      stepsBegin( batch->changes );
   } else {
      wholeRead( *batch );
   }
}

void RedisStore::configurationRead( const StoreRead & read ) {
   std::vector<StoredRoot> roots;
   std::ranges::copy_if( roots_, std::back_inserter( roots ), &StoredRoot::configuration );
   readDisturbed_ = false;
   reader_ = std::make_unique<RedisReader>(
         *link_, roots, [this, roots, stamp = read.stamp]( const std::string & why ) {
            const auto reader = std::move( reader_ );
            if ( !why.empty() ) {
               ended( why );
               return;
            }
            // Otherwise somebody is still writing, and a later reading is asked for.
            if ( !readDisturbed_ || ++readsDisturbed_ > maxReadsDisturbed ) {
               readsDisturbed_ = 0;
               const Ptr<StoreEvent> event = new StoreEvent( StoreEvent::Kind::content );
               event->stamp = stamp;
               event->change = storedChange( roots, reader->state(), "redis", event->untidy );
               tell( event );
            }
            pending_.pop_front();
            writing_ = false;
            next();
         } );
}

void RedisStore::wholeRead( const StoreBatch & batch ) {
   std::vector<StoredRoot> roots;
   std::ranges::copy_if( roots_, std::back_inserter( roots ), [&]( const auto & root ) {
      return std::ranges::find( batch.whole, root.path ) != batch.whole.end();
   } );
   reader_ = std::make_unique<RedisReader>( *link_, roots, [this, roots]( const std::string & why ) {
      const auto reader = std::move( reader_ );
      if ( !why.empty() ) {
         ended( why );
         return;
      }
      known( reader->state() );
      const auto within = [&roots]( const std::string & path ) {
         return std::ranges::any_of(
               roots, [&]( const auto & root ) { return pathIsAtOrBelow( path, root.path ); } );
      };
      Target target;
      std::vector<StoreChange> beside;
      for ( const auto & change : dynamicPtrCast<StoreBatch>( pending_.front() )->changes ) {
         within( change.path ) ? target.take( change ) : beside.push_back( change );
      }
      auto steps = differenceOf( target, reader->state() );
      std::ranges::move( beside, std::back_inserter( steps ) );
      stepsBegin( std::move( steps ) );
   } );
}

// The configuration first and as one: half of what was applied together would be in force after a kill. Each
// change is of a path in one root, so that the order of the roots does not matter.
void RedisStore::stepsBegin( std::vector<StoreChange> steps ) {
   const auto rest = std::stable_partition( steps.begin(), steps.end(), [this]( const auto & step ) {
      return std::ranges::any_of( roots_, [&]( const auto & root ) {
         return root.configuration && pathIsAtOrBelow( step.path, root.path );
      } );
   } );
   configurationEnd_ = static_cast<std::size_t>( rest - steps.begin() );
   steps_ = std::move( steps );
   nextChange_ = 0;
   chunks();
}

void RedisStore::chunks() {
   while ( chunksUnderWay_ < maxChunksUnderWay && nextChange_ < steps_.size() ) {
      if ( !lockHeld() ) {
         return;
      }
      const auto end = std::max( std::min( steps_.size(), nextChange_ + changesAtATime ), configurationEnd_ );
      chunk( std::exchange( nextChange_, end ), end );
   }
   if ( chunksUnderWay_ == 0 ) {
      batchDone();
   }
}

void RedisStore::chunk( std::size_t begin, std::size_t end ) {
   ++chunksUnderWay_;
   link_->send( { "MULTI" } );
   for ( std::size_t i = begin; i < end; ++i ) {
      write( steps_[i] );
   }
   if ( end == steps_.size() ) {
      link_->send( { "SET", turnKey, std::to_string( turn_ + 1 ) } );
   }
   link_->send( { "EXEC" }, [this]( const redisReply & reply ) { chunkDone( reply ); } );
}

void RedisStore::write( const StoreChange & change ) {
   const auto key = redisPrefix + change.path;
   switch ( change.kind ) {
   case StoreChange::Kind::fields: {
      std::vector<std::string> command{ "HSET", key };
      for ( const auto & [name, value] : change.fields ) {
         command.push_back( name );
         command.push_back( value );
      }
      link_->send( command );
      known_.insert( change.path );
      break;
   }
   case StoreChange::Kind::insert:
      link_->send( { "SADD", key, change.key } );
      known_.insert( change.path );
      break;
   case StoreChange::Kind::remove:
      if ( change.key.empty() ) {
         link_->send( { "UNLINK", key } );
         known_.erase( change.path );
      } else {
         link_->send( { "SREM", key, change.key } );
         drop( change.path + "/" + pathEscape( change.key ) );
      }
      break;
   }
   announce( change.path );
}

// Everything of ours at and below a path.
void RedisStore::drop( const std::string & path ) {
   std::vector<std::string> command{ "UNLINK" };
   const auto flush = [&] {
      if ( command.size() > 1 ) {
         link_->send( command );
         command.resize( 1 );
      }
   };
   const auto take = [&]( auto begin, auto end ) {
      for ( auto at = begin; at != end; ++at ) {
         command.push_back( redisPrefix + *at );
         if ( command.size() > 1000 ) {
            flush();
         }
      }
      known_.erase( begin, end );
   };
   const auto [exact, behind] = known_.equal_range( path );
   take( exact, behind );
   take( known_.lower_bound( path + "/" ), known_.lower_bound( path + "0" ) ); // "0" follows "/"
   if ( command.size() > 1 ) {
      announce( path );
   }
   flush();
}

void RedisStore::announce( const std::string & path ) {
   link_->send( { "PUBLISH", changesChannel_, redisPrefix + path } );
}

void RedisStore::chunkDone( const redisReply & reply ) {
   --chunksUnderWay_;
   if ( reply.type != REDIS_REPLY_ARRAY ) {
      writeFailed_ = reply.type == REDIS_REPLY_ERROR ? text( reply ) : "the transaction was refused";
   }
   for ( std::size_t i = 0; reply.type == REDIS_REPLY_ARRAY && i < reply.elements; ++i ) {
      if ( reply.element[i]->type == REDIS_REPLY_ERROR ) {
         const auto why = text( *reply.element[i] );
         // A key of ours that somebody has made something else; comparing finds and replaces it.
         ( why.starts_with( "WRONGTYPE" ) ? wrongType_ = true : ( writeFailed_ = why, true ) );
      }
   }
   if ( writeFailed_.empty() ) {
      chunks();
   } else if ( chunksUnderWay_ == 0 ) {
      batchDone();
   }
}

void RedisStore::batchDone() {
   if ( !writeFailed_.empty() ) {
      trouble( writeFailed_ ); // full, or a replica, for instance
      writing_ = false;
      steps_.clear();
      writeRetry_->start( writeAgainAfter );
      return;
   }
   if ( !steps_.empty() ) {
      ++turn_; // as the last transaction has it: nothing was stored where nothing differed
   }
   if ( std::exchange( troubled_, false ) ) {
      say( fmt::format( "state database {}: is written again", name_ ) );
   }
   if ( wrongType_ ) {
      tell( StoreEvent::Kind::empty );
   }
   tell( StoreEvent::Kind::written );
   pending_.pop_front();
   steps_.clear();
   writing_ = false;
   next();
}

void RedisStore::statistics( const StoreStatistics & statistics ) {
   if ( phase_ != Phase::ready || purging_ || !lockHeld() ) {
      tell( StoreEvent::Kind::counted );
      return;
   }
   for ( const auto & change : statistics.changes ) {
      const auto key = statisticsKey + ( "/" + change.path );
      if ( change.kind == StoreChange::Kind::remove ) {
         link_->send( { "UNLINK", key } );
         link_->send( { "SREM", statisticsKey, change.path } );
         continue;
      }
      std::vector<std::string> command{ "HSET", key };
      for ( const auto & [name, value] : change.fields ) {
         command.push_back( name );
         command.push_back( value );
      }
      link_->send( command );
      link_->send( { "SADD", statisticsKey, change.path } );
   }
   link_->send( { "PING" }, [this]( const redisReply & ) { tell( StoreEvent::Kind::counted ); } );
}

void RedisStore::statisticsPurge() {
   purging_ = true;
   link_->send( { "EVAL", purgeScript, "1", statisticsKey }, [this]( const redisReply & reply ) {
      if ( reply.type == REDIS_REPLY_INTEGER && reply.integer > 0 ) {
         statisticsPurge();
      } else {
         purging_ = false;
      }
   } );
}

} // namespace host
