#include "HealthMonitor/HmUtils.h"

namespace hm {

std::string hostNameFromNhgAndServerIp(
      const NexthopGroupName & nhgName, ProbeType probeType, const IpGenAddr & serverIp ) {
   const bool known = probeType == ProbeType::http || probeType == ProbeType::tcp;
   HM_ASSERT( known, "unknown probeType {}", probeType );
   return fmt::format( "{}/{}/{}", probeType, nhgName, serverIp );
}

std::string hostGroupNameFromNhgAndProbeType( const NexthopGroupName & nhgName, ProbeType probeType ) {
   const bool known = probeType == ProbeType::http || probeType == ProbeType::tcp;
   HM_ASSERT( known, "unknown probeType {}", probeType );
   return fmt::format( "{}-{}", nhgName, probeType );
}

std::string ipNhgString( const IpNhgPair & pair ) {
   return fmt::format( "(NHG: {}, Server: {})", pair.nhgName, pair.ip );
}

ProbeType probeTypeFromHostName( const std::string & hostName ) {
   const auto type = hostName.substr( 0, hostName.find( '/' ) );
   if ( type == "http" ) {
      return ProbeType::http;
   }
   HM_ASSERT( type == "tcp", "invalid probe type {} in hostName {}", type, hostName );
   return ProbeType::tcp;
}

std::string getProbeTypeFromUrl( std::string_view url ) {
   const auto type = url.substr( 0, url.find( ':' ) );
   return type == "https" || type == "http" || type == "tcp" ? std::string( type ) : std::string{};
}

std::string getUrl(
      const HmState::ProbeConfig & probeConfig, const NexthopGroupName & nhgName, ProbeType probeType ) {
   const auto nhg = probeConfig.nhgProbeConfig( nhgName );
   switch ( probeType ) {
   case ProbeType::tcp:
      return nhg ? nhg->tcpUrl() : std::string{};
   case ProbeType::http:
      if ( nhg && !nhg->httpUrl().empty() ) {
         return nhg->httpUrl();
      }
      return nhg && !nhg->tcpUrl().empty() ? std::string{} : probeConfig.globalUrl();
   case ProbeType::probeTypeLast:
      break;
   }
   return {};
}

} // namespace hm
