#include "host/ControlServer.h"

#include "host/ControlProtocol.h"
#include "tests/unit/host/TestState.h"

#include <cerrno>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace host {

using namespace platform;
using ::testing::ElementsAre;
using Json = nlohmann::json;

/// The far side of a connection; never blocks.
class Peer {
 public:
   Peer( const sockaddr_un & address, socklen_t length )
         : fd_( socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) ) {
      EXPECT_EQ( connect( fd_, reinterpret_cast<const sockaddr *>( &address ), length ), 0 );
   }
   ~Peer() { close( fd_ ); }
   void shutdownInput() { shutdown( fd_, SHUT_WR ); }
   /// As much as the socket takes now goes from the front of `bytes`; all of it when the host has closed.
   void send( std::string_view & bytes ) {
      const auto size = ::send( fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL );
      bytes.remove_prefix( size >= 0         ? static_cast<std::size_t>( size )
                           : errno == EAGAIN ? 0
                                             : bytes.size() );
   }
   void sendShort( std::string_view bytes ) {
      send( bytes );
      EXPECT_TRUE( bytes.empty() );
   }
   /// What has come; `ended` once the host has closed.
   void receive() {
      std::string buffer( 1 << 20, '\0' );
      const auto size = recv( fd_, buffer.data(), buffer.size(), 0 );
      if ( size > 0 ) {
         input.append( buffer, 0, static_cast<std::size_t>( size ) );
      } else if ( size == 0 || errno != EAGAIN ) {
         ended = true;
      }
   }
   std::vector<Json> lines() const {
      std::vector<Json> all;
      std::istringstream text( input.substr( 0, input.rfind( '\n' ) + 1 ) );
      for ( std::string line; std::getline( text, line ); ) {
         all.push_back( Json::parse( line ) );
      }
      return all;
   }

   bool ended = false;
   std::string input;

 private:
   const int fd_;
};

namespace {

using Fields = std::initializer_list<std::pair<const std::string, Json>>;

std::string request( const char * command, const Fields & more = {} ) {
   Json json{ { "command", command } };
   for ( const auto & [name, value] : more ) {
      json[name] = value;
   }
   return json.dump() + "\n";
}

std::string applyRequest( const std::string & document, std::optional<std::size_t> bytes = std::nullopt ) {
   const auto size = bytes.value_or( document.size() );
   return request( "apply", { { "file", "f" }, { "documentBytes", size } } ) + document;
}

std::string watch( const std::string & path, bool initial = true ) {
   return request( "watch", { { "path", path }, { "initial", initial } } );
}

} // namespace

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
         with.send( bytes );
         with.receive();
         return reached() || with.ended;
      } ) );
   }
   void untilItEnds( Peer & with ) {
      talk( with, "", [] { return false; } );
   }
   /// The last line of the answer to `bytes`.
   Json last( Peer & with, std::string_view bytes ) {
      std::vector<Json> lines;
      talk( with, bytes, [&] {
         lines = with.lines();
         return !lines.empty() && ( lines.back().contains( "done" ) || lines.back().contains( "refused" ) );
      } );
      with.input.clear();
      return lines.empty() ? Json() : lines.back();
   }
   void expectServed() { EXPECT_EQ( last( *peer(), request( "clean-state" ) ), done ); }
   void expectNobody() {
      EXPECT_TRUE( turnUntil( [&] { return server->clientCount() == 0; } ) );
   }
   static Json refused( const std::string & reason ) { return { { "refused", { reason } } }; }
   static Json applied( int changes ) { return { { "done", true }, { "changes", changes } }; }

   const Json done{ { "done", true } };
   sockaddr_un address_{};
   socklen_t length_ = sizeof address_;
   std::string leftOver;
   ManualClock clock;
   Ptr<ConfigQueue> queue;
   Ptr<ControlServer> server;
};

TEST_F( ControlSocketTest, AnswersBadRequestsAndGoesOn ) {
   const auto client = peer();
   const auto get = []( const Fields & fields ) { return request( "get", fields ); };
   const std::pair<std::string, std::string> requests[] = {
         { "\xff\xfe\n", "the request is not a JSON object" },
         { "[1]\n", "the request is not a JSON object" },
         { std::string( 60'000, '[' ) + "\n", "the request is not a JSON object" },
         { "{}\n", "the request has no text \"command\"" },
         { request( "frob" ), "no such command; there are apply, clean-state, commands, complete, del, get, "
                              "run, set, trace, watch" },
         { get( { { "path", 7 } } ), "the request has no text \"path\"" },
         { get( { { "path", "ip/status/ipIntfStatus/Lo" } } ),
               "ip/status/ipIntfStatus/Lo: there is no such entry" },
         { get( { { "path", "host/status/pid" }, { "configuration", true } } ),
               "host/status/pid: holds no configuration" },
         { get( { { "format", "xml" } } ), "\"format\" of the request is neither \"yaml\" nor \"json\"" },
         { request( "del", { { "path", "ip/status/ipIntfStatus" }, { "key", "Lo" } } ),
               "ip/status/ipIntfStatus/Lo: there is no such entry" },
   };
   for ( const auto & [line, reason] : requests ) {
      EXPECT_EQ( last( *client, line ), refused( reason ) ) << line;
   }
   leftOver = "something[] is not empty: 1";
   EXPECT_EQ( last( *client, request( "clean-state" ) ), refused( leftOver ) );
}

TEST_F( ControlSocketTest, AnswersEverythingOfAHalfClosedClientInOrder ) {
   const auto client = peer();
   client->sendShort(
         request( "set", { { "path", probe }, { "attribute", "niceValue" }, { "value", "3" } } ) +
         request( "get", { { "path", probe + "/niceValue" } } ) + "half" );
   client->shutdownInput();
   untilItEnds( *client );
   EXPECT_THAT( client->lines(), ElementsAre( applied( 1 ), Json( { { "text", probe + "/niceValue: 3\n" } } ),
                                       done, refused( "the request is not complete" ) ) );
   EXPECT_EQ( server->clientCount(), 0u );
}

TEST_F( ControlSocketTest, TakesNoDocumentThatIsCut ) {
   const auto half = peer();
   half->sendShort( applyRequest( "abc", 100 ) );
   half->shutdownInput();
   EXPECT_EQ( last( *half, "" ), refused( "the document is not complete" ) );
   untilItEnds( *half );
   expectServed();
}

TEST_F( ControlSocketTest, SurvivesClientsThatCloseAtAnyByte ) {
   const auto all = applyRequest( manyServers( 3 ) ) + watch( "" );
   for ( std::size_t size = 0; size <= all.size(); ++size ) {
      const auto client = peer();
      client->sendShort( std::string_view( all ).substr( 0, size ) );
      for ( std::size_t turns = 0; turns < size % 4; ++turns ) {
         loop->runOnce();
      }
   }
   expectServed();
   expectNobody();
}

TEST_F( ControlSocketTest, TellsASlowWatcherWhatItMissed ) {
   const auto watcher = peer();
   talk( *watcher, watch( probe ), [&] { return watcher->lines().size() >= 12; } );
   watcher->input.clear();
   constexpr int changes = 30'000;
   for ( int i = 0; i < changes; ++i ) {
      probeConfig()->probeIntervalIs( Seconds{ 1.0 + i % 2 } );
   }
   serverConfig()->nhgConfigIs( "elsewhere" );
   talk( *watcher, "",
         [&] { return watcher->input.ends_with( "\n" ) && watcher->lines().back().contains( "lost" ); } );
   const auto lines = watcher->lines();
   EXPECT_EQ( lines.size() - 1 + lines.back()["lost"].get<std::uint64_t>(), changes );
   watcher->input.clear();
   probeConfig()->nhgProbeConfigIs( "web" );
   talk( *watcher, "", [&] { return !watcher->lines().empty(); } );
   const auto line = watcher->lines().at( 0 );
   EXPECT_EQ( line["attribute"], "nhgProbeConfig" );
   EXPECT_EQ( line["key"], "web" );
   EXPECT_EQ( line["change"], "added" );
   EXPECT_EQ( line["value"]["timeout"], 10 );
   // Whatever else it sends, its end is noticed.
   const std::string junk( 4 * control::maxRequestBytes, 'x' );
   std::string_view rest = junk;
   talk( *watcher, "", [&] {
      watcher->send( rest );
      return rest.empty();
   } );
   watcher->shutdownInput();
   expectNobody();
}

TEST_F( ControlSocketTest, ShowsAWatcherWhatStandsUnderThePathThatItHas ) {
   const auto web = serverConfig()->nhgConfigIs( "web" );
   web->serverIpIs( ip( "10.1.1.1" ) );
   web->serverIpIs( ip( "10.1.1.2" ) );
   const auto one = peer();
   talk( *one, watch( servers + "/nhgConfig/web/serverIp/10.1.1.2" ), [&] { return !one->lines().empty(); } );
   expectServed();
   one->receive();
   ASSERT_EQ( one->lines().size(), 1u );
   EXPECT_EQ( one->lines().at( 0 )["key"], "10.1.1.2" );

   // A group goes in the middle of being told.
   apply( manyServers( 5000 ) );
   const auto all = peer();
   talk( *all, watch( servers ), [&] { return !all->input.empty(); } );
   serverConfig()->nhgConfigDel( "web" );
   talk( *all, "", [&] { return all->input.find( "removed" ) != std::string::npos; } );
   EXPECT_GT( all->lines().size(), 5000u );
   for ( const auto & line : all->lines() ) {
      ASSERT_TRUE( line["path"].get<std::string>().starts_with( servers ) ) << line;
   }
}

TEST_F( ControlSocketTest, TellsAWatcherInsideAnEntryThatTheEntryWent ) {
   const auto web = probeConfig()->nhgProbeConfigIs( "web" );
   const auto watcher = peer();
   watcher->sendShort( watch( probe + "/nhgProbeConfig/web/timeout", false ) );
   expectServed();
   web->retryCountIs( 1 );
   web->timeoutIs( 1 );
   probeConfig()->nhgProbeConfigDel( "web" );
   talk( *watcher, "", [&] { return watcher->lines().size() >= 2; } );
   EXPECT_EQ( watcher->lines().at( 0 )["value"], 1 );
   EXPECT_EQ( watcher->lines().at( 1 )["change"], "removed" );
}

TEST_F( ControlSocketTest, NeverTakesTheSlotOfARequestUnderWayWhileAnotherIsIdle ) {
   std::vector<std::unique_ptr<Peer>> clients;
   const auto arrive = [&]( const std::string & bytes ) {
      clients.push_back( peer() );
      clients.back()->sendShort( bytes );
      for ( int turns = 0; turns < 10; ++turns ) {
         loop->runOnce();
      }
   };
   const auto watchNothing = watch( "bridging", false );
   enum { halfADocument, deaf };
   arrive( applyRequest( "abc", 100 ) );
   arrive( request( "watch" ) );
   while ( clients.size() < ControlServer::maxClients - 1 ) {
      arrive( watchNothing );
   }
   const auto idle = clients.size();
   arrive( request( "clean-state" ) );
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
   EXPECT_THAT( clients.back()->lines(),
         ElementsAre( refused( "too many clients, and all of them have a request under way" ) ) );
   EXPECT_EQ( server->clientCount(), ControlServer::maxClients );
   clock.advance( Seconds{ 60 } );
   arrive( watchNothing );
   untilItEnds( *clients[deaf] );
   EXPECT_THAT( ended(), ElementsAre( halfADocument, deaf, idle, clients.size() - 2 ) );
   EXPECT_EQ( server->clientCount(), ControlServer::maxClients );
}

TEST_F( ControlSocketTest, BoundsTheDocumentsOfAllClientsTogether ) {
   std::vector<std::unique_ptr<Peer>> slow;
   const auto most = applyRequest( std::string( 15u << 20, ' ' ), 16u << 20 );
   for ( int i = 0; i < 6; ++i ) {
      slow.push_back( peer() );
      std::string_view rest = most;
      EXPECT_TRUE( turnUntil( [&] {
         slow.back()->send( rest );
         return rest.empty();
      } ) );
   }
   EXPECT_LT( server->clientCount(), 6u );
   EXPECT_EQ( last( *peer(), applyRequest( manyServers( 3 ) ) ), applied( 4 ) );
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
   EXPECT_EQ( last( *client, request( "clean-state" ) ), done );
}

} // namespace host
