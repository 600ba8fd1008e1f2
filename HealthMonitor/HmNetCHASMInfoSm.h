#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "HealthMonitor/HmHostModel.h"
#include "platform/EventMpmcQueue.h"
#include "platform/Reactor.h"
#include "platform/Task.h"

#include <string>

namespace hm {

class YamlHelper;

/// The two files that make one configuration of the engine. The master file names the host file of its pair.
class NetCHASMFileCfg : public RefCounted {
 public:
   NetCHASMFileCfg( std::string masterConfigPath, std::string hostConfigPath )
         : masterConfigPath_( std::move( masterConfigPath ) ),
           hostConfigPath_( std::move( hostConfigPath ) ) {}
   const std::string & masterConfigPath() const { return masterConfigPath_; }
   const std::string & hostConfigPath() const { return hostConfigPath_; }

 private:
   const std::string masterConfigPath_;
   const std::string hostConfigPath_;
};

/// The steps of one update cycle, in their order. Each may take several slices.
enum class NcPhase : std::uint8_t {
   createConfigFile = 0,         // writes the file pair that the engine is not using
   createNetCHASMDeleteCmds = 1, // queues the removals, then the reload
   createNetCHASMAddCmds = 2,    // queues the additions
   waitForCmdQueueToBeEmpty = 3, // looks every taskInterval() whether all were taken; then frees marks
};

/// Brings the model to the engine: each run of its task in phase netChasmInfoProcessing is a slice of the
/// update cycle, at whose end the phase is backlogProcessing again. Main thread only; its one way to the
/// engine is the command queue.
///
/// There are two pairs of files, made at the start and used in turn for the life of the process: one is what
/// the engine was told to load, the other is written next. They change places only when the command queue
/// is empty, so that nothing queued names a file that is being written. Marks are freed at that time too:
/// by then the engine no longer tags packets with them.
class NetCHASMInfoSm : public Reactor {
 public:
   /// How long between two looks at a command queue that is not empty.
   static constexpr Seconds defaultTaskInterval{ 5 };

   /// Makes the file pairs and queues the engine's start with an empty configuration.
   NetCHASMInfoSm( Ptr<CommonData> commonData, Ptr<NetCHASMInfo> netchasmInfo, Ptr<TimerTask> ncTask,
         Ptr<EventMpmcQueue> cmdQueue, Ptr<const HmState::ProbeConfig> probeConfig );
   ~NetCHASMInfoSm() override;

   void handleInitialized();
   void handleNcTask();

   /// A cycle that stood still while they were off goes on when they are switched on.
   void notificationsEnabledIs( bool enabled ) override;

   /// The pair that is not written next: between two cycles what the engine was last told to load.
   Ptr<NetCHASMFileCfg> getNetChasmConfig() const;
   const Ptr<NetCHASMFileCfg> & workingCfg() const { return workingCfg_; }

 private:
   const Ptr<CommonData> & commonData() const { return commonData_; }
   const Ptr<NetCHASMInfo> & netchasmInfo() const { return netchasmInfo_; }

   // Each returns true when its step is complete and false when it used up the slice.
   bool generateHostConfigFile();
   bool generateNetCHASMDeleteCmds();
   bool generateNetCHASMAddCmds();
   bool generateDnsAndMarkCmds( bool add );
   bool deletePendingMarks();

   Ptr<NetCHASMFileCfg> createNetCHASMConfigFiles();
   void generateMasterConfig();
   bool hostConfigFileValid( const std::string & fileName ) const;
   void swapWorkingCfg();

   const Ptr<CommonData> commonData_;
   const Ptr<NetCHASMInfo> netchasmInfo_;
   const Ptr<TimerTask> ncTask_;
   const Seconds taskInterval_ = defaultTaskInterval;
   const Ptr<EventMpmcQueue> cmdQueue_;
   const Ptr<const HmState::ProbeConfig> probeConfig_;
   Ptr<YamlHelper> yamlHelper_; // while a host file is being made
   Ptr<NetCHASMFileCfg> fileCfg1_;
   Ptr<NetCHASMFileCfg> fileCfg2_;
   Ptr<NetCHASMFileCfg> workingCfg_; // one of the two
   NcPhase ncPhase_ = NcPhase::createConfigFile;
   // The first item that the last slice did not come to; empty at the start of a step.
   HostGroupKey hostGroupBookMark_;
   std::string hostBookMark_;
   UpdateCmdInfoKey updateCmdInfoBookMark_;
   bool initialized_ = false;
};

} // namespace hm
