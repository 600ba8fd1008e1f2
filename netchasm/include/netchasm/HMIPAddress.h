#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>

/// An IPv4 or IPv6 address as a value, without port or zone. Addresses order by family (none, IPv4, IPv6),
/// then by their bytes in network order, so they serve as keys. May be used from any thread like any other
/// value.
class HMIPAddress {
 public:
   enum class Family : std::uint8_t { none, ipv4, ipv6 };

   /// The empty address: family `none`.
   HMIPAddress() = default;

   /// Takes over the address in `text`: dotted decimal (inet_pton's strict form) or IPv6 (RFC 4291,
   /// section 2.2). Returns whether the text is an address; when it is not, the object is left as it was.
   [[nodiscard]] bool set( const std::string & text );

   Family family() const { return family_; }
   bool empty() const { return family_ == Family::none; }

   /// The address in network byte order: the first 4 bytes for IPv4, all 16 for IPv6, otherwise zero.
   const std::array< std::uint8_t, 16 > & bytes() const { return bytes_; }

   /// The usual text form (RFC 5952 for IPv6); empty for the empty address.
   std::string toString() const;

   auto operator<=>( const HMIPAddress & ) const = default;

 private:
   Family family_ = Family::none;
   std::array< std::uint8_t, 16 > bytes_{};
};
