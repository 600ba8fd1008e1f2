// What must never be, and how the process says so when it stops: one row an assertion.
#include "ConfigFixture.h"

namespace hm::test {
namespace {

class InvariantsDeathTest : public ConfigFixture {
 public:
   InvariantsDeathTest() {
      probeConfig->monitoringEnabledIs( true );
      serverStatus->probeSrcIp6Is( ip( "2001:db8::1" ) );
      probe( "web" )->httpUrlIs( "https://h:8443/health" );
      nhg( "web" )->serverIpIs( server );
      startAgent();
      runUntilIdle();
   }

   const IpGenAddr server = ip( "2001:db8::2" );
   const IpGenAddr stranger = ip( "10.9.9.9" );
};

TEST_F( InvariantsDeathTest, HostGroupIsWhatItsConfigurationMakesOfIt ) {
   struct Expected {
      NexthopGroupName nhgName = "web";
      std::string url = "https://h:8443/health";
      IpGenAddr vip;
      Seconds probeInterval{ 5 };
      IpGenAddr probeSrcIp = ip( "2001:db8::1" );
      std::string sslProfile;
      std::uint32_t timeout = 10;
      std::uint32_t retryDelay = 0;
      std::uint16_t retryCount = 3;
      bool present = true;
   };
   const auto verify = [this]( const Expected & is ) {
      configSm->backlogSm()->verifyHostConfig( is.nhgName, ProbeType::http, is.url, is.vip, is.probeInterval,
            is.probeSrcIp, is.sslProfile, is.timeout, is.retryDelay, is.retryCount, is.present );
   };
   const auto with = [verify]( auto member, auto value ) {
      return [=] {
         Expected is;
         is.*member = value;
         verify( is );
      };
   };
   const auto groupWith = [this, verify]( auto change ) {
      return [=, this] {
         change( *webGroup() );
         verify( {} );
      };
   };
   verify( {} );
   expectDeaths( {
         { "hostGrpCfg present for web-http", with( &Expected::present, false ) },
         { "hostGrpCfg missing for gone-http", with( &Expected::nhgName, "gone" ) },
         { "Invalid dns-type: lookup", groupWith( []( auto & is ) { is.dnsTypeIs( "lookup" ); } ) },
         { "Invalid dual-stack-mode: none", groupWith( []( auto & is ) { is.dualStackModeIs( "none" ); } ) },
         { "Invalid checkParams for web", with( &Expected::url, "no url" ) },
         { "Invalid check-type: https-no-peer-check expected: http",
               with( &Expected::url, "http://h:8443/health" ) },
         { "Invalid check-type: https-no-peer-check expected: https", with( &Expected::sslProfile, "corp" ) },
         { "Invalid check-type: https-no-peer-check expected: https-mark-no-peer-check",
               with( &Expected::vip, ip( "192.0.2.1" ) ) },
         { "Invalid check-info: /health expected: /", with( &Expected::url, "https://h:8443/" ) },
         { "Invalid check-port: 8443 expected: 443", with( &Expected::url, "https://h:443/health" ) },
         { "check-port missing", groupWith( []( auto & is ) { is.checkPortIs( "" ); } ) },
         { "Got TTL: 5000 expected TTL: 5500", with( &Expected::probeInterval, Seconds{ 5.5 } ) },
         { "Got source address:2001:db8::1 expected:10.9.9.9", with( &Expected::probeSrcIp, stranger ) },
         { "expected:2001:db8::1 got no source-address", with( &Expected::probeSrcIp, IpGenAddr{} ) },
         { "Got timeout:10000 expected:9000", with( &Expected::timeout, 9u ) },
         { "Got retryDelay:0 expected:1000", with( &Expected::retryDelay, 1u ) },
         { "Got retryCount:3 expected:4", with( &Expected::retryCount, std::uint16_t{ 4 } ) },
   } );
}

TEST_F( InvariantsDeathTest, PublishedStateComesAndGoesAsOne ) {
   const auto drop = [this]( const NexthopGroupName & name, const IpGenAddr & serverIp ) {
      return [=, this] { configSm->deleteProbeStatus( name, serverIp ); };
   };
   const auto dropCounters = [this]( const NexthopGroupName & name, const IpGenAddr & serverIp ) {
      return [=, this] { configSm->deleteProbeCounter( name, serverIp ); };
   };
   const auto missing = []( auto removeIt, auto thenDrop ) {
      return [=] {
         removeIt();
         thenDrop();
      };
   };
   const auto withoutCounters = [&]( ProbeType type ) {
      return missing(
            [=, this] {
               commonData->probeCounters( "web" )->serverIp( server )->probeTypeCountersDel( type );
            },
            dropCounters( "web", server ) );
   };
   expectDeaths( {
         { "nhgProbeStatus missing for x", drop( "x", server ) },
         { "probeStatus missing for 10.9.9.9 in web", drop( "web", stranger ) },
         { "HTTP probe status cache missing for web",
               missing( [&] { commonData->httpProbeStatusDel( "web" ); }, drop( "web", server ) ) },
         { "HTTP probe status cache missing for 2001:db8::2 in web",
               missing( [&] { commonData->httpProbeStatus( "web" )->serverProbeStatusDel( server ); },
                     drop( "web", server ) ) },
         { "TCP probe status cache missing for web",
               missing( [&] { commonData->tcpProbeStatusDel( "web" ); }, drop( "web", server ) ) },
         { "TCP probe status cache missing for 2001:db8::2 in web",
               missing( [&] { commonData->tcpProbeStatus( "web" )->serverProbeStatusDel( server ); },
                     drop( "web", server ) ) },
         { "probeCounters missing for x", dropCounters( "x", server ) },
         { "probeCounters missing for 10.9.9.9 in web", dropCounters( "web", stranger ) },
         { "http probeCounters missing for 2001:db8::2 in web", withoutCounters( ProbeType::http ) },
         { "tcp probeCounters missing for 2001:db8::2 in web", withoutCounters( ProbeType::tcp ) },
   } );
}

TEST_F( InvariantsDeathTest, BacklogAsksOnlyForWhatIsConfiguredInItsOwnPhase ) {
   auto & sm = *configSm->backlogSm();
   const auto addHost = [&]( ProbeType type, const NetCHASMCheckParams & params ) {
      return [&sm, this, type, params] { sm.populateHostConfig( "web", type, server, params, false, true ); };
   };
   const auto queueAdd = [this]( const NexthopGroupName & name, const IpGenAddr & serverIp ) {
      return [=, this] {
         configSm->backlogInfo()->nhgServerBacklogIs( { name, serverIp }, true );
         configSm->maybeScheduleBacklogTask();
         runUntilIdle();
      };
   };
   expectDeaths( {
         { "nhgConfig: nhgConfig missing for x", queueAdd( "x", server ) },
         { "server 10.9.9.9 missing in nhgConfig for web", queueAdd( "web", stranger ) },
         { "Invalid checkType  for web", addHost( ProbeType::http, { "", "/", "" } ) },
         { "Invalid checkInfo  for web", addHost( ProbeType::http, { "http", "", "" } ) },
         { "Non empty checkInfo for web", addHost( ProbeType::tcp, { "tcp", "/", "80" } ) },
         { "addition of serverIp:10.1.1.1 hostIp:10.1.1.1 in web is queued already",
               [&] {
                  nhg( "web" )->serverIpIs( ip( "10.1.1.1" ) );
                  nhg( "web" )->serverIpIs( ip( "10.1.1.2" ) ); // keeps the pass from ending
                  scheduler->sliceBudgetIs( Clock::Duration{ 0 } );
                  scheduler->runSlice();
                  sm.currNhgServerCfgDel( { "web", ProbeType::http } );
                  queueAdd( "web", ip( "10.1.1.1" ) )();
               } },
         { "invalid phase: netChasmInfoProcessing",
               [&] {
                  commonData->configPhaseIs( ConfigPhase::netChasmInfoProcessing );
                  configSm->netChasmInfoSm()->notificationsEnabledIs( false );
                  configSm->backlogTask()->scheduleTask();
                  scheduler->runUntilIdle();
               } },
         { "assertion failed: false: invalid phase 7",
               [&] { commonData->configPhaseIs( static_cast<ConfigPhase>( 7 ) ); } },
   } );
}

} // namespace
} // namespace hm::test
