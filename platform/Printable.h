#pragma once

#include <string>
#include <string_view>

namespace platform {

/// `text` with control bytes and DEL written as \xNN, so that it stays one line wherever it is shown.
std::string printable( std::string_view text );

} // namespace platform
