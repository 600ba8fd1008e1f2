// Checks of servers that behave, and of servers that misbehave on purpose.
#include "EngineFixture.h"
#include "netchasm/HMStateManager.h"
#include "TestServer.h"
#include <fmt/format.h>
#include <list>
#include <numeric>
#include <sys/socket.h>
#include <unistd.h>

namespace {

TestGroup web( unsigned port ) {
   return TestGroup{ "web" }.port( port );
}
TestGroup tcp( unsigned port ) {
   return TestGroup{ "db" }.type( "tcp" ).port( port );
}

void drip( int fd ) {
   readRequest( fd );
   for ( const char c : okReply( std::string( 1000, 'x' ) ) ) {
      std::this_thread::sleep_for( std::chrono::milliseconds{ 20 } );
      if ( !writeAll( fd, { &c, 1 } ) )
         return;
   }
}

TestServer::Handler forever( const std::string & start, const std::string & more ) {
   return [=]( int fd ) {
      readRequest( fd );
      for ( bool open = writeAll( fd, start ); open; open = writeAll( fd, more ) ) {}
   };
}

/// Says this without being asked, and leaves the connection open.
TestServer::Handler sending( const std::string & bytes ) {
   return [=]( int fd ) { writeAll( fd, bytes ), waitForEnd( fd ); };
}

TestServer::Handler resettingAfter( const std::string & bytes ) {
   return [=]( int fd ) {
      if ( !bytes.empty() && !readRequest( fd ).empty() )
         writeAll( fd, bytes );
      resetOnClose( fd );
   };
}

class Check : public EngineFixture {};

} // namespace

TEST_F( Check, MisbehavingServersFailByTheirLayer ) {
   const std::string half = okReply( "a long body" ).substr( 0, 45 );
   const struct {
      const char * name;
      const char * type;
      TestServer::Handler handler;
      HM_REASON reason;
   } rows[] = {
         { "stays silent", "http", waitForEnd, HM_REASON_REPLY_TIMEOUT },
         { "sends a byte at a time", "http", drip, HM_REASON_REPLY_TIMEOUT },
         { "closes", "http", []( int ) {}, HM_REASON_REPLY_CLOSED },
         { "resets", "http", resettingAfter( "" ), HM_REASON_REPLY_CLOSED },
         { "closes after the request", "http", answering( "" ), HM_REASON_REPLY_CLOSED },
         { "closes in the middle", "http", answering( half ), HM_REASON_REPLY_CLOSED },
         { "resets in the middle", "http", resettingAfter( half ), HM_REASON_REPLY_CLOSED },
         { "endless headers", "http", forever( "HTTP/1.1 200 OK\r\n", "A: b\r\n" ),
               HM_REASON_REPLY_TOO_LARGE },
         { "garbage", "http", answering( "what?\r\n\r\n" ), HM_REASON_REPLY_MALFORMED },
         { "stalls TLS", "https", waitForEnd, HM_REASON_TLS_TIMEOUT },
         { "HTTP for TLS", "https", sending( okReply() ), HM_REASON_TLS_HANDSHAKE },
         { "closes TLS", "https", []( int ) {}, HM_REASON_TLS_HANDSHAKE },
         { "resets TLS", "https", resettingAfter( "" ), HM_REASON_TLS_HANDSHAKE },
         { "alert", "https", sending( { "\x15\x03\x03\x00\x02\x02\x28", 7 } ), HM_REASON_TLS_HANDSHAKE },
   };
   const auto timesOut = []( HM_REASON reason ) {
      return reason == HM_REASON_REPLY_TIMEOUT || reason == HM_REASON_TLS_TIMEOUT;
   };
   std::list< TestServer > servers;
   std::vector< TestGroup > groups;
   for ( const auto & row : rows ) {
      servers.emplace_back( row.handler );
      groups.push_back( TestGroup{ row.name }
                              .type( row.type )
                              .port( servers.back().port() )
                              .interval( 60'000 )
                              .timeout( timesOut( row.reason ) ? 300 : 30'000 )
                              .host( row.name ) );
   }
   run( groups );
   for ( const auto & row : rows ) {
      SCOPED_TRACE( row.name );
      results->await( { row.name }, 1 );
      const HMCheckData data = results->of( row.name ).at( 0 );
      EXPECT_EQ( data.m_reason, row.reason );
      EXPECT_EQ( data.m_response, timesOut( row.reason ) ? HM_RESPONSE_TIMEOUT : HM_RESPONSE_FAILURE );
      EXPECT_EQ( data.m_responsePayload, "" );
      EXPECT_EQ( timesOut( row.reason ) ? data.m_numTimeouts : data.m_numFailures, 1u );
   }
}

TEST_F( Check, HttpAnswerCarriesCodeBodyAndCounters ) {
   std::promise< std::string > asked;
   std::once_flag once;
   const TestServer server{ [&]( int fd ) {
      const std::string request = readRequest( fd );
      std::call_once( once, [&] { asked.set_value( request ); } );
      writeAll( fd, "HTTP/1.1 503 Busy\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbusy\r\n0\r\n\r\n" );
   } };
   const HMCheckData first = check( web( server.port() ) );
   EXPECT_EQ( first.m_hostGroupName, "web" );
   EXPECT_EQ( first.m_response, HM_RESPONSE_ANSWERED );
   EXPECT_EQ( first.m_responseCode, 503u );
   EXPECT_EQ( first.m_responsePayload, "busy" );
   EXPECT_NEAR( static_cast< double >( first.m_checkTime.getTimeSinceEpoch() ),
         static_cast< double >( HMTimeStamp::now().getTimeSinceEpoch() ), 60'000 );
   const HMCheckData second = results->next( "h" );
   EXPECT_EQ( second.m_numChecks, 2u );
   EXPECT_EQ( second.m_numResponses, 2u );
   EXPECT_THAT( asked.get_future().get(),
         testing::StartsWith(
               fmt::format( "GET /health HTTP/1.1\r\nHost: 127.0.0.1:{}\r\n", server.port() ) ) );
}

TEST_F( Check, EndlessBodyIsAnsweredAndCutAtTheCap ) {
   const TestServer server{ forever( "HTTP/1.1 200 OK\r\n\r\n", std::string( 4096, 'x' ) ) };
   const HMCheckData data = check( web( server.port() ) );
   EXPECT_EQ( data.m_response, HM_RESPONSE_ANSWERED );
   EXPECT_EQ( data.m_responsePayload, std::string( HM_MAX_BODY_BYTES, 'x' ) );
}

TEST_F( Check, TcpNeedsTheConnectionOnly ) {
   const TestServer silent{ waitForEnd }, resetting{ resettingAfter( "" ) };
   run( { tcp( silent.port() ).host( "silent" ),
         TestGroup{ "r" }.type( "tcp" ).port( resetting.port() ).host( "resetting" ) } );
   results->await( { "silent", "resetting" }, 3 );
   EXPECT_THAT( results->all(), testing::Each( testing::ResultOf( answered, true ) ) );
}

TEST_F( Check, PeerThatDoesNotAnswerTheHandshakeTimesOutInConnect ) {
   // A full accept queue leaves further handshakes without an answer.
   std::uint16_t port = 0;
   std::vector< int > opened{ listenOn( "127.0.0.1", port, 0 ) };
   const netchasm::SocketAddress peer{ ip( "127.0.0.1" ), port };
   for ( int i = 0; i < 4; ++i ) {
      opened.push_back( ::socket( AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) );
      ::connect( opened.back(), peer.get(), peer.length );
   }
   run( { tcp( port ).interval( 60'000 ).host( "h" ) }, "connectiontimeout: 150\n" );
   const HMCheckData data = results->next( "h" );
   EXPECT_EQ( data.m_response, HM_RESPONSE_CONNECT_FAILURE );
   EXPECT_EQ( data.m_reason, HM_REASON_CONNECT_TIMEOUT );
   for ( const int fd : opened )
      ::close( fd );
}

TEST_F( Check, AGroupTakesTheAddressOfItsFamily ) {
   const TestServer server{ answering( okReply() ), "::1" };
   start( { web( server.port() )
                  .with( "dual-stack-mode: ipv6-only" )
                  .with( "source-address: ::1" )
                  .host( "h" ) } );
   EXPECT_TRUE( engine->addAddresses( "h", { ip( "127.0.0.1" ), ip( "::1" ) } ) );
   EXPECT_EQ( results->next( "h" ).m_response, HM_RESPONSE_ANSWERED );
}

TEST_F( Check, RetriesHaveNoVerdictUntilTheLast ) {
   run( { tcp( unusedPort() ).interval( 2000 ).retries( 2 ).host( "h" ) } );
   results->await( { "h" }, 6 );
   const auto all = results->all();
   for ( std::size_t i = 0; i < 6; ++i ) {
      EXPECT_EQ( all[i].m_response, HM_RESPONSE_CONNECT_FAILURE );
      EXPECT_EQ( all[i].m_reason, i % 3 == 2 ? HM_REASON_CONNECT_REFUSED : HM_REASON_NO_VERDICT ) << i;
      EXPECT_EQ( all[i].m_numChecks, i + 1 );
      EXPECT_EQ( all[i].m_numConnectFailures, i + 1 );
   }
}

TEST_F( Check, AnAnswerEndsTheRetries ) {
   std::atomic< int > asked = 0;
   const TestServer server{ [&]( int fd ) {
      readRequest( fd );
      writeAll( fd, ++asked == 2 ? okReply() : "nonsense\r\n" );
   } };
   run( { web( server.port() ).interval( 500 ).retries( 3 ).host( "h" ) } );
   results->await( { "h" }, 3 );
   const auto all = results->all();
   EXPECT_EQ( all[0].m_reason, HM_REASON_NO_VERDICT );
   EXPECT_EQ( all[0].m_response, HM_RESPONSE_FAILURE );
   EXPECT_EQ( all[1].m_response, HM_RESPONSE_ANSWERED );
   EXPECT_EQ( all[2].m_reason, HM_REASON_NO_VERDICT ) << "a new turn has all its retries";
}

TEST_F( Check, PortThatIsNoneFailsWithoutAPacket ) {
   const HMCheckData data = check( tcp( 70000 ).retries( 3 ) );
   EXPECT_EQ( data.m_response, HM_RESPONSE_FAILURE );
   EXPECT_EQ( data.m_reason, HM_REASON_SETTINGS );
   EXPECT_EQ( log->count( "no port from 1 to 65535" ), 1u );
}

TEST_F( Check, DelaysAreCountedAndCleared ) {
   const TestServer server{ waitForEnd };
   HMStateManager manager;
   manager.registerStorageObserver( results );
   EXPECT_FALSE( manager.reloadDaemonConfigs( "/nowhere" ) );
   ASSERT_TRUE( manager.healthCheck( files( { tcp( server.port() ).host( "h" ) } ), HM_LOG_NOTICE, true ) );
   EXPECT_TRUE( manager.addStaticDNSAddress( "h", { ip( "127.0.0.1" ) } ) );
   results->await( { "h" }, 5 );
   std::vector< unsigned long > delays;
   manager.workQueue().getProbeDelay( delays );
   ASSERT_EQ( delays.size(), HMWorkQueue::probeDelayBuckets );
   EXPECT_GE( std::accumulate( delays.begin(), delays.end(), 0UL ), 5u );
   EXPECT_TRUE( manager.removeStaticDNSAddress( "h", { ip( "127.0.0.1" ) } ) );
   manager.workQueue().clearProbeDelay();
   manager.workQueue().getProbeDelay( delays );
   EXPECT_THAT( delays, testing::Each( 0UL ) );
}

TEST( Address, ParsesStrictlyAndOrdersByFamily ) {
   HMIPAddress v4, v6;
   ASSERT_TRUE( v4.set( "255.0.0.1" ) && v6.set( "2001:DB8:0:0::1" ) );
   EXPECT_EQ( v6.toString(), "2001:db8::1" );
   EXPECT_LT( HMIPAddress{}, v4 );
   EXPECT_LT( v4, v6 );
   for ( const std::string text :
         { "", "1.2.3", "1.2.3.4 ", "01.2.3.4", "1.2.3.256", ":::", "fe80::1%lo", "example" } ) {
      HMIPAddress other = v4;
      EXPECT_FALSE( other.set( text ) ) << text;
      EXPECT_EQ( other, v4 );
   }
   EXPECT_FALSE( v4.set( std::string( "1.2.3.4\0x", 9 ) ) );
}
