#include "platform/Checksum.h"

namespace platform {

std::uint32_t ipChecksumChunk( std::span<const std::uint8_t> chunk, std::uint32_t sum ) {
   std::uint64_t total = sum;
   std::size_t i = 0;
   for ( ; i + 1 < chunk.size(); i += 2 ) {
      total += static_cast<std::uint32_t>( chunk[i] << 8 | chunk[i + 1] );
   }
   if ( i < chunk.size() ) {
      total += static_cast<std::uint32_t>( chunk[i] << 8 );
   }
   // Folded here, so that any number of chunks of any length fits the running sum.
   while ( total >> 16 ) {
      total = ( total & 0xffff ) + ( total >> 16 );
   }
   return static_cast<std::uint32_t>( total );
}

std::uint16_t ipChecksumCalc( std::uint32_t sum ) {
   while ( sum >> 16 ) {
      sum = ( sum & 0xffff ) + ( sum >> 16 );
   }
   return static_cast<std::uint16_t>( ~sum );
}

} // namespace platform
