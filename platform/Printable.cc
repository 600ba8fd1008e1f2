#include "platform/Printable.h"

#include <fmt/format.h>

namespace platform {

std::string printable( std::string_view text ) {
   std::string line;
   line.reserve( text.size() );
   for ( const char c : text ) {
      const auto byte = static_cast<unsigned char>( c );
      if ( byte < 0x20 || byte == 0x7f ) {
         line += fmt::format( "\\x{:02x}", byte );
      } else {
         line += c;
      }
   }
   return line;
}

} // namespace platform
