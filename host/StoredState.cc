#include "host/StoredState.h"

#include "platform/Printable.h"

#include <fmt/format.h>

namespace host {

using namespace platform;

std::vector<StoredRoot> storedRoots( const EntityManager & entityManager, const Schema & schema ) {
   std::vector<StoredRoot> roots;
   for ( const auto & root : schema.roots() ) {
      if ( root.outsideWrites || entityManager.agentWrites( root.path ) ) {
         roots.push_back( { root.path, root.type, root.outsideWrites } );
      }
   }
   return roots;
}

namespace {

class Reader {
 public:
   Reader( const StoredState & state, const std::string & source ) : state_( state ), errors_( source ) {}

   EntityContent entity( const std::string & path, const EntityType & type ) {
      EntityContent content;
      if ( const auto found = state_.fields.find( path ); found != state_.fields.end() ) {
         ++used_;
         scalars( path, type, found->second, content );
      }
      for ( const auto * attribute : type.attributes() ) {
         const auto below = path + "/" + attribute->name();
         if ( const auto * child = attribute->child() ) {
            auto & said = content.attributes.emplace_back();
            said.attribute = attribute;
            said.child = std::make_unique<EntityContent>( entity( below, child->childType() ) );
         } else if ( const auto * keyed = keyedOf( *attribute ) ) {
            auto & said = content.attributes.emplace_back();
            said.attribute = attribute;
            keys( path, below, *keyed, said );
         }
      }
      return content;
   }
   void refused() {
      for ( const auto & [path, why] : state_.refused ) {
         refused( path, {}, why );
      }
   }
   std::vector<std::string> errors() const { return errors_.lines(); }
   bool untidy() const { return untidy_ || used_ != state_.fields.size() + state_.keys.size(); }

 private:
   void refused( const std::string & path, const std::string & name, const std::string & why ) {
      untidy_ = true;
      errors_.add( 0, path, printable( std::string_view( name ).substr( 0, 255 ) ), why );
   }

   void scalars( const std::string & path, const EntityType & type, const StoredFields & fields,
         EntityContent & content ) {
      for ( const auto & [name, value] : fields ) {
         const auto * attribute = type.attribute( name );
         if ( !attribute || !attribute->scalar() ) {
            refused( path, name, "is no single value of this entity" );
         } else if ( const auto refusal = attribute->scalar()->check( value ) ) {
            refused( path, name, fmt::format( "\"{}\": {}", shown( value ), *refusal ) );
         } else {
            auto & said = content.attributes.emplace_back();
            said.attribute = attribute;
            said.text = value;
         }
      }
   }

   void keys( const std::string & path, const std::string & below, const KeyedInfo & keyed,
         AttributeContent & said ) {
      const auto found = state_.keys.find( below );
      if ( found == state_.keys.end() ) {
         return;
      }
      ++used_;
      const auto * collection = said.attribute->collection();
      for ( const auto & key : found->second ) {
         if ( const auto refusal = keyed.keyCheck( key ) ) {
            refused( path, said.attribute->name(), fmt::format( "\"{}\": {}", shown( key ), *refusal ) );
            continue;
         }
         auto normal = keyed.keyNormal( key );
         untidy_ = untidy_ || normal != key;
         if ( !said.keySet.insert( normal ).second ) {
            continue;
         }
         if ( collection ) {
            said.entries.push_back( entity( below + "/" + pathEscape( normal ), collection->entryType() ) );
         }
         said.keys.push_back( std::move( normal ) );
      }
   }

   static std::string shown( std::string_view text ) {
      constexpr std::size_t longest = 64;
      return printable( text.substr( 0, longest ) ) + ( text.size() > longest ? "..." : "" );
   }

   const StoredState & state_;
   ChangeErrors errors_;
   std::size_t used_ = 0; // records of the state that were found on the way
   bool untidy_ = false;
};

} // namespace

Ptr<CheckedChange> storedChange( const std::vector<StoredRoot> & roots, const StoredState & state,
      const std::string & source, bool & untidy ) {
   const Ptr<CheckedChange> change = new CheckedChange();
   change->source = source;
   Reader reader( state, source );
   reader.refused();
   for ( const auto & root : roots ) {
      auto & section = change->sections.emplace_back();
      section.place.root = root.path;
      section.place.type = root.type;
      section.place.outsideWrites = root.configuration;
      section.entity = reader.entity( root.path, *root.type );
   }
   change->errors = reader.errors();
   untidy = reader.untidy();
   return change;
}

} // namespace host
