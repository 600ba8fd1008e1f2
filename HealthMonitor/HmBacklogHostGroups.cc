#include "HealthMonitor/HmBacklogSm.h"
#include "HealthMonitor/HmUtils.h"

#include <curl/curl.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace hm {

namespace {

constexpr std::string_view noPeerCheckSuffix = "-no-peer-check";

bool isHttps( const std::string & checkType ) {
   return checkType.find( "https" ) != std::string::npos;
}

/// Whole milliseconds, cut to what the engine's 32 bits hold.
std::uint32_t milliseconds( Seconds duration ) {
   const double ms = std::trunc( duration.count() * 1000 );
   if ( !( ms > 0 ) ) {
      return 0;
   }
   constexpr auto most = std::numeric_limits<std::uint32_t>::max();
   return ms < most ? static_cast<std::uint32_t>( ms ) : most;
}

using UrlHandle = std::unique_ptr<CURLU, decltype( &curl_url_cleanup )>;

std::optional<std::string> urlPart( const UrlHandle & url, CURLUPart part ) {
   char * text = nullptr;
   if ( curl_url_get( url.get(), part, &text, 0 ) != CURLUE_OK || !text ) {
      return std::nullopt;
   }
   std::string copy( text );
   curl_free( text );
   return copy;
}

std::string parseProtocolFromUrl( const UrlHandle & url ) {
   const auto protocol = urlPart( url, CURLUPART_SCHEME );
   if ( protocol ) {
      HM_TRACE( 9, "protocol: {}", *protocol );
   }
   return protocol.value_or( "" );
}

std::string parsePortFromUrl( const UrlHandle & url ) {
   const auto port = urlPart( url, CURLUPART_PORT );
   if ( port ) {
      HM_TRACE( 9, "port: {}", *port );
   }
   return port.value_or( "" );
}

std::string parsePathFromUrl( const UrlHandle & url ) {
   const auto path = urlPart( url, CURLUPART_PATH );
   if ( path ) {
      HM_TRACE( 9, "path: {}", *path );
   }
   return path.value_or( "" );
}

/// The parameters, or the default value with the reason; a URL that libcurl rejects has none.
NetCHASMCheckParams httpCheckParams( const std::string & text, bool nhgHasVip, std::string & reason ) {
   const UrlHandle url( curl_url(), &curl_url_cleanup );
   if ( !url || curl_url_set( url.get(), CURLUPART_URL, text.c_str(), 0 ) != CURLUE_OK ) {
      return {};
   }
   NetCHASMCheckParams params;
   params.checkType = parseProtocolFromUrl( url );
   if ( params.checkType.empty() ) {
      reason = "invalid protocol";
      return {};
   }
   if ( nhgHasVip && ( params.checkType == "http" || params.checkType == "https" ) ) {
      params.checkType += "-mark"; // the virtual address is probed, the mark tells the servers apart
   }
   params.checkPort = parsePortFromUrl( url );
   params.checkInfo = parsePathFromUrl( url );
   if ( params.checkInfo.empty() ) {
      reason = "invalid path";
      return {};
   }
   return params;
}

/// Whether the text begins with a decimal integer of 32 bits; blanks and a sign before it and anything behind
/// it are let pass.
bool beginsWithInteger( const std::string & text ) {
   char * end = nullptr;
   errno = 0;
   const long value = std::strtol( text.c_str(), &end, 10 );
   return end != text.c_str() && errno == 0 && value >= std::numeric_limits<std::int32_t>::min() &&
          value <= std::numeric_limits<std::int32_t>::max();
}

/// An https check without an SSL profile does not verify the server's certificate.
std::string nodeCheckType( const NetCHASMCheckParams & params, const std::string & sslProfile ) {
   return sslProfile.empty() && isHttps( params.checkType )
                ? params.checkType + std::string( noPeerCheckSuffix )
                : params.checkType;
}

void setNodeUrlInfo(
      HostGrpCfg & group, const NetCHASMCheckParams & params, const std::string & sslProfile ) {
   group.checkTypeIs( nodeCheckType( params, sslProfile ) );
   group.checkInfoIs( params.checkInfo );
   group.checkPortIs( params.checkPort );
}

} // namespace

NetCHASMCheckParams BacklogSm::parseCurlUrlInfo(
      const NexthopGroupName & nhgName, const std::string & url, bool nhgHasVip ) {
   HM_TRACE( 4, "nhg: {}, url: {}, nhgHasVip: {}", nhgName, url, nhgHasVip );
   std::string reason;
   auto params = httpCheckParams( url, nhgHasVip, reason );
   if ( !params ) {
      HM_TRACE( 4, "Invalid URL {} for nexthop-group {}.{}", url, nhgName,
            reason.empty() ? "" : " Reason: " + reason );
   }
   return params;
}

NetCHASMCheckParams BacklogSm::parseTcpUrlInfo(
      const NexthopGroupName & nhgName, const std::string & url, bool nhgHasVip ) {
   HM_TRACE( 4, "nhg: {}, url: {}, nhgHasVip: {}", nhgName, url, nhgHasVip );
   // A colon at the very end begins no token of its own.
   const auto text = url.ends_with( ':' ) ? url.substr( 0, url.size() - 1 ) : url;
   const auto first = text.find( ':' );
   const auto last = text.rfind( ':' );
   const bool threeTokens = first != std::string::npos && first != last;
   if ( !threeTokens || text.compare( 0, first, "tcp" ) != 0 ) {
      HM_TRACE( 1, "Invalid TCP URL {} for nexthop-group {}", url, nhgName );
      return {};
   }
   auto port = text.substr( last + 1 );
   if ( !beginsWithInteger( port ) ) {
      HM_TRACE( 1, "Invalid TCP port {} for nexthop-group {}", port, nhgName );
      return {};
   }
   return { "tcp", "", std::move( port ) };
}

bool BacklogSm::populateHostConfig( const NexthopGroupName & nhgName, ProbeType probeType,
      const IpGenAddr & serverIp, const NetCHASMCheckParams & params, bool noPeerCheck, bool add ) {
   HM_TRACE( 7,
         "nhg: {}, probeType: {}, server: {}, checkType: {}, checkPort: {}, checkInfo: {}, noPeerCheck: {}, "
         "add: {}",
         nhgName, probeType, serverIp, params.checkType, params.checkPort, params.checkInfo, noPeerCheck,
         add );
   const auto hostName = hostNameFromNhgAndServerIp( nhgName, probeType, serverIp );
   const auto hostGroupName = hostGroupNameFromNhgAndProbeType( nhgName, probeType );
   const HostGroupKey key{ nhgName, probeType };
   if ( !add ) {
      const auto hosts = netChasmInfo_->nhgHostList( key );
      if ( !hosts ) {
         HM_TRACE( 7, "NHG {} missing in nhgHostList", nhgName );
         return false;
      }
      if ( !hosts->hostListHas( hostName ) ) {
         HM_TRACE( 7, "server {} missing in nhgHostList for {}", hostName, nhgName );
         return false;
      }
      hosts->hostListDel( hostName );
      if ( hosts->hostListCount() == 0 ) {
         netChasmInfo_->hostConfig()->hostGrpCfgDel( hostGroupName );
         netChasmInfo_->nhgHostListDel( key );
      }
      return true;
   }
   HM_ASSERT( !params.checkType.empty(), "Invalid checkType {} for {}", params.checkType, nhgName );
   if ( probeType == ProbeType::http ) {
      HM_ASSERT( !params.checkInfo.empty(), "Invalid checkInfo {} for {}", params.checkInfo, nhgName );
   } else {
      HM_ASSERT( params.checkInfo.empty(), "Non empty checkInfo for {}", nhgName );
   }
   const auto group = netChasmInfo_->hostConfig()->hostGrpCfgIs( hostGroupName );
   group->dnsTypeIs( "static" );
   if ( serverIp.isIpv6() ) {
      group->dualStackModeIs( "ipv6-only" );
   }
   const auto nhgProbeConfig = probeConfig_->nhgProbeConfig( nhgName );
   const bool ownProfile = nhgProbeConfig && !nhgProbeConfig->sslProfile().empty();
   setNodeUrlInfo( *group, params, ownProfile ? nhgProbeConfig->sslProfile() : probeConfig_->sslProfile() );
   updateNhgLocalAttrs( nhgName, probeType, noPeerCheck );
   netChasmInfo_->nhgHostListIs( key )->hostListIs( hostName );
   return true;
}

AddressFamily BacklogSm::nhgAddressFamily( const NexthopGroupName & nhgName ) const {
   if ( const auto nhgConfig = serverConfig_->nhgConfig( nhgName ) ) {
      for ( const auto & server : nhgConfig->serverIpItems() ) {
         return server.key.family();
      }
   }
   return AddressFamily::none;
}

std::string BacklogSm::nhgSourceAddress( const NexthopGroupName & nhgName ) const {
   switch ( nhgAddressFamily( nhgName ) ) {
   case AddressFamily::none:
      break;
   case AddressFamily::ipv4:
      return serverStatus_->probeSrcIp().text();
   case AddressFamily::ipv6:
      return serverStatus_->probeSrcIp6().text();
   }
   return {};
}

bool BacklogSm::sourceAddressOutdated( const NexthopGroupName & nhgName ) const {
   const auto outdated = [&]( ProbeType probeType ) {
      const auto group =
            netChasmInfo_->hostConfig()->hostGrpCfg( hostGroupNameFromNhgAndProbeType( nhgName, probeType ) );
      return group && group->sourceAddress() != nhgSourceAddress( nhgName );
   };
   return outdated( ProbeType::http ) || outdated( ProbeType::tcp );
}

void BacklogSm::updateNhgLocalAttrs(
      const NexthopGroupName & nhgName, ProbeType probeType, bool noPeerCheck ) {
   Seconds interval = probeConfig_->probeInterval();
   std::uint32_t timeout = HmState::NexthopGroupProbeConfig::timeoutDefault();
   std::uint32_t retryDelay = HmState::NexthopGroupProbeConfig::retryDelayDefault();
   std::uint16_t retryCount = HmState::NexthopGroupProbeConfig::retryCountDefault();
   if ( const auto nhgProbeConfig = probeConfig_->nhgProbeConfig( nhgName ) ) {
      timeout = nhgProbeConfig->timeout();
      retryDelay = nhgProbeConfig->retryDelay();
      retryCount = nhgProbeConfig->retryCount();
      if ( nhgProbeConfig->probeInterval() != HmState::NexthopGroupProbeConfig::probeIntervalDefault() ) {
         interval = nhgProbeConfig->probeInterval();
      }
   }
   HM_TRACE( 7,
         "nhgName:{} probeInterval:{} probeSrcIp:{} probeSrcIp6:{} timeout:{} retry-delay:{} retry-count:{} "
         "noPeerCheck:{}",
         nhgName, interval.count(), serverStatus_->probeSrcIp(), serverStatus_->probeSrcIp6(), timeout,
         retryDelay, retryCount, noPeerCheck );
   const auto group =
         netChasmInfo_->hostConfig()->hostGrpCfg( hostGroupNameFromNhgAndProbeType( nhgName, probeType ) );
   if ( !group ) {
      HM_TRACE( 7, "nhg:{} not populated yet.", nhgName );
      return;
   }
   group->ttlIs( milliseconds( interval ) );
   group->sourceAddressIs( nhgSourceAddress( nhgName ) );
   group->timeoutIs( milliseconds( Seconds( timeout ) ) );
   group->checkRetryDelayIs( milliseconds( Seconds( retryDelay ) ) );
   group->checkRetriesIs( retryCount );
   const auto sslParams = commonData_->nhgSslParams( nhgName );
   group->caFilePathIs( sslParams ? sslParams->caFilePath() : "" );
   group->certFilePathIs( sslParams ? sslParams->certFilePath() : "" );
   if ( isHttps( group->checkType() ) ) {
      const auto suffix = group->checkType().find( noPeerCheckSuffix );
      if ( suffix != std::string::npos && !noPeerCheck ) {
         group->checkTypeIs( group->checkType().substr( 0, suffix ) );
      } else if ( suffix == std::string::npos && noPeerCheck ) {
         group->checkTypeIs( group->checkType() + std::string( noPeerCheckSuffix ) );
      }
   }
}

void BacklogSm::verifyHostConfig( const NexthopGroupName & nhgName, ProbeType probeType,
      const std::string & url, const IpGenAddr & vip, Seconds probeInterval, const IpGenAddr & probeSrcIp,
      const std::string & sslProfile, std::uint32_t timeoutSeconds, std::uint32_t retryDelaySeconds,
      std::uint16_t retryCount, bool present ) const {
   const auto name = hostGroupNameFromNhgAndProbeType( nhgName, probeType );
   const Ptr<const HostGrpCfg> group = netChasmInfo_->hostConfig()->hostGrpCfg( name );
   if ( !present ) {
      HM_ASSERT( !group, "hostGrpCfg present for {}", name );
      return;
   }
   HM_ASSERT( group, "hostGrpCfg missing for {}", name );
   HM_ASSERT( group->dnsType() == "static", "Invalid dns-type: {}", group->dnsType() );
   if ( nhgAddressFamily( nhgName ) == AddressFamily::ipv6 ) {
      HM_ASSERT(
            group->dualStackMode() == "ipv6-only", "Invalid dual-stack-mode: {}", group->dualStackMode() );
   }
   const auto params = parseUrlInfo( probeType, nhgName, url, !vip.empty() );
   HM_ASSERT( params, "Invalid checkParams for {}", nhgName );
   const auto checkType = nodeCheckType( params, sslProfile );
   HM_ASSERT( group->checkType() == checkType, "Invalid check-type: {} expected: {}", group->checkType(),
         checkType );
   HM_ASSERT( group->checkInfo() == params.checkInfo, "Invalid check-info: {} expected: {}",
         group->checkInfo(), params.checkInfo );
   if ( group->checkPort().empty() ) {
      HM_ASSERT( params.checkPort.empty(), "check-port missing" );
   } else {
      HM_ASSERT( group->checkPort() == params.checkPort, "Invalid check-port: {} expected: {}",
            group->checkPort(), params.checkPort );
   }
   const auto ttl = milliseconds( probeInterval );
   HM_ASSERT( group->ttl() == ttl, "Got TTL: {} expected TTL: {}", group->ttl(), ttl );
   if ( probeSrcIp.empty() ) {
      HM_ASSERT(
            group->sourceAddress().empty(), "expected:{} got no source-address", group->sourceAddress() );
   } else {
      HM_ASSERT( group->sourceAddress() == probeSrcIp.text(), "Got source address:{} expected:{}",
            group->sourceAddress(), probeSrcIp );
   }
   const auto timeout = milliseconds( Seconds( timeoutSeconds ) );
   HM_ASSERT( group->timeout() == timeout, "Got timeout:{} expected:{}", group->timeout(), timeout );
   const auto retryDelay = milliseconds( Seconds( retryDelaySeconds ) );
   HM_ASSERT( group->checkRetryDelay() == retryDelay, "Got retryDelay:{} expected:{}",
         group->checkRetryDelay(), retryDelay );
   HM_ASSERT( group->checkRetries() == retryCount, "Got retryCount:{} expected:{}", group->checkRetries(),
         retryCount );
}

} // namespace hm
