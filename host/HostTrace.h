#pragma once

#include "platform/Trace.h"

namespace host {

/// "Host", under which the agent host traces. Any thread.
platform::TraceFacility & traceFacility();

} // namespace host
