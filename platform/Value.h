#pragma once

#include "platform/Clock.h"
#include "platform/EthAddr.h"
#include "platform/IpGenAddr.h"

#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

using NexthopGroupName = std::string;

/// Name of an interface, for instance "Loopback0"; empty: none.
class IntfId {
 public:
   IntfId() = default;
   explicit IntfId( std::string name ) : name_( std::move( name ) ) {}
   const std::string & name() const { return name_; }
   bool empty() const { return name_.empty(); }
   auto operator<=>( const IntfId & ) const = default;

 private:
   std::string name_;
};

/// How a value is written in JSON.
enum class ValueKind : std::uint8_t { boolean, number, text };

/// What is wrong with a value, in words for the person who wrote it; empty when nothing is.
using Refusal = std::optional<std::string>;

/// The text form of a type of attribute or key: the one that configuration files, `hmctl` and the state
/// stores use.
///     kind           how JSON writes it
///     typeName()     for messages and the reference, with the range
///     toText( v )    never fails; fromText() reads it back
///     fromText()     leaves `value` alone when it refuses
template<class T>
struct ValueTraits;

template<class T>
concept HasValueTraits = requires( const T & value, T & out, std::string_view text ) {
   { ValueTraits<T>::kind } -> std::convertible_to<ValueKind>;
   { ValueTraits<T>::typeName() } -> std::convertible_to<std::string>;
   { ValueTraits<T>::toText( value ) } -> std::convertible_to<std::string>;
   { ValueTraits<T>::fromText( text, out ) } -> std::same_as<Refusal>;
};

template<>
struct ValueTraits<bool> {
   static constexpr ValueKind kind = ValueKind::boolean;
   static std::string typeName() { return "boolean"; }
   static std::string toText( bool value ) { return value ? "true" : "false"; }
   static Refusal fromText( std::string_view text, bool & value );
};

/// Reads a whole decimal number within [ lowest, highest ].
[[nodiscard]] Refusal integerFromText(
      std::string_view text, std::int64_t lowest, std::int64_t highest, std::int64_t & value );

template<std::integral T>
requires( sizeof( T ) <= 4 && !std::same_as<T, bool> ) struct ValueTraits<T> {
   static constexpr ValueKind kind = ValueKind::number;
   static std::string typeName() {
      return "integer " + std::to_string( std::numeric_limits<T>::min() ) + ".." +
             std::to_string( std::numeric_limits<T>::max() );
   }
   static std::string toText( T value ) { return std::to_string( value ); }
   static Refusal fromText( std::string_view text, T & value ) {
      std::int64_t wide = 0;
      auto refusal =
            integerFromText( text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), wide );
      if ( !refusal ) {
         value = static_cast<T>( wide );
      }
      return refusal;
   }
};

template<>
struct ValueTraits<std::uint64_t> {
   static constexpr ValueKind kind = ValueKind::number;
   static std::string typeName() { return "integer 0..18446744073709551615"; }
   static std::string toText( std::uint64_t value ) { return std::to_string( value ); }
   static Refusal fromText( std::string_view text, std::uint64_t & value );
};

template<>
struct ValueTraits<std::string> {
   static constexpr ValueKind kind = ValueKind::text;
   static std::string typeName() { return "text"; }
   static std::string toText( const std::string & value ) { return value; }
   static Refusal fromText( std::string_view text, std::string & value );
};

template<>
struct ValueTraits<Seconds> {
   static constexpr ValueKind kind = ValueKind::number;
   static std::string typeName() { return "seconds"; }
   static std::string toText( Seconds value );
   static Refusal fromText( std::string_view text, Seconds & value ); // finite
};

template<>
struct ValueTraits<IntfId> {
   static constexpr ValueKind kind = ValueKind::text;
   static std::string typeName() { return "interface name"; }
   static std::string toText( const IntfId & value ) { return value.name(); }
   static Refusal fromText( std::string_view text, IntfId & value );
};

template<>
struct ValueTraits<IpGenAddr> {
   static constexpr ValueKind kind = ValueKind::text;
   static std::string typeName() { return "IP address"; }
   static std::string toText( const IpGenAddr & value ) { return value.text(); }
   static Refusal fromText( std::string_view text, IpGenAddr & value ); // empty text: no address
};

template<>
struct ValueTraits<IpGenPrefix> {
   static constexpr ValueKind kind = ValueKind::text;
   static std::string typeName() { return "IP address/prefix length"; }
   static std::string toText( const IpGenPrefix & value ) { return value.text(); }
   static Refusal fromText( std::string_view text, IpGenPrefix & value );
};

template<>
struct ValueTraits<EthAddr> {
   static constexpr ValueKind kind = ValueKind::text;
   static std::string typeName() { return "MAC address"; }
   static std::string toText( const EthAddr & value ) { return value.text(); }
   static Refusal fromText( std::string_view text, EthAddr & value );
};

/// Enumerations give their names once: specialise EnumNames with an array `entries` of { value, name } and
/// the traits follow.
template<class E>
struct EnumNames;

template<class E>
requires requires {
   EnumNames<E>::entries;
}
struct ValueTraits<E> {
   static constexpr ValueKind kind = ValueKind::text;
   static std::string typeName() {
      std::string names;
      for ( const auto & [value, name] : EnumNames<E>::entries ) {
         names += ( names.empty() ? "" : " | " ) + std::string( name );
      }
      return names;
   }
   static std::string toText( E value ) {
      for ( const auto & [entry, name] : EnumNames<E>::entries ) {
         if ( entry == value ) {
            return std::string( name );
         }
      }
      return std::to_string( static_cast<int>( value ) );
   }
   static Refusal fromText( std::string_view text, E & value ) {
      for ( const auto & [entry, name] : EnumNames<E>::entries ) {
         if ( text == name ) {
            value = entry;
            return std::nullopt;
         }
      }
      return "expected " + typeName();
   }
};

} // namespace platform

template<>
struct std::hash<platform::IntfId> {
   std::size_t operator()( const platform::IntfId & id ) const {
      return std::hash<std::string>{}( id.name() );
   }
};

template<>
struct fmt::formatter<platform::IntfId> : fmt::formatter<std::string_view> {
   template<class Context>
   auto format( const platform::IntfId & id, Context & context ) const {
      return fmt::formatter<std::string_view>::format( id.name(), context );
   }
};
