#include "HealthMonitor/HmBacklogSm.h"

#include "HealthMonitor/HmUtils.h"

namespace hm {

BacklogSm::BacklogSm( Ptr<const HmState::ProbeConfig> probeConfig,
      Ptr<const HmState::ServerConfig> serverConfig, Ptr<const HmState::ServerStatus> serverStatus,
      Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus, Ptr<BacklogInfo> backlogInfo,
      Ptr<NetCHASMInfo> netChasmInfo, Ptr<CommonData> commonData, Ptr<Task> task )
      : probeConfig_( std::move( probeConfig ) ),
        serverConfig_( std::move( serverConfig ) ),
        serverStatus_( std::move( serverStatus ) ),
        mgmtSslStatus_( std::move( mgmtSslStatus ) ),
        backlogInfo_( std::move( backlogInfo ) ),
        netChasmInfo_( std::move( netChasmInfo ) ),
        commonData_( std::move( commonData ) ),
        task_( std::move( task ) ) {
   task_->runHandlerIs( [this] {
      if ( notificationsEnabled() ) {
         processBacklog();
      }
   } );
   handleInitialized();
}

BacklogSm::~BacklogSm() {
   task_->runHandlerIs( {} );
}

void BacklogSm::notificationsEnabledIs( bool enabled ) {
   Reactor::notificationsEnabledIs( enabled );
   if ( enabled && commonData_->configPhase() == ConfigPhase::backlogProcessing && !allBacklogsEmpty() ) {
      task_->scheduleTask();
   }
}

void BacklogSm::handleInitialized() {
   HM_TRACE( 9, "" );
   backlogTypeBookmark_ = BacklogType::nhgServerChange;
   initialized_ = true;
   // One for the life of the shared data: marks in use stay so. Packets without a mark carry 0, so that 0 is
   // never handed out.
   if ( !commonData_->serverMarkBitmap() ) {
      commonData_->serverMarkBitmapIs( "serverMarkBitmap", commonData_->serverMarkBitmapSize(), false )
            ->setBit( 0 );
   }
   netChasmInfo_->hostConfigIs();
   processBacklog();
}

void BacklogSm::processBacklog() {
   HM_TRACE( 7, "" );
   if ( !task_->taskCurrentlyRunning() ) {
      HM_TRACE( 7, "backlog task not running" );
      return;
   }
   HM_ASSERT( commonData_->configPhase() == ConfigPhase::backlogProcessing_, "invalid phase: {}",
         commonData_->configPhase() );
   bool done = true;
   switch ( backlogTypeBookmark_ ) {
   case BacklogType::nhgServerChange:
      done = processNhgServerBacklog();
      [[fallthrough]];
   case BacklogType::nhgLocalAttrsChange:
      done = done && processNhgLocalAttrsBacklog();
      [[fallthrough]];
   case BacklogType::globalAttrsChange:
      done = done && processGlobalAttrsBacklog();
      [[fallthrough]];
   case BacklogType::maxBacklogType:
      break;
   }
   if ( !done ) {
      task_->scheduleTask();
      return;
   }
   backlogTypeBookmark_ = BacklogType::nhgServerChange;
   if ( allBacklogsEmpty() ) {
      HM_TRACE( 4, "all backlogs empty. moving to next phase." );
      commonData_->configPhaseIs( ConfigPhase::netChasmInfoProcessing );
   } else {
      HM_TRACE( 4, "all backlogs not empty. rescheduling task." );
      task_->scheduleTask();
   }
}

bool BacklogSm::allBacklogsEmpty() const {
   const auto servers = backlogInfo_->nhgServerBacklogCount();
   const auto nhgs = backlogInfo_->nhgLocalAttrsBacklogCount();
   const bool global = backlogInfo_->globalAttrsBacklog();
   if ( servers == 0 && nhgs == 0 && !global ) {
      return true;
   }
   HM_TRACE(
         7, "nhgServerBacklog: {}, nhgLocalAttrsBacklog: {}, globalAttrsBacklog: {}", servers, nhgs, global );
   return false;
}

bool BacklogSm::processNhgServerBacklog() {
   HM_TRACE( 7, "size: {}", backlogInfo_->nhgServerBacklogCount() );
   const bool globalNoPeerCheck = evaluateGlobalSslProfile();
   for ( const auto & [server, add] : backlogInfo_->nhgServerBacklogItems() ) {
      if ( task_->taskShouldYield() ) {
         HM_TRACE( 7, "yielding at: {}", ipNhgString( server ) );
         backlogTypeBookmark_ = BacklogType::nhgServerChange;
         return false;
      }
      HM_TRACE( 7, "processing entry: {}, add: {}", ipNhgString( server ), add );
      const auto & [nhgName, serverIp] = server;
      if ( add ) {
         const bool noPeerCheck = evaluateNhgSslProfile( nhgName ) && globalNoPeerCheck;
         const auto nhgConfig = serverConfig_->nhgConfig( nhgName );
         HM_ASSERT( nhgConfig, "nhgConfig missing for {}", nhgName );
         HM_ASSERT( nhgConfig->serverIpHas( serverIp ), "server {} missing in nhgConfig for {}", serverIp,
               nhgName );
         const auto nhgProbeConfig = probeConfig_->nhgProbeConfig( nhgName );
         const bool nhgHasVip = nhgProbeConfig && !nhgProbeConfig->vip().empty();
         const auto hostIp = nhgHasVip ? nhgProbeConfig->vip() : serverIp;
         for ( const auto probeType : { ProbeType::http, ProbeType::tcp } ) {
            const auto url = getUrl( *probeConfig_, nhgName, probeType );
            const auto params = parseUrlInfo( probeType, nhgName, url, nhgHasVip );
            if ( params ) {
               processNhgServerAdd( nhgName, probeType, serverIp, hostIp, params, noPeerCheck );
            } else {
               HM_TRACE( 7, "{} url ({}) invalid / not configured for nhg {}", probeType, url, nhgName );
               processNhgServerDelete( nhgName, probeType, serverIp, hostIp, params );
            }
         }
      } else {
         processNhgServerDelete( nhgName, ProbeType::http, serverIp, serverIp, {} );
         processNhgServerDelete( nhgName, ProbeType::tcp, serverIp, serverIp, {} );
         if ( sourceAddressOutdated( nhgName ) ) {
            backlogInfo_->nhgLocalAttrsBacklogIs( nhgName );
         }
      }
      backlogInfo_->nhgServerBacklogDel( server );
   }
   return true;
}

void BacklogSm::processNhgServerAdd( const NexthopGroupName & nhgName, ProbeType probeType,
      const IpGenAddr & serverIp, const IpGenAddr & hostIp, const NetCHASMCheckParams & params,
      bool noPeerCheck ) {
   const bool populated = populateHostConfig( nhgName, probeType, serverIp, params, noPeerCheck, true );
   HM_ASSERT( populated, "populateHostConfig failed for {}, {}", nhgName, serverIp );
   handleNhgIpChange( nhgName, probeType, serverIp, hostIp, true );
   commonData_->hostNameToIpNhgPairIs(
         hostNameFromNhgAndServerIp( nhgName, probeType, serverIp ), { nhgName, serverIp } );
}

void BacklogSm::processNhgServerDelete( const NexthopGroupName & nhgName, ProbeType probeType,
      const IpGenAddr & serverIp, const IpGenAddr & hostIp, const NetCHASMCheckParams & params ) {
   if ( populateHostConfig( nhgName, probeType, serverIp, params, false, false ) ) {
      handleNhgIpChange( nhgName, probeType, serverIp, hostIp, false );
   }
   commonData_->hostNameToIpNhgPairDel( hostNameFromNhgAndServerIp( nhgName, probeType, serverIp ) );
}

bool BacklogSm::processNhgLocalAttrsBacklog() {
   HM_TRACE( 7, "size: {}", backlogInfo_->nhgLocalAttrsBacklogCount() );
   const bool globalNoPeerCheck = evaluateGlobalSslProfile();
   for ( const auto & item : backlogInfo_->nhgLocalAttrsBacklogItems() ) {
      const auto & nhgName = item.key;
      const bool noPeerCheck = evaluateNhgSslProfile( nhgName ) && globalNoPeerCheck;
      if ( task_->taskShouldYield() ) {
         HM_TRACE( 7, "yielding at: {}", nhgName );
         backlogTypeBookmark_ = BacklogType::nhgLocalAttrsChange;
         return false;
      }
      HM_TRACE( 7, "processing entry: {}", nhgName );
      for ( const auto probeType : { ProbeType::tcp, ProbeType::http } ) {
         if ( !getUrl( *probeConfig_, nhgName, probeType ).empty() ) {
            updateNhgLocalAttrs( nhgName, probeType, noPeerCheck );
         }
      }
      backlogInfo_->nhgLocalAttrsBacklogDel( nhgName );
   }
   return true;
}

/// The flag stands for settings of the engine's master file, which the update cycle writes; it only has to
/// see to it that there is a cycle.
bool BacklogSm::processGlobalAttrsBacklog() {
   HM_TRACE( 7, "value: {}", backlogInfo_->globalAttrsBacklog() );
   backlogInfo_->globalAttrsBacklogIs( false );
   return true;
}

} // namespace hm
