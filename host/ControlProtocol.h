#pragma once

#include <cstddef>

/// What the host takes of a request (docs/control-protocol.md).
namespace control {

/// A request is one line of JSON, the newline included.
inline constexpr std::size_t maxRequestBytes = 64 * 1024;
/// A document follows the line of its request as that many bytes.
inline constexpr std::size_t maxDocumentBytes = 16u << 20;

} // namespace control
