#pragma once

#include <string>

namespace hmctl {

/// Runs command lines from standard input until it ends: with editing, completion and pages where a person
/// types, line after line where not. Returns the exit status: of the first line that failed, where nobody
/// types.
int shellRun( const std::string & socketPath );

} // namespace hmctl
