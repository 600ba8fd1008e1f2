#include "host/Document.h"

#include "platform/state/Profile.h"
#include "tests/unit/host/TestState.h"

#include <algorithm>

#include <gmock/gmock.h>

#include <fmt/format.h>

namespace host {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const Schema & testSchema() {
   static const Schema schema = [] {
      platform::EntityManager manager;
      manager.profileIs( healthMonitorProfile() );
      return Schema( manager, {} );
   }();
   return schema;
}

std::vector<std::string> errorsOf( const std::string & text ) {
   ChangeRequest request;
   request.source = "f.yaml";
   request.text = text;
   return checkChange( testSchema(), request )->errors;
}

struct BadDocument {
   const char * name;
   std::string text;
   std::string error; // the whole first line
};

void PrintTo( const BadDocument & bad, std::ostream * os ) {
   *os << bad.name;
}

class BadDocuments : public ::testing::TestWithParam<BadDocument> {};

TEST_P( BadDocuments, AreRefusedWithFileLinePathAndAttribute ) {
   const auto errors = errorsOf( GetParam().text );
   ASSERT_FALSE( errors.empty() );
   EXPECT_EQ( errors.front(), GetParam().error );
}

INSTANTIATE_TEST_SUITE_P( Table, BadDocuments,
      ::testing::Values( BadDocument{ "unknownPath", "a/b: {}\n", "f.yaml:1: no such path: a/b" },
            BadDocument{ "unknownAttributeInPath", "\n" + probe + "/x: {}\n",
                  "f.yaml:2: healthMonitor/config/probeConfig has no attribute \"x\"" },
            BadDocument{ "unknownInEntry", probe + ":\n  nhgProbeConfig:\n    web:\n      url: x\n",
                  "f.yaml:4: " + probe + "/nhgProbeConfig/web: has no attribute \"url\"" },
            BadDocument{ "outOfRange", probe + ":\n  nhgProbeConfig:\n    web: { timeout: 0 }\n",
                  "f.yaml:3: " + probe + "/nhgProbeConfig/web: timeout: \"0\": out of range 1..86400" },
            BadDocument{ "beyondTheType", probe + ":\n  encapUdpDstPort: 70000\n",
                  "f.yaml:2: " + probe + ": encapUdpDstPort: \"70000\": out of range 0..65535" },
            BadDocument{ "scalarForSet", servers + "/nhgConfig/web:\n  serverIp: 10.1.1.1\n",
                  "f.yaml:2: " + servers +
                        "/nhgConfig/web: serverIp: expected a sequence of IP address, found a single value" },
            BadDocument{ "sequenceForCollection", servers + ":\n  nhgConfig: [ web ]\n",
                  "f.yaml:2: " + servers + ": nhgConfig: expected a map by text, found a sequence" },
            BadDocument{ "scalarForEntity", probe + ": on\n",
                  "f.yaml:1: " + probe + ": expected a map of attributes, found a single value" },
            BadDocument{ "badPattern", probe + ":\n  responseCodeRule: { pattern: \"5[0\" }\n",
                  "f.yaml:2: " + probe +
                        "/responseCodeRule: pattern: \"5[0\": bad regular expression: a bracket is not "
                        "closed" },
            BadDocument{ "noAddress",
                  servers + "/nhgConfig/web:\n  serverIp:\n    - 10.1.1.1\n    - 10.1.1\n",
                  "f.yaml:4: " + servers +
                        "/nhgConfig/web: serverIp: \"10.1.1\": expected an IPv4 or IPv6 address" },
            BadDocument{ "duplicateAttribute", probe + ":\n  probeInterval: 5\n  probeInterval: 6\n",
                  "f.yaml:3: " + probe + ": probeInterval: stands here twice, first on line 2" },
            BadDocument{ "duplicateEntry", servers + ":\n  nhgConfig:\n    web: {}\n    web: {}\n",
                  "f.yaml:4: " + servers + "/nhgConfig: web: stands here twice, first on line 3" },
            BadDocument{ "sameAddressTwice",
                  servers + "/nhgConfig/web:\n  serverIp: [ \"2001:db8::1\",\n   \"2001:0DB8:0::1\" ]\n",
                  "f.yaml:3: " + servers + "/nhgConfig/web: serverIp: \"2001:0DB8:0::1\" stands here twice" },
            BadDocument{ "samePathTwice", probe + ": {}\n" + probe + ": {}\n",
                  "f.yaml:2: " + probe + ": overlaps " + probe + " on line 1" },
            BadDocument{ "pathInsideAnother", probe + ": {}\n" + probe + "/nhgProbeConfig/web: {}\n",
                  "f.yaml:2: " + probe + "/nhgProbeConfig/web: overlaps " + probe + " on line 1" },
            BadDocument{ "pathAroundAnother",
                  probe + "/nhgProbeConfig/web: {}\n" + probe + "/nhgProbeConfig: {}\n",
                  "f.yaml:2: " + probe + "/nhgProbeConfig: overlaps " + probe +
                        "/nhgProbeConfig/web on line 1" },
            BadDocument{ "status", "healthMonitor/status/serverStatus: {}\n",
                  "f.yaml:1: healthMonitor/status/serverStatus: is written by the host and its agent only" },
            BadDocument{ "syntax", probe + ":\n  nhgProbeConfig: { web\n",
                  "f.yaml:3: YAML: end of map flow not found" },
            BadDocument{ "empty", "", "f.yaml: names no path" },
            BadDocument{ "sequence", "- a\n", "f.yaml:1: expected a map of paths, found a sequence" },
            BadDocument{ "nullKey", "~: {}\n", "f.yaml:1: expected a path, found nothing" },
            BadDocument{ "secondDocument", probe + ": {}\n---\n" + servers + ": {}\n",
                  "f.yaml:2: a second document begins; one is accepted" },
            BadDocument{ "nul", std::string( "a: b\nc\0d", 8 ), "f.yaml:2: holds a NUL byte" },
            BadDocument{ "notUtf8", "a: b\nc: \xC3(\n", "f.yaml:2: byte 0xC3 is not UTF-8" },
            BadDocument{ "binary",
                  "\x7f"
                  "ELF\x02\x01\x01\xff",
                  "f.yaml:1: byte 0xFF is not UTF-8" },
            BadDocument{ "aliasOfItself", probe + ": &a\n  nhgProbeConfig: *a\n",
                  "f.yaml:2: an alias names what encloses it" } ),
      []( const auto & row ) { return std::string( row.param.name ); } );

TEST( Document, GivesAllErrorsUpToABound ) {
   std::string text = probe + ":\n";
   for ( int i = 0; i < 30; ++i ) {
      text += fmt::format( "  a{}: 1\n", i );
   }
   const auto errors = errorsOf( text );
   EXPECT_EQ( errors.size(), ChangeErrors::maxLines + 1 );
   EXPECT_EQ( errors.back(), "and 10 more" );
}

TEST( Document, KeepsItsLinesWholeWhateverTheNamesHold ) {
   EXPECT_THAT( errorsOf( probe + ":\n  \"a\\nb\\x1b[2J\": 1\n" ),
         ElementsAre( "f.yaml:2: " + probe + ": has no attribute \"a\\x0ab\\x1b[2J\"" ) );
}

TEST( Document, BoundsWhatItReads ) {
   EXPECT_THAT( errorsOf( std::string( 100'000, '[' ) ).at( 0 ), HasSubstr( "f.yaml:1: " ) );
   EXPECT_THAT( errorsOf( std::string( 3'000'000, '[' ) ).at( 0 ), HasSubstr( "indicators" ) );
   std::string nested;
   for ( int depth = 0; depth < 300; ++depth ) {
      nested += std::string( static_cast<std::size_t>( depth ), ' ' ) + "a:\n";
   }
   EXPECT_THAT( errorsOf( nested ).at( 0 ), HasSubstr( "is nested deeper than 32 levels" ) );
   EXPECT_THAT( errorsOf( std::string( ( 16u << 20 ) + 1, ' ' ) ).at( 0 ), HasSubstr( "is larger than" ) );
}

TEST( Document, CountsWhatAliasesUnfoldInto ) {
   std::string text = servers + ":\n  nhgConfig:\n    g: &g\n      serverIp: &s [ 10.0.0.1";
   for ( int i = 2; i < 3000; ++i ) {
      text += fmt::format( ", 10.0.{}.{}", i / 256, i % 256 );
   }
   text += " ]\n";
   const auto few = text + "    h: *g\n";
   EXPECT_THAT( errorsOf( few ), IsEmpty() );
   for ( int i = 0; i < 1000; ++i ) {
      text += fmt::format( "    h{}: *g\n", i );
   }
   EXPECT_THAT( errorsOf( text ).at( 0 ), HasSubstr( "aliases followed" ) );

   // A long text behind many aliases counts by its bytes.
   auto texts = probe + ":\n  nhgProbeConfig:\n    g: &g { sslProfile: " + std::string( 4000, 'x' ) + " }\n";
   for ( int i = 0; i < 10'000; ++i ) {
      texts += fmt::format( "    h{}: *g\n", i );
   }
   EXPECT_THAT( errorsOf( texts ).at( 0 ), HasSubstr( "bytes of text, aliases followed" ) );

   // Unfolding ends when it is cancelled, too.
   ChangeRequest request;
   request.text = few;
   int asked = 0;
   const auto change = checkChange( testSchema(), request, [&] { return ++asked > 4; } );
   EXPECT_THAT( change->errors.at( 0 ), HasSubstr( "cancelled" ) );
   EXPECT_EQ( asked, 5 );
}

// Whatever bytes come in, the answer is errors of one line each, or something to do.
TEST( Document, SurvivesMutations ) {
   const std::string good =
         servers + ":\n  nhgConfig:\n    web: &a { serverIp: [ 10.1.1.1, \"::1\" ] } # c\n" + probe +
         ":\n  ? globalUrl\n  : |\n   http://x/\n  sslProfile: >-\n   !!str a\n  niceValue: *a\n";
   const std::string bytes = "[]{},:?-&*!|>'\"%@`#\n\t \\~<\x01\xc3\xa9";
   std::uint32_t random = 1;
   const auto next = [&random] { return ( random = random * 1664525u + 1013904223u ) >> 8; };
   for ( int i = 0; i < 3000; ++i ) {
      auto text = good;
      for ( auto edits = 1 + next() % 6; edits > 0; --edits ) {
         const auto at = next() % text.size();
         switch ( next() % 3 ) {
         case 0:
            text[at] = bytes[next() % bytes.size()];
            break;
         case 1:
            text.insert( at, 1, bytes[next() % bytes.size()] );
            break;
         default:
            text.resize( at + 1 );
         }
      }
      ChangeRequest request;
      request.source = "f.yaml";
      request.text = text;
      const auto change = checkChange( testSchema(), request );
      ASSERT_NE( change->errors.empty(), change->sections.empty() ) << text;
      for ( const auto & error : change->errors ) {
         ASSERT_TRUE( std::ranges::none_of( error, []( unsigned char c ) { return c < 0x20; } ) ) << error;
      }
   }
}

struct BadCommand {
   ChangeRequest request;
   std::string error;
};

TEST( SingleChange, IsCheckedAsDocumentsAre ) {
   const auto set = []( const char * path, const char * attribute, const char * value ) {
      ChangeRequest request;
      request.kind = ChangeRequest::Kind::set;
      request.path = path;
      request.attribute = attribute;
      request.value = value;
      return request;
   };
   const auto del = []( const char * path, const char * key ) {
      ChangeRequest request;
      request.kind = ChangeRequest::Kind::remove;
      request.path = path;
      request.value = key;
      return request;
   };
   const BadCommand commands[] = {
         { set( "healthMonitor/status/serverStatus", "monitoringEnabled", "true" ),
               "healthMonitor/status/serverStatus: is written by the host and its agent only" },
         { set( "ip/status/", "x", "1" ), "ip/status has no attribute \"\"" },
         { set( probe.c_str(), "probeInterval", "0" ),
               probe + ": probeInterval: \"0\": out of range 0.1..86400" },
         { set( probe.c_str(), "responseCodeRule", "x" ),
               probe + ": responseCodeRule: holds attributes of its own; set them at " + probe +
                     "/responseCodeRule" },
         { set( "ip6/status/intf/Lo%2", "addr", "::1" ),
               "ip6/status/intf: key \"Lo%2\": is not escaped well" },
         { set( "ip6/status/intf/Lo", "addr", "::1/129" ),
               "ip6/status/intf/Lo: addr: \"::1/129\": expected an IP address, \"/\" and a prefix length" },
         { set( "ip/status/ipIntfStatus/%FF", "ipAddr", "" ),
               "ip/status/ipIntfStatus: key \"%FF\": is not UTF-8 text" },
         { set( ( servers + "/nhgConfig/" + std::string( 256, 'x' ) ).c_str(), "serverIp", "::1" ),
               servers + "/nhgConfig: key \"" + std::string( 255, 'x' ) + "...\": is longer than 255 bytes" },
         { del( probe.c_str(), "x" ), probe + ": names neither a collection nor a set" },
         { del( ( probe + "/pingDisabledVip" ).c_str(), "" ), probe + "/pingDisabledVip: \"\": is empty" },
   };
   for ( const auto & command : commands ) {
      EXPECT_THAT( checkChange( testSchema(), command.request )->errors, ElementsAre( command.error ) );
   }
}

} // namespace host
