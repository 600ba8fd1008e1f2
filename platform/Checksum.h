#pragma once

#include <cstdint>
#include <span>

namespace platform {

/// Internet checksum (RFC 1071) in two steps, so that headers that do not lie together can be summed: add
/// each chunk to a running sum that starts at 0, then fold and complement. Every chunk but the last must have
/// an even length. The result is in host order; big-endian writing puts it into the header.
std::uint32_t ipChecksumChunk( std::span<const std::uint8_t> chunk, std::uint32_t sum = 0 );
std::uint16_t ipChecksumCalc( std::uint32_t sum );

} // namespace platform
