#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace netchasm {

/// The content of a regular file of at most `maxBytes`. Never waits, whatever the path names. Nothing on
/// failure, with the reason (without the path) in `error`.
[[nodiscard]] std::optional< std::string > fileBytes(
      const std::string & path, std::size_t maxBytes, std::string & error );

} // namespace netchasm
