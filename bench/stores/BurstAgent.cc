#include "platform/Agent.h"
#include "platform/Reactor.h"
#include "platform/state/HmState.h"

#include <chrono>
#include <vector>

/// An agent that publishes 32,766 servers (16,383 in two groups each) and, whenever the probe interval
/// changes, turns every one of them over, in slices as results come: the largest burst that the published
/// state can see.
namespace {

using namespace platform;
using HmState::ProbeStatus;
using HmState::ServerOperState;

constexpr std::uint32_t servers = 16'383;

class Trigger final : public Reactor {
 public:
   Trigger( const Ptr<const HmState::ProbeConfig> & config, const Ptr<Task> & task ) {
      watch( config, HmState::ProbeConfig::probeIntervalAttr(), [task] { task->scheduleTask(); } );
      notificationsEnabledIs( true );
   }
};

class BurstAgent final : public Agent {
 public:
   explicit BurstAgent( const char * name ) : Agent( name ) {}

   void doInit() override {
      const auto group = mountGroup();
      group->mountProfile( "HealthMonitor" );
      group->close( false, "", Seconds{ 0 } );
   }

   void doMountsComplete( MountStatus, Ptr<EntityManager> entityManager ) override {
      const auto status = dynamicPtrCast<HmState::ServerStatus>(
            entityManager->entity( "healthMonitor/status/serverStatus" ) );
      for ( std::uint32_t i = 0; i < 2 * servers; ++i ) {
         const auto group = fmt::format( "{}{}", i < servers ? "a" : "b", i % servers / 128 );
         const auto address = fmt::format( "10.{}.{}.1", i % servers / 256, i % 256 );
         entries_.push_back(
               status->nhgProbeStatusIs( group )->serverProbeStatusIs( *IpGenAddr::fromText( address ) ) );
      }
      task_ = new Task( context().scheduler, TaskPriority{}, "burst" );
      task_->runHandlerIs( [this] { slice(); } );
      trigger_ = new Trigger( dynamicPtrCast<HmState::ProbeConfig>(
                                    entityManager->entity( "healthMonitor/config/probeConfig" ) ),
            task_ );
   }
   std::string doCheckAgentCleanState() const override { return {}; }

 private:
   void slice() {
      const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::system_clock::now().time_since_epoch() );
      while ( next_ < entries_.size() && !task_->taskShouldYield() ) {
         const auto & entry = entries_[next_++];
         const EntityUpdate update( *entry );
         const bool up = entry->operState() == ServerOperState::up;
         entry->operStateIs( up ? ServerOperState::down : ServerOperState::up );
         entry->sinceIs( static_cast<std::uint64_t>( now.count() ) );
         entry->lastChangeIs( up ? "old state: enabled up, new state: enabled down"
                                 : "old state: enabled down, new state: enabled up" );
      }
      if ( next_ < entries_.size() ) {
         task_->scheduleTask();
      } else {
         next_ = 0;
      }
   }

   std::vector<Ptr<ProbeStatus>> entries_;
   std::size_t next_ = 0;
   Ptr<Task> task_;
   Ptr<Trigger> trigger_;
};

} // namespace

extern "C" platform::Agent * hmAgentFactory( const char * name ) {
   return new BurstAgent( name );
}
