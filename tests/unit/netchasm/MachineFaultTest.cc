// Faults of this machine, and marks: what reaches the kernel, and what happens when it refuses.
#include "EngineFixture.h"
#include "TestCertificates.h"
#include "TestServer.h"
#include <cerrno>
#include <functional>
#include <mutex>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

/// Real calls that are watched, and that fail when told to.
class WatchedCalls : public netchasm::SocketCalls {
 public:
   struct Plan {
      std::atomic< int > open = 0, mark = 0, bind = 0, connect = 0, send = 0; ///< errno to fail with; 0: call
      std::mutex mutex;
      std::vector< std::pair< std::uint16_t, std::uint32_t > >
            connects;                                       ///< peer port, mark on the socket at the time
      std::vector< std::pair< int, std::uint16_t > > binds; ///< family, port that the bind alone took

      std::vector< std::uint32_t > marksTo( std::uint16_t to ) {
         const std::lock_guard lock{ mutex };
         std::vector< std::uint32_t > marks;
         for ( const auto & [peer, value] : connects ) {
            if ( peer == to )
               marks.push_back( value );
         }
         return marks;
      }
   };
   explicit WatchedCalls( std::shared_ptr< Plan > plan ) : plan_{ std::move( plan ) } {}

   int open( int family, bool forSource ) override {
      return fails( plan_->open ) ? -1 : SocketCalls::open( family, forSource );
   }
   int setMark( int fd, std::uint32_t mark ) override {
      return fails( plan_->mark ) ? -1 : SocketCalls::setMark( fd, mark );
   }
   int bindSource( int fd, const netchasm::SocketAddress & source ) override {
      if ( fails( plan_->bind ) )
         return -1;
      const int result = SocketCalls::bindSource( fd, source );
      netchasm::SocketAddress local = source;
      if ( result == 0 && ::getsockname( fd, &local.any, &local.length ) == 0 ) {
         const std::lock_guard lock{ plan_->mutex };
         plan_->binds.emplace_back( local.any.sa_family, ntohs( local.v4.sin_port ) ); // as in sockaddr_in6
      }
      return result;
   }
   int connect( int fd, const netchasm::SocketAddress & peer ) override {
      if ( fails( plan_->connect ) )
         return -1;
      std::uint32_t mark = 0;
      socklen_t size = sizeof( mark );
      ::getsockopt( fd, SOL_SOCKET, SO_MARK, &mark, &size );
      const std::lock_guard lock{ plan_->mutex };
      plan_->connects.emplace_back( ntohs( peer.v4.sin_port ), mark );
      return SocketCalls::connect( fd, peer );
   }
   ssize_t send( int fd, const void * bytes, std::size_t size ) override {
      return fails( plan_->send ) ? -1 : SocketCalls::send( fd, bytes, size );
   }

 private:
   static bool fails( const std::atomic< int > & error ) {
      errno = error;
      return error != 0;
   }
   std::shared_ptr< Plan > plan_;
};

class Machine : public EngineFixture {
 protected:
   Machine() {
      engine = std::make_unique< netchasm::Engine >( std::make_unique< WatchedCalls >( plan ) );
      engine->logIs( log );
      engine->observerIs( results );
   }
   std::shared_ptr< WatchedCalls::Plan > plan = std::make_shared< WatchedCalls::Plan >();
   TestServer server{ answering( okReply() ) };
   TestServer other{ answering( okReply() ) };
};

bool maySetMarks() {
   netchasm::SocketCalls calls;
   const int fd = calls.open( AF_INET, false );
   const bool may = calls.setMark( fd, 1 ) == 0;
   calls.close( fd );
   return may;
}

} // namespace

struct Fault {
   std::atomic< int > WatchedCalls::Plan::*call;
   int error;
   const char * logged;
   bool overTls = false;
};

class MachineFault : public Machine, public testing::WithParamInterface< Fault > {};

TEST_P( MachineFault, HoldsTheVerdictIsLoggedOnceAndPasses ) {
   const TestServer secure{
         overTls( serverContext( TestCertificate{ {} } ), []( SSL * ssl ) { answerTls( ssl ); } ) };
   auto & fault = ( *plan ).*GetParam().call;
   fault = GetParam().error;
   run( { TestGroup{ "web" }
                .type( GetParam().overTls ? "https-no-peer-check" : "http" )
                .port( ( GetParam().overTls ? secure : server ).port() )
                .retries( 2 )
                .with( "source-address: 127.0.0.1" )
                .host( "h" ) } );
   results->await( { "h" }, 4 );
   for ( const HMCheckData & data : results->all() ) {
      EXPECT_EQ( data.m_response, HM_RESPONSE_NOT_CHECKED );
      EXPECT_EQ( data.m_reason, HM_REASON_NO_VERDICT );
      EXPECT_EQ( data.m_numFailures, data.m_numChecks );
   }
   EXPECT_EQ( log->count( GetParam().logged ), 1u ) << log->all();
   fault = 0;
   results->next( answered );
}

INSTANTIATE_TEST_SUITE_P( Machine, MachineFault,
      testing::Values( Fault{ &WatchedCalls::Plan::open, EMFILE, "socket: Too many open files" },
            Fault{ &WatchedCalls::Plan::bind, EADDRNOTAVAIL, "bind: Cannot assign" },
            Fault{ &WatchedCalls::Plan::connect, EADDRNOTAVAIL, "connect: Cannot assign" },
            Fault{ &WatchedCalls::Plan::send, ENOBUFS, "send: No buffer space" },
            Fault{ &WatchedCalls::Plan::send, ENOBUFS, "send: No buffer space", true } ) );

TEST_F( Machine, StandingStillIsBlamedOnNoServer ) {
   /// Holds the worker, once, while two checks wait for their replies.
   struct Holding : Results {
      bool storeHostCheckResult( HMCheckData & data ) override {
         Results::storeHostCheckResult( data );
         if ( asked == 2 && !held.exchange( true ) )
            std::this_thread::sleep_for( std::chrono::milliseconds{ 1700 } ); // beyond either check's time
         return true;
      }
      std::atomic< int > asked = 0;
      std::atomic< bool > held = false, mayAnswer = false;
   };
   const auto holding = std::make_shared< Holding >();
   results = holding;
   engine->observerIs( results );
   const TestServer slow{ [=]( int fd ) {
      readRequest( fd );
      ++holding->asked;
      holding->mayAnswer.wait( false );
      writeAll( fd, okReply() );
   } };
   const TestServer silent{ [=]( int fd ) {
      readRequest( fd );
      ++holding->asked;
      waitForEnd( fd );
   } };
   threads = 1;
   run( { TestGroup{ "slow" }.port( slow.port() ).interval( 60'000 ).timeout( 1500 ).host( "slow" ),
         TestGroup{ "silent" }.port( silent.port() ).interval( 60'000 ).timeout( 1500 ).host( "silent" ),
         TestGroup{ "quick" }.port( server.port() ).interval( 20 ).timeout( 1500 ).host( "quick" ) } );
   results->next( []( const auto & data ) {
      return data.m_hostName == "quick" && data.m_response == HM_RESPONSE_NOT_CHECKED;
   } );
   EXPECT_TRUE( holding->held );
   results->awaitMore( { "quick" }, 2 ); // the loop has looked at its timers
   holding->mayAnswer = true;
   holding->mayAnswer.notify_all();
   results->await( { "slow", "silent" }, 1 );
   for ( const HMCheckData & data : results->all() ) {
      EXPECT_TRUE( answered( data ) || data.m_reason == HM_REASON_NO_VERDICT )
            << data.m_hostName << " " << int{ data.m_reason };
   }
   EXPECT_EQ( log->count( "this machine is too slow for its checks" ), 1u ) << log->all();
}

// A port taken at the bind is taken from all destinations: the range would bound the checks of a source.
TEST_F( Machine, ASourceTakesItsPortOnlyAtTheConnect ) {
   start( { TestGroup{ "four" }.port( server.port() ).with( "source-address: 127.0.0.1" ).host( "4" ),
         TestGroup{ "six" }.port( server.port() ).with( "source-address: \"::1\"" ).host( "6" ) } );
   address( "4" );
   address( "6", "::1" ); // nobody listens there
   results->await( { "4", "6" }, 1 );
   const std::lock_guard lock{ plan->mutex };
   EXPECT_THAT( plan->binds, testing::Contains( testing::Pair( AF_INET, 0 ) ) );
   EXPECT_THAT( plan->binds, testing::Contains( testing::Pair( AF_INET6, 0 ) ) );
   EXPECT_THAT( plan->binds, testing::Each( testing::Pair( testing::_, 0 ) ) );
}

TEST_F( Machine, SourceAddressThatGoesAwayHoldsTheVerdict ) {
   check( TestGroup{ "web" }.port( server.port() ).with( "source-address: 127.0.0.1" ) );
   plan->bind = EADDRNOTAVAIL;
   plan->connect = ENETUNREACH; // descriptors that were bound before
   const HMCheckData gone = results->next( std::not_fn( answered ) );
   EXPECT_EQ( gone.m_response, HM_RESPONSE_NOT_CHECKED );
   EXPECT_EQ( gone.m_reason, HM_REASON_NO_VERDICT );
   plan->bind = 0; // the address is back, the server is not
   EXPECT_EQ(
         results->next( []( const auto & data ) { return data.m_reason != HM_REASON_NO_VERDICT; } ).m_reason,
         HM_REASON_UNREACHABLE );
   plan->connect = 0;
   results->next( answered );
}

TEST_F( Machine, MarkCheckSendsNothingBeforeItsMarkAndGoesQuietWithoutIt ) {
   if ( !maySetMarks() )
      GTEST_SKIP() << "needs the right to set marks";
   const std::uint16_t port = server.port();
   start( { TestGroup{ "vip" }.type( "http-mark" ).port( port ).interval( 20 ).host( "m" ).host( "n" ),
         TestGroup{ "web" }.port( other.port() ).interval( 20 ).host( "plain" ) } );
   address( "m" );
   address( "plain" );
   EXPECT_TRUE( engine->setMark( "vip", "n", ip( "127.0.0.1" ), 18 ) ); // a mark alone is not enough either
   results->await( { "plain" }, 10 );
   EXPECT_TRUE( plan->marksTo( port ).empty() );

   EXPECT_TRUE( engine->setMark( "vip", "m", ip( "127.0.0.1" ), 17 ) );
   address( "n" );
   results->await( { "m", "n" }, 5 );
   EXPECT_TRUE( engine->setMark( "web", "plain", ip( "127.0.0.1" ), 19 ) );
   results->awaitMore( { "plain" }, 3 );
   EXPECT_EQ( plan->marksTo( other.port() ).back(), 19u );

   EXPECT_TRUE( engine->removeMark( "vip", "m", ip( "127.0.0.1" ), 17 ) );
   EXPECT_TRUE( engine->removeAddresses( "n", { ip( "127.0.0.1" ) } ) );
   const auto marks = plan->marksTo( port );
   const std::size_t reported = results->count( "m" ) + results->count( "n" );
   EXPECT_THAT( marks, testing::IsSupersetOf( { 17u, 18u } ) );
   EXPECT_THAT( marks, testing::Each( testing::AnyOf( 17u, 18u ) ) );
   results->awaitMore( { "plain" }, 10 );
   EXPECT_EQ( plan->marksTo( port ).size(), marks.size() );
   EXPECT_EQ( results->count( "m" ) + results->count( "n" ), reported );
}

TEST_F( Machine, DescriptorsPassFromMarkToMark ) {
   if ( !maySetMarks() )
      GTEST_SKIP() << "needs the right to set marks";
   const TestGroup group =
         TestGroup{ "vip" }.type( "tcp-mark" ).port( server.port() ).interval( 20 ).numberedHosts( 20 );
   for ( const std::string & host : group.hosts )
      EXPECT_TRUE( engine->setMark( "vip", host, ip( "127.0.0.1" ), std::stoi( host ) ) );
   run( { group, TestGroup{ "plain" }.port( other.port() ).interval( 20 ).host( "p" ) } );
   results->await( group.hosts, 5 );
   results->await( { "p" }, 5 );
   const auto marks = plan->marksTo( server.port() );
   for ( std::uint32_t i = 1; i <= 20; ++i )
      EXPECT_GE( std::ranges::count( marks, i ), 5 );
   EXPECT_THAT( plan->marksTo( other.port() ), testing::Each( 0u ) );
}

TEST_F( Machine, MarkThatMayNotBeSetHoldsTheVerdictAndSendsNothing ) {
   plan->mark = EPERM;
   EXPECT_TRUE( engine->setMark( "vip", "m", ip( "127.0.0.1" ), 17 ) );
   run( { TestGroup{ "vip" }.type( "http-mark" ).port( server.port() ).host( "m" ) } );
   EXPECT_EQ( results->next( "m" ).m_reason, HM_REASON_NO_VERDICT );
   results->await( { "m" }, 3 );
   EXPECT_EQ( server.connections(), 0 );
   EXPECT_EQ( log->count( "SO_MARK" ), 1u );
}

class MachineDeathTest : public EngineFixture {
 protected:
   /// In a process of its own: true when it went as it should.
   bool runOutOfDescriptors() {
      std::uint16_t port = 0;
      listenOn( "127.0.0.1", port, 128 );
      TestGroup group = TestGroup{ "web" }.port( port ).interval( 1000 ).timeout( 600 ).numberedHosts( 60 );
      threads = 1;
      start( { group } );
      const rlimit few{ 48, 48 };
      ::setrlimit( RLIMIT_NOFILE, &few );
      for ( const std::string & host : group.hosts )
         address( host );
      results->next( []( const auto & data ) { return data.m_reason == HM_REASON_NO_VERDICT; } );
      results->next( []( const auto & data ) { return data.m_reason == HM_REASON_REPLY_TIMEOUT; } );
      // The rest of the process still has descriptors; then it is out of all but one.
      bool reloaded = reload( { group.interval( 900 ) } );
      for ( const std::string & host : group.hosts )
         reloaded &= engine->removeAddresses( host, { ip( "127.0.0.1" ) } );
      const rlimit one{ static_cast< rlim_t >( ::dup( 0 ) ) + 1, 48 };
      ::close( static_cast< int >( one.rlim_cur ) - 1 );
      ::setrlimit( RLIMIT_NOFILE, &one );
      threads = 2;
      reloaded &= reload( { group } );
      engine.reset();
      const std::size_t logged = log->count( "held back: socket: Too many open files" );
      return reloaded && logged >= 1 && logged <= 2 && !HasFailure(); // once a worker
   }
};

TEST_F( MachineDeathTest, RunningOutOfDescriptorsHoldsSomeVerdictsAndNothingElse ) {
#ifdef __SANITIZE_ADDRESS__
   GTEST_SKIP() << "the sanitizer's own checks need descriptors";
#endif
   GTEST_FLAG_SET( death_test_style, "threadsafe" );
   EXPECT_EXIT( ::_exit( runOutOfDescriptors() ? 0 : 1 ), testing::ExitedWithCode( 0 ), "" );
}
