#include "host/RedisStore.h"

#include "host/RedisOwner.h"
#include "platform/Printable.h"

#include <algorithm>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <hiredis/hiredis.h>

namespace host {

using namespace platform;

namespace {

constexpr auto openPatience = std::chrono::seconds( 3 );
constexpr auto retryEvery = std::chrono::milliseconds( 500 );
// After the last key that others wrote: whoever writes several with several commands is done by then.
constexpr auto quietAfter = std::chrono::milliseconds( 100 );
constexpr auto quietAtLatest = std::chrono::seconds( 1 ); // after the first
constexpr unsigned maxBeatsWithoutAnswer = 5;
constexpr const char * heartbeatKey = "hm:heartbeat";
constexpr const char * refusedKey = "hm:refused";
constexpr const char * refusedKept = "99"; // index of the last line that is kept

// Takes the lock when it is free, ours, or that of a process which is known to have ended (ARGV[3]); whatever
// is no text at its key is nobody's.
constexpr const char * claimScript = R"(
local type = redis.call( 'TYPE', KEYS[1] ).ok
local owner = type == 'string' and redis.call( 'GET', KEYS[1] ) or false
if owner == false or owner == ARGV[1] or owner == ARGV[3] then
   redis.call( 'SET', KEYS[1], ARGV[1], 'PX', ARGV[2] )
   return ''
end
return string.sub( owner, 1, 500 )
)";

constexpr const char * releaseScript = R"(
if redis.call( 'TYPE', KEYS[1] ).ok == 'string' and redis.call( 'GET', KEYS[1] ) == ARGV[1] then
   redis.call( 'DEL', KEYS[1] )
end
)";

std::string nameOf( const StoreUrl & url ) {
   return url.host.empty() ? fmt::format( "redis+unix:{}?db={}", printable( url.path ), url.database )
                           : fmt::format( "redis://{}:{}/{}", printable( url.host ), url.port, url.database );
}

} // namespace

RedisStore::RedisStore( StoreUrl url, const Ptr<EventLoop> & mainLoop, std::shared_ptr<const Schema> schema,
      std::vector<StoredRoot> roots )
      : StateStore( "hm-redis", mainLoop ),
        url_( std::move( url ) ),
        name_( nameOf( url_ ) ),
        schema_( std::move( schema ) ),
        roots_( std::move( roots ) ),
        owner_( redisOwner() ),
        changesChannel_( fmt::format( "hm:changes@{}", url_.database ) ),
        refusedChannel_( fmt::format( "hm:refused@{}", url_.database ) ) {}

RedisStore::~RedisStore() {
   stop();
}

Refusal RedisStore::open( StoredState & state, std::vector<std::string> & notes ) {
   start();
   std::unique_lock lock( opening_.mutex );
   if ( !opening_.changed.wait_for( lock, openPatience, [this] { return opening_.done; } ) ) {
      opening_.abandoned = true;
      notes.push_back( fmt::format( "state database {}: {}; the host goes on without what it holds, and "
                                    "publishes there once it is reached",
            name_, opening_.trouble ) );
      return std::nullopt;
   }
   if ( opening_.state ) {
      holdsState_ = true;
      state = std::move( *opening_.state );
   }
   return opening_.refusal;
}

bool RedisStore::openingDone( Refusal refusal, std::optional<StoredState> state ) {
   const std::lock_guard lock( opening_.mutex );
   if ( opening_.done || opening_.abandoned ) {
      return false;
   }
   opening_.done = true;
   opening_.refusal = std::move( refusal );
   opening_.state = std::move( state );
   opening_.changed.notify_one();
   return true;
}

void RedisStore::doInitSm() {
   retry_ = new LoopTimer( loop(), [this] { connect(); } );
   writeRetry_ = new LoopTimer( loop(), [this] { next(); } );
   quiet_ = new LoopTimer( loop(), [this] { quiet(); } );
   connect();
   StateStore::doInitSm();
}

void RedisStore::doDelSm() {
   StateStore::doDelSm();
   reader_ = nullptr;
   link_ = nullptr;
   watch_ = nullptr;
   retry_ = nullptr;
   writeRetry_ = nullptr;
   quiet_ = nullptr;
}

void RedisStore::handle( const Ptr<QueueElement> & request ) {
   if ( dynamicPtrCast<StoreBeat>( request ) ) {
      beat();
   } else if ( const auto refusal = dynamicPtrCast<StoreRefusal>( request ) ) {
      for ( const auto & line : refusal->errors ) {
         refuse( line );
      }
   } else if ( const auto counted = dynamicPtrCast<StoreStatistics>( request ) ) {
      statistics( *counted );
   } else {
      pending_.push_back( request );
      next();
   }
}

bool RedisStore::idle() {
   if ( phase_ != Phase::ready || released_ ) {
      return true;
   }
   if ( pending_.empty() && !released_ ) {
      // At once: others need not wait until the heartbeat has run out.
      link_->send( { "EVAL", releaseScript, "1", heartbeatKey, owner_ },
            [this]( const redisReply & ) { released_ = true; } );
   }
   return false;
}

void RedisStore::connect() {
   phase_ = Phase::greeting;
   const auto end = [this]( const std::string & why ) { ended( why ); };
   link_ = std::make_unique<RedisLink>( loop()->base(), url_, end );
   watch_ = std::make_unique<RedisLink>( loop()->base(), url_, end );
   for ( const auto * each : { link_.get(), watch_.get() } ) {
      if ( !each->refusal().empty() ) {
         ended( each->refusal() );
         return;
      }
   }
   beatsWithoutAnswer_ = 0;
   greet();
}

void RedisStore::ended( std::string why ) {
   phase_ = Phase::away;
   reader_ = nullptr;
   link_ = nullptr;
   watch_ = nullptr;
   writing_ = false;
   steps_.clear();
   chunksUnderWay_ = 0;
   purging_ = false;
   {
      const std::lock_guard lock( opening_.mutex );
      opening_.trouble = why;
      if ( opening_.abandoned || opening_.done ) {
         trouble( why );
      }
   }
   tell( StoreEvent::Kind::counted );
   retry_->start( retryEvery );
}

void RedisStore::trouble( const std::string & why ) {
   if ( !std::exchange( troubled_, true ) ) {
      say( fmt::format( "state database {}: {}; monitoring goes on, and what changes is published there once "
                        "that is over",
            name_, printable( why ) ) );
   }
}

// Each step waits for the answer of the one before; one that is an error ends the connections.
void RedisStore::greet() {
   if ( !url_.password.empty() ) {
      for ( auto * each : { link_.get(), watch_.get() } ) {
         each->send( { "AUTH", url_.password } );
      }
   }
   link_->send( { "SELECT", std::to_string( url_.database ) }, [this]( const redisReply & reply ) {
      if ( reply.type == REDIS_REPLY_ERROR ) {
         ended( text( reply ) );
      } else {
         claim( {} );
      }
   } );
}

void RedisStore::claim( const std::string & inPlaceOf ) {
   link_->send( { "EVAL", claimScript, "1", heartbeatKey, owner_, std::to_string( heartbeatMs ), inPlaceOf },
         [this, inPlaceOf, until = Clock::steady().now() + std::chrono::milliseconds( heartbeatMs )](
               const redisReply & reply ) { claimed( reply, inPlaceOf, until ); } );
}

void RedisStore::claimed( const redisReply & reply, const std::string & inPlaceOf, Clock::TimePoint until ) {
   beatsWithoutAnswer_ = 0;
   if ( reply.type == REDIS_REPLY_ERROR ) {
      // A full server refuses this as well; what it holds is left as it is, and so are the connections.
      phase_ == Phase::ready ? trouble( text( reply ) ) : ended( text( reply ) );
      return;
   }
   const auto owner = text( reply );
   if ( !owner.empty() ) {
      if ( owner != inPlaceOf && redisOwnerHasEnded( owner ) ) {
         claim( owner );
      } else {
         lockLost( owner );
      }
      return;
   }
   lockedUntil_ = until;
   if ( phase_ != Phase::ready ) {
      phase_ = Phase::greeting;
      track();
   } else if ( !steps_.empty() && chunksUnderWay_ == 0 ) {
      chunks(); // which waited for the lock
   }
}

// False: the time for which the lock was taken has run out, and it is asked for again.
bool RedisStore::lockHeld() {
   const bool held = Clock::steady().now() < lockedUntil_;
   if ( !held ) {
      claim( {} );
   }
   return held;
}

void RedisStore::lockLost( const std::string & owner ) {
   if ( phase_ == Phase::ready ) {
      ended( "another host writes it: " + owner ); // what is on its way ends with the connections
      return;
   }
   phase_ = Phase::notOwner;
   const auto line =
         fmt::format( "state database {}: another host writes it: {}", name_, printable( owner ) );
   if ( !openingDone( line, std::nullopt ) && !std::exchange( troubled_, true ) ) {
      say( line + "; nothing is published there until it has ended" );
   }
}

void RedisStore::track() {
   watch_->send( { "CLIENT", "ID" }, [this]( const redisReply & id ) {
      if ( id.type != REDIS_REPLY_INTEGER ) {
         ended( text( id ) );
         return;
      }
      watch_->subscribe(
            "__redis__:invalidate", [this]( const redisReply & message ) { invalidated( message ); } );
      std::vector<std::string> command{
            "CLIENT", "TRACKING", "ON", "REDIRECT", std::to_string( id.integer ), "BCAST", "NOLOOP" };
      for ( const auto & root : roots_ ) {
         command.insert( command.end(), { "PREFIX", redisPrefix + root.path } );
      }
      link_->send( command, [this]( const redisReply & reply ) {
         if ( reply.type == REDIS_REPLY_ERROR ) {
            ended( text( reply ) );
            return;
         }
         link_->send( { "GET", turnKey }, [this]( const redisReply & turn ) { turnCame( turn ); } );
      } );
   } );
}

void RedisStore::turnCame( const redisReply & reply ) {
   const auto number = text( reply );
   std::uint64_t turn = 0;
   const bool holds =
         reply.type == REDIS_REPLY_STRING && !ValueTraits<std::uint64_t>::fromText( number, turn );
   if ( !holds || turn < turn_ ) {
      known_.clear();
      openingDone( std::nullopt, std::nullopt );
      tell( StoreEvent::Kind::empty );
      ready();
      return;
   }
   turn_ = turn;
   {
      const std::lock_guard lock( opening_.mutex );
      if ( opening_.done || opening_.abandoned ) {
         tell( StoreEvent::Kind::back );
         ready();
         return;
      }
   }
   openingRead();
}

void RedisStore::openingRead() {
   reader_ = std::make_unique<RedisReader>( *link_, roots_, [this]( const std::string & why ) {
      const auto reader = std::move( reader_ );
      if ( !why.empty() ) {
         ended( why );
         return;
      }
      known( reader->state() );
      if ( !openingDone( std::nullopt, std::move( reader->state() ) ) ) {
         tell( StoreEvent::Kind::back ); // the host has gone on meanwhile
      }
      ready();
   } );
}

void RedisStore::ready() {
   phase_ = Phase::ready;
   statisticsPurge();
   next();
}

void RedisStore::beat() {
   if ( phase_ == Phase::away ) {
      return;
   }
   if ( ++beatsWithoutAnswer_ > maxBeatsWithoutAnswer ) {
      ended( fmt::format( "no answer for {} s", maxBeatsWithoutAnswer ) );
   } else if ( phase_ != Phase::greeting ) {
      claim( {} );
   }
}

// "message", the channel, and the keys; none of them when the whole database was emptied.
void RedisStore::invalidated( const redisReply & message ) {
   if ( message.elements != 3 || text( *message.element[0] ) != "message" ) {
      return;
   }
   const auto & keys = *message.element[2];
   if ( keys.type != REDIS_REPLY_ARRAY ) {
      known_.clear();
      tell( StoreEvent::Kind::empty );
      return;
   }
   for ( std::size_t i = 0; i < keys.elements; ++i ) {
      keyInvalidated( { keys.element[i]->str, keys.element[i]->len } );
   }
   const auto now = Clock::steady().now();
   if ( !quietBegan_ ) {
      quietBegan_ = now;
   }
   if ( now - *quietBegan_ < quietAtLatest ) {
      quiet_->start( quietAfter );
   }
}

void RedisStore::keyInvalidated( std::string_view key ) {
   key.remove_prefix( std::min( key.size(), std::string_view( redisPrefix ).size() ) );
   SchemaPlace place;
   const bool ours = key.size() <= 4096 && !schema_->resolve( std::string( key ), place ) &&
                     ( !place.attribute || ( keyedOf( *place.attribute ) && !place.member ) ) &&
                     place.path() == key;
   if ( !ours ) {
      if ( unknownKeys_++ == 0 ) {
         unknownKey_ = printable( key.substr( 0, 255 ) );
      }
      return;
   }
   readDisturbed_ = true;
   ( place.outsideWrites ? configurationWritten_ : publishedWritten_ ) = true;
}

void RedisStore::quiet() {
   quietBegan_.reset();
   if ( const auto count = std::exchange( unknownKeys_, 0 ) ) {
      const auto line = fmt::format( "{}: {} no key of ours", unknownKey_,
            count == 1 ? "is" : fmt::format( "and {} others are", count - 1 ) );
      refuse( line );
      say( std::exchange( unknownTold_, true ) ? std::string{}
                                               : fmt::format( "state database {}: {}", name_, line ),
            count );
   }
   const bool configuration = std::exchange( configurationWritten_, false );
   if ( std::exchange( publishedWritten_, false ) ) {
      tell( StoreEvent::Kind::back ); // compares what is published and puts it back
   } else if ( configuration ) {
      tell( StoreEvent::Kind::foreign );
   }
}

void RedisStore::refuse( const std::string & line ) {
   if ( phase_ != Phase::ready ) {
      return;
   }
   const auto now = std::chrono::floor<std::chrono::seconds>( std::chrono::system_clock::now() );
   const auto dated =
         fmt::format( "{:%FT%TZ} {}", fmt::gmtime( std::chrono::system_clock::to_time_t( now ) ), line );
   const auto push = [this, dated] { link_->send( { "LPUSH", refusedKey, dated } ); };
   link_->send( { "LPUSH", refusedKey, dated }, [this, push]( const redisReply & reply ) {
      if ( reply.type == REDIS_REPLY_ERROR ) {
         link_->send( { "UNLINK", refusedKey } ); // somebody made it something else
         push();
      }
   } );
   link_->send( { "LTRIM", refusedKey, "0", refusedKept } );
   link_->send( { "PUBLISH", refusedChannel_, dated } );
}

} // namespace host
