#include "HealthMonitor/HmBacklogSm.h"

#include <gmock/gmock.h>

namespace {

using namespace hm;

const NetCHASMCheckParams none;

struct UrlRow {
   const char * url;
   bool vip;
   NetCHASMCheckParams params;
};

TEST( HttpUrl, BecomesCheckTypePathAndPort ) {
   const UrlRow rows[] = {
         { "http://10.0.0.1/health", false, { "http", "/health", "" } },
         { "http://10.0.0.1/health", true, { "http-mark", "/health", "" } },
         { "https://10.0.0.1:8443/", true, { "https-mark", "/", "8443" } },
         { "http://10.0.0.1", false, { "http", "/", "" } },
         { "http://u:p@[2001:db8::1]:80/p?q=1#f", false, { "http", "/p", "80" } },
         { "ftp://10.0.0.1/p", true, { "ftp", "/p", "" } },
         { "", false, none },
         { "10.0.0.1/health", false, none },
         { "http://", false, none },
         { "http://h:99999/", false, none },
         { "http://h/a b", false, none },
   };
   for ( const auto & row : rows ) {
      EXPECT_EQ( BacklogSm::parseCurlUrlInfo( "n", row.url, row.vip ), row.params ) << row.url;
   }
}

TEST( TcpUrl, GivesItsLastTokenAsPort ) {
   const UrlRow rows[] = {
         { "tcp://10.0.0.1:8080", true, { "tcp", "", "8080" } },
         { "tcp://[2001:db8::1]:443", false, { "tcp", "", "443" } },
         { "tcp::8080", false, { "tcp", "", "8080" } },
         { "tcp://10.0.0.1:8080:", false, { "tcp", "", "8080" } },
         { "tcp://10.0.0.1:08080", false, { "tcp", "", "08080" } },
         { "tcp://10.0.0.1:80x", false, { "tcp", "", "80x" } },
         { "tcp://10.0.0.1: -5", false, { "tcp", "", " -5" } },
         { "tcp:8080", false, none },
         { "tcp://10.0.0.1", false, none },
         { "tcp://10.0.0.1:", false, none },
         { "tcp:::", false, none },
         { "tcp://10.0.0.1:web", false, none },
         { "tcp://10.0.0.1:2147483648", false, none },
         { "TCP://10.0.0.1:80", false, none },
         { "xtcp://10.0.0.1:80", false, none },
         { "", false, none },
   };
   for ( const auto & row : rows ) {
      EXPECT_EQ( BacklogSm::parseTcpUrlInfo( "n", row.url, row.vip ), row.params ) << row.url;
   }
}

TEST( CheckParams, AreTrueAsSoonAsOneFieldIsThere ) {
   EXPECT_FALSE( none );
   for ( const auto & params : { NetCHASMCheckParams{ "tcp", "", "" }, { "", "/", "" }, { "", "", "80" } } ) {
      EXPECT_TRUE( params ) << params.checkType << params.checkInfo << params.checkPort;
   }
}

} // namespace
