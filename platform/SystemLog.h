#pragma once

#include <string>
#include <string_view>

#include <fmt/printf.h>

namespace platform {

/// A message of the system log, registered once as an object of its own. The format is that of printf, with
/// one "%s" or "%d" an argument.
struct SystemLogMessage {
   std::string name; // as operators filter for it, in capitals
   int severity;     // LOG_EMERG to LOG_DEBUG of syslog(3)
   std::string format;
   std::string explanation;
   std::string recommendedAction;
};

namespace detail {
void systemLogWrite( const SystemLogMessage & message, const std::string & text );
}

/// Sends "NAME: text" to syslog(3), control bytes escaped. Any thread.
template<class... Args>
void systemLog( const SystemLogMessage & message, const Args &... args ) {
   detail::systemLogWrite( message, fmt::sprintf( message.format, args... ) );
}

} // namespace platform
