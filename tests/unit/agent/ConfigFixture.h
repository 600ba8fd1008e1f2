#pragma once

#include "HealthMonitor/HmConfigSm.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "HealthMonitor/HmUtils.h"
#include "TestValues.h"

#include <gmock/gmock.h>

#include <map>

/// The configuration side of the agent under test: its reactors on a clock that stands still, with an engine
/// that takes commands only when told to and insists that they fit what it has.
namespace hm::test {

/// What the engine has been told of its hosts.
class FakeEngine {
 public:
   explicit FakeEngine( Ptr<EventMpmcQueue> queue ) : queue_( std::move( queue ) ) {}

   void executeCommands() {
      while ( const auto element = queue_->pop() ) {
         const auto command = dynamicPtrCast<CmdBase>( element );
         if ( const auto change = dynamicPtrCast<CmdDnsAndMark>( command ) ) {
            execute( *change );
         } else if ( command->cmdOp() == CmdOp::reload ) {
            log.push_back( "reload" );
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
   ~ConfigFixture() override {
      if ( configSm ) {
         removeFiles( *configSm->netChasmInfoSm() );
      }
   }

   void startAgent() {
      configSm = configSmFactory( probeConfig, serverConfig, serverStatus, sslStatus, scheduler, commonData,
            cmdQueue, [this]( int increment ) { return nice( increment ); } );
      configSm->notificationsEnabledIs( true );
   }
   /// Until all configuration has reached the engine.
   void runUntilIdle() {
      do {
         scheduler->runUntilIdle();
         engine.executeCommands();
         clock.advance( NetCHASMInfoSm::defaultTaskInterval );
      } while ( scheduler->runSlice() );
   }
   virtual int nice( int ) { return 0; }

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
   Ptr<HostGrpCfg> webGroup() const {
      return configSm->netChasmInfo()->hostConfig()->hostGrpCfg( "web-http" );
   }
   /// A server's mark and how many hold it.
   std::pair<std::uint32_t, std::uint32_t> mark( const char * server ) const {
      const auto serverMark = commonData->serverIpToMark( ip( server ) );
      return { serverMark ? serverMark->mark() : 0, serverMark ? serverMark->refCount() : 0 };
   }

   ManualClock clock;
   Ptr<EventLoop> loop = new EventLoop( clock );
   Ptr<TaskScheduler> scheduler = new TaskScheduler( loop, clock );
   Ptr<EventMpmcQueue> cmdQueue = new EventMpmcQueue( 0, new FifoEvent( loop ), nullptr, true );
   FakeEngine engine{ cmdQueue };

   Ptr<HmState::ProbeConfig> probeConfig = new HmState::ProbeConfig();
   Ptr<HmState::ServerConfig> serverConfig = new HmState::ServerConfig();
   Ptr<HmState::ServerStatus> serverStatus = new HmState::ServerStatus();
   Ptr<Mgmt::Security::Ssl::Status> sslStatus = new Mgmt::Security::Ssl::Status();
   Ptr<CommonData> commonData = new CommonData();
   Ptr<ConfigSm> configSm;
};

} // namespace hm::test
