#pragma once

#include "host/ChildProgram.h"
#include "host/HostStatus.h"
#include "host/PacketFilterRules.h"
#include "platform/EntityManager.h"
#include "platform/EventLoop.h"
#include "platform/Reactor.h"
#include "platform/state/HmState.h"
#include "platform/Task.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace host {

/// Keeps packet-filter rules of our own in step with the virtual addresses and the probe sources, so that
/// probes and pings reach netfilter queue 0; see PacketFilterRules.h for what they are. They are put up by
/// start(), taken away by the destructor, and put up again when somebody has flushed them.
///
/// Rules are changed by programs of the system's, one after the other, while the main loop goes on; changes
/// that come meanwhile are one. A program that fails is told of once and tried again later: checks that
/// cannot leave wrapped are reported down by the agent, and this process lives on. Main thread only.
class PacketFilter final : public platform::Reactor, private platform::TreeObserver {
 public:
   using Report = std::function<void( const std::string & line )>;

   PacketFilter( platform::Ptr<platform::EventLoop> loop, platform::Ptr<platform::TaskScheduler> scheduler,
         const platform::Ptr<platform::EntityManager> & entityManager, platform::Ptr<HostStatus> status,
         Report report );
   ~PacketFilter() override;

   /// Finds out which form the kernel has and puts the rules up before it returns: no probe may leave without
   /// them.
   void start();
   /// Whether no program of ours runs.
   bool idle() const { return work_ == Work::none; }

 private:
   enum class Work {
      none,
      install, // until the rules stand
      update,  // because of a change
      look,    // whether they still stand
   };

   void treeChanged( const platform::Entity & entity, const platform::AttributeInfo & attribute,
         const std::string & key ) override;
   PacketFilterTargets targets();
   void workChoose();
   void commandNext();
   void commandEnded();
   void workEnded( const std::optional<std::string> & failure );
   void failureIs( const std::string & failure );

   const platform::Ptr<platform::EventLoop> loop_;
   const platform::Ptr<HmState::ProbeConfig> probeConfig_;
   const platform::Ptr<HmState::ServerStatus> serverStatus_;
   const platform::Ptr<HostStatus> status_;
   const Report report_;
   const platform::Ptr<platform::TimerTask> task_;
   PacketFilterForm form_ = PacketFilterForm::native;

   std::vector<platform::IpGenAddr> sources_{}; // that probes have had, the latest ones first
   bool installed_ = false;
   PacketFilterTargets applied_{}; // while installed
   std::string failure_{};         // what was told last; empty: all is well

   Work work_ = Work::none;
   bool changedMeanwhile_ = false;
   PacketFilterTargets applying_{};
   PacketFilterCommands commands_{}; // of the work, the next one at nextCommand_
   std::size_t nextCommand_ = 0;
   std::unique_ptr<ChildProgram> running_{};
   platform::Ptr<platform::FdWatcher> ended_{};
   const platform::Ptr<platform::LoopTimer> patience_;
};

} // namespace host
