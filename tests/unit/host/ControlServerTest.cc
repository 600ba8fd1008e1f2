#include "host/ControlServer.h"

#include "host/ControlProtocol.h"
#include "tests/unit/host/TestState.h"

#include <cerrno>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace host {

using namespace platform;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Json = nlohmann::json;

/// The far side of a connection; never blocks.
class Peer {
 public:
   explicit Peer( const sockaddr_un & address, socklen_t length )
         : fd_( socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) ) {
      connected = connect( fd_, reinterpret_cast<const sockaddr *>( &address ), length ) == 0;
   }
   ~Peer() { close(); }
   void close() {
      if ( fd_ >= 0 ) {
         ::close( std::exchange( fd_, -1 ) );
      }
   }
   void shutdownInput() { shutdown( fd_, SHUT_WR ); }
   /// As much as the socket takes now.
   std::size_t send( std::string_view bytes ) {
      const auto size = ::send( fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL );
      broken = size < 0 && errno != EAGAIN;
      return size > 0 ? static_cast<std::size_t>( size ) : 0;
   }
   /// What has come; `ended` once the host has closed.
   void receive( std::size_t atMost = 1 << 20 ) {
      std::string buffer( atMost, '\0' );
      const auto size = recv( fd_, buffer.data(), buffer.size(), 0 );
      if ( size > 0 ) {
         input.append( buffer, 0, static_cast<std::size_t>( size ) );
      } else if ( size == 0 || errno != EAGAIN ) {
         ended = true;
      }
   }
   std::vector<Json> lines() const {
      std::vector<Json> all;
      std::size_t at = 0;
      for ( auto end = input.find( '\n' ); end != input.npos; end = input.find( '\n', at ) ) {
         all.push_back( Json::parse( input.substr( at, end - at ) ) );
         at = end + 1;
      }
      return all;
   }

   bool connected = false;
   bool broken = false;
   bool ended = false;
   std::string input;

 private:
   int fd_;
};

class ControlSocketTest : public StateTest {
 protected:
   ControlSocketTest() {
      const int fd = socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
      address_.sun_family = AF_UNIX; // with no name: the kernel chooses one in its own name space
      bind( fd, reinterpret_cast<const sockaddr *>( &address_ ), sizeof( sa_family_t ) );
      getsockname( fd, reinterpret_cast<sockaddr *>( &address_ ), &length_ );
      listen( fd, SOMAXCONN );
      ControlServices services;
      services.mainLoop = loop;
      services.scheduler = scheduler;
      services.entityManager = manager;
      services.schema = schema;
      services.configQueue = queue = new ConfigQueue( loop, manager, scheduler, schema );
      services.changeFeed = new ChangeFeed( manager );
      services.clock = &clock;
      services.cleanState = [this] { return leftOver; };
      server = new ControlServer( services, fd );
   }

   std::unique_ptr<Peer> peer() { return std::make_unique<Peer>( address_, length_ ); }
   /// Sends all of `bytes` and takes what comes until `reached` or the host closes.
   template<class Reached>
   void talk( Peer & with, std::string_view bytes, const Reached & reached ) {
      EXPECT_TRUE( turnUntil( [&] {
         if ( !bytes.empty() && !with.broken ) {
            bytes.remove_prefix( with.send( bytes ) );
         }
         with.receive();
         return reached() || with.ended;
      } ) );
   }
   Json last( Peer & with, std::string_view bytes ) {
      talk( with, bytes, [&] {
         const auto lines = with.lines();
         return !lines.empty() && ( lines.back().contains( "done" ) || lines.back().contains( "refused" ) );
      } );
      const auto lines = with.lines();
      with.input.clear();
      return lines.empty() ? Json() : lines.back();
   }
   void expectServed() {
      const auto client = peer();
      EXPECT_EQ( last( *client, "{\"command\":\"clean-state\"}\n" ), Json( { { "done", true } } ) );
   }
   static std::string apply( const std::string & document ) {
      return Json( { { "command", "apply" }, { "file", "f" }, { "documentBytes", document.size() } } )
                   .dump() +
             "\n" + document;
   }

   sockaddr_un address_{};
   socklen_t length_ = sizeof address_;
   std::string leftOver;
   ManualClock clock;
   Ptr<ConfigQueue> queue;
   Ptr<ControlServer> server;
};

TEST_F( ControlSocketTest, AnswersBadRequestsAndGoesOn ) {
   const auto client = peer();
   const std::pair<std::string, std::string> requests[] = {
         { "garbage\n", "the request is not a JSON object" },
         { "[1]\n", "the request is not a JSON object" },
         { "\xff\xfe\n", "the request is not a JSON object" },
         { std::string( 60'000, '[' ) + "\n", "the request is not a JSON object" },
         { "{}\n", "the request has no text \"command\"" },
         { "{\"command\":\"frob\"}\n", "no such command; there are apply, clean-state, commands, complete, "
                                       "del, get, run, set, trace, watch" },
         { "{\"command\":\"get\",\"path\":7}\n", "the request has no text \"path\"" },
         { "{\"command\":\"get\",\"path\":\"x\"}\n", "no such path: x" },
         { "{\"command\":\"get\",\"path\":\"ip/status/ipIntfStatus/Lo\"}\n",
               "ip/status/ipIntfStatus/Lo: there is no such entry" },
         { "{\"command\":\"get\",\"path\":\"healthMonitor/status\",\"configuration\":true}\n",
               "healthMonitor/status: holds no configuration" },
         { "{\"command\":\"get\",\"path\":\"host/status/pid\",\"configuration\":true}\n",
               "host/status/pid: holds no configuration" },
         { "{\"command\":\"get\",\"format\":\"xml\"}\n",
               "\"format\" of the request is neither \"yaml\" nor \"json\"" },
         { "{\"command\":\"del\",\"path\":\"ip/status/ipIntfStatus\",\"key\":\"Lo\"}\n",
               "ip/status/ipIntfStatus/Lo: there is no such entry" },
         { "{\"command\":\"set\",\"path\":\"host/status\",\"attribute\":\"pid\",\"value\":\"1\"}\n",
               "host/status: is written by the host and its agent only" },
   };
   for ( const auto & [request, reason] : requests ) {
      EXPECT_EQ( last( *client, request ), Json( { { "refused", { reason } } } ) ) << request;
   }
   leftOver = "something[] is not empty: 1";
   EXPECT_EQ( last( *client, "{\"command\":\"clean-state\"}\n" ), Json( { { "refused", { leftOver } } } ) );
}

TEST_F( ControlSocketTest, AppliesADocumentThatComesInPieces ) {
   const auto client = peer();
   const auto bytes = apply( manyServers( 2000 ) );
   for ( std::size_t at = 0; at < bytes.size(); at += 999 ) {
      client->send( std::string_view( bytes ).substr( at, 999 ) );
      loop->runOnce();
   }
   EXPECT_EQ( last( *client, "" ), Json( { { "done", true }, { "changes", 2001 } } ) );
   EXPECT_EQ( last( *client, apply( "healthMonitor/config/serverConfig: {}\n" ) ),
         Json( { { "done", true }, { "changes", 1 } } ) );
}

TEST_F( ControlSocketTest, AnswersEverythingOfAHalfClosedClientInOrder ) {
   const auto client = peer();
   client->send(
         "{\"command\":\"set\",\"path\":\"healthMonitor/config/probeConfig\",\"attribute\":\"niceValue\","
         "\"value\":\"3\"}\n{\"command\":\"get\",\"path\":\"healthMonitor/config/probeConfig/"
         "niceValue\"}\nhalf" );
   client->shutdownInput();
   talk( *client, "", [] { return false; } );
   const auto lines = client->lines();
   ASSERT_EQ( lines.size(), 4u );
   EXPECT_EQ( lines[0], Json( { { "done", true }, { "changes", 1 } } ) );
   EXPECT_EQ( lines[1], Json( { { "text", "healthMonitor/config/probeConfig/niceValue: 3\n" } } ) );
   EXPECT_EQ( lines[3], Json( { { "refused", { "the request is not complete" } } } ) );
   EXPECT_EQ( server->clientCount(), 0u );
}

TEST_F( ControlSocketTest, EndsWhatIsTooLarge ) {
   const auto huge = peer();
   EXPECT_EQ( last( *huge, "{\"command\":\"apply\",\"file\":\"f\",\"documentBytes\":1000000000}\n" +
                                 std::string( 1 << 20, 'x' ) ),
         Json( { { "refused", { "the document is larger than 16777216 bytes" } } } ) );
   const auto half = peer();
   half->send( "{\"command\":\"apply\",\"file\":\"f\",\"documentBytes\":100}\nabc" );
   half->shutdownInput();
   EXPECT_EQ( last( *half, "" ), Json( { { "refused", { "the document is not complete" } } } ) );
   talk( *half, "", [] { return false; } );
   expectServed();
}

TEST_F( ControlSocketTest, SurvivesClientsThatCloseAtAnyByte ) {
   const auto request = apply( manyServers( 3 ) ) + "{\"command\":\"watch\",\"initial\":true}\n";
   for ( std::size_t size = 0; size <= request.size(); ++size ) {
      auto client = peer();
      client->send( std::string_view( request ).substr( 0, size ) );
      for ( std::size_t turns = 0; turns < size % 4; ++turns ) {
         loop->runOnce();
      }
      client->close();
   }
   expectServed();
   EXPECT_TRUE( turnUntil( [&] { return server->clientCount() == 0; } ) );
}

TEST_F( ControlSocketTest, MakesAStalledReaderWaitAndNobodyElse ) {
   for ( int i = 0; i < 20'000; ++i ) {
      probeConfig()->nhgProbeConfigIs( "group" + std::to_string( i ) );
   }
   const auto stalled = peer();
   stalled->send( "{\"command\":\"get\",\"format\":\"json\"}\n" );
   expectServed();
   expectServed();
   // The state changes under the answer, which is still one valid object when it is finally read.
   for ( int i = 0; i < 20'000; i += 2 ) {
      probeConfig()->nhgProbeConfigDel( "group" + std::to_string( i ) );
   }
   talk( *stalled, "", [&] { return stalled->input.ends_with( "{\"done\":true}\n" ); } );
   std::string text;
   for ( const auto & line : stalled->lines() ) {
      text += line.value( "text", "" );
   }
   const auto json = Json::parse( text );
   EXPECT_GE( json["healthMonitor/config/probeConfig"]["nhgProbeConfig"].size(), 10'000u );
   // Much of it was not written yet when half of the groups went: it waited for the reader.
   EXPECT_LT( json["healthMonitor/config/probeConfig"]["nhgProbeConfig"].size(), 15'000u );
}

TEST_F( ControlSocketTest, TellsASlowWatcherWhatItMissed ) {
   const auto watcher = peer();
   talk( *watcher, "{\"command\":\"watch\",\"path\":\"healthMonitor/config/probeConfig\",\"initial\":true}\n",
         [&] { return watcher->lines().size() >= 12; } );
   watcher->input.clear();
   constexpr int changes = 30'000;
   for ( int i = 0; i < changes; ++i ) {
      probeConfig()->probeIntervalIs( Seconds{ 1.0 + i % 2 } );
   }
   serverConfig()->nhgConfigIs( "elsewhere" );
   std::uint64_t lost = 0;
   talk( *watcher, "", [&] {
      const auto lines = watcher->lines();
      lost =
            !lines.empty() && lines.back().contains( "lost" ) ? lines.back()["lost"].get<std::uint64_t>() : 0;
      return lost != 0;
   } );
   EXPECT_EQ( watcher->lines().size() - 1 + lost, changes );
   watcher->input.clear();
   probeConfig()->nhgProbeConfigIs( "web" );
   talk( *watcher, "", [&] { return !watcher->lines().empty(); } );
   const auto line = watcher->lines().at( 0 );
   EXPECT_EQ( line["attribute"], "nhgProbeConfig" );
   EXPECT_EQ( line["key"], "web" );
   EXPECT_EQ( line["change"], "added" );
   EXPECT_EQ( line["value"]["timeout"], 10 );
   // Whatever else it sends, its end is noticed.
   std::string junk( 4 * control::maxRequestBytes, 'x' );
   EXPECT_TRUE( turnUntil( [&] {
      junk.erase( 0, watcher->send( junk ) );
      return junk.empty();
   } ) );
   watcher->shutdownInput();
   EXPECT_TRUE( turnUntil( [&] { return server->clientCount() == 0; } ) );
}

TEST_F( ControlSocketTest, ShowsAWatcherWhatStandsUnderThePathThatItHas ) {
   const std::string servers = "healthMonitor/config/serverConfig/nhgConfig/web/serverIp";
   const auto watch = []( const std::string & path ) {
      return "{\"command\":\"watch\",\"path\":\"" + path + "\",\"initial\":true}\n";
   };
   const auto web = serverConfig()->nhgConfigIs( "web" );
   web->serverIpIs( *IpGenAddr::fromText( "10.1.1.1" ) );
   web->serverIpIs( *IpGenAddr::fromText( "10.1.1.2" ) );
   const auto one = peer();
   talk( *one, watch( servers + "/10.1.1.2" ), [&] { return !one->lines().empty(); } );
   expectServed();
   one->receive();
   ASSERT_EQ( one->lines().size(), 1u );
   EXPECT_EQ( one->lines().at( 0 )["key"], "10.1.1.2" );

   // A group goes in the middle of being told.
   for ( int i = 0; i < 5000; ++i ) {
      web->serverIpIs( *IpGenAddr::fromText( fmt::format( "10.2.{}.{}", i / 256, i % 256 ) ) );
   }
   const auto all = peer();
   talk( *all, watch( "healthMonitor/config/serverConfig" ), [&] { return !all->input.empty(); } );
   serverConfig()->nhgConfigDel( "web" );
   talk( *all, "", [&] { return all->input.find( "removed" ) != std::string::npos; } );
   const auto lines = all->lines();
   EXPECT_GT( lines.size(), 5000u );
   for ( const auto & line : lines ) {
      const auto path = line["path"].get<std::string>();
      ASSERT_TRUE( path.starts_with( "healthMonitor/config/serverConfig" ) ) << line;
   }
}

TEST_F( ControlSocketTest, TellsAWatcherInsideAnEntryThatTheEntryWent ) {
   probeConfig()->nhgProbeConfigIs( "web" );
   const auto watcher = peer();
   watcher->send( "{\"command\":\"watch\",\"path\":\"healthMonitor/config/probeConfig/nhgProbeConfig/web/"
                  "timeout\"}\n" );
   expectServed();
   probeConfig()->nhgProbeConfig( "web" )->retryCountIs( 1 );
   probeConfig()->nhgProbeConfig( "web" )->timeoutIs( 1 );
   probeConfig()->nhgProbeConfigDel( "web" );
   talk( *watcher, "", [&] { return watcher->lines().size() >= 2; } );
   EXPECT_EQ( watcher->lines().at( 0 )["value"], 1 );
   EXPECT_EQ( watcher->lines().at( 1 )["change"], "removed" );
}

TEST_F( ControlSocketTest, GivesTheSlotOfTheMostSilentClientToANewOne ) {
   std::vector<std::unique_ptr<Peer>> silent;
   for ( std::size_t i = 0; i < ControlServer::maxClients + 10; ++i ) {
      silent.push_back( peer() );
      loop->runOnce();
   }
   EXPECT_EQ( server->clientCount(), ControlServer::maxClients );
   expectServed();
   silent.front()->receive();
   EXPECT_TRUE( silent.front()->ended );
   silent.clear();
   EXPECT_TRUE( turnUntil( [&] { return server->clientCount() == 0; } ) );
}

TEST_F( ControlSocketTest, NeverTakesTheSlotOfARequestUnderWayWhileAnotherIsIdle ) {
   const std::string watchNothing = "{\"command\":\"watch\",\"path\":\"bridging\"}\n";
   std::vector<std::unique_ptr<Peer>> clients;
   const auto arrive = [&]( const std::string & request ) {
      clients.push_back( peer() );
      clients.back()->send( request );
      for ( int turns = 0; turns < 10; ++turns ) {
         loop->runOnce();
      }
   };
   enum { halfADocument, deaf };
   arrive( "{\"command\":\"apply\",\"file\":\"f\",\"documentBytes\":100}\nabc" );
   arrive( "{\"command\":\"watch\"}\n" );
   while ( clients.size() < ControlServer::maxClients - 1 ) {
      arrive( watchNothing );
   }
   const auto idle = clients.size();
   arrive( "{\"command\":\"clean-state\"}\n" );
   const auto ended = [&] {
      std::vector<std::size_t> all;
      for ( std::size_t i = 0; i < clients.size(); ++i ) {
         if ( i != deaf ) {
            clients[i]->receive();
            clients[i]->receive(); // the end comes behind what was sent before it
         }
         if ( clients[i]->ended ) {
            all.push_back( i );
         }
      }
      return all;
   };
   clock.advance( Seconds{ 60 } );
   arrive( watchNothing );
   EXPECT_THAT( ended(), ElementsAre( idle ) );
   // A client that has kept the host waiting for long gives way when nobody else is idle.
   arrive( watchNothing );
   EXPECT_THAT( ended(), ElementsAre( halfADocument, idle ) );
   for ( int i = 0; i < 30'000; ++i ) {
      probeConfig()->probeIntervalIs( Seconds{ 1.0 + i % 2 } );
   }
   arrive( watchNothing );
   (void)ended();
   EXPECT_EQ( clients.back()->input,
         "{\"refused\":[\"too many clients, and all of them have a request under way\"]}\n" );
   EXPECT_EQ( server->clientCount(), ControlServer::maxClients );
   clock.advance( Seconds{ 60 } );
   arrive( watchNothing );
   talk( *clients[deaf], "", [] { return false; } ); // until it ends
   EXPECT_THAT( ended(), ElementsAre( halfADocument, deaf, idle, clients.size() - 2 ) );
   EXPECT_EQ( server->clientCount(), ControlServer::maxClients );
}

TEST_F( ControlSocketTest, BoundsTheDocumentsOfAllClientsTogether ) {
   std::vector<std::unique_ptr<Peer>> slow;
   const std::string part( 15u << 20, ' ' );
   for ( int i = 0; i < 6; ++i ) {
      slow.push_back( peer() );
      std::string_view rest = part;
      slow.back()->send( "{\"command\":\"apply\",\"file\":\"f\",\"documentBytes\":16777216}\n" );
      EXPECT_TRUE( turnUntil( [&] {
         rest.remove_prefix( slow.back()->send( rest ) );
         return rest.empty();
      } ) );
   }
   EXPECT_LT( server->clientCount(), 6u );
   const auto client = peer();
   EXPECT_EQ( last( *client, apply( manyServers( 3 ) ) ), Json( { { "done", true }, { "changes", 4 } } ) );
}

TEST_F( ControlSocketTest, WaitsForADescriptor ) {
   rlimit before{};
   getrlimit( RLIMIT_NOFILE, &before );
   const auto client = peer();
   rlimit tight = before;
   tight.rlim_cur = 1;
   setrlimit( RLIMIT_NOFILE, &tight );
   loop->runOnce();
   EXPECT_EQ( server->clientCount(), 0u );
   setrlimit( RLIMIT_NOFILE, &before );
   EXPECT_EQ( last( *client, "{\"command\":\"clean-state\"}\n" ), Json( { { "done", true } } ) );
}

} // namespace host
