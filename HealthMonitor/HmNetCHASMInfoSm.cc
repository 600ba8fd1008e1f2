#include "HealthMonitor/HmNetCHASMInfoSm.h"

#include "HealthMonitor/HmQueueRecords.h"
#include "HealthMonitor/HmUtils.h"
#include "HealthMonitor/HmYamlHelper.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <unistd.h>

#include <yaml-cpp/yaml.h>

namespace hm {

namespace {

bool doesFileExist( const std::string & fileName ) {
   return std::ifstream( fileName ).is_open();
}

/// Makes an empty file that only this user can read and write, and returns its name; `what` it is to be is
/// for the message.
std::string newConfigFile( const char * what ) {
   constexpr const char * suffix = ".yaml";
   std::string fileName = std::string( "/tmp/XXXXXX" ) + suffix;
   const int fd = mkstemps( fileName.data(), static_cast<int>( std::strlen( suffix ) ) );
   HM_ASSERT( fd > 0, "failed to create {}, error {}", what, std::strerror( errno ) );
   close( fd );
   return fileName;
}

void writeToFile( const std::string & path, std::string_view text ) {
   std::ofstream file;
   file.rdbuf()->pubsetbuf( nullptr, 0 );
   file.open( path, std::ios::out | std::ios::trunc );
   file << text << std::flush;
}

void writeToFile( const std::string & path, const YAML::Node & node ) {
   YAML::Emitter emitter;
   emitter << node;
   writeToFile( path, std::string_view( emitter.c_str(), emitter.size() ) );
}

/// Whole seconds, truncated toward zero and held within what the type can say.
std::uint32_t wholeSeconds( Seconds seconds ) {
   const double most = std::numeric_limits<std::uint32_t>::max();
   return static_cast<std::uint32_t>( std::clamp( seconds.count(), 0.0, most ) );
}

} // namespace

NetCHASMInfoSm::NetCHASMInfoSm( Ptr<CommonData> commonData, Ptr<NetCHASMInfo> netchasmInfo,
      Ptr<TimerTask> ncTask, Ptr<EventMpmcQueue> cmdQueue, Ptr<const HmState::ProbeConfig> probeConfig )
      : commonData_( std::move( commonData ) ),
        netchasmInfo_( std::move( netchasmInfo ) ),
        ncTask_( std::move( ncTask ) ),
        cmdQueue_( std::move( cmdQueue ) ),
        probeConfig_( std::move( probeConfig ) ) {
   ncTask_->runHandlerIs( [this] {
      if ( notificationsEnabled() ) {
         handleNcTask();
      }
   } );
   handleInitialized();
}

NetCHASMInfoSm::~NetCHASMInfoSm() {
   ncTask_->runHandlerIs( nullptr );
}

void NetCHASMInfoSm::notificationsEnabledIs( bool enabled ) {
   Reactor::notificationsEnabledIs( enabled );
   if ( enabled && commonData()->configPhase() == ConfigPhase::netChasmInfoProcessing ) {
      ncTask_->scheduleTask();
   }
}

void NetCHASMInfoSm::handleInitialized() {
   if ( initialized_ ) {
      HM_TRACE( 4, "already initialized" );
      return;
   }
   initialized_ = true;
   fileCfg1_ = createNetCHASMConfigFiles();
   fileCfg2_ = createNetCHASMConfigFiles();
   workingCfg_ = fileCfg1_;
   generateMasterConfig();
   yamlHelper_ = nullptr;
   cmdQueue_->push( new CmdInit( workingCfg_->masterConfigPath() ) );
   swapWorkingCfg();
}

void NetCHASMInfoSm::handleNcTask() {
   HM_TRACE( 7, "In netCHASMInfoProcessing phase" );
   HM_ASSERT( commonData()->configPhase() == ConfigPhase::netChasmInfoProcessing_, "ConfigPhase set is {}",
         commonData()->configPhase() );
   if ( ncPhase_ == NcPhase::createConfigFile ) {
      if ( !generateHostConfigFile() ) {
         ncTask_->scheduleTask();
         return;
      }
      ncPhase_ = NcPhase::createNetCHASMDeleteCmds;
   }
   if ( ncPhase_ == NcPhase::createNetCHASMDeleteCmds ) {
      if ( !generateNetCHASMDeleteCmds() ) {
         ncTask_->scheduleTask();
         return;
      }
      ncPhase_ = NcPhase::createNetCHASMAddCmds;
   }
   if ( ncPhase_ == NcPhase::createNetCHASMAddCmds ) {
      if ( !generateNetCHASMAddCmds() ) {
         ncTask_->scheduleTask();
         return;
      }
      ncPhase_ = NcPhase::waitForCmdQueueToBeEmpty;
   }
   if ( !cmdQueue_->empty() ) {
      ncTask_->scheduleTaskDelay( taskInterval_ );
      return;
   }
   if ( !deletePendingMarks() ) {
      ncTask_->scheduleTask();
      return;
   }
   swapWorkingCfg();
   ncPhase_ = NcPhase::createConfigFile;
   commonData()->probeIntervalIs( wholeSeconds( probeConfig_->probeInterval() ) );
   commonData()->configPhaseIs( ConfigPhase::backlogProcessing );
}

bool NetCHASMInfoSm::generateHostConfigFile() {
   HM_TRACE( 7, "" );
   if ( !yamlHelper_ ) {
      yamlHelper_ = new YamlHelper( netchasmInfo() );
   }
   const HostGroupKey first = hostGroupBookMark_;
   for ( const auto & [key, hosts] : netchasmInfo()->nhgHostListItems().from( first ) ) {
      const auto hostGroupName = hostGroupNameFromNhgAndProbeType( key.nhgName, key.probeType );
      const bool resumed = !hostBookMark_.empty();
      if ( !resumed ) {
         yamlHelper_->hostGroupBegin( hostGroupName );
      }
      HM_TRACE( 4, "processing host-group: {}, probeType: {}", hostGroupName, key.probeType );
      for ( const auto & item : hosts->hostListItems().from( hostBookMark_ ) ) {
         const auto & host = item.key;
         if ( ncTask_->taskShouldYield() ) {
            hostGroupBookMark_ = key;
            hostBookMark_ = host;
            HM_TRACE( 4, "yielding at: ({} {})", hostGroupName, host );
            return false;
         }
         HM_TRACE( 7, "processing server: {}", host );
         yamlHelper_->hostAdd( host );
      }
      yamlHelper_->hostGroupEnd();
      hostGroupBookMark_ = {};
      hostBookMark_.clear();
   }
   writeToFile( workingCfg_->hostConfigPath(), yamlHelper_->hostConfigFile() );
   generateMasterConfig();
   yamlHelper_ = nullptr;
   return true;
}

bool NetCHASMInfoSm::generateNetCHASMDeleteCmds() {
   HM_TRACE( 7, "" );
   if ( !generateDnsAndMarkCmds( false ) ) {
      return false;
   }
   cmdQueue_->push( new CmdReload( workingCfg_->masterConfigPath() ) );
   updateCmdInfoBookMark_ = {};
   return true;
}

bool NetCHASMInfoSm::generateNetCHASMAddCmds() {
   HM_TRACE( 7, "" );
   if ( !generateDnsAndMarkCmds( true ) ) {
      return false;
   }
   updateCmdInfoBookMark_ = {};
   HM_ASSERT(
         netchasmInfo()->updateCmdInfos() == 0, "dnsAndMark commands not generated for all the servers" );
   return true;
}

bool NetCHASMInfoSm::generateDnsAndMarkCmds( bool add ) {
   for ( const auto & [key, info] : netchasmInfo()->updateCmdInfoItems().from( updateCmdInfoBookMark_ ) ) {
      // Asked before the entries that wait for the add pass too: walking past thousands of them takes time.
      if ( ncTask_->taskShouldYield() ) {
         updateCmdInfoBookMark_ = key;
         return false;
      }
      if ( !add && !info->remove() ) {
         continue;
      }
      const auto hostGroupName = hostGroupNameFromNhgAndProbeType( key.nhgName, key.probeType );
      const auto hostName = hostNameFromNhgAndServerIp( key.nhgName, key.probeType, key.serverIp );
      HM_TRACE( 7, "hostGroup:{} hostName:{}hostIp:{} mark:{} remove:{}", hostGroupName, hostName, key.hostIp,
            info->mark(), info->remove() );
      cmdQueue_->push(
            new CmdDnsAndMark( hostGroupName, hostName, key.hostIp, info->mark(), info->remove() ) );
      netchasmInfo()->updateCmdInfoDel( key );
   }
   return true;
}

bool NetCHASMInfoSm::deletePendingMarks() {
   for ( const auto & item : commonData()->delMarkPendingListItems() ) {
      if ( ncTask_->taskShouldYield() ) {
         return false;
      }
      const auto & serverIp = item.key;
      const auto serverMark = commonData()->serverIpToMark( serverIp );
      HM_ASSERT( serverMark, "mark missing for server {}", serverIp );
      if ( serverMark->refCount() != 0 ) {
         HM_TRACE( 4, "server {} is active again", serverIp );
      } else {
         commonData()->serverIpToMarkDel( serverIp );
         commonData()->markToServerIpDel( serverMark->mark() );
         commonData()->serverMarkBitmap()->clearBit( serverMark->mark() );
      }
      commonData()->delMarkPendingListDel( serverIp );
   }
   return true;
}

Ptr<NetCHASMFileCfg> NetCHASMInfoSm::createNetCHASMConfigFiles() {
   const auto master = newConfigFile( "master-config" );
   const auto host = newConfigFile( "host-config" );
   HM_TRACE( 9, "masterCfgFileName:{} hostCfgFileName:{}", master, host );
   return new NetCHASMFileCfg( master, host );
}

Ptr<NetCHASMFileCfg> NetCHASMInfoSm::getNetChasmConfig() const {
   return workingCfg_ == fileCfg1_ ? fileCfg2_ : fileCfg1_;
}

void NetCHASMInfoSm::swapWorkingCfg() {
   HM_TRACE( 7, "swap from masterConfig: {}, hostConfig: {}", workingCfg_->masterConfigPath(),
         workingCfg_->hostConfigPath() );
   workingCfg_ = getNetChasmConfig();
}

void NetCHASMInfoSm::generateMasterConfig() {
   HM_TRACE( 7, "masterConfig: {}, hostConfig: {}", workingCfg_->masterConfigPath(),
         workingCfg_->hostConfigPath() );
   HM_TRACE( 7, "maxThreads:{} caFilePath:{} certFilePath:{}", probeConfig_->maxNumberOfThreads(),
         commonData()->caFilePath(), commonData()->certFilePath() );
   YAML::Node master;
   master["threads.max"] = probeConfig_->maxNumberOfThreads();
   master["connectiontimeout"] = "3000"; // milliseconds
   if ( hostConfigFileValid( workingCfg_->hostConfigPath() ) ) {
      master["config.load-file"] = workingCfg_->hostConfigPath();
   }
   master["db.type"] = "notifier";
   master["log.type"] = "registered";
   master["socket.path"] = "/tmp/netchasm";
   if ( !commonData()->caFilePath().empty() ) {
      master["ca-file"] = commonData()->caFilePath();
   }
   if ( !commonData()->certFilePath().empty() ) {
      master["cert-file"] = commonData()->certFilePath();
   }
   writeToFile( workingCfg_->masterConfigPath(), master );
}

// What the engine would make of a file without host groups need not be known: it is not named then.
bool NetCHASMInfoSm::hostConfigFileValid( const std::string & fileName ) const {
   HM_ASSERT( doesFileExist( fileName ), "host-config file {} doesn't exist", fileName );
   std::ifstream file( fileName );
   std::string firstLine;
   const bool valid = std::getline( file, firstLine ) && firstLine.find( "- name: " ) != firstLine.npos;
   if ( !valid ) {
      HM_TRACE( 4, "host-config file is empty / invalid" );
   }
   return valid;
}

} // namespace hm
