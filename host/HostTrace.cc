#include "host/HostTrace.h"

namespace host {

platform::TraceFacility & traceFacility() {
   static const auto facility = platform::TraceFacility::find( "Host" );
   return *facility;
}

} // namespace host
