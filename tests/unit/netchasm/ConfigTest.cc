// The two configuration files: what they become, what is refused and how, and what a reload leaves alone.
#include "netchasm/Config.h"
#include "EngineFixture.h"
#include "TestServer.h"
#include <atomic>
#include <map>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using netchasm::Config;
using netchasm::loadConfig;

namespace {

class ConfigFiles : public EngineFixture {
 protected:
   std::optional< Config > load( const std::string & hosts, const std::string & masterLines = "" ) {
      error.clear();
      const std::string path = file( "hosts.yaml", hosts );
      return loadConfig( file( "master.yaml", "config.load-file: " + path + "\n" + masterLines ), error );
   }
   std::string error;
};

std::string repeated( const std::string & text, int times ) {
   std::string all;
   for ( int i = 0; i < times; ++i )
      all += text;
   return all;
}

const std::string head = "- name: a\n  ttl: 5000\n";
const std::string good = head + "  check-type: http\n";

} // namespace

TEST_F( ConfigFiles, EveryKeyReachesItsSetting ) {
   const auto config = load( good + R"(  source-address: 10.0.0.1
  timeout: 10000
  check-retry-delay: 2000
  check-retries: 3
  dns-type: static
  check-info: /a path?
  check-port: 8080
  host:
    - http/a/10.1.1.1
    - http/a/10.1.1.2
- name: b
  ttl: 0
  timeout: 500
  check-type: https-mark-no-peer-check
  dual-stack-mode: ipv6-only
  ca-file: /own
  host:
- name: c
  ttl: 1
  check-type: tcp
  check-port: " 08080x"
- name: d
  ttl: 10
  check-type: https
)",
         "threads.max: 32\nconnectiontimeout: 3000\nca-file: /ca\ncert-file: /cert\n" );
   ASSERT_TRUE( config ) << error;
   EXPECT_EQ( config->threads, 32u );
   ASSERT_EQ( config->groups.size(), 4u );
   using namespace std::chrono_literals;
   const netchasm::HostGroup & a = config->groups[0].settings;
   EXPECT_EQ( a.interval, 5s );
   EXPECT_EQ( a.timeout, 10s );
   EXPECT_EQ( a.connectTimeout, 3s );
   EXPECT_EQ( a.retryDelay, 2s );
   EXPECT_EQ( a.retries, 3 );
   EXPECT_EQ( a.source, ip( "10.0.0.1" ) );
   EXPECT_EQ( a.port, 8080 );
   EXPECT_THAT( a.requestHead, testing::StartsWith( "GET /a%20path? HTTP/1.1\r\n" ) );
   EXPECT_EQ( a.authority( ip( "10.0.0.9" ) ), "10.0.0.9:8080" );
   EXPECT_THAT( config->groups[0].hosts, testing::ElementsAre( "http/a/10.1.1.1", "http/a/10.1.1.2" ) );
   const netchasm::HostGroup & b = config->groups[1].settings;
   EXPECT_TRUE( b.needsMark );
   EXPECT_FALSE( b.verifyPeer );
   EXPECT_EQ( b.port, 443 );
   EXPECT_EQ( b.caFile, "/own" );
   EXPECT_EQ( b.certFile, "/cert" );
   EXPECT_EQ( b.interval, netchasm::minInterval );
   EXPECT_EQ( b.connectTimeout, 500ms );
   EXPECT_EQ( b.authority( ip( "2001:db8::1" ) ), "[2001:db8::1]" );
   EXPECT_FALSE( b.takes( HMIPAddress::Family::ipv4 ) );
   EXPECT_TRUE( config->groups[1].hosts.empty() );
   EXPECT_EQ( config->groups[2].settings.port, 8080 );
   EXPECT_EQ( config->groups[3].settings.caFile, "/ca" );
   EXPECT_TRUE( config->groups[3].settings.verifyPeer );
}

TEST_F( ConfigFiles, NoHostFileMeansNoGroups ) {
   for ( const char * master : { "threads.max: 4\n", "config.load-file: \n", "config.load-file: ''\n" } ) {
      const auto config = loadConfig( file( "master.yaml", master ), error );
      ASSERT_TRUE( config ) << error;
      EXPECT_TRUE( config->groups.empty() );
   }
   EXPECT_TRUE( load( "" ) ) << error;
   EXPECT_TRUE( load( "~\n" ) ) << error;
}

TEST_F( ConfigFiles, RequestStaysOneLineWhateverThePath ) {
   const auto config = load( good + "  check-info: \"x\\r\\nHost: evil\\x7f\xC3\xA9\"\n" );
   ASSERT_TRUE( config ) << error;
   EXPECT_EQ(
         config->groups[0].settings.requestHead, "GET /x%0D%0AHost:%20evil%7F%C3%A9 HTTP/1.1\r\nHost: " );
}

TEST_F( ConfigFiles, UnusableOnesAreRefusedWithFileLineAndReason ) {
   const struct {
      const char * name;
      std::string hosts;
      const char * complaint;
   } rows[] = {
         { "not YAML", "- [a: b\n", "hosts.yaml:" },
         { "two documents", good + "---\n" + good, "more than one document" },
         { "more values than memory",
               "[" + fmt::format( "{}", fmt::join( std::vector< char >( 1 << 20, 'a' ), "," ) ) + "]",
               "more than 1048576 values" },
         { "not a sequence", "name: a\n", "hosts.yaml:1: the host configuration is not a sequence" },
         { "group not a map", "- a\n", "hosts.yaml:1: a host group is not a map" },
         { "map as key", "- {a: b}: c\n", "key that is not a text" },
         { "no name", "- ttl: 5000\n  check-type: http\n", "has no \"name\"" },
         { "name a sequence", "- name: [a]\n", "\"name\" is not a text" },
         { "no check type", head, "has no \"check-type\"" },
         { "no interval", "- name: a\n  check-type: http\n", "has no \"ttl\"" },
         { "unknown check type", head + "  check-type: ftp\n", "hosts.yaml:3: \"ftp\" is not a check type" },
         { "suffix twice", head + "  check-type: http-mark-mark\n", "not a check type" },
         { "peer check without TLS", head + "  check-type: tcp-no-peer-check\n", "not a check type" },
         { "number too large", good + "  timeout: 4294967296\n",
               "hosts.yaml:4: \"timeout\" is not a whole number" },
         { "number negative", good + "  check-retries: -1\n",
               "\"check-retries\" is not a whole number from 0 to 65535" },
         { "number not whole", good + "  timeout: 1.5\n", "\"timeout\" is not a whole number" },
         { "port without digits", good + "  check-port: web\n", "\"web\" is not a port" },
         { "source no address", good + "  source-address: here\n", "\"here\" is not an address" },
         { "unknown mode", good + "  dual-stack-mode: x\n", "\"dual-stack-mode\" is neither" },
         { "names looked up", good + "  dns-type: lookup\n", "\"dns-type\" is not \"static\"" },
         { "hosts a text", good + "  host: h\n", "\"host\" is not a sequence" },
         { "host a map", good + "  host:\n    - {}\n", "\"host\" is not a text" },
         { "host twice", good + "  host: [h, i, h]\n", "host \"h\" is given twice" },
         { "group twice", good + good, "host group \"a\" is given twice" },
         { "key twice", good + "  ttl: 1\n", "\"ttl\" is given twice" },
         { "not UTF-8", "- name: \xff\n", "not UTF-8" },
         { "NUL", std::string( "- name: a\0b\n", 12 ), "not UTF-8" },
         { "overlong", "- name: \xE0\x80\x80\n", "not UTF-8" },
         { "deep nesting", std::string( 200'000, '[' ), "not usable YAML" },
         { "deep nesting in a known key",
               good + "  host: " + std::string( 400, '[' ) + std::string( 400, ']' ) + "\n", "not a text" },
         { "alias bomb", "- &a [x,x,x,x,x,x,x,x]\n- &b [*a,*a,*a,*a,*a,*a,*a]\n- &c [*b,*b,*b,*b,*b,*b,*b]\n",
               "not a map" },
         { "alias to itself", "- &a\n  name: *a\n", "hosts.yaml" },
         { "too many hosts through aliases",
               "- &a\n  name: a\n  ttl: 1\n  check-type: http\n  host: &h [" +
                     [] {
                        std::string names;
                        for ( int i = 0; i < 3000; ++i )
                           names += "h" + std::to_string( i ) + ",";
                        return names;
                     }() +
                     "]\n" +
                     [] {
                        std::string groups;
                        for ( int i = 0; i < 100; ++i )
                           groups += "- {name: g" + std::to_string( i ) +
                                     ", ttl: 1, check-type: http, host: *h}\n";
                        return groups;
                     }(),
               "more than 262144 hosts" },
   };
   for ( const auto & row : rows ) {
      SCOPED_TRACE( row.name );
      EXPECT_FALSE( load( row.hosts ) );
      EXPECT_THAT( error, testing::HasSubstr( row.complaint ) );
      EXPECT_THAT( error, testing::HasSubstr( ( directory / "hosts.yaml" ).string() ) );
   }
   EXPECT_FALSE( load( good, "threads.max: many\n" ) );
   EXPECT_THAT( error, testing::HasSubstr( "master.yaml:2: \"threads.max\"" ) );
   EXPECT_FALSE( loadConfig( directory / "missing", error ) );
   EXPECT_THAT( error, testing::HasSubstr( "missing: No such file" ) );
   EXPECT_FALSE( loadConfig( directory, error ) );
   ::mkfifo( ( directory / "fifo" ).c_str(), 0600 );
   EXPECT_FALSE( loadConfig( directory / "fifo", error ) );
   EXPECT_THAT( error, testing::HasSubstr( "not a regular file" ) );
   EXPECT_FALSE( loadConfig( "/dev/zero", error ) );
}

TEST_F( ConfigFiles, UnknownKeysAreNoticedWithoutFloodingTheLog ) {
   const auto config = load( good + repeated( "  colour: red\n", 5000 ) );
   ASSERT_TRUE( config ) << error;
   EXPECT_THAT( config->notices.front(), testing::HasSubstr( "hosts.yaml:4: \"colour\" is not known" ) );
   EXPECT_LE( config->notices.size(), 100u );
}

class Reload : public EngineFixture {
 protected:
   static bool becomes( int wanted, const std::function< int() > & value ) {
      const auto deadline = std::chrono::steady_clock::now() + patience;
      while ( value() < wanted && std::chrono::steady_clock::now() < deadline )
         std::this_thread::yield();
      return value() == wanted;
   }

   TestServer server{ answering( okReply() ) };
   TestGroup web = TestGroup{ "web" }.port( server.port() ).interval( 20 );
};

TEST_F( Reload, HostsThatStayKeepTheirCountersAndAddresses ) {
   start( { TestGroup{ web }.host( "stays" ).host( "goes" ) } );
   address( "stays" );
   address( "goes" );
   results->await( "stays", 3 );
   results->await( "goes", 3 );
   ASSERT_TRUE( reload( { TestGroup{ web }.timeout( 4000 ).host( "stays" ).host( "comes" ) } ) );
   const std::size_t before = results->count( "goes" );
   address( "comes" );
   results->await( "comes", 3 );
   results->await( "stays", results->count( "stays" ) + 3 );
   EXPECT_EQ( results->count( "goes" ), before );
   std::uint32_t last = 0;
   for ( const HMCheckData & data : results->all() ) {
      if ( data.m_hostName == "stays" ) {
         EXPECT_EQ( data.m_numChecks, ++last );
      }
   }
   // Its address outlived the host's absence; its counters did not.
   ASSERT_TRUE( reload( { TestGroup{ web }.host( "goes" ) } ) );
   results->await( "goes", before + 1 );
   std::vector< std::uint32_t > counts;
   for ( const HMCheckData & data : results->all() ) {
      if ( data.m_hostName == "goes" )
         counts.push_back( data.m_numChecks );
   }
   EXPECT_EQ( counts[before], 1u );
}

TEST_F( Reload, ARunningCheckRunsOn ) {
   std::mutex mutex;
   std::condition_variable changed;
   bool asked = false, mayAnswer = false;
   const TestServer slow{ [&]( int fd ) {
      readRequest( fd );
      std::unique_lock lock{ mutex };
      asked = true;
      changed.notify_all();
      changed.wait( lock, [&] { return mayAnswer; } );
      writeAll( fd, okReply( "late" ) );
   } };
   const TestGroup group =
         TestGroup{ "slow" }.port( slow.port() ).interval( 60'000 ).timeout( 60'000 ).host( "h" );
   start( { group } );
   address( "h" );
   {
      std::unique_lock lock{ mutex };
      ASSERT_TRUE( changed.wait_for( lock, patience, [&] { return asked; } ) );
   }
   EXPECT_TRUE( reload( { TestGroup{ group }.retries( 3 ).timeout( 50'000 ) } ) );
   {
      const std::lock_guard lock{ mutex };
      mayAnswer = true;
   }
   changed.notify_all();
   const HMCheckData data = results->next( "h" );
   EXPECT_EQ( data.m_responsePayload, "late" );
   EXPECT_EQ( data.m_numChecks, 1u );
   EXPECT_EQ( slow.connections(), 1 );
}

TEST_F( Reload, ANewScheduleReachesHostsThatWaitAndHostsThatMove ) {
   TestGroup group = TestGroup{ "db" }.type( "tcp" ).port( unusedPort() ).retries( 1 );
   const std::vector< std::string > names{ "a", "b", "c", "d", "e", "f" };
   for ( const std::string & name : names )
      group.host( name );
   const auto awaitEach = [&]( std::size_t count ) {
      for ( const std::string & name : names )
         results->await( name, count );
   };
   start( { group.interval( 3'600'000 ).retryDelay( 3'600'000 ) } );
   for ( const std::string & name : names )
      address( name );
   awaitEach( 1 );
   threads = 1;
   ASSERT_TRUE( reload( { group.retryDelay( 10 ) } ) );
   awaitEach( 2 );
   threads = 2;
   ASSERT_TRUE( reload( { group.interval( 50 ) } ) );
   awaitEach( 6 );
}

TEST_F( Reload, ALongerIntervalIsFilledEvenly ) {
   TestGroup group = TestGroup{ "db" }.type( "tcp" ).port( unusedPort() );
   std::vector< std::string > names;
   for ( int i = 0; i < 40; ++i ) {
      names.push_back( "h" + std::to_string( i ) );
      group.host( names.back() );
   }
   const auto awaitNext = [&] {
      std::map< std::string, std::size_t > counts;
      for ( const std::string & name : names )
         counts[name] = results->count( name );
      for ( const auto & [name, count] : counts )
         results->await( name, count + 1 );
   };
   start( { group.interval( 10 ) } );
   for ( const std::string & name : names )
      address( name );
   awaitNext();
   ASSERT_TRUE( reload( { group.interval( 400 ) } ) );
   awaitNext(); // due before
   const std::size_t before = results->all().size();
   awaitNext();
   const auto all = results->all();
   std::set< unsigned long > quarters; // checks 10 ms apart fall into two of them at most
   for ( std::size_t i = before; i < all.size(); ++i )
      quarters.insert( all[i].m_checkTime.getTimeSinceEpoch() % 400 / 100 );
   EXPECT_EQ( quarters.size(), 4u );
}

TEST_F( Reload, ANewSourceAddressIsUsedInsteadOfBoundDescriptors ) {
   std::atomic< int > fromNew = 0;
   const TestServer seeing{ [&]( int fd ) {
      netchasm::SocketAddress peer{ ip( "0.0.0.0" ), 0 };
      ::getpeername( fd, &peer.any, &peer.length );
      fromNew += peer.v4.sin_addr.s_addr == htonl( 0x7F000002 );
      readRequest( fd );
      writeAll( fd, okReply() );
   } };
   const TestGroup group = TestGroup{ "web" }.port( seeing.port() ).interval( 20 ).host( "h" );
   start( { TestGroup{ group }.with( "source-address: 127.0.0.1" ) } );
   address( "h" );
   results->await( "h", 5 );
   EXPECT_EQ( fromNew, 0 );
   ASSERT_TRUE( reload( { TestGroup{ group }.with( "source-address: 127.0.0.2" ) } ) );
   results->await( "h", results->count( "h" ) + 5 );
   EXPECT_GE( fromNew, 4 );
}

TEST_F( Reload, AChangedOrRemovedAddressEndsRunningChecksInEveryGroup ) {
   std::atomic< int > ended = 0;
   const TestServer silent{ [&]( int fd ) {
                              waitForEnd( fd );
                              ++ended;
                           },
         "127.0.0.9" };
   TestGroup group = TestGroup{ "a" }.port( silent.port() ).interval( 3'600'000 ).timeout( 600'000 );
   group.host( "h" ).host( "i" );
   TestGroup twin = group;
   twin.name = "b";
   start( { group, twin } );
   address( "h", "127.0.0.9" );
   address( "i", "127.0.0.9" );
   ASSERT_TRUE( becomes( 4, [&] { return silent.connections(); } ) );
   EXPECT_TRUE( engine->removeAddresses( "i", { ip( "127.0.0.9" ) } ) );
   address( "h", "127.0.0.3" ); // the lower one; nothing listens there
   results->await( "h", 2 );
   EXPECT_TRUE( becomes( 4, [&] { return ended.load(); } ) );
   EXPECT_EQ( silent.connections(), 4 );
   EXPECT_EQ( results->count( "i" ), 0u );
   std::set< std::string > groups;
   for ( const HMCheckData & data : results->all() ) {
      EXPECT_EQ( data.m_reason, HM_REASON_CONNECT_REFUSED );
      groups.insert( data.m_hostGroupName );
   }
   EXPECT_EQ( groups.size(), 2u );
}

TEST_F( Reload, BringsBackHostsThatWereDropped ) {
   std::atomic< int > ended = 0;
   const TestServer silent{ [&]( int fd ) {
      waitForEnd( fd );
      ++ended;
   } };
   const auto group =
         TestGroup{ "g" }.port( silent.port() ).interval( 3'600'000 ).timeout( 600'000 ).host( "h" );
   engine->dropHosts(); // nothing to drop yet
   start( { group } );
   address( "h" );
   ASSERT_TRUE( becomes( 1, [&] { return silent.connections(); } ) );
   engine->dropHosts();
   EXPECT_TRUE( becomes( 1, [&] { return ended.load(); } ) );
   EXPECT_EQ( results->count( "h" ), 0u );
   ASSERT_TRUE( reload( { group } ) );
   EXPECT_TRUE( becomes( 2, [&] { return silent.connections(); } ) );
}

TEST_F( Reload, AnUnusableFileChangesNothing ) {
   start( { TestGroup{ web }.host( "h" ) } );
   address( "h" );
   results->await( "h", 2 );
   EXPECT_FALSE( engine->reload( directory / "missing.yaml" ) );
   EXPECT_EQ( log->count( "missing.yaml: No such file or directory" ), 1u );
   EXPECT_FALSE( reload( { TestGroup{ "other" }.host( "x" ), TestGroup{ "bad" }.type( "gopher" ) } ) );
   EXPECT_EQ( log->count( "\"gopher\" is not a check type" ), 1u );
   results->await( "h", results->count( "h" ) + 3 );
   EXPECT_TRUE( reload( {} ) );
   const std::size_t last = results->count( "h" );
   EXPECT_TRUE( reload( { TestGroup{ web }.host( "i" ) } ) );
   address( "i" );
   results->await( "i", 5 );
   EXPECT_EQ( results->count( "h" ), last );
}

TEST_F( Reload, AChangeOfThreadsMovesHostsWithTheirCounters ) {
   TestGroup group = web;
   for ( int i = 0; i < 8; ++i )
      group.host( "h" + std::to_string( i ) );
   ASSERT_TRUE( engine->start(
         file( "m1", "threads.max: 1\nconfig.load-file: " + file( "h1", group.yaml() ) ), 9, true ) );
   for ( int i = 0; i < 8; ++i )
      address( "h" + std::to_string( i ) );
   for ( const char * wanted : { "2", "1", "2" } ) {
      for ( int i = 0; i < 8; ++i )
         results->await( "h" + std::to_string( i ), results->count( "h" + std::to_string( i ) ) + 2 );
      ASSERT_TRUE(
            engine->reload( file( "m1", std::string{ "threads.max: " } + wanted +
                                              "\nconfig.load-file: " + ( directory / "h1" ).string() ) ) );
   }
   for ( int i = 0; i < 8; ++i )
      results->await( "h" + std::to_string( i ), results->count( "h" + std::to_string( i ) ) + 2 );
   std::map< std::string, std::uint32_t > last;
   for ( const HMCheckData & data : results->all() ) {
      EXPECT_EQ( data.m_numChecks, ++last[data.m_hostName] ) << data.m_hostName;
      EXPECT_EQ( data.m_response, HM_RESPONSE_ANSWERED );
   }
}

TEST_F( Reload, StartIsOnceAndNeedsItsLog ) {
   log->refuse = true;
   EXPECT_FALSE( engine->start( files( {} ), 3, true ) );
   log->refuse = false;
   EXPECT_TRUE( engine->start( files( {} ), 3, false ) ) << "judged only";
   EXPECT_FALSE( engine->reload( files( {} ) ) );
   EXPECT_TRUE( engine->start( files( {} ), 3, true ) );
   EXPECT_FALSE( engine->start( files( {} ), 3, true ) );
   EXPECT_FALSE( engine->addAddresses( "h", {} ) );
   EXPECT_FALSE( engine->addAddresses( "", { ip( "127.0.0.1" ) } ) );
   EXPECT_FALSE( engine->setMark( "g", "h", ip( "127.0.0.1" ), 0 ) );
   EXPECT_TRUE( engine->removeMark( "g", "h", ip( "127.0.0.1" ), 1 ) );
   EXPECT_TRUE( engine->removeAddresses( "h", { ip( "127.0.0.1" ) } ) );
   const int before = log->closed;
   engine.reset();
   EXPECT_EQ( log->closed, before + 1 );
}
