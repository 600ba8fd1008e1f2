#include "HealthMonitor/HmConfigSm.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/resource.h>
#include <unistd.h>

namespace hm {

ConfigSm::ConfigSm( Ptr<const HmState::ProbeConfig> probeConfig,
      Ptr<const HmState::ServerConfig> serverConfig, Ptr<HmState::ServerStatus> serverStatus,
      Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus, Ptr<TaskScheduler> scheduler,
      Ptr<CommonData> commonData, Ptr<EventMpmcQueue> cmdQueue, NiceCall niceCall )
      : probeConfig_( std::move( probeConfig ) ),
        serverConfig_( std::move( serverConfig ) ),
        serverStatus_( std::move( serverStatus ) ),
        mgmtSslStatus_( std::move( mgmtSslStatus ) ),
        scheduler_( std::move( scheduler ) ),
        commonData_( std::move( commonData ) ),
        cmdQueue_( std::move( cmdQueue ) ),
        niceCall_( std::move( niceCall ) ) {
   for ( const auto & item : serverConfig_->nhgConfigItems() ) {
      hmNhgConfigIs( item.key );
   }
   for ( const auto & item : probeConfig_->nhgProbeConfigItems() ) {
      hmNhgProbeConfigIs( item.key );
   }
   for ( const auto & item : mgmtSslStatus_->profileStatusItems() ) {
      sslStatusIs( item.key );
   }
   handleInitialized();
   watchAll();
}

ConfigSm::~ConfigSm() {
   ConfigSm::notificationsEnabledIs( false );
   nhgConfigReactorDelAll();
   nhgProbeConfigReactorDelAll();
   sslStatusReactorDelAll();
   unwatchAll();
}

void ConfigSm::watchAll() {
   using Config = HmState::ProbeConfig;
   watch( probeConfig_, Config::monitoringEnabledAttr(), [this] { handleMonitoringEnabled(); } );
   watch( probeConfig_, Config::globalUrlAttr(), [this] { handleGlobalUrl(); } );
   watch( probeConfig_, Config::sslProfileAttr(), [this] { handleSslProfile(); } );
   watch( probeConfig_, Config::probeIntervalAttr(), [this] { handleProbeInterval(); } );
   watch( probeConfig_, Config::maxNumberOfThreadsAttr(), [this] { handleMaxNumberOfThreads(); } );
   watch( probeConfig_, Config::niceValueAttr(), [this] { handleNiceValue(); } );
   using NameHandler = std::function<void( const std::string & )>;
   watch( probeConfig_, Config::nhgProbeConfigAttr(), NameHandler( [this]( const std::string & nhgName ) {
      probeConfig_->nhgProbeConfigHas( nhgName ) ? hmNhgProbeConfigIs( nhgName )
                                                 : hmNhgProbeConfigDel( nhgName );
   } ) );
   watch( serverConfig_, HmState::ServerConfig::nhgConfigAttr(),
         NameHandler( [this]( const std::string & nhgName ) {
            serverConfig_->nhgConfigHas( nhgName ) ? hmNhgConfigIs( nhgName ) : hmNhgConfigDel( nhgName );
         } ) );
   const Ptr<const HmState::ServerStatus> serverStatus = serverStatus_;
   watch( serverStatus, HmState::ServerStatus::probeSrcIpAttr(), [this] { handleProbeSrcIp(); } );
   watch( serverStatus, HmState::ServerStatus::probeSrcIp6Attr(), [this] { handleProbeSrcIp6(); } );
   watch( mgmtSslStatus_, Mgmt::Security::Ssl::Status::profileStatusAttr(),
         NameHandler( [this]( const std::string & name ) {
            mgmtSslStatus_->profileStatusHas( name ) ? sslStatusIs( name ) : sslStatusDel( name );
         } ) );
   const Ptr<const CommonData> commonData = commonData_;
   watch( commonData, CommonData::configPhaseAttr(), [this] { handlePhase(); } );
}

void ConfigSm::notificationsEnabledIs( bool enabled ) {
   Reactor::notificationsEnabledIs( enabled );
   backlogSm_->notificationsEnabledIs( enabled );
   netChasmInfoSm_->notificationsEnabledIs( enabled );
   for ( const auto & item : nhgConfigReactorItems() ) {
      item.value->notificationsEnabledIs( enabled );
   }
   for ( const auto & item : nhgProbeConfigReactorItems() ) {
      item.value->notificationsEnabledIs( enabled );
   }
   for ( const auto & item : sslStatusReactorItems() ) {
      item.value->notificationsEnabledIs( enabled );
   }
}

void ConfigSm::handleInitialized() {
   if ( initialized_ ) {
      return;
   }
   HM_TRACE( 9, "" );
   initialized_ = true;
   reconcilePublishedStatus();
   backlogInfo_ = new BacklogInfo();
   netChasmInfo_ = new NetCHASMInfo();
   backlogTask_ = new Task( scheduler_, TaskPriority{ 3 }, "backlogSmTask" );
   netChasmInfoTask_ = new TimerTask( scheduler_, TaskPriority{ 3 }, "netChasmInfoTask" );
   backlogSm_ = new BacklogSm( probeConfig_, serverConfig_, serverStatus_, mgmtSslStatus_, backlogInfo_,
         netChasmInfo_, commonData_, backlogTask_ );
   netChasmInfoSm_ =
         new NetCHASMInfoSm( commonData_, netChasmInfo_, netChasmInfoTask_, cmdQueue_, probeConfig_ );

   handleMonitoringEnabled();
   handleGlobalUrl();
   handleSslProfile();
   handleProbeInterval();
   handleMaxNumberOfThreads();
   handleNiceValue();
   handleProbeSrcIp();
   handleProbeSrcIp6();
   for ( const auto & item : nhgConfigReactorItems() ) {
      item.value->handleInitialized();
   }
   for ( const auto & item : nhgProbeConfigReactorItems() ) {
      item.value->handleInitialized();
   }
   for ( const auto & item : sslStatusReactorItems() ) {
      item.value->handleState();
   }
   commonData_->configPhaseIs( ConfigPhase::backlogProcessing );
}

/// The state database may have kept what an earlier run published.
void ConfigSm::reconcilePublishedStatus() {
   for ( const auto & [nhgName, nhgProbeStatus] : serverStatus_->nhgProbeStatusItems() ) {
      const auto nhgConfig = serverConfig_->nhgConfig( nhgName );
      if ( !nhgConfig ) {
         serverStatus_->nhgProbeStatusDel( nhgName );
         continue;
      }
      for ( const auto & item : nhgProbeStatus->serverProbeStatusItems() ) {
         if ( !nhgConfig->serverIpHas( item.key ) ) {
            nhgProbeStatus->serverProbeStatusDel( item.key );
         }
      }
      if ( nhgProbeStatus->serverProbeStatusCount() == 0 ) {
         serverStatus_->nhgProbeStatusDel( nhgName );
      }
   }
   for ( const auto & item : serverStatus_->nhgMonitoringDisabledItems() ) {
      if ( nhgMonitoringEnabled( item.key ) ) {
         serverStatus_->nhgMonitoringDisabledDel( item.key );
      }
   }
}

void ConfigSm::hmNhgConfigIs( const NexthopGroupName & nhgName ) {
   const auto config = serverConfig_->nhgConfig( nhgName );
   const auto standing = nhgConfigReactor( nhgName );
   if ( !config || ( standing && ( *standing )->config() == config ) ) {
      return;
   }
   if ( standing ) {
      ( *standing )->handleDel(); // withdraws what is not in the new entry
   }
   const Ptr<NhgConfigReactor> reactor = new NhgConfigReactor( config, *this );
   reactor->notificationsEnabledIs( notificationsEnabled() );
   nhgConfigReactorIs( nhgName, reactor );
}

void ConfigSm::hmNhgConfigDel( const NexthopGroupName & nhgName ) {
   if ( const auto reactor = nhgConfigReactor( nhgName ) ) {
      ( *reactor )->handleDel();
      nhgConfigReactorDel( nhgName );
   }
}

void ConfigSm::hmNhgProbeConfigIs( const NexthopGroupName & nhgName ) {
   const auto config = probeConfig_->nhgProbeConfig( nhgName );
   const auto standing = nhgProbeConfigReactor( nhgName );
   if ( !config || ( standing && ( *standing )->config() == config ) ) {
      return;
   }
   const Ptr<NhgProbeConfigReactor> reactor = new NhgProbeConfigReactor( config, *this );
   reactor->notificationsEnabledIs( notificationsEnabled() );
   nhgProbeConfigReactorIs( nhgName, reactor );
}

void ConfigSm::hmNhgProbeConfigDel( const NexthopGroupName & nhgName ) {
   if ( const auto reactor = nhgProbeConfigReactor( nhgName ) ) {
      ( *reactor )->handleDel();
      nhgProbeConfigReactorDel( nhgName );
      commonData_->nhgSslParamsDel( nhgName ); // the profile that they are of was named there
   }
}

void ConfigSm::sslStatusIs( const std::string & profileName ) {
   const auto status = mgmtSslStatus_->profileStatus( profileName );
   const auto standing = sslStatusReactor( profileName );
   if ( !status || ( standing && ( *standing )->status() == status ) ) {
      return;
   }
   const Ptr<SslStatusReactor> reactor = new SslStatusReactor( profileName, status, *this );
   reactor->notificationsEnabledIs( notificationsEnabled() );
   sslStatusReactorIs( profileName, reactor );
   // A new profile is in no state; the change from that one of an entry that appeared finished was missed.
   if ( initialized_ && status->state() != Mgmt::Security::Ssl::ProfileState::invalid ) {
      reactor->handleState();
   }
}

void ConfigSm::sslStatusDel( const std::string & profileName ) {
   if ( const auto reactor = sslStatusReactor( profileName ) ) {
      ( *reactor )->handleDel();
      sslStatusReactorDel( profileName );
   }
}

void ConfigSm::handleMonitoringEnabled() {
   HM_TRACE( 7, "enabled: {}", probeConfig_->monitoringEnabled() );
   if ( probeConfig_->monitoringEnabled() ) {
      handleGlobalMonitoringEnabled();
   } else {
      handleGlobalMonitoringDisabled();
   }
   serverStatus_->monitoringEnabledIs( probeConfig_->monitoringEnabled() );
}

void ConfigSm::handleGlobalMonitoringEnabled() {
   for ( const auto & item : serverConfig_->nhgConfigItems() ) {
      if ( nhgMonitoringEnabled( item.key ) ) {
         handleNhgMonitoringEnabled( item.key );
      }
   }
   backlogInfo_->globalAttrsBacklogIs( true );
   maybeScheduleBacklogTask();
}

void ConfigSm::handleGlobalMonitoringDisabled() {
   for ( const auto & item : serverStatus_->nhgProbeStatusItems() ) {
      handleNhgMonitoringDisabled( item.key );
   }
}

bool ConfigSm::globalMonitoring( const char * handler ) const {
   if ( !probeConfig_->monitoringEnabled() ) {
      traceFacility().trace( 7, __FILE__, __LINE__, handler, "monitoring disabled" );
   }
   return probeConfig_->monitoringEnabled();
}

void ConfigSm::inheritedAttrChanged( const char * handler ) {
   if ( !globalMonitoring( handler ) ) {
      return;
   }
   for ( const auto & item : serverStatus_->nhgProbeStatusItems() ) {
      backlogInfo_->nhgLocalAttrsBacklogIs( item.key );
   }
   maybeScheduleBacklogTask();
}

void ConfigSm::handleProbeInterval() {
   HM_TRACE( 7, "interval: {}", probeConfig_->probeInterval().count() );
   inheritedAttrChanged( __func__ );
}

void ConfigSm::handleSslProfile() {
   HM_TRACE( 7, "{}", probeConfig_->sslProfile() );
   inheritedAttrChanged( __func__ );
}

void ConfigSm::handleProbeSrcIp() {
   HM_TRACE( 7, "probeSrcIp: {}", serverStatus_->probeSrcIp() );
   inheritedAttrChanged( __func__ );
}

void ConfigSm::handleProbeSrcIp6() {
   HM_TRACE( 7, "probeSrcIp6: {}", serverStatus_->probeSrcIp6() );
   inheritedAttrChanged( __func__ );
}

void ConfigSm::handleGlobalUrl() {
   HM_TRACE( 7, "httpUrl: {}", probeConfig_->globalUrl() );
   if ( !globalMonitoring( __func__ ) ) {
      return;
   }
   for ( const auto & item : serverStatus_->nhgProbeStatusItems() ) {
      reevaluateNexthopGroup( item.key );
   }
   maybeScheduleBacklogTask();
}

void ConfigSm::handleMaxNumberOfThreads() {
   HM_TRACE( 7, "Number of threads:{}", probeConfig_->maxNumberOfThreads() );
   if ( !globalMonitoring( __func__ ) ) {
      return;
   }
   backlogInfo_->globalAttrsBacklogIs( true );
   maybeScheduleBacklogTask();
}

void ConfigSm::handleNiceValue() {
   const int configured = probeConfig_->niceValue();
   HM_TRACE( 7, "Nice Value: {}", configured );
   errno = 0; // -1 is a nice value as good as any other
   const int current = niceCall_( 0 );
   if ( errno != 0 ) {
      HM_TRACE( 1, "Failed to get nice value: {} with error: {}", configured, std::strerror( errno ) );
      return;
   }
   if ( current == configured ) {
      return;
   }
   const int reached = niceCall_( configured - current );
   if ( errno != 0 ) {
      HM_TRACE( 1, "Failed to set nice value: {} with error: {}", configured, std::strerror( errno ) );
      return;
   }
   if ( reached == configured ) {
      HM_TRACE( 9, "Succesfully set nice value: {}", configured );
   }
}

void ConfigSm::maybeScheduleBacklogTask() {
   if ( commonData_->configPhase() == ConfigPhase::backlogProcessing && !backlogTask_->taskScheduled() ) {
      HM_TRACE( 7, "scheduling backlog task" );
      backlogTask_->scheduleTask();
   }
}

void ConfigSm::handlePhase() {
   HM_TRACE( 7, "new phase: {}", commonData_->configPhase() );
   switch ( commonData_->configPhase() ) {
   case ConfigPhase::backlogProcessing:
      backlogSm_->requeueUnmarkedServers();
      if ( !backlogSm_->allBacklogsEmpty() ) {
         maybeScheduleBacklogTask();
      }
      return;
   case ConfigPhase::netChasmInfoProcessing:
      netChasmInfoTask_->scheduleTask();
      return;
   }
   HM_ASSERT( false, "invalid phase {}", commonData_->configPhase() );
}

namespace {

/// nice(2), which on Linux reaches only the calling thread, for every thread of the process. Threads made
/// later inherit the value from those that make them.
int niceOfAllThreads( int increment ) {
   const int reached = ::nice( increment );
   const int error = errno;
   if ( increment != 0 && error == 0 ) {
      std::error_code ignored; // a thread that has ended meanwhile needs no priority
      for ( const auto & entry : std::filesystem::directory_iterator( "/proc/self/task", ignored ) ) {
         setpriority( PRIO_PROCESS, static_cast<id_t>( std::stoul( entry.path().filename() ) ), reached );
      }
   }
   errno = error;
   return reached;
}

} // namespace

Ptr<ConfigSm> configSmFactory( Ptr<const HmState::ProbeConfig> probeConfig,
      Ptr<const HmState::ServerConfig> serverConfig, Ptr<HmState::ServerStatus> serverStatus,
      Ptr<const Mgmt::Security::Ssl::Status> mgmtSslStatus, Ptr<TaskScheduler> scheduler,
      Ptr<CommonData> commonData, Ptr<EventMpmcQueue> cmdQueue, ConfigSm::NiceCall niceCall ) {
   if ( !niceCall ) {
      niceCall = niceOfAllThreads;
   }
   return new ConfigSm( std::move( probeConfig ), std::move( serverConfig ), std::move( serverStatus ),
         std::move( mgmtSslStatus ), std::move( scheduler ), std::move( commonData ), std::move( cmdQueue ),
         std::move( niceCall ) );
}

} // namespace hm
