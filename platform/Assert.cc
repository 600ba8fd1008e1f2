#include "platform/Assert.h"

#include "platform/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <syslog.h>

namespace platform {

void assertFailed( const char * expression, const char * file, int line, const char * function,
      const std::string & message ) {
   const std::string text =
         fmt::format( "assertion failed: {}: {} ({}:{} {})", expression, message, file, line, function );
   TraceFacility::find( "Assert" )->write( 0, file, line, text );
   traceFlush();
   std::fprintf( stderr, "%s\n", text.c_str() );
   syslog( LOG_DAEMON | LOG_CRIT, "%s", text.c_str() );
   std::abort();
}

} // namespace platform
