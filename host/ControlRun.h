#pragma once

#include "host/ControlClient.h"

namespace host {

/// Runs a command of the agent; what it prints is the answer. One that the agent does not have is refused
/// with what there is. Main thread.
std::unique_ptr<Answer> runAnswer( ControlClient & client, const std::string & command, bool json );

/// The line that lists the commands of the agent.
std::string commandsLine( const platform::CommandRequestDirectory & directory );

} // namespace host
