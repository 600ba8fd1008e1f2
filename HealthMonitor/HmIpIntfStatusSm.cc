#include "HealthMonitor/HmIpIntfStatusSm.h"

#include "platform/SystemLog.h"

#include <syslog.h>

namespace hm {

namespace {

const SystemLogMessage invalidIpv6TunnelAddress{ "HEALTH_MONITOR_INVALID_IPV6_TUNNEL_ADDRESS", LOG_ERR,
      "IPv6 tunnel address configuration is being ignored due to multiple IPv6 addresses on %s.",
      "Configuration of the IPv6 tunnel address is valid when there is only 1 IPv6 address on the tunnel "
      "source interface",
      "Configure a single IPv6 address on the tunnel source interface" };

IpGenAddr ipv4AddressOf( const Ip::Status & ipStatus, const IntfId & intfId ) {
   const auto status = ipStatus.ipIntfStatus( intfId );
   return status ? status->ipAddr() : IpGenAddr{};
}

} // namespace

NestedSm_IpIntfStatus::NestedSm_IpIntfStatus(
      IntfId intfId, Ptr<const Ip::IpIntfStatus> status, IpIntfStatusSm & parent )
      : intfId_( std::move( intfId ) ),
        parent_( parent ) {
   watch( status, Ip::IpIntfStatus::ipAddrAttr(), [this] { handleIpIntfStatusChange(); } );
}

void NestedSm_IpIntfStatus::handleInitialized() {
   HM_TRACE( 9, "" );
   handleIpIntfStatusChange();
}

void NestedSm_IpIntfStatus::handleIpIntfStatusChange() {
   if ( intfId_ != parent_.hmProbeConfig()->localTunnelIntf() ) {
      HM_TRACE( 9, "Ignoring ipIntfStatus change for intfId {}", intfId_.name() );
      return;
   }
   const auto address = ipv4AddressOf( *parent_.ipStatus(), intfId_ );
   HM_TRACE( 4, "Setting probeSrcIp to {}", address );
   parent_.hmServerStatus()->probeSrcIpIs( address );
}

void NestedSm_IpIntfStatus::cleanup() {
   if ( intfId_ != parent_.hmProbeConfig()->localTunnelIntf() ) {
      HM_TRACE( 9, "Ignoring ipIntfStatus change for intfId {}", intfId_.name() );
      return;
   }
   HM_TRACE( 4, "Setting probeSrcIp to {}", IpGenAddr{} );
   parent_.hmServerStatus()->probeSrcIpIs( {} );
}

NestedSm_Ip6IntfStatus::NestedSm_Ip6IntfStatus(
      IntfId intfId, Ptr<const Ip6::IntfStatus> status, IpIntfStatusSm & parent )
      : intfId_( std::move( intfId ) ),
        parent_( parent ) {
   watch( status, Ip6::IntfStatus::addrAttr(),
         std::function<void( const IpGenPrefix & )>(
               [this]( const IpGenPrefix & ) { handleIp6IntfStatusChange(); } ) );
}

void NestedSm_Ip6IntfStatus::handleInitialized() {
   HM_TRACE( 9, "" );
   handleIp6IntfStatusChange();
}

void NestedSm_Ip6IntfStatus::handleIp6IntfStatusChange() {
   if ( intfId_ != parent_.hmProbeConfig()->localTunnelIntf() ) {
      HM_TRACE( 9, "Ignoring ip6IntfStatus change for intfId {}", intfId_.name() );
      return;
   }
   parent_.maybeUpdateIpv6TunnelSourceIp( intfId_ );
}

void NestedSm_Ip6IntfStatus::cleanup() {
   if ( intfId_ != parent_.hmProbeConfig()->localTunnelIntf() ) {
      HM_TRACE( 9, "Ignoring ip6IntfStatus change for intfId {}", intfId_.name() );
      return;
   }
   HM_TRACE( 4, "Setting probeSrcIp6 to {}", IpGenAddr{} );
   parent_.hmServerStatus()->probeSrcIp6Is( {} );
}

IpIntfStatusSm::IpIntfStatusSm( Ptr<const Ip::Status> ipStatus, Ptr<const Ip6::Status> ip6Status,
      Ptr<const HmState::ProbeConfig> hmProbeConfig, Ptr<HmState::ServerStatus> hmServerStatus )
      : ipStatus_( std::move( ipStatus ) ),
        ip6Status_( std::move( ip6Status ) ),
        hmProbeConfig_( std::move( hmProbeConfig ) ),
        hmServerStatus_( std::move( hmServerStatus ) ) {
   for ( const auto & item : ipStatus_->ipIntfStatusItems() ) {
      handleIpIntf( item.key );
   }
   for ( const auto & item : ip6Status_->intfItems() ) {
      handleIp6Intf( item.key );
   }
   handleInitialized();
   using IntfHandler = std::function<void( const IntfId & )>;
   watch( ipStatus_, Ip::Status::ipIntfStatusAttr(),
         IntfHandler( [this]( const IntfId & intfId ) { handleIpIntf( intfId ); } ) );
   watch( ip6Status_, Ip6::Status::intfAttr(),
         IntfHandler( [this]( const IntfId & intfId ) { handleIp6Intf( intfId ); } ) );
   watch( hmProbeConfig_, HmState::ProbeConfig::localTunnelIntfAttr(), [this] { handleLocalTunnelIntf(); } );
}

IpIntfStatusSm::~IpIntfStatusSm() {
   unwatchAll();
}

void IpIntfStatusSm::notificationsEnabledIs( bool enabled ) {
   Reactor::notificationsEnabledIs( enabled );
   for ( const auto & item : ipIntfStatusItems() ) {
      item.value->notificationsEnabledIs( enabled );
   }
   for ( const auto & item : ip6IntfStatusItems() ) {
      item.value->notificationsEnabledIs( enabled );
   }
}

void IpIntfStatusSm::handleIpIntf( const IntfId & intfId ) {
   if ( const auto status = ipStatus_->ipIntfStatus( intfId ) ) {
      const Ptr<NestedSm_IpIntfStatus> nested = new NestedSm_IpIntfStatus( intfId, status, *this );
      nested->notificationsEnabledIs( notificationsEnabled() );
      ipIntfStatusIs( intfId, nested );
      if ( initialized_ ) {
         nested->handleInitialized();
      }
   } else if ( const auto gone = ipIntfStatus( intfId ) ) {
      ipIntfStatusDel( intfId );
      ( *gone )->cleanup();
   }
}

void IpIntfStatusSm::handleIp6Intf( const IntfId & intfId ) {
   if ( const auto status = ip6Status_->intf( intfId ) ) {
      const Ptr<NestedSm_Ip6IntfStatus> nested = new NestedSm_Ip6IntfStatus( intfId, status, *this );
      nested->notificationsEnabledIs( notificationsEnabled() );
      ip6IntfStatusIs( intfId, nested );
      if ( initialized_ ) {
         nested->handleInitialized();
      }
   } else if ( const auto gone = ip6IntfStatus( intfId ) ) {
      ip6IntfStatusDel( intfId );
      ( *gone )->cleanup();
   }
}

void IpIntfStatusSm::handleInitialized() {
   HM_TRACE( 9, "" );
   handleLocalTunnelIntf();
   for ( const auto & item : ipIntfStatusItems() ) {
      item.value->handleInitialized();
   }
   for ( const auto & item : ip6IntfStatusItems() ) {
      item.value->handleInitialized();
   }
   initialized_ = true;
}

void IpIntfStatusSm::handleLocalTunnelIntf() {
   const auto & intf = hmProbeConfig_->localTunnelIntf();
   const auto address = ipv4AddressOf( *ipStatus_, intf );
   HM_TRACE( 4, "Setting probeSrcIp to {}", address );
   hmServerStatus_->probeSrcIpIs( address );
   maybeUpdateIpv6TunnelSourceIp( intf );
}

void IpIntfStatusSm::maybeUpdateIpv6TunnelSourceIp( const IntfId & intf ) {
   IpGenAddr address;
   std::size_t count = 0;
   if ( const auto status = ip6Status_->intf( intf ) ) {
      for ( const auto & item : status->addrItems() ) {
         // What was configured as an address of the interface may be of any family.
         if ( item.key.address.isIpv6() && !item.key.address.ipv6LinkLocal() ) {
            ++count;
            address = item.key.address;
         }
      }
   }
   if ( count > 1 ) {
      systemLog( invalidIpv6TunnelAddress, intf.name() );
      address = {};
   }
   HM_TRACE( 4, "Setting probeSrcIp6 to {}", address );
   hmServerStatus_->probeSrcIp6Is( address );
}

Ptr<IpIntfStatusSm> ipIntfStatusSmFactory( Ptr<const Ip::Status> ipStatus, Ptr<const Ip6::Status> ip6Status,
      Ptr<const HmState::ProbeConfig> hmProbeConfig, Ptr<HmState::ServerStatus> hmServerStatus ) {
   return new IpIntfStatusSm( std::move( ipStatus ), std::move( ip6Status ), std::move( hmProbeConfig ),
         std::move( hmServerStatus ) );
}

} // namespace hm
