#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace hmctl {

/// `text` with everything that a terminal would act upon written as \xNN, but for newlines and tabs. Names
/// that servers and files brought into the host must not move the cursor of whoever looks at them.
std::string terminalText( std::string_view text );

/// Columns that a line takes on a terminal, by the locale; tabs go to the next multiple of eight.
std::size_t displayColumns( std::string_view line );
/// The beginning of a line that takes at most `columns`.
std::string_view displayCut( std::string_view line, std::size_t columns );

struct TerminalSize {
   std::size_t rows;
   std::size_t columns;
};
/// Of standard output; 24 × 80 where it does not say.
TerminalSize terminalSize();

} // namespace hmctl
