#include "host/CrossCheck.h"

#include "tests/unit/host/TestState.h"

namespace host {

using namespace platform;

namespace {

std::string group( const std::string & name, const std::string & members ) {
   return servers + "/nhgConfig/" + name + ": { serverIp: [ " + members + " ] }\n";
}

std::string settings( const std::string & name, const std::string & content ) {
   return probe + "/nhgProbeConfig/" + name + ": { " + content + " }\n";
}

struct Crossed : State {
   // Brings the change into effect unless it is refused: then the one error.
   std::string refusal( const ChangeRequest & request ) const {
      const auto change = checkChange( *schema, request );
      CrossCheck check( manager, change );
      while ( check.step() ) {}
      if ( check.errors().empty() ) {
         EXPECT_TRUE( change->errors.empty() ) << change->errors.front();
         apply( change );
         return "";
      }
      EXPECT_EQ( check.errors().lines().size(), 1u );
      return check.errors().lines().front();
   }
};

std::string tooLarge( int takes, const char * ofWhat, int most ) {
   return fmt::format(
         "{}: the groups that have a URL take {} {} of the check engine's configuration, with their "
         "names, settings and members; at most {} are accepted",
         servers, takes, ofWhat, most );
}

} // namespace

TEST( CrossCheck, GroupsAreOfOneFamily ) {
   const auto web = servers + "/nhgConfig/web", ofWeb = probe + "/nhgProbeConfig/web";
   const auto mixed = web +
                      ": serverIp: 2001:db8::1 is IPv6, 10.1.1.1 of the same group is IPv4: one group is "
                      "probed over one family";
   const auto vip4 = ofWeb + ": vip: 192.0.2.1 is IPv4, the servers of the group are IPv6: they cannot be "
                             "probed through it";
   const auto vip6 = ofWeb + ": vip: 2001:db8::1 is IPv6, the servers of the group are IPv4: they cannot be "
                             "probed through it";
   const auto one = group( "web", "10.1.1.1" ), six = group( "web", "\"2001:db8::1\"" );
   const auto with4 = settings( "web", "vip: 192.0.2.1" ), with6 = settings( "web", "vip: \"2001:db8::1\"" );
   const struct {
      const char * name;
      std::string stands;
      ChangeRequest change;
      std::string error; // empty: accepted
   } rows[] = {
         { "both in a document", one, document( "\n" + group( "web", "10.1.1.1, \"2001:db8::1\"" ) ),
               "f.yaml:2: " + mixed },
         { "a server of the other family is added", one, setting( web, "serverIp", "2001:db8::1" ), mixed },
         { "the first server is added", group( "web", "" ), setting( web, "serverIp", "2001:db8::1" ), "" },
         { "all servers are replaced", one, document( six ), "" },
         { "vip of a document, at any depth", group( "db", "" ),
               document( one + probe + ":\n  nhgProbeConfig:\n    web: { vip: \"2001:db8::1\" }\n" ),
               "f.yaml:4: " + vip6 },
         { "vip for servers that stand", one, document( with6 ), "f.yaml:1: " + vip6 },
         { "the same, one attribute", one, setting( ofWeb, "vip", "2001:db8::1" ), vip6 },
         { "servers for a vip that stands", with4, document( "\n" + six ), "f.yaml:2: " + vip4 },
         { "the same, one server", with4, setting( web, "serverIp", "2001:db8::1" ), vip4 },
         { "the vip that stands goes with the change", with4,
               document( six + settings( "web", "timeout: 3" ) ), "" },
         { "servers that stand go with the change", one, document( with6 + servers + ": {}\n" ), "" },
         { "another group", one + with4, document( group( "db", "\"2001:db8::1\"" ) ), "" },
   };
   for ( const auto & row : rows ) {
      const Crossed state;
      state.apply( row.stands );
      EXPECT_EQ( state.refusal( row.change ), row.error ) << row.name;
   }
}

// 16,383 servers stand in two groups, some of them in both.
TEST( CrossCheck, NoMoreServersThanCanBeProbed ) {
   const Crossed state;
   const auto tooMany = servers +
                        ": the groups that have a URL have more than 16383 different servers; no more "
                        "can be probed";
   state.apply( manyServers( 16'383, "web" ) + manyServers( 100, "db" ) +
                settings( "db", "tcpUrl: \"tcp://h:1\"" ) );
   const auto web = servers + "/nhgConfig/web", probeOf = probe + "/nhgProbeConfig/";
   EXPECT_EQ( state.refusal( setting( probeOf + "web", "httpUrl", "http://h/" ) ), "" );
   EXPECT_EQ( state.refusal( setting( web, "serverIp", "10.0.1.0" ) ), "" ); // is a member
   EXPECT_EQ( state.refusal( setting( web, "serverIp", "10.9.9.9" ) ), tooMany );
   EXPECT_EQ( state.refusal( document(
                    group( "third", "10.9.9.9" ) + settings( "third", "httpUrl: \"http://h/\"" ) ) ),
         "f.yaml: " + tooMany );
   // Without a URL a group needs nothing to probe it by, until it gets one.
   EXPECT_EQ( state.refusal( document( group( "third", "10.9.9.9" ) ) ), "" );
   EXPECT_EQ( state.refusal( setting( probe, "globalUrl", "http://h/" ) ), tooMany );
   EXPECT_EQ( state.refusal( setting( probeOf + "third", "tcpUrl", "tcp://h:1" ) ), tooMany );
   EXPECT_EQ(
         state.refusal( document( web + ": {}\n" + settings( "third", "tcpUrl: \"tcp://h:1\"" ) ) ), "" );
}

// 15 MiB are accepted: 64 bytes for a server and 352 for its group, the group's name in each, and the URL. A
// control byte becomes four.
TEST( CrossCheck, NoMoreBytesThanTheEngineReads ) {
   constexpr int most = 15'728'640;
   const Crossed state;
   std::string name;
   for ( int i = 0; i < 255; ++i ) {
      name += "%01";
   }
   const auto ofName = probe + "/nhgProbeConfig/" + name;
   const auto expect = [&]( const ChangeRequest & change, int more ) {
      EXPECT_EQ( state.refusal( change ),
            change.source + ( change.source.empty() ? "" : ": " ) + tooLarge( most + more, "bytes", most ) );
   };
   state.apply( manyServers( 14'508, name ) );
   const std::string url = "http://h/" + std::string( 587, 'x' );
   expect( setting( ofName, "httpUrl", url + "x" ), 1 );
   EXPECT_EQ( state.refusal( setting( ofName, "httpUrl", url ) ), "" );
   EXPECT_EQ( state.refusal( setting( probe, "globalUrl", "http://other/" ) ), "" ); // not that group's
   EXPECT_EQ( state.refusal( document( group( "db", "" ) ) ), "" );                  // nothing to write
   expect( document( group( "db", "10.0.0.1" ) ), 352 + 2 + 64 + 2 + 13 );
   expect( setting( ofName, "sslProfile", "p" ), 1'020 );
   expect( setting( ofName, "tcpUrl", "tcp://h:1" ), 352 + 1'020 + 14'508 * ( 64 + 1'020 ) );
}

// 1,000,000 are accepted: 29 for a group and one for each of its servers.
TEST( CrossCheck, NoMoreValuesThanTheEngineReads ) {
   const Crossed state;
   std::string text =
         probe + "/globalUrl: \"http://h/\"\n" + servers + "/nhgConfig:\n  g: { serverIp: [ 10.0.0.0";
   for ( int i = 1; i < 10; ++i ) {
      text += fmt::format( ", 10.0.0.{}", i );
   }
   text += " ] }\n";
   for ( int i = 1; i < 33'333; ++i ) {
      text += fmt::format( "  g{}: {{ serverIp: [ 10.0.0.1 ] }}\n", i );
   }
   EXPECT_EQ( state.refusal( document( text ) ), "" );
   EXPECT_EQ( state.refusal( setting( servers + "/nhgConfig/g", "serverIp", "10.0.0.10" ) ),
         tooLarge( 1'000'001, "values", 1'000'000 ) );
}

} // namespace host
