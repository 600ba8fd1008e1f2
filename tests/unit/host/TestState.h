#pragma once

#include "host/Applier.h"
#include "host/ConfigQueue.h"
#include "host/HostStatus.h"
#include "host/StateWriter.h"
#include "platform/state/HmState.h"
#include "platform/state/Profile.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace host {

inline const std::string probe = "healthMonitor/config/probeConfig";
inline const std::string servers = "healthMonitor/config/serverConfig";

inline platform::IpGenAddr ip( const std::string & text ) {
   return platform::IpGenAddr::fromText( text ).value();
}

inline ChangeRequest document( const std::string & text, bool checkOnly = false ) {
   return { .checkOnly = checkOnly, .source = "f.yaml", .text = text };
}

inline ChangeRequest setting(
      const std::string & path, const std::string & attribute, const std::string & value ) {
   return { .kind = ChangeRequest::Kind::set, .path = path, .attribute = attribute, .value = value };
}

/// A document of one group with `count` servers from 10.0.0.0 on.
inline std::string manyServers( int count, const std::string & group = "web" ) {
   std::string text = servers + "/nhgConfig/" + group + ":\n  serverIp:\n";
   for ( int i = 0; i < count; ++i ) {
      text += "    - 10.0." + std::to_string( i / 256 ) + "." + std::to_string( i % 256 ) + "\n";
   }
   return text;
}

/// A state database with a main loop that the test turns by hand.
struct State {
   State() {
      platform::RefCounted::threadSafeRefCountsIs();
      manager->profileIs( healthMonitorProfile() );
      manager->entityIs( HostStatus::path, new HostStatus() );
      schema = std::make_shared<Schema>( *manager, std::vector<Schema::Closed>{ { HostStatus::path } } );
   }

   template<class E>
   platform::Ptr<E> root( const std::string & path ) const {
      return platform::dynamicPtrCast<E>( manager->entity( path ) );
   }
   platform::Ptr<HmState::ProbeConfig> probeConfig() const { return root<HmState::ProbeConfig>( probe ); }
   platform::Ptr<HmState::ServerConfig> serverConfig() const {
      return root<HmState::ServerConfig>( servers );
   }
   platform::Ptr<HmState::ServerStatus> serverStatus() const {
      return root<HmState::ServerStatus>( "healthMonitor/status/serverStatus" );
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
      const auto change = checkChange( *schema, document( text ) );
      EXPECT_TRUE( change->errors.empty() ) << change->errors.front();
      return change;
   }
   /// Gives the number of changes.
   std::uint64_t apply( const platform::Ptr<CheckedChange> & change ) const {
      Applier applier( manager, change );
      while ( applier.step() ) {}
      EXPECT_TRUE( applier.refusals().empty() ) << applier.refusals().front();
      return applier.changes();
   }
   std::uint64_t apply( const std::string & text ) const { return apply( checked( text ) ); }

   StateWriter writer( const std::string & path, StateWriter::Format format ) const {
      SchemaPlace place;
      EXPECT_FALSE( schema->resolve( path, place ) );
      return { format, { { place, entityAt( *manager, place ) } } };
   }
   std::string written(
         const std::string & path, StateWriter::Format format = StateWriter::Format::yaml ) const {
      auto writing = writer( path, format );
      std::string text;
      while ( writing.write( text ) ) {}
      return text;
   }

   const platform::Ptr<platform::EventLoop> loop = new platform::EventLoop();
   const platform::Ptr<platform::TaskScheduler> scheduler = new platform::TaskScheduler( loop );
   const platform::Ptr<platform::EntityManager> manager = new platform::EntityManager();
   std::shared_ptr<const Schema> schema;
};

class StateTest : public ::testing::Test, public State {};

} // namespace host
