#pragma once

#include <cstdint>
#include <string>

namespace hm {

/// What became of a check, in words for an operator: "answered 200", "connection refused". `response` and
/// `reason` are the engine's codes as HMCheckData.h has them, `responseCode` the protocol's (0: none). A
/// check that gave no verdict says so.
std::string checkReasonText( std::uint8_t response, std::uint32_t responseCode, std::uint8_t reason );

} // namespace hm
