#pragma once

#include "HealthMonitor/HmPacketCounters.h"
#include "HealthMonitor/HmPayloadIntake.h"
#include "platform/Assert.h"
#include "platform/Entity.h"
#include "platform/HBitmap.h"
#include "platform/state/HmState.h"
#include "platform/Trace.h"

namespace hm {

using namespace platform;

/// The facility of every HM_TRACE of the agent.
inline TraceFacility & traceFacility() {
   static const Ptr<TraceFacility> facility = TraceFacility::find( "HealthMonitor" );
   return *facility;
}

/// The kind of a health check. `http` covers http and https URLs.
enum class ProbeType : std::uint8_t { http = 0, tcp = 1, probeTypeLast = 2 };

/// Who may work next. The two phases follow each other, so that the model of the engine's configuration never
/// has two writers, nor a writer and a reader, at a time.
enum class ConfigPhase : std::uint8_t {
   backlogProcessing = 0,      // the backlog task changes the model
   netChasmInfoProcessing = 1, // the update cycle brings the model to the engine
   // As assertions write them.
   backlogProcessing_ = backlogProcessing,
   netChasmInfoProcessing_ = netChasmInfoProcessing,
};

} // namespace hm

template<>
struct platform::EnumNames<hm::ProbeType> {
   static constexpr std::pair<hm::ProbeType, std::string_view> entries[] = {
         { hm::ProbeType::http, "http" }, { hm::ProbeType::tcp, "tcp" } };
};

template<>
struct platform::EnumNames<hm::ConfigPhase> {
   static constexpr std::pair<hm::ConfigPhase, std::string_view> entries[] = {
         { hm::ConfigPhase::backlogProcessing, "backlogProcessing" },
         { hm::ConfigPhase::netChasmInfoProcessing, "netChasmInfoProcessing" } };
};

/// The name of the enumerator, or the number of a value that has none.
template<class E>
requires std::same_as<E, hm::ProbeType> || std::same_as<E, hm::ConfigPhase>
struct fmt::formatter<E> : fmt::formatter<std::string_view> {
   template<class Context>
   auto format( E value, Context & context ) const {
      return fmt::formatter<std::string_view>::format( platform::ValueTraits<E>::toText( value ), context );
   }
};

namespace hm {

/// A server as a member of a nexthop group.
struct IpNhgPair {
   NexthopGroupName nhgName;
   IpGenAddr ip;

   explicit operator bool() const { return !ip.empty() || !nhgName.empty(); }
   bool operator==( const IpNhgPair & ) const = default;
   /// By address, then by name.
   friend auto operator<=>( const IpNhgPair & a, const IpNhgPair & b ) {
      const auto byIp = a.ip <=> b.ip;
      return byIp != 0 ? byIp : a.nhgName <=> b.nhgName;
   }
};

/// The firewall mark of one server address and the number of publications to the engine that use it: one a
/// host group in which the engine probes the server.
class ServerMark : public RefCounted {
 public:
   explicit ServerMark( const IpGenAddr & serverIp ) : serverIp_( serverIp ) {}
   const IpGenAddr & serverIp() const { return serverIp_; }
   std::uint32_t mark() const { return mark_; } // 0: none yet
   void markIs( std::uint32_t mark ) { mark_ = mark; }
   std::uint32_t refCount() const { return refCount_; }
   void refCountInc( std::uint32_t n ) { refCount_ += n; }
   void refCountDec( std::uint32_t n ) { refCount_ -= n; }

 private:
   const IpGenAddr serverIp_;
   std::uint32_t mark_ = 0;
   std::uint32_t refCount_ = 0;
};

/// What the engine has counted for one server and one kind of check. Times are in milliseconds: the response
/// time as a duration, the two others since the epoch.
class ProbeTypeCounters : public Entity {
   HM_ENTITY( ProbeTypeCounters )
   HM_ATTRIBUTE( std::uint32_t, numChecks, 0 )
   HM_ATTRIBUTE( std::uint32_t, numResponses, 0 )
   HM_ATTRIBUTE( std::uint32_t, numConnectFailures, 0 )
   HM_ATTRIBUTE( std::uint32_t, numFailures, 0 )
   HM_ATTRIBUTE( std::uint32_t, numTimeouts, 0 )
   HM_ATTRIBUTE( std::uint32_t, lastResponseTime, 0 )
   HM_ATTRIBUTE( std::uint64_t, lastCheckTime, 0 )
   HM_ATTRIBUTE( std::uint64_t, nextCheckTime, 0 )
   HM_ATTRIBUTE( std::uint8_t, lastReason, 0 ) // the engine's code

 public:
   explicit ProbeTypeCounters( ProbeType probeType ) : probeType_( probeType ) {}
   ProbeType probeType() const { return probeType_; }

 private:
   const ProbeType probeType_;
};

class ServerIpCounters : public Entity {
   HM_ENTITY( ServerIpCounters )
   HM_COLLECTION( ProbeType, ProbeTypeCounters, probeTypeCounters )
};

/// Counters of the servers of one nexthop group.
class ProbeCounters : public Entity {
   HM_ENTITY( ProbeCounters )
   HM_COLLECTION( IpGenAddr, ServerIpCounters, serverIp )
};

/// The files of the SSL profile of one nexthop group; empty: none.
class NhgSslParams : public RefCounted {
 public:
   explicit NhgSslParams( const NexthopGroupName & nhgName ) : nhgName_( nhgName ) {}
   const NexthopGroupName & nhgName() const { return nhgName_; }
   const std::string & caFilePath() const { return caFilePath_; } // PEM; trusted roots
   void caFilePathIs( const std::string & path ) { caFilePath_ = path; }
   const std::string & certFilePath() const { return certFilePath_; } // PEM; client certificate and its key
   void certFilePathIs( const std::string & path ) { certFilePath_ = path; }

 private:
   const NexthopGroupName nhgName_;
   std::string caFilePath_;
   std::string certFilePath_;
};

} // namespace hm

template<>
struct std::hash<hm::IpNhgPair> {
   std::size_t operator()( const hm::IpNhgPair & pair ) const {
      const std::size_t seed = pair.ip.hash();
      return seed ^ ( std::hash<std::string>{}( pair.nhgName ) + 0x9e3779b97f4a7c15u + ( seed << 6 ) +
                          ( seed >> 2 ) );
   }
};

namespace hm {

/// What the reactors agree on and nobody outside sees. One object, made when the agent is wired and held by
/// every reactor; main thread only.
///
/// Kept by those who write it: serverIpToMark and markToServerIp are inverse to each other; an address is in
/// delMarkPendingList only while it has a mark.
class CommonData : public Entity {
   HM_ENTITY( CommonData )
   HM_ATTRIBUTE( ConfigPhase, configPhase, ConfigPhase::backlogProcessing )
   /// Engine host name, as hostNameFromNhgAndServerIp() makes it. Asked for each check result.
   HM_HASHED_MAP( std::string, IpNhgPair, hostNameToIpNhgPair )
   HM_HASHED_COLLECTION( IpGenAddr, ServerMark, serverIpToMark )
   HM_HASHED_MAP( std::uint32_t, IpGenAddr, markToServerIp ) // asked for each probe packet
   /// Servers whose mark nothing uses any more. It is freed once the engine has been told.
   HM_SET( IpGenAddr, delMarkPendingList )
   HM_ATTRIBUTE( std::uint32_t, serverMarkBitmapSize, 16384 ) // bits; bit 0 is never a mark
   HM_ATTRIBUTE( std::uint64_t, encapDropCnt, 0 )             // probe packets that were not encapsulated
   HM_ATTRIBUTE( std::uint64_t, nfQueueRcvCnt, 0 )            // packets taken from the netfilter queue
   HM_ATTRIBUTE( std::string, caFilePath )                    // of the global SSL profile; empty: none
   HM_ATTRIBUTE( std::string, certFilePath )                  // of the global SSL profile; empty: none
   HM_HASHED_COLLECTION( NexthopGroupName, NhgSslParams, nhgSslParams )
   /// Global probe interval in whole seconds, as last brought to the engine.
   HM_ATTRIBUTE( std::uint32_t, probeInterval, 0 )
   HM_COLLECTION( NexthopGroupName, ProbeCounters, probeCounters )
   /// Health of each server as one kind of check sees it.
   HM_HASHED_COLLECTION( NexthopGroupName, HmState::NexthopGroupProbeStatus, httpProbeStatus )
   HM_HASHED_COLLECTION( NexthopGroupName, HmState::NexthopGroupProbeStatus, tcpProbeStatus )

 public:
   void encapDropCntInc( std::uint64_t n ) { encapDropCntIs( encapDropCnt() + n ); }
   void nfQueueRcvCntInc( std::uint64_t n ) { nfQueueRcvCntIs( nfQueueRcvCnt() + n ); }

   /// A set bit is a mark in use. None until the backlog reactor has made it.
   const Ptr<HBitmap> & serverMarkBitmap() const { return serverMarkBitmap_; }
   const Ptr<HBitmap> & serverMarkBitmapIs(
         const std::string & id, HBitmap::Index size, bool initialBitState ) {
      serverMarkBitmap_ = new HBitmap( id, size, initialBitState );
      return serverMarkBitmap_;
   }
   void serverMarkBitmapDel() { serverMarkBitmap_ = nullptr; }

   /// What became of each packet; encapDropCnt and nfQueueRcvCnt by reason.
   PacketCounters & packetCounters() { return packetCounters_; }
   const PacketCounters & packetCounters() const { return packetCounters_; }

   /// Between whoever judges response bodies and the engine's threads, which outlive this object.
   const Ptr<PayloadIntake> & payloadIntake() const { return payloadIntake_; }

 private:
   Ptr<HBitmap> serverMarkBitmap_;
   PacketCounters packetCounters_;
   const Ptr<PayloadIntake> payloadIntake_ = new PayloadIntake();
};

} // namespace hm
