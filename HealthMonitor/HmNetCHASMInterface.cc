#include "HealthMonitor/HmNetCHASMInterface.h"

#include "HealthMonitor/HmNetCHASMLog.h"
#include "HealthMonitor/HmNetCHASMStorageObserver.h"

#include <memory>
#include <set>

namespace hm {

namespace {

/// The engine filters its log by the low byte.
HM_LOG_LEVEL logLevel( std::int32_t traceLevel ) {
   return static_cast<HM_LOG_LEVEL>( static_cast<std::int8_t>( traceLevel ) );
}

} // namespace

NetCHASMCmdThread::NetCHASMCmdThread(
      std::string name, Ptr<EventLoop> loop, Ptr<EventMpmcQueue> cmdQueue, NetCHASMInterface * parent )
      : EventLoopThread( std::move( name ), std::move( loop ) ),
        cmdQueue_( std::move( cmdQueue ) ),
        parent_( parent ),
        cmdQueueEvent_( cmdQueue_->consumerEvent() ) {}

NetCHASMCmdThread::~NetCHASMCmdThread() {
   stop();
   cmdQueueEvent_->unwatch();
}

void NetCHASMCmdThread::doInitSm() {
   HM_TRACE( 9, "" );
   cmdQueueEvent_->watch( [this] { handleCmd(); } );
}

void NetCHASMCmdThread::doDelSm() {
   HM_TRACE( 9, "" );
}

void NetCHASMCmdThread::handleCmd() {
   while ( const auto cmd = dynamicPtrCast<CmdBase>( cmdQueue_->pop() ) ) {
      switch ( cmd->cmdOp() ) {
      case CmdOp::init:
         HM_ASSERT( !initialized(), "NetCHASM already initialized" );
         handleInitCmd( dynamicPtrCast<CmdInit>( cmd ) );
         initialized_ = true;
         continue;
      case CmdOp::reload:
         HM_ASSERT( initialized(), "NetCHASM not initialized" );
         handleReloadCmd( dynamicPtrCast<CmdReload>( cmd ) );
         continue;
      case CmdOp::dnsAndMark:
         HM_ASSERT( initialized(), "NetCHASM not initialized" );
         handleDnsAndMarkCmd( dynamicPtrCast<CmdDnsAndMark>( cmd ) );
         continue;
      case CmdOp::setTrace:
         handleSetTraceCmd( dynamicPtrCast<CmdSetTrace>( cmd ) );
         continue;
      }
      HM_ASSERT( false, "Unknown cmdOp: {}", static_cast<unsigned>( cmd->cmdOp() ) );
   }
}

void NetCHASMCmdThread::handleInitCmd( const Ptr<CmdInit> & cmd ) {
   HM_TRACE( 9, "traceLevel: {}", parent()->traceLevel() );
   HM_ASSERT( cmd, "invalid init command" );
   HM_ASSERT( !parent()->netChasmStateMgr(), "NetCHASM already initialized" );
   auto * const hmStateMgr = new HMStateManager();
   parent()->netChasmStateMgrIs( hmStateMgr );
   hmStateMgr->registerLog( std::make_shared<NetCHASMLogger>() );
   parent()->initializeHmStorage();
   const bool ret =
         hmStateMgr->healthCheck( cmd->masterConfigPath, logLevel( parent()->traceLevel() ), true );
   HM_ASSERT( ret, "NetCHASM init failed" );
}

void NetCHASMCmdThread::handleReloadCmd( const Ptr<CmdReload> & cmd ) {
   HM_TRACE( 9, "" );
   HM_ASSERT( cmd, "invalid reload command" );
   auto * const hmStateMgr = parent()->netChasmStateMgr();
   HM_ASSERT( hmStateMgr, "HMStateManager invalid" );
   const bool ret = hmStateMgr->reloadDaemonConfigs( cmd->masterConfigPath );
   HM_ASSERT( ret, "NetCHASM reload failed" );
   parent()->reloadCountInc( 1 );
}

void NetCHASMCmdThread::handleDnsAndMarkCmd( const Ptr<CmdDnsAndMark> & cmd ) {
   HM_ASSERT( cmd, "invalid dnsAndMark command" );
   const auto & group = cmd->hostGroupName;
   const auto & host = cmd->hostName;
   const auto ip = cmd->hostIp.text();
   HM_TRACE( 9, "hostGroup: {}, hostName: {}, hostIp: {}, mark: {}, remove: {}", group, host, ip, cmd->mark,
         cmd->remove );
   auto * const hmStateMgr = parent()->netChasmStateMgr();
   HM_ASSERT( hmStateMgr, "HMStateManager invalid" );
   HMIPAddress address;
   bool ret = address.set( ip );
   HM_ASSERT( ret, "Failed to create HMIPAddress" );
   const std::set<HMIPAddress> addresses{ address };
   const int mark = static_cast<int>( cmd->mark );
   // The address goes first either way: a host that leaves is quiet before its mark goes, and a check of a
   // marked type waits for both.
   if ( cmd->remove ) {
      ret = hmStateMgr->removeStaticDNSAddress( host, addresses );
      HM_ASSERT( ret, "Failed to remove static DNS address for host:{} address:{}", host, ip );
      ret = hmStateMgr->removeHostMark( group, host, address, mark );
      HM_ASSERT( ret, "Failed to remove host mark for hostGroup:{} hostName:{} ip:{} mark:{}", group, host,
            ip, mark );
      parent()->dnsAndMarkDeleteCountInc( 1 );
   } else {
      ret = hmStateMgr->addStaticDNSAddress( host, addresses );
      HM_ASSERT( ret, "Failed to add static DNS address for hostname:{} ip:{}", host, ip );
      ret = hmStateMgr->setHostMark( group, host, address, mark );
      HM_ASSERT( ret, "Failed to set host mark for hostGroup:{} hostName:{} ip:{} mark:{}", group, host, ip,
            mark );
      parent()->dnsAndMarkAddCountInc( 1 );
   }
}

void NetCHASMCmdThread::handleSetTraceCmd( const Ptr<CmdSetTrace> & cmd ) {
   HM_ASSERT( cmd, "invalid setTrace command" );
   HM_TRACE( 9, "traceLevel: {}", cmd->traceLevel );
   if ( auto * const hmStateMgr = parent()->netChasmStateMgr() ) {
      hmStateMgr->setLogLevel( logLevel( cmd->traceLevel ) );
   } else {
      HM_TRACE( 9, "hmStateMgr not init and traceLevel set:{}", cmd->traceLevel );
   }
   parent()->traceLevelIs( cmd->traceLevel );
}

NetCHASMInterface::NetCHASMInterface( Ptr<EventLoop> evLoop, Ptr<EventMpmcQueue> cmdQueue,
      Ptr<EventMpmcQueue> resultQueue, Ptr<CommonData> commonData )
      : evLoop_( std::move( evLoop ) ),
        cmdQueue_( std::move( cmdQueue ) ),
        resultQueue_( std::move( resultQueue ) ),
        hmCommonData_( std::move( commonData ) ) {
   handleInitialized();
}

NetCHASMInterface::~NetCHASMInterface() {
   cmdThread_->stop();
}

void NetCHASMInterface::handleInitialized() {
   HM_TRACE( 9, "" );
   traceLevelIs( initialTraceLevel );
   initialized_ = true;
   cmdThread_ = new NetCHASMCmdThread( "NetCHASMCmdThread", evLoop_, cmdQueue_, this );
}

void NetCHASMInterface::notificationsEnabledIs( bool enabled ) {
   if ( enabled == notificationsEnabled() ) {
      return;
   }
   Reactor::notificationsEnabledIs( enabled );
   if ( enabled ) {
      cmdThread_->start();
   } else {
      cmdThread_->stop();
   }
}

void NetCHASMInterface::doCleanup() {
   HM_TRACE( 9, "" );
   // The rules that keep a probe's packets off the wire may go after the agent. Connections that the kernel
   // closes for the process as it ends would send their resets past them, unwrapped.
   if ( auto * const engine = netChasmStateMgr() ) {
      engine->dropHosts();
   }
}

void NetCHASMInterface::initializeHmStorage() {
   HM_TRACE( 9, "" );
   netChasmStateMgr()->registerStorageObserver(
         std::make_shared<NetCHASMStorageObserver>( resultQueue_, hmCommonData_->payloadIntake() ) );
}

void NetCHASMInterface::netChasmStateMgrIs( HMStateManager * manager ) {
   // Known to the process beyond the life of this object, as the engine is.
   static std::atomic<HMStateManager *> engine;
   engine = manager;
   netChasmStateMgr_.store( manager, std::memory_order_release );
}

Ptr<NetCHASMInterface> netChasmInterfaceFactory( Ptr<EventLoop> evLoop, Ptr<EventMpmcQueue> cmdQueue,
      Ptr<EventMpmcQueue> resultQueue, Ptr<CommonData> commonData ) {
   return new NetCHASMInterface(
         std::move( evLoop ), std::move( cmdQueue ), std::move( resultQueue ), std::move( commonData ) );
}

} // namespace hm
