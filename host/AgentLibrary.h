#pragma once

#include "platform/Agent.h"

#include <string>

namespace host {

/// Loads the library at `path` and gives the factory that it exports; null with `*why` set when it cannot be
/// used. The library stays loaded until the process ends: objects of its classes may outlive the agent.
platform::AgentFactory * agentFactoryLoad( const std::string & path, std::string * why );

} // namespace host
