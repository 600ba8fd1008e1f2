#include "host/Schema.h"

#include "platform/Printable.h"

#include <algorithm>

#include <fmt/format.h>

namespace host {

using namespace platform;

namespace {

// For messages: on one line, and never long.
std::string shown( std::string_view text ) {
   constexpr std::size_t longest = 255;
   return printable( text.substr( 0, longest ) ) + ( text.size() > longest ? "..." : "" );
}

} // namespace

const KeyedInfo * keyedOf( const AttributeInfo & attribute ) {
   if ( const auto * set = attribute.set() ) {
      return set;
   }
   return attribute.collection();
}

std::string SchemaPlace::entityPath() const {
   std::string path = root;
   for ( const auto & step : steps ) {
      path += "/" + step.attribute->name();
      if ( step.attribute->collection() ) {
         path += "/" + pathEscape( step.key );
      }
   }
   return path;
}

std::string SchemaPlace::path() const {
   return entityPath() + ( attribute ? "/" + attribute->name() : "" ) +
          ( member ? "/" + pathEscape( *member ) : "" );
}

Schema::Schema( const EntityManager & entityManager, const std::vector<Closed> & closed ) {
   for ( const auto & [path, entity] : entityManager.roots() ) {
      const auto found = std::ranges::find( closed, path, &Closed::path );
      const bool named = found != closed.end();
      roots_.push_back( { path, &entity->type(), !named && !entityManager.agentWrites( path ),
            named ? found->because : writtenByHost } );
   }
}

Refusal Schema::resolve( const std::string & path, SchemaPlace & place ) const {
   const auto root = std::ranges::find_if(
         roots_, [&]( const Root & each ) { return pathIsAtOrBelow( path, each.path ); } );
   if ( root == roots_.end() ) {
      return fmt::format( "no such path: {}", shown( path ) );
   }
   SchemaPlace at{ root->path };
   at.type = root->type;
   at.outsideWrites = root->outsideWrites;
   at.closedBecause = root->outsideWrites ? std::string{} : root->closedBecause;
   std::size_t next = root->path.size();
   while ( next < path.size() ) {
      const auto end = std::min( path.find( '/', next + 1 ), path.size() );
      const std::string component = path.substr( next + 1, end - next - 1 );
      next = end;
      if ( !at.attribute ) {
         const auto * attribute = at.type->attribute( component );
         if ( !attribute ) {
            return fmt::format( "{} has no attribute \"{}\"", at.entityPath(), shown( component ) );
         }
         if ( const auto * child = attribute->child() ) {
            at.steps.push_back( { attribute } );
            at.type = &child->childType();
         } else {
            at.attribute = attribute;
         }
         continue;
      }
      const auto * keyed = at.member ? nullptr : keyedOf( *at.attribute );
      if ( !keyed ) {
         return fmt::format( "nothing stands below {}", at.path() );
      }
      const auto key = pathUnescape( component );
      if ( const Refusal refusal = key ? keyed->keyCheck( *key ) : Refusal( "is not escaped well" ) ) {
         return fmt::format( "{}: key \"{}\": {}", at.path(), shown( component ), *refusal );
      }
      if ( const auto * collection = at.attribute->collection() ) {
         at.steps.push_back( { at.attribute, keyed->keyNormal( *key ) } );
         at.attribute = nullptr;
         at.type = &collection->entryType();
      } else {
         at.member = keyed->keyNormal( *key );
      }
   }
   place = std::move( at );
   return std::nullopt;
}

Ptr<Entity> entityAt( const EntityManager & entityManager, const SchemaPlace & place ) {
   auto entity = entityManager.entity( place.root );
   for ( const auto & step : place.steps ) {
      if ( !entity ) {
         break;
      }
      if ( const auto * child = step.attribute->child() ) {
         entity = child->child( *entity );
      } else {
         entity = step.attribute->collection()->entry( *entity, step.key );
      }
   }
   return entity;
}

} // namespace host
