#include "platform/EntityManager.h"

#include <algorithm>

#include <fmt/format.h>

namespace platform {

namespace {

bool isBelow( const std::string & path, const std::string & root ) {
   return path.starts_with( root ) && ( path.size() == root.size() || path[root.size()] == '/' );
}

std::string_view takeComponent( std::string_view & rest ) {
   const auto component = rest.substr( 0, rest.find( '/' ) );
   rest.remove_prefix( std::min( component.size() + 1, rest.size() ) );
   return component;
}

} // namespace

void EntityManager::profileIs( const MountProfile & profile ) {
   for ( const auto & mount : profile.paths ) {
      if ( !roots_.contains( mount.path ) ) {
         entityIs( mount.path, mount.make() );
      }
   }
   profiles_[profile.name] = profile;
}

const MountProfile * EntityManager::profile( const std::string & name ) const {
   const auto found = profiles_.find( name );
   return found == profiles_.end() ? nullptr : &found->second;
}

Ptr<Entity> EntityManager::entity( const std::string & path ) const {
   const auto found = roots_.find( path );
   return found == roots_.end() ? nullptr : found->second;
}

void EntityManager::entityIs( const std::string & path, const Ptr<Entity> & entity ) {
   entity->rootPathIs( path );
   roots_[path] = entity;
}

bool EntityManager::agentWrites( const std::string & path ) const {
   for ( const auto & [name, profile] : profiles_ ) {
      for ( const auto & mount : profile.paths ) {
         if ( mount.writable && isBelow( path, mount.path ) ) {
            return true;
         }
      }
   }
   return false;
}

Refusal EntityManager::resolve( const std::string & path, StatePlace & place ) const {
   const auto root = std::ranges::find_if(
         roots_, [&path]( const auto & entry ) { return isBelow( path, entry.first ); } );
   if ( root == roots_.end() ) {
      return fmt::format( "no such path: {}", path );
   }
   StatePlace at{ root->second };
   std::string_view rest = path;
   rest.remove_prefix( std::min( root->first.size() + 1, rest.size() ) );
   while ( !rest.empty() ) {
      if ( at.attribute && ( at.attribute->scalar() || at.key ) ) {
         return fmt::format( "nothing stands below {}", path.substr( 0, path.size() - rest.size() - 1 ) );
      }
      const auto component = takeComponent( rest );
      if ( !at.attribute ) {
         at.attribute = at.entity->type().attribute( component );
         if ( !at.attribute ) {
            return fmt::format( "{} has no attribute \"{}\"", at.entity->path(), component );
         }
         if ( const auto * child = at.attribute->child() ) {
            at = StatePlace{ child->child( *at.entity ) };
         }
         continue;
      }
      const KeyedInfo * keyed = at.attribute->set();
      if ( !keyed ) {
         keyed = at.attribute->collection();
      }
      const auto key = pathUnescape( component );
      const Refusal refusal = key ? keyed->keyCheck( *key ) : Refusal( "is not escaped well" );
      if ( refusal ) {
         return fmt::format(
               "{}/{}: key \"{}\": {}", at.entity->path(), at.attribute->name(), component, *refusal );
      }
      const auto * collection = at.attribute->collection();
      if ( collection && collection->has( *at.entity, *key ) ) {
         at = StatePlace{ collection->entry( *at.entity, *key ) };
      } else {
         at.key = *key;
      }
   }
   place = at;
   return std::nullopt;
}

void MountGroup::mountProfile( const std::string & name ) {
   if ( !entityManager_->profile( name ) ) {
      status_ = MountStatus::unknownProfile;
   }
}

void MountGroup::close( bool, const std::string &, Seconds ) {
   if ( const auto done = std::exchange( done_, nullptr ) ) {
      done( status_ );
   }
}

} // namespace platform
