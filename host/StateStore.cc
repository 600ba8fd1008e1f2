#include "host/StateStore.h"

#include "host/RedisStore.h"
#include "host/SqliteStore.h"
#include "platform/Printable.h"

#include <fmt/format.h>

namespace host {

using namespace platform;

namespace {

// How long close() lets a store finish that cannot reach what it writes to.
constexpr auto closingTurn = std::chrono::milliseconds( 10 );
constexpr unsigned maxClosingTurns = 200;

} // namespace

class StateStore::Closing : public QueueElement {};

StateStore::StateStore( std::string threadName, const Ptr<EventLoop> & mainLoop )
      : EventLoopThread( std::move( threadName ), new EventLoop() ),
        askedEvent_( new FifoEvent( loop() ) ),
        asked_( 0, askedEvent_, nullptr, true ),
        told_( 0, new FifoEvent( mainLoop ), nullptr, true ) {}

StateStore::~StateStore() = default;

void StateStore::push( Ptr<QueueElement> request ) {
   asked_.push( std::move( request ) );
}

Ptr<StoreEvent> StateStore::pop() {
   return dynamicPtrCast<StoreEvent>( told_.pop() );
}

void StateStore::tell( const Ptr<StoreEvent> & event ) {
   told_.push( event );
}

void StateStore::tell( StoreEvent::Kind kind ) {
   tell( new StoreEvent( kind ) );
}

void StateStore::say( const std::string & line, std::uint64_t refusals ) {
   const Ptr<StoreEvent> event = new StoreEvent( StoreEvent::Kind::message );
   event->text = line;
   event->refusals = refusals;
   tell( event );
}

void StateStore::close() {
   push( new Closing() );
   join();
}

void StateStore::doInitSm() {
   closing_ = new LoopTimer( loop(), [this] {
      if ( idle() || ++closingTurns_ == maxClosingTurns ) {
         loop()->stop();
      } else {
         closing_->start( closingTurn );
      }
   } );
   askedEvent_->watch( [this] { take(); } );
}

void StateStore::doDelSm() {
   askedEvent_->unwatch();
   closing_ = nullptr;
}

void StateStore::take() {
   while ( const auto request = asked_.pop() ) {
      if ( dynamicPtrCast<Closing>( request ) ) {
         closing_->start( {} );
      } else {
         handle( request );
      }
   }
}

namespace {

// DB: a number that Redis may know.
bool databaseRead( std::string_view text, unsigned & database ) {
   std::int64_t number = 0;
   if ( integerFromText( text, 0, 65535, number ) ) {
      return false;
   }
   database = static_cast<unsigned>( number );
   return true;
}

bool redisRead( std::string_view rest, StoreUrl & url ) {
   if ( const auto slash = rest.find( '/' ); slash != rest.npos ) {
      const auto database = rest.substr( slash + 1 );
      if ( !database.empty() && !databaseRead( database, url.database ) ) {
         return false;
      }
      rest = rest.substr( 0, slash );
   }
   const auto hostEnd = rest.starts_with( '[' ) ? rest.find( ']' ) + 1 : rest.find( ':' );
   auto name = rest.substr( 0, hostEnd );
   rest.remove_prefix( name.size() );
   std::int64_t port = url.port;
   if ( !rest.empty() && ( rest[0] != ':' || integerFromText( rest.substr( 1 ), 1, 65535, port ) ) ) {
      return false;
   }
   if ( name.starts_with( '[' ) ) {
      name = name.substr( 1, name.size() - 2 );
   }
   url.host = name;
   url.port = static_cast<std::uint16_t>( port );
   return !name.empty() && name.find( '@' ) == name.npos;
}

bool socketRead( std::string_view rest, StoreUrl & url ) {
   constexpr std::string_view query = "?db=";
   if ( rest.starts_with( "//" ) ) {
      rest.remove_prefix( 2 );
   }
   const auto at = rest.rfind( query );
   url.path = rest.substr( 0, at );
   return !url.path.empty() &&
          ( at == rest.npos || databaseRead( rest.substr( at + query.size() ), url.database ) );
}

} // namespace

Refusal StoreUrl::fromText( const std::string & text, StoreUrl & url ) {
   const auto rest = [&text]( std::string_view scheme ) -> std::optional<std::string_view> {
      return text.starts_with( scheme ) ? std::optional( std::string_view( text ).substr( scheme.size() ) )
                                        : std::nullopt;
   };
   StoreUrl read;
   bool well = text == "memory:";
   if ( const auto path = rest( "sqlite:" ) ) {
      read.kind = Kind::sqlite;
      read.path = *path;
      well = !path->empty();
   } else if ( const auto address = rest( "redis://" ) ) {
      read.kind = Kind::redis;
      well = redisRead( *address, read );
   } else if ( const auto socket = rest( "redis+unix:" ) ) {
      read.kind = Kind::redis;
      well = socketRead( *socket, read );
   }
   if ( !well ) {
      return fmt::format( "\"{}\": expected memory:, sqlite:PATH, redis://HOST[:PORT][/DB] or "
                          "redis+unix:PATH[?db=DB]",
            printable( text ) );
   }
   url = read;
   return std::nullopt;
}

Ptr<StateStore> stateStoreMake( const StoreUrl & url, const Ptr<EventLoop> & mainLoop,
      const std::shared_ptr<const Schema> & schema, const std::vector<StoredRoot> & roots ) {
   switch ( url.kind ) {
   case StoreUrl::Kind::memory:
      break;
   case StoreUrl::Kind::sqlite:
      return new SqliteStore( url.path, mainLoop );
   case StoreUrl::Kind::redis:
      return new RedisStore( url, mainLoop, schema, roots );
   }
   return nullptr;
}

} // namespace host
