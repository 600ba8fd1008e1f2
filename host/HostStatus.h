#pragma once

#include "platform/Entity.h"

#include <cstdint>

namespace host {

/// The agent host about itself, at the path "host/status". Written by the host only. `uptime`,
/// `longestHoldUs` and `cleanState` are brought up to date when somebody reads the state or begins to watch
/// it.
class HostStatus : public platform::Entity {
   HM_ENTITY( HostStatus )
   HM_ATTRIBUTE( std::string, version )
   HM_ATTRIBUTE( std::string, agentName )
   HM_ATTRIBUTE( std::uint32_t, pid )
   HM_ATTRIBUTE( std::uint64_t, uptime )                  // whole seconds since the host started
   HM_ATTRIBUTE( std::uint64_t, longestHoldUs )           // longest time that one callback held the main loop
   HM_ATTRIBUTE( std::uint32_t, clients )                 // connected to the control socket
   HM_ATTRIBUTE( std::uint64_t, configurationGeneration ) // changes that were applied and made a difference
   HM_ATTRIBUTE( std::string, lastConfigurationError ) // first line of the last refusal; empty: none so far
   HM_ATTRIBUTE( std::string, packetFilter, "off" ) // off, native, xtables, or why the rules are not in place
   HM_ATTRIBUTE( std::uint64_t, stateRefusals )     // things in the state database that were refused
   HM_ATTRIBUTE( std::string, cleanState )          // what the agent has left over; empty: nothing

 public:
   static constexpr const char * path = "host/status";
};

} // namespace host
