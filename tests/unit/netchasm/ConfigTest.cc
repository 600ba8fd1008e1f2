// The two configuration files: what they become, what is refused and how, and what a reload leaves alone.
#include "netchasm/Config.h"
#include "EngineFixture.h"
#include "TestServer.h"
#include <atomic>
#include <map>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
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

std::string repeated( int times, const std::function< std::string( int ) > & text ) {
   std::string all;
   for ( int i = 0; i < times; ++i )
      all += text( i );
   return all;
}

const std::string head = "- name: a\n  ttl: 5000\n";
const std::string good = head + "  check-type: http\n";

} // namespace

// What a setting does is tested with the checks; here is what they become when they are left out or odd.
TEST_F( ConfigFiles, SettingsHaveTheirDefaultsBoundsAndForms ) {
   const auto config = load( good + R"(  check-info: "a path?x\r\nHost: evil\x7f\xE9"
- name: b
  ttl: 0
  timeout: 500
  check-type: https-mark-no-peer-check
  ca-file: /own
  host:
- name: c
  ttl: 1
  check-type: tcp
  check-port: " 08080x"
- name: d
  ttl: 1
  check-type: https
)",
         "threads.max: 32\nconnectiontimeout: 2000\nca-file: /ca\ncert-file: /cert\n" );
   ASSERT_TRUE( config ) << error;
   EXPECT_EQ( config->threads, 32u );
   ASSERT_EQ( config->groups.size(), 4u );
   const netchasm::HostGroup & a = config->groups[0].settings;
   EXPECT_EQ( a.timeout, netchasm::defaultTimeout );
   EXPECT_EQ( a.connectTimeout, std::chrono::seconds{ 2 } );
   EXPECT_EQ( a.requestHead, "GET /a%20path?x%0D%0AHost:%20evil%7F%C3%A9 HTTP/1.1\r\nHost: " );
   const netchasm::HostGroup & b = config->groups[1].settings;
   EXPECT_TRUE( b.needsMark );
   EXPECT_FALSE( b.verifyPeer );
   EXPECT_EQ( b.port, 443 );
   EXPECT_EQ( b.caFile, "/own" );
   EXPECT_EQ( b.certFile, "/cert" );
   EXPECT_EQ( b.interval, netchasm::minInterval );
   EXPECT_EQ( b.connectTimeout, std::chrono::milliseconds{ 500 } );
   EXPECT_EQ( b.authority( ip( "2001:db8::1" ) ), "[2001:db8::1]" ); // without its default port
   EXPECT_EQ( config->groups[2].settings.authority( ip( "::1" ) ), "[::1]:8080" );
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

TEST_F( ConfigFiles, UnusableOnesAreRefusedWithFileLineAndReason ) {
   const struct {
      const char * name;
      std::string hosts;
      const char * complaint;
   } rows[] = {
         { "not YAML", "- [a: b\n", "hosts.yaml:" },
         { "two documents", good + "---\n" + good, "more than one document" },
         { "more values than memory", "[" + repeated( 1 << 20, []( int ) { return "a,"; } ) + "]",
               "more than 1048576 values" },
         { "not a sequence", "name: a\n", "hosts.yaml:1: the host configuration is not a sequence" },
         { "group not a map", "- a\n", "hosts.yaml:1: a host group is not a map" },
         { "map as key", "- {a: b}: c\n", "key that is not a text" },
         { "no name", "- ttl: 5000\n  check-type: http\n", "has no \"name\"" },
         { "name a sequence", "- name: [a]\n", "\"name\" is not a text" },
         { "no check type", head, "has no \"check-type\"" },
         { "no interval", "- name: a\n  check-type: http\n", "has no \"ttl\"" },
         { "suffix twice", head + "  check-type: http-mark-mark\n",
               "hosts.yaml:3: \"http-mark-mark\" is not a" },
         { "peer check without TLS", head + "  check-type: tcp-no-peer-check\n", "not a check type" },
         { "number too large", good + "  timeout: 4294967296\n", "hosts.yaml:4: \"timeout\" is not a whole" },
         { "number negative", good + "  check-retries: -1\n", "is not a whole number from 0 to 65535" },
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
               good + "  host: " + std::string( 400, '[' ) + std::string( 400, ']' ), "not a text" },
         { "alias bomb", "- &a [x,x,x,x,x,x,x,x]\n- &b [*a,*a,*a,*a,*a,*a,*a]\n- &c [*b,*b,*b,*b,*b,*b,*b]\n",
               "not a map" },
         { "alias to itself", "- &a\n  name: *a\n", "hosts.yaml" },
         { "too many hosts through aliases",
               good + "  host: &h [" + repeated( 3000, []( int i ) { return fmt::format( "h{},", i ); } ) +
                     "]\n" +
                     repeated( 100,
                           []( int i ) {
                              return fmt::format( "- {{name: g{}, ttl: 1, check-type: tcp, host: *h}}\n", i );
                           } ),
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
   EXPECT_FALSE( loadConfig( directory, error ) );
   EXPECT_FALSE( loadConfig( "/dev/zero", error ) );
   ::mkfifo( ( directory / "fifo" ).c_str(), 0600 );
   EXPECT_FALSE( loadConfig( directory / "fifo", error ) );
   EXPECT_THAT( error, testing::HasSubstr( "not a regular file" ) );
}

TEST_F( ConfigFiles, UnknownKeysAreNoticedWithoutFloodingTheLog ) {
   const auto config = load( good + repeated( 5000, []( int ) { return "  colour: red\n"; } ) );
   ASSERT_TRUE( config ) << error;
   EXPECT_THAT( config->notices.front(), testing::HasSubstr( "hosts.yaml:4: \"colour\" is not known" ) );
   EXPECT_LE( config->notices.size(), 100u );
}

class Reload : public EngineFixture {
 protected:
   TestServer server{ answering( okReply() ) };
   TestGroup web = TestGroup{ "web" }.port( server.port() ).interval( 20 );
};

TEST_F( Reload, HostsThatStayKeepTheirCountersAndAddresses ) {
   run( { TestGroup{ web }.host( "stays" ).host( "goes" ) } );
   results->await( { "stays", "goes" }, 3 );
   ASSERT_TRUE( reload( { TestGroup{ web }.timeout( 4000 ).host( "stays" ).host( "comes" ) } ) );
   const std::size_t before = results->count( "goes" );
   address( "comes" );
   results->awaitMore( { "stays", "comes" }, 3 );
   EXPECT_EQ( results->count( "goes" ), before );
   std::uint32_t last = 0;
   for ( const HMCheckData & data : results->of( "stays" ) )
      EXPECT_EQ( data.m_numChecks, ++last );
   // Its address outlived the host's absence; its counters did not.
   ASSERT_TRUE( reload( { TestGroup{ web }.host( "goes" ) } ) );
   results->await( { "goes" }, before + 1 );
   EXPECT_EQ( results->of( "goes" ).at( before ).m_numChecks, 1u );
}

TEST_F( Reload, ARunningCheckRunsOn ) {
   std::atomic< int > asked = 0;
   std::atomic< bool > mayAnswer = false;
   const TestServer slow{ [&]( int fd ) {
      readRequest( fd );
      ++asked;
      mayAnswer.wait( false );
      writeAll( fd, okReply( "late" ) );
   } };
   const TestGroup group =
         TestGroup{ "slow" }.port( slow.port() ).interval( 60'000 ).timeout( 60'000 ).host( "h" );
   run( { group } );
   EXPECT_TRUE( becomes( 1, [&] { return asked.load(); } ) );
   EXPECT_TRUE( reload( { TestGroup{ group }.retries( 3 ).timeout( 50'000 ) } ) );
   mayAnswer = true;
   mayAnswer.notify_all();
   const HMCheckData data = results->next( "h" );
   EXPECT_EQ( data.m_responsePayload, "late" );
   EXPECT_EQ( data.m_numChecks, 1u );
   EXPECT_EQ( slow.connections(), 1 );
}

TEST_F( Reload, ANewScheduleReachesHostsThatWaitAndHostsThatMove ) {
   TestGroup group = TestGroup{ "db" }.type( "tcp" ).port( unusedPort() ).retries( 1 ).numberedHosts( 6 );
   run( { group.interval( 3'600'000 ).retryDelay( 3'600'000 ) } );
   results->await( group.hosts, 1 );
   threads = 1;
   ASSERT_TRUE( reload( { group.retryDelay( 10 ) } ) );
   results->await( group.hosts, 2 );
   threads = 2;
   ASSERT_TRUE( reload( { group.interval( 50 ) } ) );
   results->await( group.hosts, 6 );
}

TEST_F( Reload, ALongerIntervalIsFilledEvenly ) {
   TestGroup group = TestGroup{ "db" }.type( "tcp" ).port( unusedPort() ).numberedHosts( 40 );
   run( { group.interval( 10 ) } );
   results->awaitMore( group.hosts, 1 );
   ASSERT_TRUE( reload( { group.interval( 400 ) } ) );
   results->awaitMore( group.hosts, 1 ); // due before
   const std::size_t before = results->all().size();
   results->awaitMore( group.hosts, 1 );
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
   run( { TestGroup{ group }.with( "source-address: 127.0.0.1" ) } );
   results->await( { "h" }, 5 );
   EXPECT_EQ( fromNew, 0 );
   ASSERT_TRUE( reload( { TestGroup{ group }.with( "source-address: 127.0.0.2" ) } ) );
   results->awaitMore( { "h" }, 5 );
   EXPECT_GE( fromNew, 4 );
}

TEST_F( Reload, AChangedOrRemovedAddressEndsRunningChecksInEveryGroup ) {
   const TestServer silent{ waitForEnd, "127.0.0.9" };
   const TestGroup group = TestGroup{ "a" }
                                 .port( silent.port() )
                                 .interval( 3'600'000 )
                                 .timeout( 600'000 )
                                 .host( "h" )
                                 .host( "i" );
   TestGroup twin = group;
   twin.name = "b";
   start( { group, twin } );
   address( "h", "127.0.0.9" );
   address( "i", "127.0.0.9" );
   ASSERT_TRUE( becomes( 4, [&] { return silent.connections(); } ) );
   EXPECT_TRUE( engine->removeAddresses( "i", { ip( "127.0.0.9" ) } ) );
   address( "h", "127.0.0.3" ); // the lower one; nothing listens there
   results->await( { "h" }, 2 );
   EXPECT_TRUE( becomes( 4, [&] { return silent.ended(); } ) );
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
   const TestServer silent{ waitForEnd };
   const auto group =
         TestGroup{ "g" }.port( silent.port() ).interval( 3'600'000 ).timeout( 600'000 ).host( "h" );
   engine->dropHosts(); // nothing to drop yet
   run( { group } );
   ASSERT_TRUE( becomes( 1, [&] { return silent.connections(); } ) );
   engine->dropHosts();
   EXPECT_TRUE( becomes( 1, [&] { return silent.ended(); } ) );
   EXPECT_EQ( results->count( "h" ), 0u );
   ASSERT_TRUE( reload( { group } ) );
   EXPECT_TRUE( becomes( 2, [&] { return silent.connections(); } ) );
}

TEST_F( Reload, AnUnusableFileChangesNothing ) {
   run( { TestGroup{ web }.host( "h" ) } );
   results->await( { "h" }, 2 );
   EXPECT_FALSE( engine->reload( directory / "missing.yaml" ) );
   EXPECT_EQ( log->count( "missing.yaml: No such file or directory" ), 1u );
   EXPECT_FALSE( reload( { TestGroup{ "other" }.host( "x" ), TestGroup{ "bad" }.type( "gopher" ) } ) );
   EXPECT_EQ( log->count( "\"gopher\" is not a check type" ), 1u );
   results->awaitMore( { "h" }, 3 );
   EXPECT_TRUE( reload( {} ) );
   const std::size_t last = results->count( "h" );
   EXPECT_TRUE( reload( { TestGroup{ web }.host( "i" ) } ) );
   address( "i" );
   results->await( { "i" }, 5 );
   EXPECT_EQ( results->count( "h" ), last );
}

TEST_F( Reload, AChangeOfThreadsMovesHostsWithTheirCounters ) {
   const TestGroup group = TestGroup{ web }.numberedHosts( 8 );
   threads = 1;
   run( { group } );
   for ( const int wanted : { 2, 1, 2 } ) {
      results->awaitMore( group.hosts, 2 );
      threads = wanted;
      ASSERT_TRUE( reload( { group } ) );
   }
   results->awaitMore( group.hosts, 2 );
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
   EXPECT_FALSE( engine->addAddresses( "", { ip( "127.0.0.1" ) } ) );
   EXPECT_TRUE( engine->removeMark( "g", "h", ip( "127.0.0.1" ), 1 ) ); // none was set
   const int before = log->closed;
   engine.reset();
   EXPECT_EQ( log->closed, before + 1 );
}
