#pragma once

#include "HealthMonitor/HmConfigSm.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "HealthMonitor/HmUtils.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

/// The configuration side of the agent under test: its reactors on a clock that stands still, with an engine
/// that takes commands only when told to and insists that they fit what it has.
namespace hm::test {

inline IpGenAddr ip( const std::string & text ) {
   return text.empty() ? IpGenAddr{} : IpGenAddr::fromText( text ).value();
}

/// What the engine has been told of its hosts.
class FakeEngine {
 public:
   explicit FakeEngine( Ptr<EventMpmcQueue> queue ) : queue_( std::move( queue ) ) {}

   void executeCommands() {
      while ( const auto element = queue_->pop() ) {
         const auto command = dynamicPtrCast<CmdBase>( element );
         switch ( command->cmdOp() ) {
         case CmdOp::init:
            log.push_back( "init" );
            break;
         case CmdOp::reload:
            log.push_back( "reload" );
            break;
         case CmdOp::setTrace:
            break;
         case CmdOp::dnsAndMark:
            execute( *dynamicPtrCast<CmdDnsAndMark>( command ) );
         }
      }
   }

   std::map<std::string, std::uint32_t> marks; // "HOSTNAME at HOSTIP" to mark
   std::vector<std::string> log;

 private:
   void execute( const CmdDnsAndMark & command ) {
      const auto host = fmt::format( "{} at {}", command.hostName, command.hostIp );
      log.push_back( ( command.remove ? "remove " : "add " ) + host );
      if ( command.remove ) {
         EXPECT_TRUE( marks.contains( host ) ) << host;
         EXPECT_EQ( marks[host], command.mark ) << host;
         marks.erase( host );
      } else {
         EXPECT_FALSE( marks.contains( host ) ) << host;
         marks[host] = command.mark;
      }
   }

   const Ptr<EventMpmcQueue> queue_;
};

class ConfigFixture : public testing::Test {
 public:
   ~ConfigFixture() override { stopAgent(); }

   void startAgent() {
      configSm = configSmFactory( probeConfig, serverConfig, serverStatus, sslStatus, scheduler, commonData,
            cmdQueue, [this]( int increment ) { return nice( increment ); } );
      configSm->notificationsEnabledIs( true );
   }
   void stopAgent() {
      if ( configSm ) {
         for ( const auto & files : { configSm->netChasmInfoSm()->workingCfg(),
                     configSm->netChasmInfoSm()->getNetChasmConfig() } ) {
            std::remove( files->masterConfigPath().c_str() );
            std::remove( files->hostConfigPath().c_str() );
         }
      }
      configSm = nullptr;
   }
   /// Until all configuration has reached the engine.
   void runUntilIdle() {
      do {
         scheduler->runUntilIdle();
         engine.executeCommands();
         clock.advance( NetCHASMInfoSm::defaultTaskInterval );
      } while ( scheduler->runSlice() );
   }
   virtual int nice( int increment ) { return processNice += increment; }

   Ptr<HmState::NexthopGroupConfig> nhg( const NexthopGroupName & name ) {
      return serverConfig->nhgConfigIs( name );
   }
   Ptr<HmState::NexthopGroupProbeConfig> probe( const NexthopGroupName & name ) {
      return probeConfig->nhgProbeConfigIs( name );
   }
   /// An HTTP group; `servers` are added to it.
   void web( const NexthopGroupName & name, std::initializer_list<const char *> servers ) {
      probe( name )->httpUrlIs( "http://h/" );
      for ( const auto * server : servers ) {
         nhg( name )->serverIpIs( ip( server ) );
      }
   }

   const BacklogInfo & backlog() const { return *configSm->backlogInfo(); }
   Ptr<HostGrpCfg> group( const std::string & name ) const {
      return configSm->netChasmInfo()->hostConfig()->hostGrpCfg( name );
   }
   std::vector<std::string> hosts( const NexthopGroupName & name, ProbeType type ) const {
      std::vector<std::string> names;
      if ( const auto list = configSm->netChasmInfo()->nhgHostList( { name, type } ) ) {
         for ( const auto & item : list->hostListItems() ) {
            names.push_back( item.key );
         }
      }
      return names;
   }
   bool published( const NexthopGroupName & name, const char * server ) const {
      const auto status = serverStatus->nhgProbeStatus( name );
      return status && status->serverProbeStatusHas( ip( server ) );
   }
   std::uint32_t mark( const char * server ) const {
      const auto serverMark = commonData->serverIpToMark( ip( server ) );
      return serverMark ? serverMark->mark() : 0;
   }
   std::uint32_t markReferences( const char * server ) const {
      const auto serverMark = commonData->serverIpToMark( ip( server ) );
      return serverMark ? serverMark->refCount() : 0;
   }

   ManualClock clock;
   Ptr<EventLoop> loop = new EventLoop( clock );
   Ptr<TaskScheduler> scheduler = new TaskScheduler( loop, clock );
   Ptr<EventMpmcQueue> cmdQueue = new EventMpmcQueue( 0, new FifoEvent( loop ), nullptr, true );
   FakeEngine engine{ cmdQueue };
   int processNice = 0;

   Ptr<HmState::ProbeConfig> probeConfig = new HmState::ProbeConfig();
   Ptr<HmState::ServerConfig> serverConfig = new HmState::ServerConfig();
   Ptr<HmState::ServerStatus> serverStatus = new HmState::ServerStatus();
   Ptr<Mgmt::Security::Ssl::Status> sslStatus = new Mgmt::Security::Ssl::Status();
   Ptr<CommonData> commonData = new CommonData();
   Ptr<ConfigSm> configSm;
};

} // namespace hm::test
