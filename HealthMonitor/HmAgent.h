#pragma once

#include "HealthMonitor/HmCli.h"
#include "HealthMonitor/HmConfigSm.h"
#include "HealthMonitor/HmIpIntfStatusSm.h"
#include "HealthMonitor/HmNetCHASMInterface.h"
#include "HealthMonitor/HmNetCHASMTrace.h"
#include "HealthMonitor/HmNfQueueSm.h"
#include "HealthMonitor/HmOperatorCli.h"
#include "HealthMonitor/HmProbeStatusSm.h"
#include "platform/Agent.h"
#include "platform/state/Ip.h"
#include "platform/state/Ssl.h"

#include <string>
#include <vector>

namespace hm {

/// An object of the agent together with what it was built from: asked for with the same arguments again, it
/// stays.
template<class T>
class Wired {
 public:
   const Ptr<T> & object() const { return object_; }

   /// The object, if it was built from these arguments; otherwise a new one in its place, made by `factory`
   /// when the old one has gone: the two may be bound to the same queue or loop.
   template<class Factory, class... Args>
   const Ptr<T> & is( Factory factory, Ptr<Args>... args ) {
      // The object holds what it was built from, so that no address can come to mean something else.
      std::vector<const void *> builtFrom{ args.get()... };
      if ( !object_ || builtFrom != builtFrom_ ) {
         del();
         object_ = factory( std::move( args )... );
         builtFrom_ = std::move( builtFrom );
         object_->notificationsEnabledIs( true );
      }
      return object_;
   }

   void del() {
      if ( const Ptr<T> gone = std::exchange( object_, nullptr ) ) {
         gone->notificationsEnabledIs( false );
         // Others may hold it on; what there is only one of must be free for who comes after it.
         if constexpr ( requires { gone->doCleanup(); } ) {
            gone->doCleanup();
         }
      }
      builtFrom_.clear();
   }

 private:
   Ptr<T> object_;
   std::vector<const void *> builtFrom_;
};

/// The agent: owner of everything that it runs. Sets up tracing, asks for the mounts of the profile
/// "HealthMonitor", and wires shared data, queues and reactors once they stand. Main thread only; the queues
/// lead to the command thread and to the engine's threads.
///
/// The engine is not torn down with the agent: without checks it stays until the process ends, and the
/// library must stay loaded as long.
class HmAgent : public Agent {
 public:
   explicit HmAgent( std::string name ) : Agent( std::move( name ) ) {}
   ~HmAgent() override;

   /// Any status but success, or an entity that the profile did not bring, stops the process.
   void doMountsComplete( MountStatus status, Ptr<EntityManager> entityManager ) override;
   void doInit() override;
   std::string doCheckAgentCleanState() const override;
   std::vector<Statistics> statistics() const override; // the counters of each server and kind of check

   // What is asked for with the arguments of what stands is returned as it stands; otherwise it is built
   // anew. Deleting switches the notifications off and releases.
   const Ptr<CommonData> & hmCommonDataIs();
   const Ptr<NetCHASMInterface> & netChasmInterfaceIs( const Ptr<EventLoop> & evLoop,
         const Ptr<EventMpmcQueue> & cmdQueue, const Ptr<EventMpmcQueue> & resultQueue,
         const Ptr<CommonData> & commonData );
   const Ptr<ConfigSm> & configSmIs( const Ptr<const HmState::ProbeConfig> & probeConfig,
         const Ptr<const HmState::ServerConfig> & serverConfig,
         const Ptr<HmState::ServerStatus> & serverStatus,
         const Ptr<const Mgmt::Security::Ssl::Status> & mgmtSslStatus, const Ptr<TaskScheduler> & scheduler,
         const Ptr<CommonData> & commonData, const Ptr<EventMpmcQueue> & cmdQueue );
   const Ptr<ProbeStatusSm> & probeStatusSmIs( const Ptr<const HmState::ProbeConfig> & probeConfig,
         const Ptr<HmState::ServerStatus> & serverStatus, const Ptr<EventMpmcQueue> & resultQueue,
         const Ptr<CommonData> & commonData, const Ptr<TaskScheduler> & scheduler );
   const Ptr<NfQueueSm> & nfQueueSmIs( const Ptr<const Bridging::Config> & bridgingConfig,
         const Ptr<const HmState::ProbeConfig> & probeConfig,
         const Ptr<const HmState::ServerStatus> & serverStatus, const Ptr<CommonData> & commonData );
   const Ptr<IpIntfStatusSm> & ipIntfStatusSmIs( const Ptr<const Ip::Status> & ipStatus,
         const Ptr<const Ip6::Status> & ip6Status, const Ptr<const HmState::ProbeConfig> & probeConfig,
         const Ptr<HmState::ServerStatus> & serverStatus );
   const Ptr<NetCHASMTraceReactorSm> & netChasmTraceIs( const Ptr<EventMpmcQueue> & cmdQueue );
   const Ptr<HmCli> & cliCallbackIs(
         const std::string & name, const std::string & commandType, HmAgent * hmAgent );
   const Ptr<HmCliF> & cliCallbackFIs(
         const std::string & name, const std::string & commandType, HmAgent * hmAgent );
   void netChasmInterfaceDel() { netChasmInterface_.del(); }
   void configSmDel() { configSm_.del(); }
   void probeStatusSmDel() { probeStatusSm_.del(); }
   void nfQueueSmDel() { nfQueueSm_.del(); }
   void ipIntfStatusSmDel() { ipIntfStatusSm_.del(); }
   void netChasmTraceDel() { netChasmTrace_.del(); }

   const Ptr<const HmState::ProbeConfig> & hmProbeConfig() const { return hmProbeConfig_; }
   const Ptr<HmState::ServerStatus> & hmServerStatus() const { return hmServerStatus_; }
   const Ptr<CommonData> & hmCommonData() const { return hmCommonData_; }
   const Ptr<ConfigSm> & configSm() const { return configSm_.object(); }
   const Ptr<ProbeStatusSm> & probeStatusSm() const { return probeStatusSm_.object(); }
   const Ptr<NfQueueSm> & nfQueueSm() const { return nfQueueSm_.object(); }
   const Ptr<IpIntfStatusSm> & ipIntfStatusSm() const { return ipIntfStatusSm_.object(); }
   const Ptr<NetCHASMInterface> & netChasmInterface() const { return netChasmInterface_.object(); }
   const Ptr<NetCHASMTraceReactorSm> & netChasmTrace() const { return netChasmTrace_.object(); }
   const Ptr<HmCliF> & cliCallbackF() const { return cliCallbackF_; }
   const Ptr<HmCli> & cliCallback() const { return cliCallback_; }
   const Ptr<EventMpmcQueue> & netChasmCmdQueue() const { return netChasmCmdQueue_; }
   const Ptr<EventMpmcQueue> & netChasmResultQueue() const { return netChasmResultQueue_; }

 private:
   void bindEntities( const EntityManager & entityManager );
   void createQueues();

   // All empty until the mounts are complete. In the order in which they are declared, so that they go the
   // other way round.
   Ptr<const HmState::ProbeConfig> hmProbeConfig_;
   Ptr<const HmState::ServerConfig> serverConfig_;
   Ptr<HmState::ServerStatus> hmServerStatus_; // the one that the agent writes
   Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus_;
   Ptr<const Ip::Status> ipStatus_;
   Ptr<const Ip6::Status> ip6Status_;
   Ptr<CommonData> hmCommonData_;
   Wired<ConfigSm> configSm_;
   Wired<ProbeStatusSm> probeStatusSm_;
   Wired<NfQueueSm> nfQueueSm_;
   Wired<IpIntfStatusSm> ipIntfStatusSm_;
   Ptr<FifoEvent> netChasmCmdEvent_;
   Ptr<EventLoop> netChasmCmdEventLoop_;  // run by the command thread
   Ptr<EventMpmcQueue> netChasmCmdQueue_; // main thread to command thread
   Ptr<FifoEvent> netChasmResultEvent_;
   Ptr<EventLoop> netChasmResultEventLoop_;  // the main loop
   Ptr<EventMpmcQueue> netChasmResultQueue_; // engine threads to main thread
   Wired<NetCHASMInterface> netChasmInterface_;
   Wired<NetCHASMTraceReactorSm> netChasmTrace_;
   Ptr<HmCliF> cliCallbackF_;
   Ptr<HmCli> cliCallback_;
   Ptr<HmOperatorCli> operatorCli_;
};

} // namespace hm
