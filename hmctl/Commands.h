#pragma once

#include "hmctl/Grammar.h"
#include "hmctl/Output.h"
#include "hmctl/Session.h"

#include <functional>
#include <string>
#include <vector>

namespace hmctl {

/// Exit statuses of hmctl.
enum ExitCode { done = 0, refused = 1, wrongUsage = 2, noHost = 3 };

/// What `exit` throws.
struct Exit {};

/// The commands that hmctl knows without a host. `inShell`: as the interactive shell has them.
const std::vector<Command> & ownCommands( bool inShell );
/// These, and what the host offers beyond them. Throws NoHost.
std::vector<Command> allCommands( Session & session, bool inShell );

/// A command that the host runs.
Command hostCommand( std::vector<std::string> words, std::string help, const std::string & arguments );

/// Runs the command that the words mean; the host is asked for its own commands only when they do not begin
/// with one of ours, written out.
void run( Session & session, std::vector<std::string> words, bool inShell, Output & output );

/// Runs `action` and says on standard error what went wrong with it.
ExitCode guarded( const std::function<void()> & action );

} // namespace hmctl
