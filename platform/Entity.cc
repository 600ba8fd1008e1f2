#include "platform/Entity.h"

#include "platform/Assert.h"

#include <algorithm>

namespace platform {

EntityUpdate * EntityUpdate::innermost_ = nullptr;

// Observers are taken out by clearing their place and swept when nobody walks the list, so that a list may
// change while it is being walked.
struct Entity::Watchers {
   std::vector<EntityObserver *> observers;
   std::vector<TreeObserver *> treeObservers;
   std::string rootPath;
   unsigned walks = 0;

   void sweep() {
      if ( walks == 0 ) {
         std::erase( observers, nullptr );
      }
   }
};

EntityType::EntityType( const char * name, std::vector<Declared> declared )
      : name_( name ),
        declared_( std::move( declared ) ) {
   for ( const auto & [line, attribute] : declared_ ) {
      if ( attribute->scalar() || attribute->set() || attribute->collection() || attribute->child() ) {
         attributes_.push_back( attribute );
      }
   }
}

const AttributeInfo & EntityType::declaredAt( int line ) const {
   const auto found = std::ranges::find( declared_, line, &Declared::line );
   HM_ASSERT( found != declared_.end(), "nothing is declared there" );
   return *found->attribute;
}

const AttributeInfo * EntityType::attribute( std::string_view name ) const {
   for ( const auto * attribute : attributes_ ) {
      if ( attribute->name() == name ) {
         return attribute;
      }
   }
   return nullptr;
}

Entity::Entity() = default;
Entity::~Entity() = default;

Entity::Watchers & Entity::watchers() const {
   if ( !watchers_ ) {
      watchers_ = std::make_unique<Watchers>();
   }
   return *watchers_;
}

void Entity::observe( EntityObserver & observer ) const {
   watchers().observers.push_back( &observer );
}

void Entity::unobserve( EntityObserver & observer ) const {
   if ( watchers_ ) {
      std::ranges::replace( watchers_->observers, &observer, nullptr );
      watchers_->sweep();
   }
}

void Entity::observeTree( TreeObserver & observer ) const {
   watchers().treeObservers.push_back( &observer );
}

void Entity::unobserveTree( TreeObserver & observer ) const {
   if ( watchers_ ) {
      std::erase( watchers_->treeObservers, &observer );
   }
}

void Entity::rootPathIs( const std::string & path ) {
   watchers().rootPath = path;
}

std::string Entity::path() const {
   if ( !parent_ ) {
      return watchers_ ? watchers_->rootPath : std::string{};
   }
   std::string path = parent_->path() + "/" + parentAttribute_->name();
   if ( parentKey_ ) {
      path += "/" + pathEscape( parentAttribute_->keyText( parentKey_ ) );
   }
   return path;
}

void Entity::adopt( Entity & child, const AttributeInfo & attribute, const void * key ) {
   HM_ASSERT( !child.parent_, "{} stands in another collection already", child.type().name() );
   child.parent_ = this;
   child.parentAttribute_ = &attribute;
   child.parentKey_ = key;
}

void Entity::orphan( Entity & child ) {
   child.parent_ = nullptr;
   child.parentAttribute_ = nullptr;
   child.parentKey_ = nullptr;
}

void Entity::changed( const AttributeInfo & attribute, const void * key ) {
   if ( !key ) {
      for ( auto * update = EntityUpdate::innermost_; update; update = update->outer_ ) {
         if ( update->entity_.get() == this ) {
            if ( std::ranges::find( update->pending_, &attribute ) == update->pending_.end() ) {
               update->pending_.push_back( &attribute );
            }
            return;
         }
      }
   }
   notify( attribute, key );
}

void Entity::notify( const AttributeInfo & attribute, const void * key ) {
   if ( !watchers_ && !parent_ ) {
      return; // nobody can be listening; also the state of an entity under construction, which nobody holds
              // yet
   }
   const Ptr<Entity> self( this ); // an observer may drop the last other reference
   for ( const Entity * above = this; above; above = above->parent_ ) {
      if ( above->watchers_ ) {
         for ( auto * observer : above->watchers_->treeObservers ) {
            observer->treeChanged( *this, attribute, attribute.keyText( key ) );
         }
      }
   }
   if ( !watchers_ ) {
      return;
   }
   auto & list = *watchers_;
   ++list.walks;
   // By index: an observer may subscribe others, who are told of this change as well and read present state.
   for ( std::size_t i = 0; i < list.observers.size(); ++i ) {
      if ( list.observers[i] ) {
         list.observers[i]->attributeChanged( attribute, key );
      }
   }
   --list.walks;
   list.sweep();
}

EntityUpdate::EntityUpdate( Entity & entity ) : entity_( &entity ), outer_( innermost_ ) {
   innermost_ = this;
}

EntityUpdate::~EntityUpdate() {
   innermost_ = outer_;
   for ( const auto * attribute : pending_ ) {
      entity_->notify( *attribute, nullptr );
   }
}

bool pathIsAtOrBelow( std::string_view path, std::string_view root ) {
   return root.empty() ||
          ( path.starts_with( root ) && ( path.size() == root.size() || path[root.size()] == '/' ) );
}

std::string pathEscape( std::string_view key ) {
   std::string escaped;
   for ( const char c : key ) {
      if ( c == '/' || c == '%' || static_cast<unsigned char>( c ) < 0x20 || c == 0x7f ) {
         escaped += fmt::format( "%{:02X}", static_cast<unsigned char>( c ) );
      } else {
         escaped += c;
      }
   }
   return escaped;
}

std::optional<std::string> pathUnescape( std::string_view component ) {
   auto digit = []( char c ) {
      return c >= '0' && c <= '9'   ? c - '0'
             : c >= 'A' && c <= 'F' ? c - 'A' + 10
             : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                    : -1;
   };
   std::string key;
   for ( std::size_t i = 0; i < component.size(); ++i ) {
      if ( component[i] != '%' ) {
         key += component[i];
         continue;
      }
      if ( i + 2 >= component.size() || digit( component[i + 1] ) < 0 || digit( component[i + 2] ) < 0 ) {
         return std::nullopt;
      }
      key += static_cast<char>( digit( component[i + 1] ) * 16 + digit( component[i + 2] ) );
      i += 2;
   }
   return key;
}

} // namespace platform
