// Faults of this machine, and marks: what reaches the kernel, and what happens when it refuses.
#include "EngineFixture.h"
#include "TestServer.h"
#include <cerrno>
#include <condition_variable>
#include <map>
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
      sockaddr_in6 local{}; // the port stands where that of sockaddr_in does
      socklen_t size = sizeof( local );
      if ( result == 0 && ::getsockname( fd, reinterpret_cast< sockaddr * >( &local ), &size ) == 0 ) {
         const std::lock_guard lock{ plan_->mutex };
         plan_->binds.emplace_back( local.sin6_family, ntohs( local.sin6_port ) );
      }
      return result;
   }
   int connect( int fd, const netchasm::SocketAddress & peer ) override {
      if ( fails( plan_->connect ) )
         return -1;
      std::uint32_t mark = 0;
      socklen_t size = sizeof( mark );
      ::getsockopt( fd, SOL_SOCKET, SO_MARK, &mark, &size );
      {
         const std::lock_guard lock{ plan_->mutex };
         plan_->connects.emplace_back( ntohs( peer.v4.sin_port ), mark );
      }
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
   const char * logged;
   std::atomic< int > WatchedCalls::Plan::*call;
   int error;
};

class MachineFault : public Machine, public testing::WithParamInterface< Fault > {};

TEST_P( MachineFault, HoldsTheVerdictIsLoggedOnceAndPasses ) {
   auto & fault = *plan.*GetParam().call;
   fault = GetParam().error;
   start( { TestGroup{ "web" }
                  .port( server.port() )
                  .retries( 2 )
                  .with( "source-address: 127.0.0.1" )
                  .host( "h" ) } );
   address( "h" );
   results->await( "h", 4 );
   fault = 0;
   results->next( []( const auto & data ) { return data.m_response == HM_RESPONSE_ANSWERED; } );
   for ( const HMCheckData & data : results->all() ) {
      if ( data.m_response == HM_RESPONSE_ANSWERED )
         continue;
      EXPECT_EQ( data.m_response, HM_RESPONSE_NOT_CHECKED );
      EXPECT_EQ( data.m_reason, HM_REASON_NO_VERDICT );
      EXPECT_EQ( data.m_numFailures, data.m_numChecks );
   }
   EXPECT_EQ( log->count( GetParam().logged ), 1u ) << log->all();
}

INSTANTIATE_TEST_SUITE_P( Machine, MachineFault,
      testing::Values( Fault{ "socket: Too many open files", &WatchedCalls::Plan::open, EMFILE },
            Fault{ "bind: Cannot assign", &WatchedCalls::Plan::bind, EADDRNOTAVAIL },
            Fault{ "connect: Cannot assign", &WatchedCalls::Plan::connect, EADDRNOTAVAIL },
            Fault{ "send: No buffer space", &WatchedCalls::Plan::send, ENOBUFS } ) );

TEST_F( Machine, StandingStillIsBlamedOnNoServer ) {
   std::mutex mutex;
   std::condition_variable changed;
   bool mayAnswer = false;
   // The engine outlives this frame, and goes on with its checks until it ends.
   const auto asked = std::make_shared< std::atomic< int > >( 0 );
   const TestServer slow{ [&]( int fd ) {
      readRequest( fd );
      ++*asked;
      std::unique_lock lock{ mutex };
      changed.wait( lock, [&] { return mayAnswer; } );
      writeAll( fd, okReply() );
   } };
   const TestServer silent{ [&]( int fd ) {
      readRequest( fd );
      ++*asked;
      waitForEnd( fd );
   } };
   /// Holds the worker, once, while two checks wait for their replies.
   struct Holding : Results {
      explicit Holding( std::shared_ptr< const std::atomic< int > > asked ) : asked_{ std::move( asked ) } {}
      bool storeHostCheckResult( HMCheckData & data ) override {
         Results::storeHostCheckResult( data );
         if ( *asked_ == 2 && !held.exchange( true ) )
            std::this_thread::sleep_for( std::chrono::milliseconds{ 1700 } ); // beyond either check's time
         return true;
      }
      std::atomic< bool > held = false;

    private:
      const std::shared_ptr< const std::atomic< int > > asked_;
   };
   const auto holding = std::make_shared< Holding >( asked );
   results = holding;
   engine->observerIs( results );
   threads = 1;
   start( { TestGroup{ "slow" }.port( slow.port() ).interval( 60'000 ).timeout( 1500 ).host( "slow" ),
         TestGroup{ "silent" }.port( silent.port() ).interval( 60'000 ).timeout( 1500 ).host( "silent" ),
         TestGroup{ "quick" }.port( server.port() ).interval( 20 ).timeout( 1500 ).host( "quick" ) } );
   for ( const char * host : { "quick", "slow", "silent" } )
      address( host );
   results->next( []( const auto & data ) {
      return data.m_hostName == "quick" && data.m_response == HM_RESPONSE_NOT_CHECKED;
   } );
   EXPECT_TRUE( holding->held );
   results->await( "quick", results->count( "quick" ) + 2 ); // the loop has looked at its timers
   {
      const std::lock_guard lock{ mutex };
      mayAnswer = true;
   }
   changed.notify_all();
   results->await( "slow", 1 );
   results->await( "silent", 1 );
   for ( const HMCheckData & data : results->all() ) {
      EXPECT_TRUE( data.m_response == HM_RESPONSE_ANSWERED || data.m_reason == HM_REASON_NO_VERDICT )
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
   results->await( "4", 1 );
   results->await( "6", 1 );
   const std::lock_guard lock{ plan->mutex };
   EXPECT_THAT( plan->binds, testing::Contains( testing::Pair( AF_INET, 0 ) ) );
   EXPECT_THAT( plan->binds, testing::Contains( testing::Pair( AF_INET6, 0 ) ) );
   EXPECT_THAT( plan->binds, testing::Each( testing::Pair( testing::_, 0 ) ) );
}

TEST_F( Machine, SourceAddressThatIsNotHereHoldsTheVerdict ) {
   const HMCheckData data =
         check( TestGroup{ "web" }.port( server.port() ).retries( 1 ).with( "source-address: 192.0.2.1" ) );
   EXPECT_EQ( data.m_response, HM_RESPONSE_NOT_CHECKED );
   EXPECT_EQ( data.m_reason, HM_REASON_NO_VERDICT );
   EXPECT_EQ( log->count( "bind: Cannot assign requested address" ), 1u );
   EXPECT_EQ( server.connections(), 0 );
}

TEST_F( Machine, NoBufferForTlsHoldsTheVerdict ) {
   plan->send = ENOBUFS;
   const HMCheckData data = check( TestGroup{ "web" }.type( "https-no-peer-check" ).port( server.port() ) );
   EXPECT_EQ( data.m_response, HM_RESPONSE_NOT_CHECKED );
   EXPECT_EQ( data.m_reason, HM_REASON_NO_VERDICT );
}

TEST_F( Machine, SourceAddressThatGoesAwayHoldsTheVerdict ) {
   check( TestGroup{ "web" }.port( server.port() ).with( "source-address: 127.0.0.1" ) );
   const auto unanswered = []( const auto & data ) { return data.m_response != HM_RESPONSE_ANSWERED; };
   plan->bind = EADDRNOTAVAIL;
   plan->connect = ENETUNREACH; // descriptors that were bound before
   const HMCheckData gone = results->next( unanswered );
   EXPECT_EQ( gone.m_response, HM_RESPONSE_NOT_CHECKED );
   EXPECT_EQ( gone.m_reason, HM_REASON_NO_VERDICT );
   plan->bind = 0; // the address is back, the server is not
   EXPECT_EQ(
         results->next( []( const auto & data ) { return data.m_reason != HM_REASON_NO_VERDICT; } ).m_reason,
         HM_REASON_UNREACHABLE );
   plan->connect = 0;
   results->next( []( const auto & data ) { return data.m_response == HM_RESPONSE_ANSWERED; } );
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
   results->await( "plain", 10 );
   EXPECT_TRUE( plan->marksTo( port ).empty() );

   EXPECT_TRUE( engine->setMark( "vip", "m", ip( "127.0.0.1" ), 17 ) );
   address( "n" );
   results->await( "m", 5 );
   results->await( "n", 5 );
   EXPECT_TRUE( engine->setMark( "web", "plain", ip( "127.0.0.1" ), 19 ) );
   results->await( "plain", results->count( "plain" ) + 3 );
   EXPECT_EQ( plan->marksTo( other.port() ).back(), 19u );

   EXPECT_TRUE( engine->removeMark( "vip", "m", ip( "127.0.0.1" ), 17 ) );
   EXPECT_TRUE( engine->removeAddresses( "n", { ip( "127.0.0.1" ) } ) );
   const auto marks = plan->marksTo( port );
   const std::size_t reported = results->count( "m" ) + results->count( "n" );
   EXPECT_THAT( marks, testing::Contains( 17u ) );
   EXPECT_THAT( marks, testing::Contains( 18u ) );
   EXPECT_THAT( marks, testing::Each( testing::AnyOf( 17u, 18u ) ) );
   results->await( "plain", results->count( "plain" ) + 10 );
   EXPECT_EQ( plan->marksTo( port ).size(), marks.size() );
   EXPECT_EQ( results->count( "m" ) + results->count( "n" ), reported );
}

TEST_F( Machine, DescriptorsPassFromMarkToMark ) {
   if ( !maySetMarks() )
      GTEST_SKIP() << "needs the right to set marks";
   TestGroup group = TestGroup{ "vip" }.type( "tcp-mark" ).port( server.port() ).interval( 20 );
   for ( int i = 1; i <= 20; ++i )
      group.host( std::to_string( i ) );
   TestServer unmarked{ answering( okReply() ) };
   start( { group, TestGroup{ "plain" }.port( unmarked.port() ).interval( 20 ).host( "p" ) } );
   address( "p" );
   for ( int i = 1; i <= 20; ++i ) {
      address( std::to_string( i ) );
      EXPECT_TRUE( engine->setMark( "vip", std::to_string( i ), ip( "127.0.0.1" ), i ) );
   }
   for ( int i = 1; i <= 20; ++i )
      results->await( std::to_string( i ), 5 );
   results->await( "p", 5 );
   const auto marks = plan->marksTo( server.port() );
   for ( std::uint32_t i = 1; i <= 20; ++i )
      EXPECT_GE( std::count( marks.begin(), marks.end(), i ), 5 );
   EXPECT_THAT( plan->marksTo( unmarked.port() ), testing::Each( 0u ) );
}

TEST_F( Machine, MarkThatMayNotBeSetHoldsTheVerdictAndSendsNothing ) {
   plan->mark = EPERM;
   start( { TestGroup{ "vip" }.type( "http-mark" ).port( server.port() ).host( "m" ) } );
   address( "m" );
   EXPECT_TRUE( engine->setMark( "vip", "m", ip( "127.0.0.1" ), 17 ) );
   EXPECT_EQ( results->next( "m" ).m_reason, HM_REASON_NO_VERDICT );
   results->await( "m", 3 );
   EXPECT_EQ( server.connections(), 0 );
   EXPECT_EQ( log->count( "SO_MARK" ), 1u );
}

class MachineDeathTest : public EngineFixture {
 protected:
   /// In a process of its own: true when it went as it should.
   bool runOutOfDescriptors() {
      std::uint16_t port = 0;
      silentListener( port, 128 );
      TestGroup group = TestGroup{ "web" }.port( port ).interval( 1000 ).timeout( 600 );
      for ( int i = 0; i < 60; ++i )
         group.host( "h" + std::to_string( i ) );
      threads = 1;
      start( { group } );
      const rlimit few{ 48, 48 };
      ::setrlimit( RLIMIT_NOFILE, &few );
      for ( int i = 0; i < 60; ++i )
         address( "h" + std::to_string( i ) );
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
