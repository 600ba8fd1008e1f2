// The trace as operators read and search it: level, name of the function, text.
#include "ConfigFixture.h"
#include "TraceLines.h"

namespace hm::test {
namespace {

class TraceText : public ConfigFixture {};

TEST_F( TraceText, TellsTheRoadOfAServerFromConfigurationToEngine ) {
   probeConfig->monitoringEnabledIs( true );
   serverStatus->probeSrcIpIs( ip( "10.0.0.1" ) );
   serverStatus->probeSrcIp6Is( ip( "2001:db8::1" ) );
   const auto lines = linesOf( [this] {
      startAgent();
      runUntilIdle();
      web( "web", { "10.1.1.1" } );
      probe( "web" )->sslProfileIs( "corp" );
      runUntilIdle();
      nhg( "web" )->serverIpDel( ip( "10.1.1.1" ) );
      runUntilIdle();
      probe( "off" )->disabledIs( true );
      nhg( "off" )->serverIpIs( ip( "10.1.1.2" ) );
      probeConfig->monitoringEnabledIs( false );
      probeConfig->probeIntervalIs( Seconds{ 7 } );
      probeConfig->globalUrlIs( "http://g/" );
      probe( "off" )->disabledIs( false );
   } );
   expectLines( lines,
         {
               { 7, "handleMonitoringEnabled:enabled: true" },
               { 7, "handleInitialized:NHG: web, servers#:0" },
               { 7, "handleNhgUrl:NHG: web, httpUrl: http://h/" },
               { 7, "handleNhgSslProfile:NHG: web, sslProfile: corp" },
               { 7, "handleNhgServerIp:NHG: web, server: 10.1.1.1, add: true" },
               { 7, "maybeScheduleBacklogTask:scheduling backlog task" },
               { 7, "processNhgServerBacklog:size: 1" },
               { 7, "processNhgServerBacklog:processing entry: (NHG: web, Server: 10.1.1.1), add: true" },
               { 7, "processNhgServerBacklog:tcp url () invalid / not configured for nhg web" },
               { 4, "evaluateSslProfile:Ssl Profile not found: corp" },
               { 4, "parseCurlUrlInfo:nhg: web, url: http://h/, nhgHasVip: false" },
               { 7, "populateHostConfig:nhg: web, probeType: http, server: 10.1.1.1, checkType: http, "
                    "checkPort: , checkInfo: /, noPeerCheck: false, add: true" },
               { 7, "updateNhgLocalAttrs:nhgName:web probeInterval:5 probeSrcIp:10.0.0.1 "
                    "probeSrcIp6:2001:db8::1 timeout:10 retry-delay:0 retry-count:3 noPeerCheck:false" },
               { 7, "handleNhgIpChange:nhgName:web probeType:http serverIp:10.1.1.1 vip:10.1.1.1 add:true" },
               { 7, "populateUpdateCmdInfo:nhg: web, probeType: http, server: 10.1.1.1, hostIp: 10.1.1.1, "
                    "add: true" },
               { 7, "findOrCreateMarkForServer:server: 10.1.1.1, mark: 1, refCount: 1" },
               { 7, "processNhgLocalAttrsBacklog:processing entry: web" },
               { 7, "processGlobalAttrsBacklog:value: true" },
               { 4, "processBacklog:all backlogs empty. moving to next phase." },
               { 7, "handlePhase:new phase: netChasmInfoProcessing" },
               { 7, "handleNcTask:In netCHASMInfoProcessing phase" },
               { 4, "generateHostConfigFile:processing host-group: web-http, probeType: http" },
               { 7, "generateHostConfigFile:processing server: http/web/10.1.1.1" },
               { 7, "generateDnsAndMarkCmds:hostGroup:web-http hostName:http/web/10.1.1.1hostIp:10.1.1.1 "
                    "mark:1 remove:false" },
               { 7, "handleNhgServerIp:NHG: web, server: 10.1.1.1, add: false" },
               { 7, "deleteMarkForServer:server: 10.1.1.1, mark: 1, refCount: 0" },
               { 4, "hostConfigFileValid:host-config file is empty / invalid" },
               { 7, "handlePhase:new phase: backlogProcessing" },
               { 7, "handleNhgServerIp:monitoring not enabled for off" },
               { 7, "handleProbeInterval:interval: 7" },
               { 7, "handleProbeInterval:monitoring disabled" },
               { 7, "handleGlobalUrl:httpUrl: http://g/" },
               { 7, "handleGlobalUrl:monitoring disabled" },
               { 7, "handleNhgDisabled:NHG: off, disabled: false" },
               { 7, "handleNhgDisabled:monitoring not enabled globally" },
         } );
}

TEST_F( TraceText, SaysWhatIsWrongWithWhatWasConfigured ) {
   using State = Mgmt::Security::Ssl::ProfileState;
   probeConfig->monitoringEnabledIs( true );
   sslStatus->profileStatusIs( "bare" )->stateIs( State::valid );
   sslStatus->profileStatusIs( "bad" );
   startAgent();
   const auto lines = linesOf( [this] {
      const auto settings = probe( "web" );
      nhg( "web" )->serverIpIs( ip( "10.1.1.1" ) );
      settings->httpUrlIs( "http://" );
      settings->tcpUrlIs( "tcp://h" );
      settings->sslProfileIs( "bare" );
      probeConfig->sslProfileIs( "bad" );
      runUntilIdle();
      settings->tcpUrlIs( "tcp://h:x" );
      runUntilIdle();
   } );
   expectLines( lines, { { 4, "parseCurlUrlInfo:Invalid URL http:// for nexthop-group web." },
                             { 1, "parseTcpUrlInfo:Invalid TCP URL tcp://h for nexthop-group web" },
                             { 1, "parseTcpUrlInfo:Invalid TCP port x for nexthop-group web" },
                             { 4, "evaluateSslProfile:Invalid Ssl Profile: bad" },
                             { 4, "evaluateSslProfile:Trusted CA not present in SSL Profile: bare" },
                             { 4, "evaluateSslProfile:Client Certificate not present in SSL Profile: bare" },
                             { 7, "populateHostConfig:NHG web missing in nhgHostList" } } );
}

TEST_F( TraceText, ShowsWhereASliceEnded ) {
   probeConfig->monitoringEnabledIs( true );
   startAgent();
   runUntilIdle();
   const auto lines = linesOf( [this] {
      web( "web", { "10.1.1.1", "10.1.1.2" } );
      scheduler->sliceBudgetIs( Clock::Duration{ 0 } );
      runUntilIdle();
   } );
   expectLines( lines, { { 7, "processNhgServerBacklog:yielding at: (NHG: web, Server: 10.1.1.2)" },
                             { 7, "processNhgLocalAttrsBacklog:yielding at: web" },
                             { 4, "generateHostConfigFile:yielding at: (web-http http/web/10.1.1.2)" } } );
}

} // namespace
} // namespace hm::test
