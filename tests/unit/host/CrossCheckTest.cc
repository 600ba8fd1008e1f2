#include "host/CrossCheck.h"

#include "host/Applier.h"
#include "tests/unit/host/TestState.h"

#include <gmock/gmock.h>

namespace host {

using namespace platform;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::string group( const std::string & name, const std::string & members ) {
   return servers + "/nhgConfig/" + name + ": { serverIp: [ " + members + " ] }\n";
}

std::string settings( const std::string & name, const std::string & content ) {
   return probe + "/nhgProbeConfig/" + name + ": { " + content + " }\n";
}

ChangeRequest document( const std::string & text ) {
   ChangeRequest request;
   request.source = "f.yaml";
   request.text = text;
   return request;
}

ChangeRequest set( const std::string & path, const std::string & attribute, const std::string & value ) {
   ChangeRequest request;
   request.kind = ChangeRequest::Kind::set;
   request.path = path;
   request.attribute = attribute;
   request.value = value;
   return request;
}

} // namespace

class Crossed : public StateTest {
 protected:
   // Brings the change into effect unless it is refused.
   std::vector<std::string> errorsOf( const ChangeRequest & request ) const {
      const auto change = checkChange( *schema, request );
      EXPECT_THAT( change->errors, IsEmpty() );
      CrossCheck check( manager, change );
      while ( check.step() ) {}
      if ( check.errors().empty() ) {
         Applier applier( manager, change );
         while ( applier.step() ) {}
      }
      return check.errors().lines();
   }
};

TEST_F( Crossed, GroupsAreOfOneFamily ) {
   struct Row {
      const char * name;
      std::string stands;
      ChangeRequest change;
      std::string error; // empty: accepted
   };
   const auto mixed = [&]( const char * at, const char * one, const char * other ) {
      const auto family = []( const std::string & address ) {
         return address.find( ':' ) == address.npos ? "IPv4" : "IPv6";
      };
      return fmt::format( "{}{}/nhgConfig/web: serverIp: {} is {}, {} of the same group is {}: one group is "
                          "probed over one family",
            at, servers, one, family( one ), other, family( other ) );
   };
   const auto vip4 = probe +
                     "/nhgProbeConfig/web: vip: 192.0.2.1 is IPv4, the servers of the group are IPv6: "
                     "they cannot be probed through it";
   const auto vip6 = probe +
                     "/nhgProbeConfig/web: vip: 2001:db8::1 is IPv6, the servers of the group are IPv4: "
                     "they cannot be probed through it";
   const auto web = servers + "/nhgConfig/web", webProbe = probe + "/nhgProbeConfig/web";
   const Row rows[] = {
         { "both in a document", "", document( "\n" + group( "web", "10.1.1.1, \"2001:db8::1\"" ) ),
               mixed( "f.yaml:2: ", "2001:db8::1", "10.1.1.1" ) },
         { "a server of the other family is added", group( "web", "10.1.1.1" ),
               set( web, "serverIp", "2001:db8::1" ), mixed( "", "2001:db8::1", "10.1.1.1" ) },
         { "the first server is added", group( "web", "" ), set( web, "serverIp", "2001:db8::1" ), "" },
         { "all servers are replaced", group( "web", "10.1.1.1" ),
               document( web + "/serverIp: [ \"2001:db8::1\", \"2001:db8::2\" ]\n" ), "" },
         { "vip of a document, at any depth", "",
               document( servers + ": { nhgConfig: { web: { serverIp: [ 10.1.1.1 ] } } }\n" + probe +
                         ":\n  nhgProbeConfig:\n    web: { vip: \"2001:db8::1\" }\n" ),
               "f.yaml:4: " + vip6 },
         { "vip for servers that stand", group( "web", "10.1.1.1" ),
               document( settings( "web", "vip: \"2001:db8::1\"" ) ), "f.yaml:1: " + vip6 },
         { "the same, one attribute", group( "web", "10.1.1.1" ), set( webProbe, "vip", "2001:db8::1" ),
               vip6 },
         { "servers for a vip that stands", settings( "web", "vip: 192.0.2.1" ),
               document( "\n" + group( "web", "\"2001:db8::1\"" ) ), "f.yaml:2: " + vip4 },
         { "the same, one server", settings( "web", "vip: 192.0.2.1" ), set( web, "serverIp", "2001:db8::1" ),
               vip4 },
         { "the vip that stands goes with the change", settings( "web", "vip: 192.0.2.1" ),
               document( group( "web", "\"2001:db8::1\"" ) + settings( "web", "timeout: 3" ) ), "" },
         { "servers that stand go with the change", group( "web", "10.1.1.1" ),
               document( settings( "web", "vip: \"2001:db8::1\"" ) + servers + ": {}\n" ), "" },
         { "another group", group( "web", "10.1.1.1" ) + settings( "web", "vip: 192.0.2.1" ),
               document( group( "db", "\"2001:db8::1\"" ) ), "" },
   };
   for ( const auto & row : rows ) {
      ASSERT_THAT( errorsOf( document( servers + ": {}\n" + probe + ": {}\n" ) ), IsEmpty() );
      if ( !row.stands.empty() ) {
         ASSERT_THAT( errorsOf( document( row.stands ) ), IsEmpty() ) << row.name;
      }
      if ( row.error.empty() ) {
         EXPECT_THAT( errorsOf( row.change ), IsEmpty() ) << row.name;
      } else {
         EXPECT_THAT( errorsOf( row.change ), ElementsAre( row.error ) ) << row.name;
      }
   }
}

// 16,383 servers stand in two groups, some of them in both.
TEST_F( Crossed, NoMoreServersThanCanBeProbed ) {
   const auto tooMany = servers +
                        ": the groups that have a URL have more than 16383 different servers; no more "
                        "can be probed";
   ASSERT_THAT( errorsOf( document( manyServers( 16'383, "web" ) + manyServers( 100, "db" ) +
                                    settings( "db", "tcpUrl: \"tcp://h:1\"" ) ) ),
         IsEmpty() );
   const auto web = servers + "/nhgConfig/web", probeOf = probe + "/nhgProbeConfig/";
   EXPECT_THAT( errorsOf( set( probeOf + "web", "httpUrl", "http://h/" ) ), IsEmpty() );
   EXPECT_THAT( errorsOf( set( web, "serverIp", "10.0.1.0" ) ), IsEmpty() ); // is a member
   EXPECT_THAT( errorsOf( set( web, "serverIp", "10.9.9.9" ) ), ElementsAre( tooMany ) );
   EXPECT_THAT(
         errorsOf( document( group( "third", "10.9.9.9" ) + settings( "third", "httpUrl: \"http://h/\"" ) ) ),
         ElementsAre( "f.yaml: " + tooMany ) );
   // Without a URL a group needs nothing to probe it by, until it gets one.
   EXPECT_THAT( errorsOf( document( group( "third", "10.9.9.9" ) ) ), IsEmpty() );
   EXPECT_THAT( errorsOf( set( probe, "globalUrl", "http://h/" ) ), ElementsAre( tooMany ) );
   EXPECT_THAT( errorsOf( set( probeOf + "third", "tcpUrl", "tcp://h:1" ) ), ElementsAre( tooMany ) );
   EXPECT_THAT(
         errorsOf( document( web + ": {}\n" + settings( "third", "tcpUrl: \"tcp://h:1\"" ) ) ), IsEmpty() );
}

// 15 MiB are accepted: 64 bytes for a server and 352 for its group, the group's name in each, and the URL. A
// control byte becomes four.
TEST_F( Crossed, NoMoreBytesThanTheEngineReads ) {
   std::string name;
   for ( int i = 0; i < 255; ++i ) {
      name += "%01";
   }
   const auto error = []( int bytes ) {
      return fmt::format( "{}: the groups that have a URL take {} bytes of the check engine's configuration, "
                          "with their names, settings and members; at most 15728640 are accepted",
            servers, bytes );
   };
   ASSERT_THAT( errorsOf( document( manyServers( 14'508, name ) ) ), IsEmpty() );
   const auto settingsOf = probe + "/nhgProbeConfig/" + name;
   const auto url = [&]( int bytes ) {
      return set( settingsOf, "httpUrl", "http://h/" + std::string( bytes - 9, 'x' ) );
   };
   EXPECT_THAT( errorsOf( url( 597 ) ), ElementsAre( error( 15'728'641 ) ) );
   EXPECT_THAT( errorsOf( url( 596 ) ), IsEmpty() );
   EXPECT_THAT( errorsOf( set( probe, "globalUrl", "http://other/" ) ), IsEmpty() ); // not that group's
   EXPECT_THAT( errorsOf( document( group( "db", "" ) ) ), IsEmpty() );              // nothing to write
   EXPECT_THAT( errorsOf( document( group( "db", "10.0.0.1" ) ) ),
         ElementsAre( "f.yaml: " + error( 15'728'640 + 352 + 2 + 64 + 2 + 13 ) ) );
   EXPECT_THAT(
         errorsOf( set( settingsOf, "sslProfile", "p" ) ), ElementsAre( error( 15'728'640 + 1'020 ) ) );
   EXPECT_THAT( errorsOf( set( settingsOf, "tcpUrl", "tcp://h:1" ) ),
         ElementsAre( error( 15'728'640 + 352 + 1'020 + 14'508 * ( 64 + 1'020 ) ) ) );
}

// 1,000,000 are accepted: 29 for a group and one for each of its servers.
TEST_F( Crossed, NoMoreValuesThanTheEngineReads ) {
   std::string text = probe + "/globalUrl: \"http://h/\"\n" + servers + "/nhgConfig:\n  g: { serverIp: [ ";
   for ( int i = 0; i < 10; ++i ) {
      text += fmt::format( "{}10.0.0.{}", i == 0 ? "" : ", ", i );
   }
   text += " ] }\n";
   for ( int i = 1; i < 33'333; ++i ) {
      text += fmt::format( "  g{}: {{ serverIp: [ 10.0.0.1 ] }}\n", i );
   }
   EXPECT_THAT( errorsOf( document( text ) ), IsEmpty() );
   EXPECT_THAT( errorsOf( set( servers + "/nhgConfig/g", "serverIp", "10.0.0.10" ) ),
         ElementsAre( servers + ": the groups that have a URL take 1000001 values of the check engine's "
                                "configuration, with their names, settings and members; at most 1000000 are "
                                "accepted" ) );
}

} // namespace host
