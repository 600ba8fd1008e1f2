#include "hmctl/Terminal.h"

#include <array>
#include <cstdio>
#include <cwchar>
#include <sys/ioctl.h>
#include <unistd.h>

namespace hmctl {

namespace {

// The bytes of the next character, and its columns at `column`.
std::pair<std::size_t, std::size_t> character( std::string_view text, std::size_t column ) {
   if ( text.front() == '\t' ) {
      return { 1, 8 - column % 8 };
   }
   wchar_t wide = 0;
   std::mbstate_t state{};
   const auto bytes = std::mbrtowc( &wide, text.data(), text.size(), &state );
   if ( bytes == 0 || bytes > text.size() ) {
      return { 1, 1 }; // not text in this locale
   }
   const int columns = wcwidth( wide );
   return { bytes, columns < 0 ? 1 : static_cast<std::size_t>( columns ) };
}

} // namespace

std::string terminalText( std::string_view text ) {
   std::string safe;
   safe.reserve( text.size() );
   for ( std::size_t i = 0; i < text.size(); ++i ) {
      const auto byte = static_cast<unsigned char>( text[i] );
      const auto next = i + 1 < text.size() ? static_cast<unsigned char>( text[i + 1] ) : 0u;
      const bool c1 = byte == 0xC2 && next >= 0x80 && next < 0xA0; // U+0080 to U+009F in UTF-8
      if ( ( byte < 0x20 && byte != '\n' && byte != '\t' ) || byte == 0x7F || c1 ) {
         std::array<char, 8> escape;
         std::snprintf( escape.data(), escape.size(), "\\x%02x", c1 ? next : byte );
         safe += escape.data();
         i += c1 ? 1 : 0;
      } else {
         safe += text[i];
      }
   }
   return safe;
}

std::size_t displayColumns( std::string_view line ) {
   std::size_t columns = 0;
   while ( !line.empty() ) {
      const auto [bytes, width] = character( line, columns );
      columns += width;
      line.remove_prefix( bytes );
   }
   return columns;
}

std::string_view displayCut( std::string_view line, std::size_t columns ) {
   std::size_t size = 0;
   std::size_t column = 0;
   while ( size < line.size() ) {
      const auto [bytes, width] = character( line.substr( size ), column );
      if ( column + width > columns ) {
         break;
      }
      column += width;
      size += bytes;
   }
   return line.substr( 0, size );
}

TerminalSize terminalSize() {
   winsize size{};
   if ( ioctl( STDOUT_FILENO, TIOCGWINSZ, &size ) != 0 || size.ws_row == 0 || size.ws_col == 0 ) {
      return { 24, 80 };
   }
   return { size.ws_row, size.ws_col };
}

} // namespace hmctl
