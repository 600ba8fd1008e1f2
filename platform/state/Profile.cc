#include "platform/state/Profile.h"

#include "platform/state/Bridging.h"
#include "platform/state/HmState.h"
#include "platform/state/Ip.h"
#include "platform/state/Ssl.h"

namespace {

template<class E>
platform::MountPath mount( const char * path, bool writable = false ) {
   return { path, &E::entityType(), [] { return platform::Ptr<platform::Entity>( new E() ); }, writable };
}

} // namespace

platform::MountProfile healthMonitorProfile() {
   return { "HealthMonitor", { mount<HmState::ProbeConfig>( "healthMonitor/config/probeConfig" ),
                                   mount<HmState::ServerConfig>( "healthMonitor/config/serverConfig" ),
                                   mount<HmState::ServerStatus>( "healthMonitor/status/serverStatus", true ),
                                   mount<Mgmt::Security::Ssl::Status>( "mgmt/security/ssl/status" ),
                                   mount<Ip::Status>( "ip/status" ), mount<Ip6::Status>( "ip6/status" ),
                                   mount<Bridging::Config>( "bridging/config" ) } };
}
