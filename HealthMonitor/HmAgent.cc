#include "HealthMonitor/HmAgent.h"

#include <utility>

namespace hm {

namespace {

constexpr const char * mountProfileName = "HealthMonitor";

template<class T>
Ptr<T> entityAt( const EntityManager & entityManager, const std::string & path ) {
   const auto entity = dynamicPtrCast<T>( entityManager.entity( path ) );
   HM_ASSERT( entity, "no entity of the expected type at {}", path );
   return entity;
}

/// Takes a callback out of its place and off its directory.
template<class Callback>
void callbackDel( Ptr<Callback> & place ) {
   if ( const auto gone = std::exchange( place, nullptr ) ) {
      gone->parentIs( nullptr );
   }
}

template<class Callback, class Factory>
const Ptr<Callback> & callbackIs( Ptr<Callback> & place, Factory factory, const std::string & name,
      const std::string & commandType, HmAgent * hmAgent ) {
   if ( !place || place->name() != name || place->commandType() != commandType ||
         place->hmAgent() != hmAgent ) {
      callbackDel( place );
      place = factory( name, commandType, hmAgent );
   }
   return place;
}

} // namespace

void HmAgent::doInit() {
   const auto & environment = context().environment;
   if ( !environment( "FLASHLOG_DISABLE" ) ) {
      const char * const directory = environment( "FLASHLOGDIR" );
      // A directory of one's own needs no process ids to keep the files of several apart.
      FastTraceConfig config{ .fileName = name() + ( directory ? "" : "-%d" ) + ".flog" };
      config.ringKiB.fill( 480 );
      config.bufferedLines = 0;
      config.pieces = 24;
      config.threadingMode = 0;
      config.keepOld = true;
      config.maxLineBytes = 512;
      fastTraceInit( config, directory );
      HM_TRACE( 4, " flogPrefix: {}", config.fileName );
   }
   RefCounted::threadSafeRefCountsIs();
   const auto mounts = mountGroup();
   mounts->mountProfile( mountProfileName );
   mounts->close( false, "", Seconds{ 0 } );
}

void HmAgent::doMountsComplete( MountStatus status, Ptr<EntityManager> entityManager ) {
   HM_TRACE( 9, "" );
   HM_ASSERT( status == MountStatus::success, "mounting profile {} failed with status {}", mountProfileName,
         static_cast<int>( status ) );
   bindEntities( *entityManager );
   createQueues();
   const auto & scheduler = context().scheduler;
   hmCommonDataIs();
   netChasmInterfaceIs( netChasmCmdEventLoop_, netChasmCmdQueue_, netChasmResultQueue_, hmCommonData_ );
   configSmIs( hmProbeConfig_, serverConfig_, hmServerStatus_, mgmtSslStatus_, scheduler, hmCommonData_,
         netChasmCmdQueue_ );
   probeStatusSmIs( hmProbeConfig_, hmServerStatus_, netChasmResultQueue_, hmCommonData_, scheduler );
   const Ptr<const Bridging::Config> bridgingConfig =
         entityAt<Bridging::Config>( *entityManager, "bridging/config" );
   nfQueueSmIs( bridgingConfig, hmProbeConfig_, hmServerStatus_, hmCommonData_ );
   netChasmTraceIs( netChasmCmdQueue_ );
   ipIntfStatusSmIs( ipStatus_, ip6Status_, hmProbeConfig_, hmServerStatus_ );
   cliCallbackIs( "HealthMonitorCli", "HmCli", this );
   cliCallbackFIs( "HealthMonitorCliF", "HmCliF", this );
   commandRequestDirectory()->commandCallbackIs( cliCallback_ );
   commandRequestDirectory()->commandCallbackIs( cliCallbackF_ );
   operatorCli_ = new HmOperatorCli( "HealthMonitorOperatorCli", "HmOperatorCli", this );
   commandRequestDirectory()->commandCallbackIs( operatorCli_ );
}

void HmAgent::bindEntities( const EntityManager & entityManager ) {
   hmProbeConfig_ = entityAt<HmState::ProbeConfig>( entityManager, "healthMonitor/config/probeConfig" );
   serverConfig_ = entityAt<HmState::ServerConfig>( entityManager, "healthMonitor/config/serverConfig" );
   hmServerStatus_ = entityAt<HmState::ServerStatus>( entityManager, "healthMonitor/status/serverStatus" );
   mgmtSslStatus_ = entityAt<Mgmt::Security::Ssl::Status>( entityManager, "mgmt/security/ssl/status" );
   ipStatus_ = entityAt<Ip::Status>( entityManager, "ip/status" );
   ip6Status_ = entityAt<Ip6::Status>( entityManager, "ip6/status" );
}

void HmAgent::createQueues() {
   constexpr bool wakeOnEveryPush = true;
   netChasmCmdEventLoop_ = new EventLoop();
   netChasmCmdEvent_ = new FifoEvent( netChasmCmdEventLoop_ );
   netChasmCmdQueue_ = new EventMpmcQueue( 0, netChasmCmdEvent_, nullptr, wakeOnEveryPush );
   netChasmResultEventLoop_ = context().mainLoop;
   netChasmResultEvent_ = new FifoEvent( netChasmResultEventLoop_ );
   netChasmResultQueue_ = new EventMpmcQueue( 0, netChasmResultEvent_, nullptr, wakeOnEveryPush );
}

HmAgent::~HmAgent() {
   hmCommonData_ = nullptr;
   configSm_.del();
   probeStatusSm_.del();
   nfQueueSm_.del();
   ipIntfStatusSm_.del();
   netChasmInterface_.del();
   netChasmTrace_.del();
   callbackDel( operatorCli_ );
   callbackDel( cliCallbackF_ );
   callbackDel( cliCallback_ );
}

const Ptr<CommonData> & HmAgent::hmCommonDataIs() {
   if ( !hmCommonData_ ) {
      hmCommonData_ = new CommonData();
   }
   return hmCommonData_;
}

const Ptr<NetCHASMInterface> & HmAgent::netChasmInterfaceIs( const Ptr<EventLoop> & evLoop,
      const Ptr<EventMpmcQueue> & cmdQueue, const Ptr<EventMpmcQueue> & resultQueue,
      const Ptr<CommonData> & commonData ) {
   return netChasmInterface_.is( netChasmInterfaceFactory, evLoop, cmdQueue, resultQueue, commonData );
}

const Ptr<ConfigSm> & HmAgent::configSmIs( const Ptr<const HmState::ProbeConfig> & probeConfig,
      const Ptr<const HmState::ServerConfig> & serverConfig, const Ptr<HmState::ServerStatus> & serverStatus,
      const Ptr<const Mgmt::Security::Ssl::Status> & mgmtSslStatus, const Ptr<TaskScheduler> & scheduler,
      const Ptr<CommonData> & commonData, const Ptr<EventMpmcQueue> & cmdQueue ) {
   const auto factory = []( auto... args ) { return configSmFactory( std::move( args )... ); };
   return configSm_.is(
         factory, probeConfig, serverConfig, serverStatus, mgmtSslStatus, scheduler, commonData, cmdQueue );
}

const Ptr<ProbeStatusSm> & HmAgent::probeStatusSmIs( const Ptr<const HmState::ProbeConfig> & probeConfig,
      const Ptr<HmState::ServerStatus> & serverStatus, const Ptr<EventMpmcQueue> & resultQueue,
      const Ptr<CommonData> & commonData, const Ptr<TaskScheduler> & scheduler ) {
   return probeStatusSm_.is(
         probeStatusSmFactory, probeConfig, serverStatus, resultQueue, commonData, scheduler );
}

const Ptr<NfQueueSm> & HmAgent::nfQueueSmIs( const Ptr<const Bridging::Config> & bridgingConfig,
      const Ptr<const HmState::ProbeConfig> & probeConfig,
      const Ptr<const HmState::ServerStatus> & serverStatus, const Ptr<CommonData> & commonData ) {
   const auto factory = [this]( auto... args ) {
      return nfQueueSmFactory( context().mainLoop, std::move( args )... );
   };
   return nfQueueSm_.is( factory, bridgingConfig, probeConfig, serverStatus, commonData );
}

const Ptr<IpIntfStatusSm> & HmAgent::ipIntfStatusSmIs( const Ptr<const Ip::Status> & ipStatus,
      const Ptr<const Ip6::Status> & ip6Status, const Ptr<const HmState::ProbeConfig> & probeConfig,
      const Ptr<HmState::ServerStatus> & serverStatus ) {
   return ipIntfStatusSm_.is( ipIntfStatusSmFactory, ipStatus, ip6Status, probeConfig, serverStatus );
}

const Ptr<NetCHASMTraceReactorSm> & HmAgent::netChasmTraceIs( const Ptr<EventMpmcQueue> & cmdQueue ) {
   return netChasmTrace_.is( netChasmTraceReactorSmFactory, cmdQueue );
}

const Ptr<HmCli> & HmAgent::cliCallbackIs(
      const std::string & name, const std::string & commandType, HmAgent * hmAgent ) {
   return callbackIs( cliCallback_, hmCliFactory, name, commandType, hmAgent );
}

const Ptr<HmCliF> & HmAgent::cliCallbackFIs(
      const std::string & name, const std::string & commandType, HmAgent * hmAgent ) {
   return callbackIs( cliCallbackF_, hmCliFFactory, name, commandType, hmAgent );
}

std::vector<Statistics> HmAgent::statistics() const {
   return { { hmCommonData_, CommonData::probeCountersAttr().info.collection() } };
}

std::string HmAgent::doCheckAgentCleanState() const {
   HM_TRACE( 9, "" );
   std::string violation;
   // The first collection that holds more than `allowed` is what is reported.
   const auto check = [&violation]( std::size_t count, const char * what, std::size_t allowed = 0 ) {
      if ( violation.empty() && count > allowed ) {
         violation = fmt::format( "{}: {}", what, count );
      }
   };
   if ( hmServerStatus_ ) {
      check( hmServerStatus_->nhgProbeStatusCount(), "serverStatus::nhgProbeStatus[] is not empty" );
      check( hmServerStatus_->nhgMonitoringDisabledCount(),
            "serverStatus::nhgMonitoringDisabled[] is not empty" );
   }
   if ( const auto & data = hmCommonData_ ) {
      check( data->hostNameToIpNhgPairCount(), "hmCommonData::hostNameToIpNhgPair[] is not empty" );
      check( data->serverIpToMarkCount(), "hmCommonData::serverIpToMark[] is not empty" );
      check( data->markToServerIpCount(), "hmCommonData::markToServerIp[] is not empty" );
      check( data->delMarkPendingListCount(), "hmCommonData::delMarkPendingList[] is not empty" );
      // Bit 0 is set for good: 0 is never a mark.
      check( data->serverMarkBitmap() ? data->serverMarkBitmap()->bitsSet() : 0,
            "hmCommonData::serverMarkBitmap has bits set", 1 );
      check( data->probeCountersCount(), "hmCommonData::probeCounters[] is not empty" );
      check( data->httpProbeStatusCount(), "hmCommonData::httpProbeStatus[] is not empty" );
      check( data->tcpProbeStatusCount(), "hmCommonData::tcpProbeStatus[] is not empty" );
   }
   if ( const auto & config = configSm() ) {
      if ( const auto & backlog = config->backlogInfo() ) {
         check( backlog->nhgServerBacklogCount(), "backlogInfo::nhgServerBacklog[] is not empty" );
         check( backlog->nhgLocalAttrsBacklogCount(), "backlogInfo::nhgLocalAttrsBacklogs[] is not empty" );
      }
      if ( const auto & model = config->netChasmInfo() ) {
         check( model->updateCmdInfoCount(), "netChasmInfo::updateCmdInfo[] is not empty" );
         check( model->nhgHostListCount(), "netChasmInfo::nhgHostList[] is not empty" );
         check( model->hostConfig() ? model->hostConfig()->hostGrpCfgCount() : 0,
               "netChasmInfo::hostConfig[] is not empty" );
      }
      if ( const auto & backlogSm = config->backlogSm() ) {
         check( backlogSm->currNhgServerCfgCount(), "backlogSm::currNhgServerCfg[] is not empty" );
      }
   }
   if ( !violation.empty() ) {
      HM_TRACE( 9, "{}", violation );
   }
   return violation;
}

} // namespace hm

extern "C" platform::Agent * hmAgentFactory( const char * name ) {
   return new hm::HmAgent( name );
}
