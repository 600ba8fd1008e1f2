#include "host/StateWriter.h"
#include "tests/unit/host/TestState.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace host {

using namespace platform;

using StateWriting = StateTest;

TEST_F( StateWriting, AnEntryIsOfOneMomentWheneverItChanges ) {
   const auto status = root<HmState::ServerStatus>( "healthMonitor/status/serverStatus" );
   const auto servers = status->nhgProbeStatusIs( "web" );
   const auto entry = servers->serverProbeStatusIs( *IpGenAddr::fromText( "10.1.1.1" ) );
   // The state changes after any number of pieces.
   for ( int pieces = 0, more = true; more; ++pieces ) {
      entry->operStateIs( HmState::ServerOperState::up );
      entry->lastChangeIs( "to up" );
      SchemaPlace place;
      ASSERT_FALSE( schema->resolve( "healthMonitor/status/serverStatus", place ) );
      StateWriter writer( StateWriter::Format::json, { { place, status } } );
      std::string text;
      for ( int piece = 0; piece < pieces && more; ++piece ) {
         more = writer.write( text );
      }
      entry->operStateIs( HmState::ServerOperState::down );
      entry->lastChangeIs( "to down" );
      while ( more && writer.write( text ) ) {}
      const auto written =
            nlohmann::json::parse( text )["healthMonitor/status/serverStatus"]["nhgProbeStatus"]["web"]
                                         ["serverProbeStatus"]["10.1.1.1"];
      EXPECT_EQ( written["lastChange"], "to " + written["operState"].get<std::string>() ) << pieces;
   }
}

} // namespace host
