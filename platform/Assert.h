#pragma once

#include <string>

#include <fmt/format.h>

namespace platform {

/// Reports a broken invariant (the failed expression, then the message) to the trace of `facility`, to
/// standard error and to syslog, and aborts.
[[noreturn]] void assertFailed( const char * expression, const char * file, int line, const char * function,
      const std::string & message );

} // namespace platform

/// Stops the process when an invariant of our own does not hold: HM_ASSERT( mark, "mark missing for server
/// {}", ip ). Never used on anything that came from configuration, a file or the wire.
#define HM_ASSERT( expression, ... )                                                                        \
   do {                                                                                                     \
      if ( !( expression ) ) [[unlikely]] {                                                                 \
         ::platform::assertFailed( #expression, __FILE__, __LINE__, __func__, fmt::format( __VA_ARGS__ ) ); \
      }                                                                                                     \
   } while ( false )
