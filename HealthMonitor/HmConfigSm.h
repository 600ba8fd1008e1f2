#pragma once

#include "HealthMonitor/HmBacklogSm.h"
#include "HealthMonitor/HmConfigReactors.h"
#include "HealthMonitor/HmNetCHASMInfoSm.h"

#include <functional>

namespace hm {

/// Turns configuration into work. It watches the global configuration and holds one nested reactor a nexthop
/// group's servers, a group's probe settings and an SSL profile; each change is answered by recording in the
/// backlogs what has to be worked out again and asking for the backlog task. It also keeps what the agent
/// publishes and counts a server in step with the configuration, and hands the word between the backlog task
/// and the update cycle, both of which it owns.
///
/// Kept for each server of each monitored group: a published status, an entry in the two caches by probe type
/// and counters for both probe types. A group is monitored when monitoring is on globally and the group is
/// not disabled; one without probe settings of its own is monitored with the global ones.
///
/// Owned by the agent; main thread only. Made with notifications off.
///
/// Sources: HmConfigSm.cc global configuration and phases, HmNhgMonitoring.cc the operations a group,
/// HmConfigReactors.cc the nested reactors, HmConfigSummary.cc the report on it all.
class ConfigSm : public Reactor {
 public:
   /// As nice(2): adds to the nice value of the process, returns the new one, tells errors by errno only.
   using NiceCall = std::function<int( int )>;

   /// Brings what is published in line with the configuration and queues all of the configuration.
   ConfigSm( Ptr<const HmState::ProbeConfig> probeConfig, Ptr<const HmState::ServerConfig> serverConfig,
         Ptr<HmState::ServerStatus> serverStatus, Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus,
         Ptr<TaskScheduler> scheduler, Ptr<CommonData> commonData, Ptr<EventMpmcQueue> cmdQueue,
         NiceCall niceCall );
   ~ConfigSm() override;

   /// Switches the nested reactors, the backlog reactor and the update cycle along.
   void notificationsEnabledIs( bool enabled ) override;

   const Ptr<const HmState::ProbeConfig> & probeConfig() const { return probeConfig_; }
   const Ptr<const HmState::ServerConfig> & serverConfig() const { return serverConfig_; }
   const Ptr<HmState::ServerStatus> & serverStatus() const { return serverStatus_; }
   const Ptr<CommonData> & commonData() const { return commonData_; }
   const Ptr<EventMpmcQueue> & cmdQueue() const { return cmdQueue_; }
   const Ptr<BacklogInfo> & backlogInfo() const { return backlogInfo_; }
   const Ptr<NetCHASMInfo> & netChasmInfo() const { return netChasmInfo_; }
   const Ptr<Task> & backlogTask() const { return backlogTask_; }
   const Ptr<BacklogSm> & backlogSm() const { return backlogSm_; }
   const Ptr<NetCHASMInfoSm> & netChasmInfoSm() const { return netChasmInfoSm_; }
   bool initialized() const { return initialized_; }

   void handleInitialized();
   void handleMonitoringEnabled();
   void handleGlobalUrl();
   void handleSslProfile();
   void handleProbeInterval();
   void handleMaxNumberOfThreads();
   void handleNiceValue();
   void handleProbeSrcIp();
   void handleProbeSrcIp6();
   void handlePhase();

   /// The one way to ask for backlog processing. Does nothing while the update cycle has the word; at its end
   /// handlePhase() asks again.
   void maybeScheduleBacklogTask();

   /// What is configured globally and how far it has been brought to the engine, to `socket` in `format` as
   /// CliPrinter takes them.
   void showSummary( unsigned socket, unsigned format ) const;

   // Operations on one nexthop group.
   bool nhgMonitoringEnabled( const NexthopGroupName & nhgName ) const; // false: the group is disabled
   bool nhgMonitored( const NexthopGroupName & nhgName ) const;         // by the global switch, too
   void handleNhgMonitoringEnabled( const NexthopGroupName & nhgName );
   void handleNhgMonitoringDisabled( const NexthopGroupName & nhgName );
   void reevaluateNexthopGroup( const NexthopGroupName & nhgName );
   void nhgLocalAttrsChanged( const NexthopGroupName & nhgName );
   void createProbeStatus( const NexthopGroupName & nhgName, const IpGenAddr & serverIp );
   void createProbeCounter( const NexthopGroupName & nhgName, const IpGenAddr & serverIp );
   /// Deleting what does not exist stops the process: status, caches and counters come and go together.
   void deleteProbeStatus( const NexthopGroupName & nhgName, const IpGenAddr & serverIp );
   void deleteProbeCounter( const NexthopGroupName & nhgName, const IpGenAddr & serverIp );

   HM_MAP( NexthopGroupName, Ptr<NhgConfigReactor>, nhgConfigReactor )
   HM_MAP( NexthopGroupName, Ptr<NhgProbeConfigReactor>, nhgProbeConfigReactor )
   HM_MAP( std::string, Ptr<SslStatusReactor>, sslStatusReactor ) // by profile name

 private:
   void hmNhgConfigIs( const NexthopGroupName & nhgName );
   void hmNhgConfigDel( const NexthopGroupName & nhgName );
   void hmNhgProbeConfigIs( const NexthopGroupName & nhgName );
   void hmNhgProbeConfigDel( const NexthopGroupName & nhgName );
   void sslStatusIs( const std::string & profileName );
   void sslStatusDel( const std::string & profileName );

   void watchAll();
   void reconcilePublishedStatus();
   void handleGlobalMonitoringEnabled();
   void handleGlobalMonitoringDisabled();
   /// Whether monitoring is on; traces in the name of `handler` when it is not.
   bool globalMonitoring( const char * handler ) const;
   /// A setting that every group inherits has changed.
   void inheritedAttrChanged( const char * handler );

   // Constant after construction.
   const Ptr<const HmState::ProbeConfig> probeConfig_;
   const Ptr<const HmState::ServerConfig> serverConfig_;
   const Ptr<HmState::ServerStatus> serverStatus_;
   const Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus_;
   const Ptr<TaskScheduler> scheduler_;
   const Ptr<CommonData> commonData_;
   const Ptr<EventMpmcQueue> cmdQueue_;
   const NiceCall niceCall_;

   // Set once by handleInitialized().
   Ptr<BacklogInfo> backlogInfo_;
   Ptr<NetCHASMInfo> netChasmInfo_;
   Ptr<Task> backlogTask_;
   Ptr<TimerTask> netChasmInfoTask_;
   Ptr<BacklogSm> backlogSm_;
   Ptr<NetCHASMInfoSm> netChasmInfoSm_;
   bool initialized_ = false;
};

/// `niceCall` stands for nice(2), which reaches beyond this object; empty: the system's own.
Ptr<ConfigSm> configSmFactory( Ptr<const HmState::ProbeConfig> probeConfig,
      Ptr<const HmState::ServerConfig> serverConfig, Ptr<HmState::ServerStatus> serverStatus,
      Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus, Ptr<TaskScheduler> scheduler,
      Ptr<CommonData> commonData, Ptr<EventMpmcQueue> cmdQueue, ConfigSm::NiceCall niceCall = {} );

} // namespace hm
