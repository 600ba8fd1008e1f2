#include "host/PacketFilter.h"

#include "host/HostTrace.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace host {

using namespace platform;
using namespace std::chrono_literals;

namespace {

constexpr Seconds gather{ 0.1 };   // changes come in bursts
constexpr Seconds retry{ 10 };     // after a failure
constexpr Seconds lookAgain{ 30 }; // a reload of somebody's firewall flushes our rules as well
constexpr Clock::Duration commandPatience = 30s;
constexpr std::size_t maxSources = 16; // present and former ones

/// Runs a command to its end, while nothing else goes on yet, or any more.
std::optional<std::string> runNow( const PacketFilterCommand & command ) {
   ChildProgram program( command.arguments, command.input );
   program.wait( commandPatience );
   return program.finish();
}

std::optional<std::string> runNow( const PacketFilterCommands & commands ) {
   for ( const auto & command : commands ) {
      if ( auto failure = runNow( command ); failure && !command.mayFail ) {
         return failure;
      }
   }
   return std::nullopt;
}

} // namespace

PacketFilter::PacketFilter( Ptr<EventLoop> loop, Ptr<TaskScheduler> scheduler,
      const Ptr<EntityManager> & entityManager, Ptr<HostStatus> status, Report report )
      : loop_( std::move( loop ) ),
        probeConfig_( dynamicPtrCast<HmState::ProbeConfig>(
              entityManager->entity( "healthMonitor/config/probeConfig" ) ) ),
        serverStatus_( dynamicPtrCast<HmState::ServerStatus>(
              entityManager->entity( "healthMonitor/status/serverStatus" ) ) ),
        status_( std::move( status ) ),
        report_( std::move( report ) ),
        task_( new TimerTask( std::move( scheduler ), TaskPriority{}, "PacketFilter" ) ),
        patience_( new LoopTimer( loop_, [this] { commandEnded(); } ) ) {
   task_->runHandlerIs( [this] { workChoose(); } );
   // Of the configuration only what concerns virtual addresses, wherever it stands; of the status only the
   // sources, for the rest of it changes with every check.
   probeConfig_->observeTree( *this );
   const Ptr<const HmState::ServerStatus> published = serverStatus_;
   const auto changed = [this] { task_->scheduleTaskDelay( gather ); };
   watch( published, HmState::ServerStatus::probeSrcIpAttr(), changed );
   watch( published, HmState::ServerStatus::probeSrcIp6Attr(), changed );
   notificationsEnabledIs( true );
}

PacketFilter::~PacketFilter() {
   probeConfig_->unobserveTree( *this );
   ended_ = nullptr;
   running_.reset();
   if ( const auto failure = runNow( packetFilter::remove( form_ ) ) ) {
      report_( "packet filter: rules stay behind: " + *failure );
   }
}

void PacketFilter::start() {
   form_ = runNow( packetFilter::nativeTry() ) ? PacketFilterForm::xtables : PacketFilterForm::native;
   HM_TRACE( 4, " form: {}", form_ == PacketFilterForm::native ? "native" : "xtables" );
   applying_ = targets();
   work_ = Work::install;
   workEnded( runNow( packetFilter::install( form_, applying_ ) ) );
}

void PacketFilter::treeChanged( const Entity &, const AttributeInfo & attribute, const std::string & ) {
   if ( &attribute == &HmState::NexthopGroupProbeConfig::vipAttr().info ||
         &attribute == &HmState::ProbeConfig::nhgProbeConfigAttr().info ) {
      task_->scheduleTaskDelay( gather );
   }
}

PacketFilterTargets PacketFilter::targets() {
   for ( const auto & source : { serverStatus_->probeSrcIp(), serverStatus_->probeSrcIp6() } ) {
      if ( !source.empty() ) {
         std::erase( sources_, source );
         sources_.insert( sources_.begin(), source );
      }
   }
   sources_.resize( std::min( sources_.size(), maxSources ) );
   PacketFilterTargets found;
   found.probeSources = sources_;
   for ( const auto & [name, group] : probeConfig_->nhgProbeConfigItems() ) {
      if ( !group->vip().empty() ) {
         found.vips.insert( group->vip() );
      }
   }
   return found;
}

void PacketFilter::workChoose() {
   if ( work_ != Work::none ) {
      changedMeanwhile_ = true;
      return;
   }
   applying_ = targets();
   if ( !installed_ ) {
      work_ = Work::install;
      commands_ = packetFilter::install( form_, applying_ );
   } else if ( applying_ != applied_ ) {
      work_ = Work::update;
      commands_ = packetFilter::update( form_, applying_ );
   } else {
      work_ = Work::look;
      commands_ = packetFilter::look( form_, applied_ );
   }
   nextCommand_ = 0;
   commandNext();
}

void PacketFilter::commandNext() {
   const auto & command = commands_[nextCommand_];
   running_ = std::make_unique<ChildProgram>( command.arguments, command.input );
   if ( running_->endedFd() < 0 ) {
      patience_->start( 0s ); // as if it had ended: never from within a handler of somebody else
      return;
   }
   ended_ = new FdWatcher( loop_, running_->endedFd(), [this] { commandEnded(); } );
   patience_->start( commandPatience );
}

void PacketFilter::commandEnded() {
   patience_->stop();
   ended_ = nullptr;
   const auto failure = std::exchange( running_, nullptr )->finish();
   const bool failed = failure && !commands_[nextCommand_].mayFail;
   ++nextCommand_;
   if ( failed || nextCommand_ == commands_.size() ) {
      workEnded( failed ? failure : std::nullopt );
   } else {
      commandNext();
   }
}

void PacketFilter::workEnded( const std::optional<std::string> & failure ) {
   const auto work = std::exchange( work_, Work::none );
   auto next = std::exchange( changedMeanwhile_, false ) ? gather : lookAgain;
   if ( !failure ) {
      if ( work != Work::look ) {
         HM_TRACE( 4, " virtual addresses: {}, probe sources: {}", applying_.vips.size(),
               applying_.probeSources.size() );
         installed_ = true;
         applied_ = std::move( applying_ );
      }
      failureIs( "" );
   } else if ( work == Work::install ) {
      failureIs( *failure );
      next = std::min( next, retry );
   } else {
      // Somebody has been at our rules: all of them once more.
      HM_TRACE( 1, " the rules are to be put up again: {}", *failure );
      installed_ = false;
      next = gather;
   }
   task_->scheduleTaskDelay( next );
}

void PacketFilter::failureIs( const std::string & failure ) {
   if ( failure != failure_ ) {
      report_( failure.empty() ? "packet filter: the rules are in place again"
                               : fmt::format( "packet filter: {}; it is tried again", failure ) );
      failure_ = failure;
   }
   status_->packetFilterIs(
         failure.empty() ? form_ == PacketFilterForm::native ? "native" : "xtables" : "failed: " + failure );
}

} // namespace host
