#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "platform/EventLoopThread.h"
#include "platform/Reactor.h"

#include <atomic>

#include <netchasm/HMStateManager.h>

namespace hm {

class NetCHASMInterface;

/// Executes the commands of the command queue one after another, in queue order: the only thread that pops
/// them and the only one that changes the engine. A false result of the engine means that it and the model
/// disagree, and stops the process.
class NetCHASMCmdThread final : public EventLoopThread {
 public:
   /// `parent` outlives the thread.
   NetCHASMCmdThread(
         std::string name, Ptr<EventLoop> loop, Ptr<EventMpmcQueue> cmdQueue, NetCHASMInterface * parent );
   ~NetCHASMCmdThread() override; // stops it

 private:
   void doInitSm() override;
   void doDelSm() override;

   void handleCmd();
   void handleInitCmd( const Ptr<CmdInit> & cmd );
   void handleReloadCmd( const Ptr<CmdReload> & cmd );
   void handleDnsAndMarkCmd( const Ptr<CmdDnsAndMark> & cmd );
   void handleSetTraceCmd( const Ptr<CmdSetTrace> & cmd );

   NetCHASMInterface * parent() const { return parent_; }
   bool initialized() const { return initialized_; }

   const Ptr<EventMpmcQueue> cmdQueue_;
   NetCHASMInterface * const parent_;
   const Ptr<FifoEvent> cmdQueueEvent_;
   bool initialized_ = false; // the engine was started; this thread only
};

/// Owns the command thread and the handle of the engine. Switching notifications on starts the thread, which
/// first executes what was queued before; switching them off waits for its end, which comes when the commands
/// that are queued have been executed or when none is in hand.
///
/// There is one engine a process, made by the first `init` command. It is never torn down: it, its threads
/// and the adapters that it calls stay until the process ends, without a check from doCleanup() on.
class NetCHASMInterface final : public Reactor {
 public:
   static constexpr std::int32_t initialTraceLevel = 3;

   NetCHASMInterface( Ptr<EventLoop> evLoop, Ptr<EventMpmcQueue> cmdQueue, Ptr<EventMpmcQueue> resultQueue,
         Ptr<CommonData> commonData );
   ~NetCHASMInterface() override;

   void handleInitialized();
   bool initialized() const { return initialized_; }
   void notificationsEnabledIs( bool enabled ) override;
   /// Ends every check, once the command thread has ended.
   void doCleanup();

   /// Null until the engine is there. Written once, by the command thread; any thread.
   HMStateManager * netChasmStateMgr() const { return netChasmStateMgr_.load( std::memory_order_acquire ); }

   /// How late checks started, as a report to `socket` in `format` as CliPrinter takes them: in text grouped
   /// by ranges scaled to `probeInterval` (seconds; 0: the configured one), in JSON second by second. Without
   /// an engine there is nothing to report. Main thread.
   void showProbeDelay( unsigned socket, unsigned format, unsigned probeInterval ) const;
   void clearProbeDelay() const; // main thread

   // Written by the command thread only. A reader on another thread may see the value of one command ago.
   std::int32_t traceLevel() const { return traceLevel_.load( std::memory_order_relaxed ); }
   std::uint64_t reloadCount() const { return reloadCount_.load( std::memory_order_relaxed ); }
   std::uint64_t dnsAndMarkAddCount() const { return dnsAndMarkAddCount_.load( std::memory_order_relaxed ); }
   std::uint64_t dnsAndMarkDeleteCount() const {
      return dnsAndMarkDeleteCount_.load( std::memory_order_relaxed );
   }

   // For the command thread.
   void initializeHmStorage(); // gives the engine the observer that fills the result queue
   void netChasmStateMgrIs( HMStateManager * manager );
   void traceLevelIs( std::int32_t level ) { traceLevel_.store( level, std::memory_order_relaxed ); }
   void reloadCountInc( std::uint64_t n ) { reloadCount_.fetch_add( n, std::memory_order_relaxed ); }
   void dnsAndMarkAddCountInc( std::uint64_t n ) {
      dnsAndMarkAddCount_.fetch_add( n, std::memory_order_relaxed );
   }
   void dnsAndMarkDeleteCountInc( std::uint64_t n ) {
      dnsAndMarkDeleteCount_.fetch_add( n, std::memory_order_relaxed );
   }

 private:
   const Ptr<EventLoop> evLoop_;
   const Ptr<EventMpmcQueue> cmdQueue_;
   const Ptr<EventMpmcQueue> resultQueue_;
   const Ptr<CommonData> hmCommonData_;
   Ptr<NetCHASMCmdThread> cmdThread_;
   std::atomic<HMStateManager *> netChasmStateMgr_{ nullptr };
   std::atomic<std::int32_t> traceLevel_{ initialTraceLevel };
   std::atomic<std::uint64_t> reloadCount_{ 0 };
   std::atomic<std::uint64_t> dnsAndMarkAddCount_{ 0 };
   std::atomic<std::uint64_t> dnsAndMarkDeleteCount_{ 0 };
   bool initialized_ = false;
};

Ptr<NetCHASMInterface> netChasmInterfaceFactory( Ptr<EventLoop> evLoop, Ptr<EventMpmcQueue> cmdQueue,
      Ptr<EventMpmcQueue> resultQueue, Ptr<CommonData> commonData );

} // namespace hm
