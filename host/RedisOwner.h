#pragma once

#include <string>
#include <string_view>

namespace host {

/// Names this process among all that may share a server, in words:
/// "HOSTNAME process PID (started TICKS, boot BOOT-ID, namespace INODE)".
std::string redisOwner();

/// Whether `owner`, as another process wrote it, was a process of this machine that has ended. False for one
/// of another machine or container, of which nobody here can know.
bool redisOwnerHasEnded( std::string_view owner );

} // namespace host
