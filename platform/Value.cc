#include "platform/Value.h"

#include <charconv>
#include <cmath>

#include <fmt/format.h>

namespace platform {

namespace {

constexpr std::size_t longestText = 4096; // bytes; a URL or a pattern is far shorter

// Whether the text is UTF-8 as RFC 3629 has it: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isUtf8( std::string_view text ) {
   for ( std::size_t i = 0; i < text.size(); ) {
      const auto lead = static_cast<unsigned char>( text[i] );
      const std::size_t length = lead < 0x80   ? 1
                                 : lead < 0xc2 ? 0
                                 : lead < 0xe0 ? 2
                                 : lead < 0xf0 ? 3
                                 : lead < 0xf5 ? 4
                                               : 0;
      if ( length == 0 || i + length > text.size() ) {
         return false;
      }
      char32_t point = length == 1 ? lead : lead & ( 0x7fu >> length );
      for ( std::size_t k = 1; k < length; ++k ) {
         const auto next = static_cast<unsigned char>( text[i + k] );
         if ( ( next & 0xc0 ) != 0x80 ) {
            return false;
         }
         point = point << 6 | ( next & 0x3f );
      }
      const bool overlong = ( length == 3 && point < 0x800 ) || ( length == 4 && point < 0x10000 );
      if ( overlong || point > 0x10ffff || ( point >= 0xd800 && point <= 0xdfff ) ) {
         return false;
      }
      i += length;
   }
   return true;
}

template<class T>
bool wholeNumber( std::string_view text, T & value ) {
   const auto [end, error] = std::from_chars( text.data(), text.data() + text.size(), value );
   return error == std::errc{} && end == text.data() + text.size() && !text.empty();
}

Refusal plainText( std::string_view text ) {
   if ( text.size() > longestText ) {
      return fmt::format( "longer than {} bytes", longestText );
   }
   if ( text.find( '\0' ) != text.npos ) {
      return "holds a NUL byte";
   }
   if ( !isUtf8( text ) ) {
      return "is not UTF-8 text"; // it could be written to no file and no client as it is
   }
   return std::nullopt;
}

} // namespace

Refusal ValueTraits<bool>::fromText( std::string_view text, bool & value ) {
   if ( text != "true" && text != "false" ) {
      return "expected true or false";
   }
   value = text == "true";
   return std::nullopt;
}

Refusal integerFromText(
      std::string_view text, std::int64_t lowest, std::int64_t highest, std::int64_t & value ) {
   std::int64_t number = 0;
   const auto [end, error] = std::from_chars( text.data(), text.data() + text.size(), number );
   const bool digitsOnly = end == text.data() + text.size() && !text.empty();
   if ( !digitsOnly || ( error != std::errc{} && error != std::errc::result_out_of_range ) ) {
      return "expected a whole number";
   }
   if ( error == std::errc::result_out_of_range || number < lowest || number > highest ) {
      return fmt::format( "out of range {}..{}", lowest, highest );
   }
   value = number;
   return std::nullopt;
}

Refusal ValueTraits<std::uint64_t>::fromText( std::string_view text, std::uint64_t & value ) {
   std::uint64_t number = 0;
   if ( !wholeNumber( text, number ) ) {
      return "expected a whole number not below 0";
   }
   value = number;
   return std::nullopt;
}

Refusal ValueTraits<std::string>::fromText( std::string_view text, std::string & value ) {
   auto refusal = plainText( text );
   if ( !refusal ) {
      value = text;
   }
   return refusal;
}

std::string ValueTraits<Seconds>::toText( Seconds value ) {
   return fmt::format( "{}", value.count() );
}

Refusal ValueTraits<Seconds>::fromText( std::string_view text, Seconds & value ) {
   double number = 0;
   if ( !wholeNumber( text, number ) || !std::isfinite( number ) ) {
      return "expected a number of seconds";
   }
   value = Seconds{ number };
   return std::nullopt;
}

Refusal ValueTraits<IntfId>::fromText( std::string_view text, IntfId & value ) {
   auto refusal = plainText( text );
   if ( !refusal ) {
      value = IntfId( std::string( text ) );
   }
   return refusal;
}

Refusal ValueTraits<IpGenAddr>::fromText( std::string_view text, IpGenAddr & value ) {
   if ( text.empty() ) {
      value = {};
      return std::nullopt;
   }
   const auto address = IpGenAddr::fromText( text );
   if ( !address ) {
      return "expected an IPv4 or IPv6 address";
   }
   value = *address;
   return std::nullopt;
}

Refusal ValueTraits<IpGenPrefix>::fromText( std::string_view text, IpGenPrefix & value ) {
   const auto prefix = IpGenPrefix::fromText( text );
   if ( !prefix ) {
      return "expected an IP address, \"/\" and a prefix length";
   }
   value = *prefix;
   return std::nullopt;
}

Refusal ValueTraits<EthAddr>::fromText( std::string_view text, EthAddr & value ) {
   const auto address = EthAddr::fromText( text );
   if ( !address ) {
      return "expected a MAC address as 02:00:00:00:00:01";
   }
   value = *address;
   return std::nullopt;
}

} // namespace platform
