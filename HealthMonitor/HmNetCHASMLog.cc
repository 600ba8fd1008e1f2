#include "HealthMonitor/HmNetCHASMLog.h"

#include "platform/Trace.h"

namespace hm {

bool NetCHASMLogger::openLog( std::string ) {
   return true;
}

void NetCHASMLogger::writeLog( LogEntry * entry ) {
   // One origin for every entry: where the engine wrote it, its text says.
   constexpr const char * file = "HmNetCHASMLog";
   constexpr int line = 28;
   static const auto facility = platform::TraceFacility::find( "NetCHASM" );
   if ( facility->levelEnabled( entry->m_level ) ) {
      facility->trace( entry->m_level, file, line, "writeLog", "{}", entry->m_text );
   }
}

} // namespace hm
