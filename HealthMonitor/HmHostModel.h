#pragma once

#include "HealthMonitor/HmCommonData.h"

#include <optional>

/// What stands between the configuration and the engine. The configuration reactors write the backlogs; the
/// backlog reactor drains them into the model; the update cycle brings the model to the engine. Main thread
/// only; nothing here is kept over a restart.
namespace hm {

/// The backlogs in the order in which they are drained.
enum class BacklogType : std::uint8_t {
   nhgServerChange = 0,
   nhgLocalAttrsChange = 1,
   globalAttrsChange = 2,
   maxBacklogType = 3,
};

/// What has changed in the configuration and is not in the model yet.
class BacklogInfo : public Entity {
   HM_ENTITY( BacklogInfo )
   HM_ATTRIBUTE( bool, globalAttrsBacklog, false )
   /// The latest wish for a server of a group. True: it is to be probed, or to be looked at again; false: it
   /// is to be withdrawn.
   HM_MAP( IpNhgPair, bool, nhgServerBacklog )
   /// Groups whose own settings are to be applied again.
   HM_SET( NexthopGroupName, nhgLocalAttrsBacklog )
};

/// A probe URL in the engine's terms. All empty, and then false: there is nothing to check.
struct NetCHASMCheckParams {
   std::string checkType; // "http" or "https", with "-mark" behind when a virtual address is probed, or "tcp"
   std::string checkInfo; // path of an HTTP URL; empty for TCP
   std::string checkPort; // decimal; empty: the check type's own

   explicit operator bool() const { return !checkType.empty() || !checkInfo.empty() || !checkPort.empty(); }
   bool operator==( const NetCHASMCheckParams & ) const = default;
};

/// Names one host group of the engine: the servers of a nexthop group under one kind of check.
struct HostGroupKey {
   NexthopGroupName nhgName;
   ProbeType probeType = ProbeType::http;
   auto operator<=>( const HostGroupKey & ) const = default;
};

/// Settings of one host group, as they go into the engine's host configuration.
class HostGrpCfg : public Entity {
   HM_ENTITY( HostGrpCfg )
   HM_ATTRIBUTE( std::uint32_t, ttl, 0 )      // milliseconds from check to check
   HM_ATTRIBUTE( std::string, sourceAddress ) // empty: none
   HM_ATTRIBUTE( std::string, checkType )     // as NetCHASMCheckParams, perhaps with "-no-peer-check" behind
   HM_ATTRIBUTE( std::string, dnsType )       // "static" once populated
   HM_ATTRIBUTE( std::string, checkInfo )     // as NetCHASMCheckParams
   HM_ATTRIBUTE( std::string, checkPort )     // as NetCHASMCheckParams
   HM_ATTRIBUTE( std::string, caFilePath )    // empty: none
   HM_ATTRIBUTE( std::string, certFilePath )  // empty: none
   HM_ATTRIBUTE( std::string, dualStackMode ) // "ipv6-only" once there was an IPv6 server; else empty
   HM_ATTRIBUTE( std::uint32_t, timeout, 0 )  // milliseconds
   HM_ATTRIBUTE( std::uint32_t, checkRetryDelay, 0 ) // milliseconds
   HM_ATTRIBUTE( std::uint16_t, checkRetries, 0 )

 public:
   explicit HostGrpCfg( const std::string & name ) : name_( name ) {}
   const std::string & name() const { return name_; } // as hostGroupNameFromNhgAndProbeType() makes it

 private:
   const std::string name_;
};

class HostConfig : public Entity {
   HM_ENTITY( HostConfig )
   HM_COLLECTION( std::string, HostGrpCfg, hostGrpCfg ) // by host-group name
};

/// The engine hosts of one host group, one a server.
class NhgHostList : public Entity {
   HM_ENTITY( NhgHostList )
   HM_SET( std::string, hostList ) // names as hostNameFromNhgAndServerIp() makes them

 public:
   explicit NhgHostList( const HostGroupKey & key ) : key_( key ) {}
   const HostGroupKey & key() const { return key_; }

 private:
   const HostGroupKey key_;
};

struct UpdateCmdInfoKey {
   NexthopGroupName nhgName;
   ProbeType probeType = ProbeType::http;
   IpGenAddr serverIp;
   IpGenAddr hostIp; // what the engine probes: the group's virtual address, else the server's own
   auto operator<=>( const UpdateCmdInfoKey & ) const = default;
};

/// A command that waits for the update cycle: to give a host of the engine its static address and its mark,
/// or to take both away.
class UpdateCmdInfo : public Entity {
   HM_ENTITY( UpdateCmdInfo )
   HM_ATTRIBUTE( std::uint32_t, mark, 0 ) // of the server; not 0 once the command stands
   HM_ATTRIBUTE( bool, remove, false )

 public:
   explicit UpdateCmdInfo( const UpdateCmdInfoKey & key ) : key_( key ) {}
   const UpdateCmdInfoKey & key() const { return key_; }

 private:
   const UpdateCmdInfoKey key_;
};

/// The model of the engine's configuration, and the commands that are to bring the engine to it.
class NetCHASMInfo : public Entity {
   HM_ENTITY( NetCHASMInfo )
   HM_COLLECTION( UpdateCmdInfoKey, UpdateCmdInfo, updateCmdInfo )
   HM_COLLECTION( HostGroupKey, NhgHostList, nhgHostList )

 public:
   std::size_t updateCmdInfos() const { return updateCmdInfoCount(); }

   /// Empty until the backlog reactor has made it.
   const Ptr<HostConfig> & hostConfig() const { return hostConfig_; }
   const Ptr<HostConfig> & hostConfigIs() {
      if ( !hostConfig_ ) {
         hostConfig_ = new HostConfig();
      }
      return hostConfig_;
   }
   void hostConfigDel() { hostConfig_ = nullptr; }

 private:
   Ptr<HostConfig> hostConfig_;
};

/// The address under which each server of one host group is published to the engine, kept so that a change
/// of the group's virtual address can withdraw the old one.
class ServerCfg : public RefCounted {
 public:
   explicit ServerCfg( const HostGroupKey & key ) : key_( key ) {}
   const HostGroupKey & key() const { return key_; }

   const OrderedMap<IpGenAddr, IpGenAddr> & serverIpToHostIpItems() const { return hostIps_; }
   std::optional<IpGenAddr> serverIpToHostIp( const IpGenAddr & serverIp ) const {
      const auto * hostIp = hostIps_.find( serverIp );
      return hostIp ? std::optional( *hostIp ) : std::nullopt;
   }
   void serverIpToHostIpIs( const IpGenAddr & serverIp, const IpGenAddr & hostIp ) {
      hostIps_.insert( serverIp, hostIp );
   }
   /// Returns the host address that was removed; the empty address when the server has none.
   IpGenAddr serverIpToHostIpDel( const IpGenAddr & serverIp ) {
      const auto removed = serverIpToHostIp( serverIp ).value_or( IpGenAddr{} );
      hostIps_.erase( serverIp );
      return removed;
   }

 private:
   const HostGroupKey key_;
   OrderedMap<IpGenAddr, IpGenAddr> hostIps_;
};

} // namespace hm
