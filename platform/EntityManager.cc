#include "platform/EntityManager.h"

#include <utility>

namespace platform {

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
         if ( mount.writable && pathIsAtOrBelow( path, mount.path ) ) {
            return true;
         }
      }
   }
   return false;
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
