#include "HealthMonitor/HmConfigSm.h"

/// The operations of ConfigSm on one nexthop group.
namespace hm {

namespace {

using NhgProbeStatus = Ptr<HmState::NexthopGroupProbeStatus>;

/// Takes a server out of one of the three places that hold its status; `nhgWhat` and `serverWhat` name it for
/// the assertions. Returns whether the group is empty now.
bool serverProbeStatusDel( const NhgProbeStatus & nhgProbeStatus, const NexthopGroupName & nhgName,
      const IpGenAddr & serverIp, const char * nhgWhat, const char * serverWhat ) {
   HM_ASSERT( nhgProbeStatus, "{} missing for {}", nhgWhat, nhgName );
   HM_ASSERT( nhgProbeStatus->serverProbeStatusHas( serverIp ), "{} missing for {} in {}", serverWhat,
         serverIp, nhgName );
   nhgProbeStatus->serverProbeStatusDel( serverIp );
   return nhgProbeStatus->serverProbeStatusCount() == 0;
}

} // namespace

bool ConfigSm::nhgMonitoringEnabled( const NexthopGroupName & nhgName ) const {
   const auto nhgProbeConfig = probeConfig_->nhgProbeConfig( nhgName );
   return !nhgProbeConfig || !nhgProbeConfig->disabled();
}

bool ConfigSm::nhgMonitored( const NexthopGroupName & nhgName ) const {
   return probeConfig_->monitoringEnabled() && nhgMonitoringEnabled( nhgName );
}

void ConfigSm::handleNhgMonitoringEnabled( const NexthopGroupName & nhgName ) {
   const auto nhgConfig = serverConfig_->nhgConfig( nhgName );
   if ( !nhgConfig ) {
      return;
   }
   for ( const auto & item : nhgConfig->serverIpItems() ) {
      createProbeStatus( nhgName, item.key );
      createProbeCounter( nhgName, item.key );
      backlogInfo_->nhgServerBacklogIs( { nhgName, item.key }, true );
   }
   nhgLocalAttrsChanged( nhgName );
}

void ConfigSm::handleNhgMonitoringDisabled( const NexthopGroupName & nhgName ) {
   const auto nhgProbeStatus = serverStatus_->nhgProbeStatus( nhgName );
   if ( !nhgProbeStatus ) {
      return;
   }
   for ( const auto & item : nhgProbeStatus->serverProbeStatusItems() ) {
      backlogInfo_->nhgServerBacklogIs( { nhgName, item.key }, false );
   }
   serverStatus_->nhgProbeStatusDel( nhgName );
   commonData_->httpProbeStatusDel( nhgName );
   commonData_->tcpProbeStatusDel( nhgName );
   commonData_->probeCountersDel( nhgName );
   maybeScheduleBacklogTask();
}

void ConfigSm::reevaluateNexthopGroup( const NexthopGroupName & nhgName ) {
   HM_TRACE( 7, "NHG: {}", nhgName );
   const auto nhgProbeStatus = serverStatus_->nhgProbeStatus( nhgName );
   if ( !nhgProbeStatus ) {
      return;
   }
   for ( const auto & item : nhgProbeStatus->serverProbeStatusItems() ) {
      backlogInfo_->nhgServerBacklogIs( { nhgName, item.key }, true );
   }
   maybeScheduleBacklogTask();
}

void ConfigSm::nhgLocalAttrsChanged( const NexthopGroupName & nhgName ) {
   backlogInfo_->nhgLocalAttrsBacklogIs( nhgName );
   maybeScheduleBacklogTask();
}

void ConfigSm::createProbeStatus( const NexthopGroupName & nhgName, const IpGenAddr & serverIp ) {
   const auto published = serverStatus_->nhgProbeStatusIs( nhgName )->serverProbeStatusIs( serverIp );
   // What an earlier run published is what each kind of check saw last, so that the server is not judged by a
   // kind that has not reported yet. An entry that is new has its defaults, and so have these.
   for ( const auto & cache :
         { commonData_->httpProbeStatusIs( nhgName ), commonData_->tcpProbeStatusIs( nhgName ) } ) {
      if ( !cache->serverProbeStatusHas( serverIp ) ) {
         const auto view = cache->serverProbeStatusIs( serverIp );
         view->adminStateIs( published->adminState() );
         view->operStateIs( published->operState() );
         view->weightIs( published->weight() );
      }
   }
}

void ConfigSm::deleteProbeStatus( const NexthopGroupName & nhgName, const IpGenAddr & serverIp ) {
   if ( serverProbeStatusDel( serverStatus_->nhgProbeStatus( nhgName ), nhgName, serverIp, "nhgProbeStatus",
              "probeStatus" ) ) {
      serverStatus_->nhgProbeStatusDel( nhgName );
   }
   constexpr auto http = "HTTP probe status cache";
   if ( serverProbeStatusDel( commonData_->httpProbeStatus( nhgName ), nhgName, serverIp, http, http ) ) {
      commonData_->httpProbeStatusDel( nhgName );
   }
   constexpr auto tcp = "TCP probe status cache";
   if ( serverProbeStatusDel( commonData_->tcpProbeStatus( nhgName ), nhgName, serverIp, tcp, tcp ) ) {
      commonData_->tcpProbeStatusDel( nhgName );
   }
}

void ConfigSm::createProbeCounter( const NexthopGroupName & nhgName, const IpGenAddr & serverIp ) {
   const auto counters = commonData_->probeCountersIs( nhgName )->serverIpIs( serverIp );
   counters->probeTypeCountersIs( ProbeType::http );
   counters->probeTypeCountersIs( ProbeType::tcp );
}

void ConfigSm::deleteProbeCounter( const NexthopGroupName & nhgName, const IpGenAddr & serverIp ) {
   const auto nhgCounters = commonData_->probeCounters( nhgName );
   HM_ASSERT( nhgCounters, "probeCounters missing for {}", nhgName );
   const auto counters = nhgCounters->serverIp( serverIp );
   HM_ASSERT( counters, "probeCounters missing for {} in {}", serverIp, nhgName );
   for ( const auto probeType : { ProbeType::http, ProbeType::tcp } ) {
      HM_ASSERT( counters->probeTypeCountersHas( probeType ), "{} probeCounters missing for {} in {}",
            probeType, serverIp, nhgName );
      counters->probeTypeCountersDel( probeType );
   }
   nhgCounters->serverIpDel( serverIp );
   if ( nhgCounters->serverIpCount() == 0 ) {
      commonData_->probeCountersDel( nhgName );
   }
}

} // namespace hm
