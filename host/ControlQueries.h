#pragma once

#include "host/ControlClient.h"

namespace host {

/// Requests of the control socket that help whoever types at it. Main thread; what they refuse is an answer
/// like any other.

/// All trace facilities with their enabled levels, as a table for people and by name for programs.
std::string traceTable();
/// Enables exactly `levels` ("0-4", "5", "0-2,7" or "none") of a facility that exists.
std::string traceLevelsIs( const std::string & facility, const std::string & levels );

/// What may follow `path`: attributes of the entity there, and keys that begin with `begin`. A path that is
/// only the beginning of others is followed by their next components, as keys. `configurationOnly`: nothing
/// of what is read-only from outside. The walk over the keys is cut into turns, its result into a bounded
/// line.
std::unique_ptr<Answer> completionAnswer( const ControlServices & services, const std::string & path,
      const std::string & begin, bool configurationOnly );

} // namespace host
