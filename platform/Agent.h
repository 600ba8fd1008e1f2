#pragma once

#include "platform/CommandCallback.h"
#include "platform/EntityManager.h"
#include "platform/EventLoop.h"
#include "platform/Task.h"

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace platform {

/// What the host gives to an agent before doInit(). All of it outlives the agent.
struct AgentContext {
   Ptr<EventLoop> mainLoop;
   Ptr<EntityManager> entityManager;
   Ptr<TaskScheduler> scheduler;
   const Clock * clock = &Clock::steady();
   /// Value of an environment variable, or null.
   std::function<const char *( const char * )> environment = []( const char * name ) -> const char * {
      return std::getenv( name );
   };
};

/// Entities of an agent's own that others may read now and then. They stand in no tree that anybody watches.
struct Statistics {
   Ptr<const Entity> entity;
   const CollectionInfo * collection; // of `entity`; with everything below it
};

/// Base of an agent: one object that the host makes through the library's factory, initialises once, and
/// releases at the end. Everything here runs on the main thread.
///
/// Life: constructor, contextIs(), doInit() (which asks for the mounts through mountGroup()),
/// doMountsComplete() once they stand, then the main loop, then the destructor.
class Agent : public RefCounted {
 public:
   ~Agent() override = default;
   virtual void doMountsComplete( MountStatus status, Ptr<EntityManager> entityManager ) = 0;
   virtual void doInit() = 0;
   /// What is left over after all configuration has gone; empty when the agent is clean.
   virtual std::string doCheckAgentCleanState() const = 0;

   /// Complete once the mounts are, and for the agent's life.
   virtual std::vector<Statistics> statistics() const { return {}; }

   const std::string & name() const { return name_; }
   const AgentContext & context() const { return context_; }
   void contextIs( AgentContext context ) { context_ = std::move( context ); }
   /// The commands that the agent answers; complete once the mounts are.
   const Ptr<CommandRequestDirectory> & commandRequestDirectory() const { return commandRequestDirectory_; }

 protected:
   explicit Agent( std::string name ) : name_( std::move( name ) ) {}

   /// A mount group whose completion calls doMountsComplete().
   Ptr<MountGroup> mountGroup() {
      return new MountGroup( context_.entityManager,
            [this]( MountStatus status ) { doMountsComplete( status, context_.entityManager ); } );
   }

 private:
   const std::string name_;
   const Ptr<CommandRequestDirectory> commandRequestDirectory_ = new CommandRequestDirectory;
   AgentContext context_;
};

/// The symbol that an agent library exports: makes the agent, which the caller then holds in a Ptr.
using AgentFactory = Agent *( const char * name );
inline constexpr const char * agentFactorySymbol = "hmAgentFactory";

} // namespace platform
