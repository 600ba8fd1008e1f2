#include "platform/state/Ssl.h"

#include <algorithm>

#include <fmt/format.h>

namespace Mgmt::Security::Ssl {

HM_ENTITY_TYPE( ProfileStatus )
HM_ENTITY_TYPE( Status )

platform::Refusal filePathCheck( const std::string & path ) {
   if ( path.size() > maxFilePathBytes ) {
      return fmt::format( "has more than {} bytes", maxFilePathBytes );
   }
   const auto control = []( char c ) { return static_cast<unsigned char>( c ) < 0x20 || c == 0x7f; };
   return std::ranges::any_of( path, control ) ? platform::Refusal( "holds a control byte" ) : std::nullopt;
}

} // namespace Mgmt::Security::Ssl
