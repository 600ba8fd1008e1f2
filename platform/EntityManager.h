#pragma once

#include "platform/Entity.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace platform {

/// One path of a mount profile: where an entity of which class stands, and whether the agent writes it.
struct MountPath {
   std::string path;
   const EntityType * type;
   std::function<Ptr<Entity>()> make;
   bool writable; // true: written by the agent, read by everyone else; false: the other way round
};

struct MountProfile {
   std::string name;
   std::vector<MountPath> paths;
};

enum class MountStatus : std::uint8_t { success = 0, unknownProfile = 1 };

/// The trees of entities by their paths. Main thread; owned by the agent host, which fills it before the
/// agent starts.
class EntityManager : public RefCounted {
 public:
   /// Makes the entities of the profile that do not stand yet. A path with an entity of another class keeps
   /// it.
   void profileIs( const MountProfile & profile );
   const MountProfile * profile( const std::string & name ) const; // null: unknown

   Ptr<Entity> entity( const std::string & path ) const; // of a root; empty: none
   void entityIs( const std::string & path, const Ptr<Entity> & entity );
   const std::map<std::string, Ptr<Entity>> & roots() const { return roots_; }
   /// Whether the entity at or above `path` is written by the agent only.
   bool agentWrites( const std::string & path ) const;

 private:
   std::map<std::string, Ptr<Entity>> roots_;
   std::map<std::string, MountProfile> profiles_;
};

/// Asks for the mounts of an agent. close() completes the request: `done` runs once, with the outcome, from
/// the main loop or before close() returns.
class MountGroup : public RefCounted {
 public:
   MountGroup( Ptr<EntityManager> entityManager, std::function<void( MountStatus )> done )
         : entityManager_( std::move( entityManager ) ),
           done_( std::move( done ) ) {}

   void mountProfile( const std::string & name );
   /// `retry`: keep asking while a profile is unknown; `reason`: for the trace; `timeout`: 0 for none. The
   /// entities stand in this process, so the outcome is known at once and none of the three is waited upon.
   void close( bool retry, const std::string & reason, Seconds timeout );

 private:
   const Ptr<EntityManager> entityManager_;
   std::function<void( MountStatus )> done_;
   MountStatus status_ = MountStatus::success;
};

} // namespace platform
