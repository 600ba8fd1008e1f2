#pragma once

#include "hmctl/Grammar.h"

namespace hmctl {

/// `hmctl doctor`: looks at what probes and echo requests need of the network namespace that it runs in, and
/// says what to do. Throws Refused, after it has written what it found, when something is wrong.
void doctor( Session & session, const Invocation & given, Output & output );

} // namespace hmctl
