#include "HealthMonitor/HmConfigReactors.h"

#include "HealthMonitor/HmConfigSm.h"

namespace hm {

NhgConfigReactor::NhgConfigReactor( Ptr<const HmState::NexthopGroupConfig> config, ConfigSm & parent )
      : config_( std::move( config ) ),
        parent_( parent ) {
   watch( config_, HmState::NexthopGroupConfig::serverIpAttr(),
         std::function<void( const IpGenAddr & )>(
               [this]( const IpGenAddr & serverIp ) { handleNhgServerIp( serverIp ); } ) );
   handleInitialized();
}

void NhgConfigReactor::handleInitialized() {
   HM_TRACE( 7, "NHG: {}, servers#:{}", nhgName(), config_->serverIpCount() );
   if ( !parent_.initialized() ) {
      HM_TRACE( 7, "parent not initialized" );
      return;
   }
   for ( const auto & item : config_->serverIpItems() ) {
      handleNhgServerIp( item.key );
   }
}

void NhgConfigReactor::handleNhgServerIp( const IpGenAddr & serverIp ) {
   const auto present = parent_.serverConfig()->nhgConfig( nhgName() );
   const bool add = present && present->serverIpHas( serverIp );
   HM_TRACE( 7, "NHG: {}, server: {}, add: {}", nhgName(), serverIp, add );
   if ( !parent_.nhgMonitored( nhgName() ) ) {
      HM_TRACE( 7, "monitoring not enabled for {}", nhgName() );
      return;
   }
   if ( add ) {
      parent_.createProbeStatus( nhgName(), serverIp );
      parent_.createProbeCounter( nhgName(), serverIp );
   } else {
      // A server that came and went before this group's monitoring was told to start has nothing to lose.
      const auto nhgProbeStatus = parent_.serverStatus()->nhgProbeStatus( nhgName() );
      if ( !nhgProbeStatus || !nhgProbeStatus->serverProbeStatusHas( serverIp ) ) {
         return;
      }
      parent_.deleteProbeStatus( nhgName(), serverIp );
      parent_.deleteProbeCounter( nhgName(), serverIp );
   }
   parent_.backlogInfo()->nhgServerBacklogIs( { nhgName(), serverIp }, add );
   parent_.maybeScheduleBacklogTask();
}

void NhgConfigReactor::handleDel() {
   HM_TRACE( 7, "NHG: {}", nhgName() );
   if ( !parent_.nhgMonitored( nhgName() ) ) {
      HM_TRACE( 7, "monitoring not enabled for {}", nhgName() );
      return;
   }
   if ( const auto nhgProbeStatus = parent_.serverStatus()->nhgProbeStatus( nhgName() ) ) {
      for ( const auto & item : nhgProbeStatus->serverProbeStatusItems() ) {
         handleNhgServerIp( item.key );
      }
   }
}

NhgProbeConfigReactor::NhgProbeConfigReactor(
      Ptr<const HmState::NexthopGroupProbeConfig> config, ConfigSm & parent )
      : config_( std::move( config ) ),
        parent_( parent ) {
   using Config = HmState::NexthopGroupProbeConfig;
   watch( config_, Config::httpUrlAttr(), [this] { handleNhgUrl(); } );
   watch( config_, Config::tcpUrlAttr(), [this] { handleNhgUrl(); } );
   watch( config_, Config::probeIntervalAttr(), [this] { handleNhgProbeInterval(); } );
   watch( config_, Config::sslProfileAttr(), [this] { handleNhgSslProfile(); } );
   watch( config_, Config::vipAttr(), [this] { handleNhgVip(); } );
   watch( config_, Config::disabledAttr(), [this] { handleNhgDisabled(); } );
   watch( config_, Config::timeoutAttr(), [this] { handleNhgTimeout(); } );
   watch( config_, Config::retryDelayAttr(), [this] { handleNhgRetryDelay(); } );
   watch( config_, Config::retryCountAttr(), [this] { handleNhgRetryCount(); } );
   handleInitialized();
}

void NhgProbeConfigReactor::handleInitialized() {
   HM_TRACE( 7, "NHG: {}", nhgName() );
   if ( !parent_.initialized() ) {
      HM_TRACE( 7, "parent not initialized" );
      return;
   }
   handleNhgUrl();
   handleNhgVip();
   handleNhgSslProfile();
   handleNhgProbeInterval();
   handleNhgDisabled();
   handleNhgTimeout();
   handleNhgRetryDelay();
   handleNhgRetryCount();
}

void NhgProbeConfigReactor::serversChanged( const char * handler ) {
   if ( parent_.nhgMonitored( nhgName() ) ) {
      parent_.reevaluateNexthopGroup( nhgName() );
   } else {
      traceFacility().trace( 7, __FILE__, __LINE__, handler, "monitoring not enabled for {}", nhgName() );
   }
}

void NhgProbeConfigReactor::localAttrsChanged( const char * handler ) {
   if ( parent_.nhgMonitored( nhgName() ) ) {
      parent_.nhgLocalAttrsChanged( nhgName() );
   } else {
      traceFacility().trace( 7, __FILE__, __LINE__, handler, "monitoring not enabled for {}", nhgName() );
   }
}

void NhgProbeConfigReactor::handleNhgUrl() {
   HM_TRACE( 7, "NHG: {}, httpUrl: {}", nhgName(), config_->httpUrl() );
   serversChanged( __func__ );
}

void NhgProbeConfigReactor::handleNhgVip() {
   HM_TRACE( 7, "NHG: {}, vip: {}", nhgName(), config_->vip() );
   serversChanged( __func__ );
}

void NhgProbeConfigReactor::handleNhgSslProfile() {
   HM_TRACE( 7, "NHG: {}, sslProfile: {}", nhgName(), config_->sslProfile() );
   localAttrsChanged( __func__ );
}

void NhgProbeConfigReactor::handleNhgProbeInterval() {
   HM_TRACE( 7, "NHG: {}, probeInterval: {}", nhgName(), config_->probeInterval().count() );
   localAttrsChanged( __func__ );
}

void NhgProbeConfigReactor::handleNhgTimeout() {
   HM_TRACE( 7, "NHG: {}, timeout: {}", nhgName(), config_->timeout() );
   localAttrsChanged( __func__ );
}

void NhgProbeConfigReactor::handleNhgRetryDelay() {
   HM_TRACE( 7, "NHG: {}, retryDelay: {}", nhgName(), config_->retryDelay() );
   localAttrsChanged( __func__ );
}

void NhgProbeConfigReactor::handleNhgRetryCount() {
   HM_TRACE( 7, "NHG: {}, retryCount: {}", nhgName(), config_->retryCount() );
   localAttrsChanged( __func__ );
}

void NhgProbeConfigReactor::handleNhgDisabled() {
   HM_TRACE( 7, "NHG: {}, disabled: {}", nhgName(), config_->disabled() );
   if ( !parent_.probeConfig()->monitoringEnabled() ) {
      HM_TRACE( 7, "monitoring not enabled globally" );
      return;
   }
   if ( config_->disabled() ) {
      parent_.handleNhgMonitoringDisabled( nhgName() );
      parent_.serverStatus()->nhgMonitoringDisabledIs( nhgName() );
   } else {
      parent_.handleNhgMonitoringEnabled( nhgName() );
      parent_.serverStatus()->nhgMonitoringDisabledDel( nhgName() );
   }
}

void NhgProbeConfigReactor::handleDel() {
   HM_TRACE( 7, "NHG: {}", nhgName() );
   if ( parent_.probeConfig()->monitoringEnabled() ) {
      parent_.handleNhgMonitoringEnabled( nhgName() );
   } else {
      HM_TRACE( 7, "monitoring not enabled globally" );
   }
   // The flag has gone with the entry, whatever the global switch says; nobody else would take the name out.
   parent_.serverStatus()->nhgMonitoringDisabledDel( nhgName() );
}

SslStatusReactor::SslStatusReactor(
      std::string profileName, Ptr<const Mgmt::Security::Ssl::ProfileStatus> status, ConfigSm & parent )
      : profileName_( std::move( profileName ) ),
        status_( std::move( status ) ),
        parent_( parent ) {
   watch( status_, Mgmt::Security::Ssl::ProfileStatus::stateAttr(), [this] { handleState(); } );
}

// Profiles that only a group names are evaluated whenever the backlogs reach the group.
void SslStatusReactor::handleState() {
   if ( profileName_ == parent_.probeConfig()->sslProfile() ) {
      HM_TRACE( 7, "{} changed state", profileName_ );
      parent_.handleSslProfile();
   }
}

void SslStatusReactor::handleDel() {
   if ( profileName_ == parent_.probeConfig()->sslProfile() ) {
      HM_TRACE( 7, "{} has been deleted", profileName_ );
      parent_.handleSslProfile();
   }
}

} // namespace hm
