#include "netchasm/Log.h"

namespace netchasm {

void Log::deliver( int level, std::string text ) const {
   // Names and paths come from files that may be hostile: an entry stays one line.
   for ( char & c : text ) {
      if ( static_cast< unsigned char >( c ) < 0x20 || c == 0x7f )
         c = ' ';
   }
   HMLogBase::LogEntry entry;
   entry.m_text = text.c_str();
   entry.m_level = static_cast< std::int8_t >( level );
   sink_->writeLog( &entry );
}

} // namespace netchasm
