#include "HealthMonitor/HmUtils.h"

#include "HealthMonitor/HmCommonData.h"
#include "TestValues.h"

#include <regex>

#include <gmock/gmock.h>

namespace {

using namespace hm;
using namespace hm::test;

TEST( HostNames, GiveTheProbeTypeBack ) {
   const auto six = hostNameFromNhgAndServerIp( "a/b", ProbeType::tcp, ip( "2001:db8::1" ) );
   EXPECT_EQ( six, "tcp/a/b/2001:db8::1" );
   EXPECT_EQ( probeTypeFromHostName( six ), ProbeType::tcp );
   EXPECT_EQ( probeTypeFromHostName( "http" ), ProbeType::http );
}

TEST( HostNamesDeathTest, UnknownProbeTypesStopTheProcess ) {
   EXPECT_DEATH( hostNameFromNhgAndServerIp( "n", ProbeType::probeTypeLast, {} ), "unknown probeType 2" );
   EXPECT_DEATH( hostGroupNameFromNhgAndProbeType( "n", ProbeType::probeTypeLast ), "unknown probeType 2" );
   EXPECT_DEATH(
         probeTypeFromHostName( "https/n/1.1.1.1" ), "invalid probe type https in hostName https/n/1.1.1.1" );
}

TEST( ProbeTypeOfUrl, IsTheSchemeWhenItIsOneOfOursInLowerCase ) {
   const std::pair<const char *, const char *> rows[] = { { "https://a/", "https" }, { "http", "http" },
         { "tcp:whatever", "tcp" }, { "HTTP://a/", "" }, { "ftp://a/", "" }, { "", "" }, { ":http", "" } };
   for ( const auto & [url, type] : rows ) {
      EXPECT_EQ( getProbeTypeFromUrl( url ), type ) << url;
   }
}

TEST( UrlOfGroup, GlobalUrlServesOnlyGroupsWithoutAnyUrl ) {
   const Ptr<HmState::ProbeConfig> config = new HmState::ProbeConfig();
   config->globalUrlIs( "http://global/" );
   config->nhgProbeConfigIs( "tcpOnly" )->tcpUrlIs( "tcp://h:1" );
   config->nhgProbeConfigIs( "httpOnly" )->httpUrlIs( "http://own/" );
   config->nhgProbeConfigIs( "neither" );
   const std::tuple<const char *, const char *, const char *> rows[] = { { "tcpOnly", "", "tcp://h:1" },
         { "httpOnly", "http://own/", "" }, { "neither", "http://global/", "" },
         { "unconfigured", "http://global/", "" } };
   for ( const auto & [nhg, http, tcp] : rows ) {
      EXPECT_EQ( getUrl( *config, nhg, ProbeType::http ), http ) << nhg;
      EXPECT_EQ( getUrl( *config, nhg, ProbeType::tcp ), tcp ) << nhg;
   }
}

TEST( IpNhgPairs, AreOrderedByAddressThenName ) {
   const IpNhgPair low{ "b", ip( "10.0.0.1" ) };
   EXPECT_LT( low, ( IpNhgPair{ "a", ip( "10.0.0.2" ) } ) );
   EXPECT_LT( ( IpNhgPair{ "a", ip( "10.0.0.1" ) } ), low );
}

// docs/state.md has what others find of the counters, with units.
TEST( Counters, AreInTheReference ) {
   std::ifstream file( HM_SOURCE_DIR "/docs/state.md" );
   std::vector<std::string> documented, described;
   const std::regex row( R"(\| `((num|last|next)\w+)` \|.*\| .+ \|)" );
   for ( std::string line; std::getline( file, line ); ) {
      if ( std::smatch match; std::regex_match( line, match, row ) ) {
         documented.push_back( match.str( 1 ) );
      }
   }
   for ( const auto * attribute : ProbeTypeCounters::entityType().attributes() ) {
      described.push_back( attribute->name() );
   }
   EXPECT_EQ( documented, described );
}

} // namespace
