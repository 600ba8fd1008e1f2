#include "host/ChangeFeed.h"

#include "host/Schema.h"
#include "host/StateWriter.h"
#include "host/Yaml.h"

#include <algorithm>
#include <chrono>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace host {

using namespace platform;

namespace {

std::string lineBegin( const std::string & path, const AttributeInfo & attribute ) {
   const auto now = std::chrono::floor<std::chrono::milliseconds>( std::chrono::system_clock::now() );
   const auto seconds = std::chrono::floor<std::chrono::seconds>( now );
   return fmt::format( R"({{"time":"{:%FT%T}.{:03}Z","path":{},"attribute":"{}")",
         fmt::gmtime( std::chrono::system_clock::to_time_t( seconds ) ), ( now - seconds ).count(),
         jsonString( path ), attribute.name() );
}

} // namespace

ChangeFeed::ChangeFeed( Ptr<EntityManager> entityManager ) : entityManager_( std::move( entityManager ) ) {
   for ( const auto & [path, root] : entityManager_->roots() ) {
      root->observeTree( *this );
   }
}

ChangeFeed::~ChangeFeed() {
   for ( const auto & [path, root] : entityManager_->roots() ) {
      root->unobserveTree( *this );
   }
}

std::uint64_t ChangeFeed::subscribe( std::string path, Receiver receiver ) {
   subscriptions_.push_back( { nextId_, std::move( path ), std::move( receiver ) } );
   return nextId_++;
}

void ChangeFeed::unsubscribe( std::uint64_t id ) {
   std::erase_if( subscriptions_, [id]( const auto & each ) { return each.id == id; } );
}

std::string ChangeFeed::valueLine(
      const std::string & path, const AttributeInfo & attribute, const Entity & entity ) {
   return lineBegin( path, attribute ) + ",\"value\":" + scalarJson( *attribute.scalar(), entity ) + "}\n";
}

std::string ChangeFeed::entryLine( const std::string & path, const AttributeInfo & attribute,
      const std::string & key, bool added, const Entity * entity ) {
   auto line = lineBegin( path, attribute ) +
               fmt::format( R"(,"key":{},"change":"{}")", jsonString( key ), added ? "added" : "removed" );
   if ( const auto * collection = attribute.collection(); collection && added && entity ) {
      if ( const auto json = StateWriter::entityJson( collection->entry( *entity, key ), maxEntryBytes ) ) {
         line += ",\"value\":" + *json;
      }
   }
   return line + "}\n";
}

void ChangeFeed::treeChanged(
      const Entity & entity, const AttributeInfo & attribute, const std::string & key ) {
   const bool described = attribute.scalar() || keyedOf( attribute );
   if ( subscriptions_.empty() || !described ) {
      return;
   }
   const auto entityPath = entity.path();
   const auto place = entityPath + "/" + attribute.name() +
                      ( attribute.scalar() ? std::string{} : "/" + pathEscape( key ) );
   std::string line;
   for ( const auto & subscription : subscriptions_ ) {
      // An entry that comes or goes matters to those as well who asked for something inside it.
      const bool inside = !attribute.scalar() && pathIsAtOrBelow( subscription.path, place );
      if ( !inside && !pathIsAtOrBelow( place, subscription.path ) ) {
         continue;
      }
      if ( line.empty() && attribute.scalar() ) {
         line = valueLine( entityPath, attribute, entity );
      } else if ( line.empty() ) {
         line = entryLine( entityPath, attribute, key, keyedOf( attribute )->has( entity, key ), &entity );
      }
      subscription.receiver( line );
   }
}

} // namespace host
