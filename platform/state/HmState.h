#pragma once

#include "platform/Entity.h"

/// The health monitor's own entities. The configuration side writes ProbeConfig and ServerConfig; the agent
/// writes ServerStatus, which the other agents of the switch read.
namespace HmState {

using platform::Entity;
using platform::IntfId;
using platform::IpGenAddr;
using platform::NexthopGroupName;
using platform::Refusal;
using platform::Seconds;

/// Bounds of what configuration may say; the engine counts in milliseconds of 32 bits.
Refusal probeIntervalCheck( const Seconds & interval );   // 0.1 s to 86,400 s
Refusal checkSecondsCheck( const std::uint32_t & value ); // 0 s to 86,400 s
Refusal timeoutCheck( const std::uint32_t & value );      // 1 s to 86,400 s
Refusal httpUrlCheck( const std::string & url );          // empty, or http://… or https://…
Refusal tcpUrlCheck( const std::string & url );           // empty, or tcp://HOST:PORT
Refusal patternCheck( const std::string & pattern );      // "invalid", or what BoundedRegex accepts
Refusal threadsCheck( const std::uint16_t & count );      // 1 to 256
Refusal niceCheck( const std::int8_t & value );           // -20 to 19
Refusal portCheck( const std::uint16_t & port );          // not 0

/// What a matching rule does to a server. Other numbers do nothing.
inline constexpr std::uint8_t ruleActionDown = 0;
inline constexpr std::uint8_t ruleActionShutdown = 1;

/// The pattern of a rule that is not configured.
inline constexpr const char * rulePatternNone = "invalid";

/// One rule on HTTP responses.
class ResponseRule : public Entity {
   HM_ENTITY( ResponseRule )
   HM_ATTRIBUTE_CHECKED( std::string, pattern, patternCheck, rulePatternNone )
   HM_ATTRIBUTE( std::uint8_t, action, ruleActionDown )
};

/// Probe settings of one nexthop group, keyed by its name.
class NexthopGroupProbeConfig : public Entity {
   HM_ENTITY( NexthopGroupProbeConfig )
   HM_ATTRIBUTE_CHECKED( std::string, httpUrl, httpUrlCheck ) // empty: none
   HM_ATTRIBUTE_CHECKED( std::string, tcpUrl, tcpUrlCheck )   // empty: none
   /// 5 s stands for unset: the global interval applies.
   HM_ATTRIBUTE_CHECKED( Seconds, probeInterval, probeIntervalCheck, Seconds{ 5 } )
   HM_ATTRIBUTE( std::string, sslProfile ) // empty: the global one
   HM_ATTRIBUTE( IpGenAddr, vip )          // empty: none
   HM_ATTRIBUTE( bool, disabled, false )
   HM_ATTRIBUTE_CHECKED( std::uint32_t, timeout, timeoutCheck, 10 )        // seconds
   HM_ATTRIBUTE_CHECKED( std::uint32_t, retryDelay, checkSecondsCheck, 0 ) // seconds
   HM_ATTRIBUTE( std::uint16_t, retryCount, 3 )

 public:
   explicit NexthopGroupProbeConfig( const NexthopGroupName & nhgName ) : nhgName_( nhgName ) {}
   const NexthopGroupName & nhgName() const { return nhgName_; }

 private:
   const NexthopGroupName nhgName_;
};

/// The global probe configuration.
class ProbeConfig : public Entity {
   HM_ENTITY( ProbeConfig )
   HM_ATTRIBUTE( bool, monitoringEnabled, false )
   HM_ATTRIBUTE_CHECKED( std::string, globalUrl, httpUrlCheck ) // for groups that set no URL; empty: none
   HM_ATTRIBUTE( std::string, sslProfile )                      // empty: none
   HM_ATTRIBUTE_CHECKED( Seconds, probeInterval, probeIntervalCheck, Seconds{ 5 } )
   HM_ATTRIBUTE_CHECKED( std::uint16_t, maxNumberOfThreads, threadsCheck, 4 )
   HM_ATTRIBUTE_CHECKED( std::int8_t, niceValue, niceCheck, 0 )
   HM_ATTRIBUTE( IntfId, localTunnelIntf ) // empty: none
   HM_COLLECTION( NexthopGroupName, NexthopGroupProbeConfig, nhgProbeConfig )
   HM_CHILD( ResponseRule, responsePayloadRule )
   HM_CHILD( ResponseRule, responseCodeRule )
   HM_SET( IpGenAddr, pingDisabledVip )
   HM_ATTRIBUTE_CHECKED( std::uint16_t, encapUdpDstPort, portCheck, 4789 ) // RFC 7348
   HM_ATTRIBUTE( platform::EthAddr, encapDstMac )
};

/// The servers of one nexthop group.
class NexthopGroupConfig : public Entity {
   HM_ENTITY( NexthopGroupConfig )
   HM_SET( IpGenAddr, serverIp )

 public:
   explicit NexthopGroupConfig( const NexthopGroupName & nhgName ) : nhgName_( nhgName ) {}
   const NexthopGroupName & nhgName() const { return nhgName_; }

 private:
   const NexthopGroupName nhgName_;
};

class ServerConfig : public Entity {
   HM_ENTITY( ServerConfig )
   HM_COLLECTION( NexthopGroupName, NexthopGroupConfig, nhgConfig )
};

enum class ServerAdminState : std::uint8_t { enabled = 0, shutdown = 1 };
enum class ServerOperState : std::uint8_t { down = 0, up = 1 };

} // namespace HmState

template<>
struct platform::EnumNames<HmState::ServerAdminState> {
   static constexpr std::pair<HmState::ServerAdminState, std::string_view> entries[] = {
         { HmState::ServerAdminState::enabled, "enabled" },
         { HmState::ServerAdminState::shutdown, "shutdown" } };
};

template<>
struct platform::EnumNames<HmState::ServerOperState> {
   static constexpr std::pair<HmState::ServerOperState, std::string_view> entries[] = {
         { HmState::ServerOperState::down, "down" }, { HmState::ServerOperState::up, "up" } };
};

namespace HmState {

/// Health of one server. A new one is down until a check has answered: traffic is never sent to a server of
/// which nothing is known.
class ProbeStatus : public Entity {
   HM_ENTITY( ProbeStatus )
   HM_ATTRIBUTE( ServerAdminState, adminState, ServerAdminState::enabled )
   HM_ATTRIBUTE( ServerOperState, operState, ServerOperState::down )
   HM_ATTRIBUTE( std::uint16_t, weight, 0 )
   /// When a check last changed one of the two states; milliseconds since the epoch, 0: not yet.
   HM_ATTRIBUTE( std::uint64_t, since, 0 )
   HM_ATTRIBUTE( std::string, lastChange ) // of the two states, in words; empty: none yet
};

/// Health of the servers of one nexthop group. Published below ServerStatus, and used by the agent for its
/// own view a probe type.
class NexthopGroupProbeStatus : public Entity {
   HM_ENTITY( NexthopGroupProbeStatus )
   HM_COLLECTION( IpGenAddr, ProbeStatus, serverProbeStatus )

 public:
   explicit NexthopGroupProbeStatus( const NexthopGroupName & nhgName ) : nhgName_( nhgName ) {}
   const NexthopGroupName & nhgName() const { return nhgName_; }

 private:
   const NexthopGroupName nhgName_;
};

/// What the agent publishes.
class ServerStatus : public Entity {
   HM_ENTITY( ServerStatus )
   HM_ATTRIBUTE( bool, monitoringEnabled, false )
   HM_ATTRIBUTE( IpGenAddr, probeSrcIp )
   HM_ATTRIBUTE( IpGenAddr, probeSrcIp6 )
   HM_COLLECTION( NexthopGroupName, NexthopGroupProbeStatus, nhgProbeStatus )
   HM_SET( NexthopGroupName, nhgMonitoringDisabled )
};

} // namespace HmState
