#pragma once

#include "netchasm/HMCheckData.h"
#include "netchasm/HMIPAddress.h"
#include <cstdint>
#include <functional>
#include <string>

/// What one check that somebody asked for saw, and when. Times are in microseconds from its start; 0: it did
/// not get that far.
struct HMProbeReport {
   /// As a check of the schedule would be reported, but for the counters, which are 0.
   HMCheckData m_check;
   HMIPAddress m_address;           ///< that was probed
   std::uint32_t m_mark = 0;        ///< firewall mark of its packets; 0: none
   std::uint32_t m_connectUs = 0;   ///< until the TCP connection stood
   std::uint32_t m_tlsUs = 0;       ///< until the TLS handshake was done (HTTPS); never resumes a session
   std::uint32_t m_firstByteUs = 0; ///< until the first byte of the reply (HTTP, HTTPS)
   std::uint32_t m_totalUs = 0;     ///< until the end
   std::string m_detail;            ///< more about a failure, where there is more than the reason; any bytes
};

/// Called once, on one of the engine's threads; must not block, throw or call the engine.
using HMProbeDone = std::function< void( const HMProbeReport & ) >;
