#include "host/Document.h"

#include "tests/unit/host/TestState.h"

#include <algorithm>

#include <gmock/gmock.h>

#include <fmt/format.h>

namespace host {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string published = "healthMonitor/status/serverStatus";

const Schema & testSchema() {
   static const State state;
   return *state.schema;
}

std::vector<std::string> errorsOf( const std::string & text ) {
   return checkChange( testSchema(), document( text ) )->errors;
}

TEST( Document, IsRefusedWithFileLinePathAndAttribute ) {
   const auto web = probe + "/nhgProbeConfig/web", groups = servers + "/nhgConfig";
   const std::pair<std::string, std::string> documents[] = {
         { "a/b: {}\n", "f.yaml:1: no such path: a/b" },
         { "\n" + probe + "/x: {}\n", "f.yaml:2: " + probe + " has no attribute \"x\"" },
         { probe + ":\n  nhgProbeConfig:\n    web:\n      url: x\n",
               "f.yaml:4: " + web + ": has no attribute \"url\"" },
         { probe + ":\n  nhgProbeConfig:\n    web: { timeout: 0 }\n",
               "f.yaml:3: " + web + ": timeout: \"0\": out of range 1..86400" },
         { groups + "/web:\n  serverIp: 10.1.1.1\n",
               "f.yaml:2: " + groups +
                     "/web: serverIp: expected a sequence of IP address, found a single value" },
         { probe + ":\n  responseCodeRule: { pattern: \"5[0\" }\n",
               "f.yaml:2: " + probe +
                     "/responseCodeRule: pattern: \"5[0\": bad regular expression: a bracket is not closed" },
         { groups + "/web:\n  serverIp:\n    - 10.1.1.1\n    - 10.1.1\n",
               "f.yaml:4: " + groups + "/web: serverIp: \"10.1.1\": expected an IPv4 or IPv6 address" },
         { servers + ":\n  nhgConfig: [ web ]\n",
               "f.yaml:2: " + servers + ": nhgConfig: expected a map by text, found a sequence" },
         { probe + ": on\n", "f.yaml:1: " + probe + ": expected a map of attributes, found a single value" },
         { probe + ":\n  probeInterval: 5\n  probeInterval: 6\n",
               "f.yaml:3: " + probe + ": probeInterval: stands here twice, first on line 2" },
         { servers + ":\n  nhgConfig:\n    web: {}\n    web: {}\n",
               "f.yaml:4: " + groups + ": web: stands here twice, first on line 3" },
         { groups + "/web:\n  serverIp: [ \"2001:db8::1\",\n   \"2001:0DB8:0::1\" ]\n",
               "f.yaml:3: " + groups + "/web: serverIp: \"2001:0DB8:0::1\" stands here twice" },
         { probe + ": {}\n" + web + ": {}\n", "f.yaml:2: " + web + ": overlaps " + probe + " on line 1" },
         { web + ": {}\n" + probe + ": {}\n", "f.yaml:2: " + probe + ": overlaps " + web + " on line 1" },
         { published + ": {}\n", "f.yaml:1: " + published + ": is written by the host and its agent only" },
         { "host/status: {}\n", "f.yaml:1: host/status: is written by the host and its agent only" },
         { probe + ":\n  nhgProbeConfig: { web\n", "f.yaml:3: YAML: end of map flow not found" },
         { "", "f.yaml: names no path" },
         { "- a\n", "f.yaml:1: expected a map of paths, found a sequence" },
         { "~: {}\n", "f.yaml:1: expected a path, found nothing" },
         { probe + ": {}\n---\n" + servers + ": {}\n",
               "f.yaml:2: a second document begins; one is accepted" },
         { std::string( "a: b\nc\0d", 8 ), "f.yaml:2: holds a NUL byte" },
         { "a: b\nc: \xC3(\n", "f.yaml:2: byte 0xC3 is not UTF-8" },
         { probe + ": &a\n  nhgProbeConfig: *a\n", "f.yaml:2: an alias names what encloses it" },
         // Lines stay whole whatever the names hold.
         { probe + ":\n  \"a\\nb\\x1b[2J\": 1\n",
               "f.yaml:2: " + probe + ": has no attribute \"a\\x0ab\\x1b[2J\"" },
   };
   for ( const auto & [text, error] : documents ) {
      EXPECT_THAT( errorsOf( text ), ElementsAre( error ) ) << text;
   }
}

TEST( Document, GivesAllErrorsUpToABound ) {
   std::string text = probe + ":\n";
   for ( int i = 0; i < 30; ++i ) {
      text += fmt::format( "  a{}: 1\n", i );
   }
   const auto errors = errorsOf( text );
   EXPECT_EQ( errors.size(), ChangeErrors::maxLines + 1 );
   EXPECT_EQ( errors.back(), "and 10 more" );
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
   int asked = 0;
   const auto change = checkChange( testSchema(), document( few ), [&] { return ++asked > 4; } );
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
      const auto change = checkChange( testSchema(), document( text ) );
      ASSERT_NE( change->errors.empty(), change->sections.empty() ) << text;
      for ( const auto & error : change->errors ) {
         ASSERT_TRUE( std::ranges::none_of( error, []( unsigned char c ) { return c < 0x20; } ) ) << error;
      }
   }
}

TEST( SingleChange, IsCheckedAsDocumentsAre ) {
   const auto removal = []( const std::string & path, const std::string & key ) {
      return ChangeRequest{ .kind = ChangeRequest::Kind::remove, .path = path, .value = key };
   };
   const std::pair<ChangeRequest, std::string> changes[] = {
         { setting( published, "monitoringEnabled", "true" ),
               published + ": is written by the host and its agent only" },
         { setting( "ip/status/", "x", "1" ), "ip/status has no attribute \"\"" },
         { setting( probe, "probeInterval", "0" ),
               probe + ": probeInterval: \"0\": out of range 0.1..86400" },
         { setting( probe, "responseCodeRule", "x" ),
               probe + ": responseCodeRule: holds attributes of its own; set them at " + probe +
                     "/responseCodeRule" },
         { setting( "ip6/status/intf/Lo%2", "addr", "::1" ),
               "ip6/status/intf: key \"Lo%2\": is not escaped well" },
         { setting( "ip6/status/intf/Lo", "addr", "::1/129" ),
               "ip6/status/intf/Lo: addr: \"::1/129\": expected an IP address, \"/\" and a prefix length" },
         { setting( probe + "/nhgProbeConfig/web", "vip", "10.1.1.256" ),
               probe + "/nhgProbeConfig/web: vip: \"10.1.1.256\": expected an IPv4 or IPv6 address" },
         { setting( "ip/status/ipIntfStatus/%FF", "ipAddr", "" ),
               "ip/status/ipIntfStatus: key \"%FF\": is not UTF-8 text" },
         { setting( servers + "/nhgConfig/" + std::string( 256, 'x' ), "serverIp", "::1" ),
               servers + "/nhgConfig: key \"" + std::string( 255, 'x' ) + "...\": is longer than 255 bytes" },
         { removal( probe, "x" ), probe + ": names neither a collection nor a set" },
         { removal( probe + "/pingDisabledVip", "" ), probe + "/pingDisabledVip: \"\": is empty" },
   };
   for ( const auto & [change, error] : changes ) {
      EXPECT_THAT( checkChange( testSchema(), change )->errors, ElementsAre( error ) );
   }
}

} // namespace host
