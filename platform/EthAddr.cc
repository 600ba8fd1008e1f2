#include "platform/EthAddr.h"

#include <charconv>

#include <fmt/format.h>

namespace platform {

std::optional<EthAddr> EthAddr::fromText( std::string_view text ) {
   EthAddr address;
   if ( text.size() != 17 ) {
      return std::nullopt;
   }
   for ( std::size_t i = 0; i < address.bytes.size(); ++i ) {
      const char * at = text.data() + 3 * i;
      const auto [end, error] = std::from_chars( at, at + 2, address.bytes[i], 16 );
      if ( error != std::errc{} || end != at + 2 || ( i < 5 && *end != ':' ) ) {
         return std::nullopt;
      }
   }
   return address;
}

std::string EthAddr::text() const {
   return fmt::format( "{:02x}", fmt::join( bytes, ":" ) );
}

} // namespace platform
