#pragma once

#include "host/ConfigQueue.h"
#include "host/HostStatus.h"
#include "platform/state/HmState.h"
#include "platform/state/Profile.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace host {

inline const std::string probe = "healthMonitor/config/probeConfig";
inline const std::string servers = "healthMonitor/config/serverConfig";

/// A state database with a main loop that the test turns by hand.
class StateTest : public ::testing::Test {
 protected:
   StateTest() {
      platform::RefCounted::threadSafeRefCountsIs();
      manager->profileIs( healthMonitorProfile() );
      manager->entityIs( HostStatus::path, new HostStatus() );
      schema = std::make_shared<Schema>( *manager, std::vector<Schema::Closed>{ { HostStatus::path } } );
   }

   template<class E>
   platform::Ptr<E> root( const char * path ) const {
      return platform::dynamicPtrCast<E>( manager->entity( path ) );
   }
   platform::Ptr<HmState::ProbeConfig> probeConfig() const {
      return root<HmState::ProbeConfig>( "healthMonitor/config/probeConfig" );
   }
   platform::Ptr<HmState::ServerConfig> serverConfig() const {
      return root<HmState::ServerConfig>( "healthMonitor/config/serverConfig" );
   }

   /// Turns the loop until `reached` holds; false when that takes longer than anything here may.
   template<class Reached>
   [[nodiscard]] bool turnUntil( const Reached & reached ) const {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds( 60 );
      while ( !reached() ) {
         if ( std::chrono::steady_clock::now() > deadline ) {
            return false;
         }
         loop->runOnce();
      }
      return true;
   }

   platform::Ptr<CheckedChange> checked( const std::string & text ) const {
      ChangeRequest request;
      request.source = "f.yaml";
      request.text = text;
      const auto change = checkChange( *schema, request );
      EXPECT_TRUE( change->errors.empty() ) << change->errors.front();
      return change;
   }

   const platform::Ptr<platform::EventLoop> loop = new platform::EventLoop();
   const platform::Ptr<platform::TaskScheduler> scheduler = new platform::TaskScheduler( loop );
   const platform::Ptr<platform::EntityManager> manager = new platform::EntityManager();
   std::shared_ptr<const Schema> schema;
};

/// A document of one group with `count` servers from 10.0.0.0 on.
inline std::string manyServers( int count, const std::string & group = "web" ) {
   std::string text = "healthMonitor/config/serverConfig/nhgConfig/" + group + ":\n  serverIp:\n";
   for ( int i = 0; i < count; ++i ) {
      text += "    - 10.0." + std::to_string( i / 256 ) + "." + std::to_string( i % 256 ) + "\n";
   }
   return text;
}

} // namespace host
