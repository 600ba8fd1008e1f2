#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "HealthMonitor/HmHostModel.h"
#include "platform/Reactor.h"
#include "platform/state/HmState.h"
#include "platform/state/Ssl.h"
#include "platform/Task.h"

#include <map>
#include <set>

namespace hm {

/// Turns configuration changes into the model of the engine's host groups. The configuration reactor records
/// what changed in the backlogs and schedules the backlog task; this reactor drains them in that task, a
/// slice at a time, and hands over to the update cycle by changing the configuration phase once nothing is
/// left.
///
/// Owned by the configuration reactor; main thread only. The task is served while notifications are on.
///
/// Sources: HmBacklogSm.cc the draining, HmBacklogHostGroups.cc check parameters and host groups,
/// HmBacklogMarks.cc commands and firewall marks, HmBacklogSsl.cc SSL profiles.
class BacklogSm : public Reactor {
 public:
   BacklogSm( Ptr<const HmState::ProbeConfig> probeConfig, Ptr<const HmState::ServerConfig> serverConfig,
         Ptr<const HmState::ServerStatus> serverStatus, Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus,
         Ptr<BacklogInfo> backlogInfo, Ptr<NetCHASMInfo> netChasmInfo, Ptr<CommonData> commonData,
         Ptr<Task> task );
   ~BacklogSm() override;

   /// What the task did not do while they were off is taken up when they are switched on.
   void notificationsEnabledIs( bool enabled ) override;

   bool initialized() const { return initialized_; }
   BacklogType backlogTypeBookmark() const { return backlogTypeBookmark_; }
   bool allBacklogsEmpty() const;

   /// One run of the backlog task. Outside the task it does nothing.
   void processBacklog();
   /// Queues servers that were published without a mark once more, as far as there are marks for them now.
   /// See findOrCreateMarkForServer().
   void requeueUnmarkedServers();

   // Check parameters. The default value when there is no usable check; the reason is traced.
   static NetCHASMCheckParams parseCurlUrlInfo(
         const NexthopGroupName & nhgName, const std::string & url, bool nhgHasVip );
   static NetCHASMCheckParams parseTcpUrlInfo(
         const NexthopGroupName & nhgName, const std::string & url, bool nhgHasVip );
   static NetCHASMCheckParams parseUrlInfo(
         ProbeType probeType, const NexthopGroupName & nhgName, const std::string & url, bool nhgHasVip ) {
      return probeType == ProbeType::http ? parseCurlUrlInfo( nhgName, url, nhgHasVip )
                                          : parseTcpUrlInfo( nhgName, url, nhgHasVip );
   }

   // Host groups.

   /// Puts the server's host into its host group, which it makes when there is none, or takes it out, and the
   /// group away with the last host. Returns whether the host was added, or was there and has been removed.
   bool populateHostConfig( const NexthopGroupName & nhgName, ProbeType probeType, const IpGenAddr & serverIp,
         const NetCHASMCheckParams & params, bool noPeerCheck, bool add );
   /// Writes timing, source address, SSL files and the peer-check suffix of a host group, if it stands.
   void updateNhgLocalAttrs( const NexthopGroupName & nhgName, ProbeType probeType, bool noPeerCheck );
   /// Stops the process when a host group is not what these values make of it.
   void verifyHostConfig( const NexthopGroupName & nhgName, ProbeType probeType, const std::string & url,
         const IpGenAddr & vip, Seconds probeInterval, const IpGenAddr & probeSrcIp,
         const std::string & sslProfile, std::uint32_t timeoutSeconds, std::uint32_t retryDelaySeconds,
         std::uint16_t retryCount, bool present ) const;

   // Marks.

   /// The server's mark, allocated when it has none, with one more reference. 0 when all marks are taken: the
   /// caller then publishes the server without a mark or a static address. The engine leaves such a host
   /// alone, so that the operator sees the server down and with no checks, and one "Server Mark bitmap full"
   /// in the trace; it is tried again after each update cycle that has freed marks.
   std::uint32_t findOrCreateMarkForServer( const IpGenAddr & serverIp );
   /// Drops one reference and returns the server's mark, 0 when it has none. With the last reference the mark
   /// waits in CommonData for the update cycle, because the engine may use it until then.
   std::uint32_t deleteMarkForServer( const IpGenAddr & serverIp );

   // SSL profiles. Each returns whether its scope names no profile, and then checks go without peer check.
   bool evaluateSslProfile( const std::string & name );            // into the two working paths
   bool evaluateGlobalSslProfile();                                // into CommonData
   bool evaluateNhgSslProfile( const NexthopGroupName & nhgName ); // into the group's NhgSslParams

   /// Under which host address each server of a host group is published to the engine.
   HM_MAP( HostGroupKey, Ptr<ServerCfg>, currNhgServerCfg )

 private:
   void handleInitialized();

   // One backlog each. True: done; false: the task is to be run again.
   bool processNhgServerBacklog();
   bool processNhgLocalAttrsBacklog();
   bool processGlobalAttrsBacklog();

   void processNhgServerAdd( const NexthopGroupName & nhgName, ProbeType probeType,
         const IpGenAddr & serverIp, const IpGenAddr & hostIp, const NetCHASMCheckParams & params,
         bool noPeerCheck );
   void processNhgServerDelete( const NexthopGroupName & nhgName, ProbeType probeType,
         const IpGenAddr & serverIp, const IpGenAddr & hostIp, const NetCHASMCheckParams & params );
   void handleNhgIpChange( const NexthopGroupName & nhgName, ProbeType probeType, const IpGenAddr & serverIp,
         const IpGenAddr & hostIp, bool add );
   void populateUpdateCmdInfo( const NexthopGroupName & nhgName, ProbeType probeType,
         const IpGenAddr & serverIp, const IpGenAddr & hostIp, bool add );
   AddressFamily nhgAddressFamily( const NexthopGroupName & nhgName ) const;
   std::string nhgSourceAddress( const NexthopGroupName & nhgName ) const; // empty: none
   /// A group of both families that loses its last IPv4 server is an IPv6 group, with another source address.
   bool sourceAddressOutdated( const NexthopGroupName & nhgName ) const;

   // Constant after construction.
   const Ptr<const HmState::ProbeConfig> probeConfig_;
   const Ptr<const HmState::ServerConfig> serverConfig_;
   const Ptr<const HmState::ServerStatus> serverStatus_;
   const Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus_;
   const Ptr<BacklogInfo> backlogInfo_;
   const Ptr<NetCHASMInfo> netChasmInfo_;
   const Ptr<CommonData> commonData_;
   const Ptr<Task> task_;

   // Main thread.
   std::string caFilePath_;
   std::string certFilePath_;
   BacklogType backlogTypeBookmark_ = BacklogType::nhgServerChange;
   bool initialized_ = false;
   bool markBitmapFullReported_ = false;
   /// By server: publications that hold no reference on a mark, for want of marks.
   std::map<IpGenAddr, std::set<UpdateCmdInfoKey>> unmarked_;
};

} // namespace hm
