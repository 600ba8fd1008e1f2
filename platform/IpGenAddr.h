#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace platform {

enum class AddressFamily : std::uint8_t { none = 0, ipv4 = 4, ipv6 = 6 };

/// An IPv4 address, an IPv6 address, or no address at all (the default). Ordered by family (none, IPv4,
/// IPv6), then by the bytes in network order.
class IpGenAddr {
 public:
   IpGenAddr() = default;
   /// Reads the text form: dotted decimal, or RFC 4291 for IPv6. No prefix length, no zone; empty on anything
   /// else.
   [[nodiscard]] static std::optional<IpGenAddr> fromText( std::string_view text );
   /// 4 bytes make an IPv4 and 16 an IPv6 address, in network order; any other length gives no address.
   static IpGenAddr fromBytes( std::span<const std::uint8_t> bytes );

   AddressFamily family() const { return family_; }
   bool isIpv4() const { return family_ == AddressFamily::ipv4; }
   bool isIpv6() const { return family_ == AddressFamily::ipv6; }
   bool empty() const { return family_ == AddressFamily::none; }
   /// The 4 or 16 bytes in network order; none for the empty address.
   std::span<const std::uint8_t> bytes() const {
      return { bytes_.data(), isIpv4() ? 4u : isIpv6() ? 16u : 0u };
   }
   /// Dotted decimal, RFC 5952 for IPv6, empty text for no address.
   std::string text() const { return stringValue().charPtr(); }
   /// The same text in place: packet paths allocate nothing.
   struct Text {
      std::array<char, 46> bytes{};
      const char * charPtr() const { return bytes.data(); }
   };
   Text stringValue() const;

   /// No address at all, 0.0.0.0 or ::.
   bool unspecified() const { return bytes_ == decltype( bytes_ ){}; }
   /// fe80::/10 (RFC 4291, section 2.5.6).
   bool ipv6LinkLocal() const { return isIpv6() && bytes_[0] == 0xfe && ( bytes_[1] & 0xc0 ) == 0x80; }

   auto operator<=>( const IpGenAddr & ) const = default;
   std::size_t hash() const;

 private:
   AddressFamily family_ = AddressFamily::none;
   std::array<std::uint8_t, 16> bytes_{};
};

/// An address of an interface with the length of its prefix, as "2001:db8::1/128".
struct IpGenPrefix {
   IpGenAddr address;
   std::uint8_t length = 0; // bits; 0 to 32 for IPv4, 0 to 128 for IPv6

   /// An address without "/" stands for one with its full length.
   [[nodiscard]] static std::optional<IpGenPrefix> fromText( std::string_view text );
   std::string text() const;
   auto operator<=>( const IpGenPrefix & ) const = default;
};

} // namespace platform

template<>
struct std::hash<platform::IpGenAddr> {
   std::size_t operator()( const platform::IpGenAddr & address ) const { return address.hash(); }
};

template<>
struct fmt::formatter<platform::IpGenAddr> : fmt::formatter<std::string_view> {
   template<class Context>
   auto format( const platform::IpGenAddr & address, Context & context ) const {
      return fmt::formatter<std::string_view>::format( address.text(), context );
   }
};
