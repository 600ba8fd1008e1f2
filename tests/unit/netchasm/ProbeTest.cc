// Checks that somebody asks for, beside the schedule.
#include "EngineFixture.h"
#include "TestServer.h"
#include <thread>

namespace {

class ProbeNow : public EngineFixture {};

/// A group whose own checks are far apart.
TestGroup rare( const std::string & name, unsigned port ) {
   return TestGroup{ name }.port( port ).interval( 3'600'000 ).retries( 3 ).host( "h" );
}

} // namespace

TEST_F( ProbeNow, TimesItsPhasesAndTouchesNothingElse ) {
   const TestServer server{ answering( okReply( "hello" ) ) };
   run( { rare( "web", server.port() ), rare( "db", server.port() ).type( "tcp" ),
         rare( "gone", unusedPort() ) } );
   results->await( { "h" }, 6 ); // the first checks, with the retries of the one that is refused

   const HMProbeReport web = probe( "web" );
   EXPECT_EQ( web.m_check.m_reason, HM_REASON_NONE );
   EXPECT_EQ( web.m_check.m_responsePayload, "hello" );
   EXPECT_EQ( web.m_address, ip( "127.0.0.1" ) );
   EXPECT_GT( web.m_connectUs, 0u );
   EXPECT_LE( web.m_connectUs, web.m_firstByteUs );
   EXPECT_LE( web.m_firstByteUs, web.m_totalUs );
   EXPECT_EQ( web.m_tlsUs, 0u );

   const HMProbeReport db = probe( "db" );
   EXPECT_EQ( db.m_check.m_reason, HM_REASON_NONE );
   EXPECT_EQ( db.m_firstByteUs, 0u );

   // Its own reason, and no retry.
   const HMProbeReport gone = probe( "gone" );
   EXPECT_EQ( gone.m_check.m_reason, HM_REASON_CONNECT_REFUSED );
   EXPECT_EQ( gone.m_connectUs, 0u );
   EXPECT_EQ( gone.m_detail, "" ); // the reason says it all

   EXPECT_EQ( results->count( "h" ), 6u );
   EXPECT_EQ( web.m_check.m_numChecks, 0u );
}

TEST_F( ProbeNow, EndsWhenTheHostsAddressOrTheHostGoes ) {
   const TestServer server{ waitForEnd };
   const TestGroup web = rare( "web", server.port() ).timeout( 600'000 );
   for ( const bool drop : { false, true } ) {
      engine = std::make_unique< netchasm::Engine >();
      run( { web } );
      const int before = server.connections();
      auto report = ask( "web" );
      while ( server.connections() == before )
         std::this_thread::yield();
      if ( drop )
         EXPECT_TRUE( reload( {} ) );
      else
         EXPECT_TRUE( engine->removeAddresses( "h", { ip( "127.0.0.1" ) } ) );
      EXPECT_EQ( awaited( std::move( report ) ).m_check.m_reason, HM_REASON_NO_VERDICT );
   }
}

TEST_F( ProbeNow, IsRefusedForWhatCannotBeProbed ) {
   const auto never = []( const HMProbeReport & ) { ADD_FAILURE(); };
   EXPECT_FALSE( engine->probe( "web", "h", never ) );
   start( { rare( "web", 80 ), rare( "vip", 80 ).type( "http-mark" ) } );
   EXPECT_FALSE( engine->probe( "web", "h", never ) ); // no address yet
   address( "h" );
   EXPECT_FALSE( engine->probe( "vip", "h", never ) ); // no mark yet
   EXPECT_FALSE( engine->probe( "web", "other", never ) );
   EXPECT_FALSE( engine->probe( "other", "h", never ) );
}
