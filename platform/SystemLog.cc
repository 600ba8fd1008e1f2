#include "platform/SystemLog.h"

#include "platform/Printable.h"

#include <syslog.h>

namespace platform::detail {

void systemLogWrite( const SystemLogMessage & message, const std::string & text ) {
   syslog( LOG_DAEMON | message.severity, "%s: %s", message.name.c_str(), printable( text ).c_str() );
}

} // namespace platform::detail
