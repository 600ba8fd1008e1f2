#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "platform/Reactor.h"
#include "platform/state/Ip.h"

namespace hm {

class IpIntfStatusSm;

/// The IPv4 address of one interface. Nested in IpIntfStatusSm, which outlives it.
class NestedSm_IpIntfStatus : public Reactor {
 public:
   NestedSm_IpIntfStatus( IntfId intfId, Ptr<const Ip::IpIntfStatus> status, IpIntfStatusSm & parent );
   const IntfId & intfId() const { return intfId_; }

   void handleInitialized();
   void handleIpIntfStatusChange();
   void cleanup(); // the status has gone

 private:
   const IntfId intfId_;
   IpIntfStatusSm & parent_;
};

/// The IPv6 addresses of one interface. As above.
class NestedSm_Ip6IntfStatus : public Reactor {
 public:
   NestedSm_Ip6IntfStatus( IntfId intfId, Ptr<const Ip6::IntfStatus> status, IpIntfStatusSm & parent );
   const IntfId & intfId() const { return intfId_; }

   void handleInitialized();
   void handleIp6IntfStatusChange();
   void cleanup();

 private:
   const IntfId intfId_;
   IpIntfStatusSm & parent_;
};

/// Follows the tunnel source interface and publishes its addresses as those that probes leave with. The IPv6
/// one only where there is exactly one beside the link-local ones: of several, none is known to be meant.
/// Main thread only.
class IpIntfStatusSm : public Reactor {
 public:
   IpIntfStatusSm( Ptr<const Ip::Status> ipStatus, Ptr<const Ip6::Status> ip6Status,
         Ptr<const HmState::ProbeConfig> hmProbeConfig, Ptr<HmState::ServerStatus> hmServerStatus );
   ~IpIntfStatusSm() override;
   void notificationsEnabledIs( bool enabled ) override;

   const Ptr<const Ip::Status> & ipStatus() const { return ipStatus_; }
   const Ptr<const HmState::ProbeConfig> & hmProbeConfig() const { return hmProbeConfig_; }
   const Ptr<HmState::ServerStatus> & hmServerStatus() const { return hmServerStatus_; }
   bool initialized() const { return initialized_; }

   void handleInitialized();
   void handleLocalTunnelIntf();
   void maybeUpdateIpv6TunnelSourceIp( const IntfId & intf );

   HM_MAP( IntfId, Ptr<NestedSm_IpIntfStatus>, ipIntfStatus )
   HM_MAP( IntfId, Ptr<NestedSm_Ip6IntfStatus>, ip6IntfStatus )

 private:
   void handleIpIntf( const IntfId & intfId ); // came or went
   void handleIp6Intf( const IntfId & intfId );

   const Ptr<const Ip::Status> ipStatus_;
   const Ptr<const Ip6::Status> ip6Status_;
   const Ptr<const HmState::ProbeConfig> hmProbeConfig_;
   const Ptr<HmState::ServerStatus> hmServerStatus_;
   bool initialized_ = false;
};

Ptr<IpIntfStatusSm> ipIntfStatusSmFactory( Ptr<const Ip::Status> ipStatus, Ptr<const Ip6::Status> ip6Status,
      Ptr<const HmState::ProbeConfig> hmProbeConfig, Ptr<HmState::ServerStatus> hmServerStatus );

} // namespace hm
