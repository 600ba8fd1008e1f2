#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// A 48-bit Ethernet address (IEEE 802), bytes in the order in which they are sent. All zero by default.
struct EthAddr {
   std::array<std::uint8_t, 6> bytes{};

   /// Six pairs of hexadecimal digits with colons between them; empty on anything else.
   [[nodiscard]] static std::optional<EthAddr> fromText( std::string_view text );
   std::string text() const; // lower case
   auto operator<=>( const EthAddr & ) const = default;
};

} // namespace platform
