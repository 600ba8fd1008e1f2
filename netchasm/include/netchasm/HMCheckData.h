#pragma once

#include "netchasm/HMTimeStamp.h"
#include <cstddef>
#include <cstdint>
#include <string>

/// What became of one attempt. It also says which of the running counters moved beside `m_numChecks`.
enum HM_RESPONSE : std::uint8_t {
   HM_RESPONSE_NONE = 0,     ///< nothing checked yet; never in a reported check
   HM_RESPONSE_ANSWERED = 1, ///< HTTP(S): a complete response, whatever its status code; TCP: the connection
   HM_RESPONSE_CONNECT_FAILURE = 2, ///< no TCP connection (refused, unreachable, no answer in time)
   HM_RESPONSE_TIMEOUT = 3,         ///< connected, but TLS or the reply was not finished in time
   HM_RESPONSE_FAILURE = 4,     ///< any other failure: TLS, a malformed or cut-off reply, unusable settings
   HM_RESPONSE_NOT_CHECKED = 5, ///< this machine could not make the check; counted as a failure
};

/// Why an attempt has no answer.
enum HM_REASON : std::uint8_t {
   HM_REASON_NONE = 0, ///< answered
   /// No verdict, the published state is to be held: either a failed attempt while retries remain
   /// (`m_response` tells how it failed), or a fault of this machine: no descriptor, port or buffer, a source
   /// address that is not there, a mark that may not be set, or a check that came or was served too late.
   HM_REASON_NO_VERDICT = 1,
   HM_REASON_CONNECT_REFUSED = 2, ///< the peer answered the handshake with a reset
   HM_REASON_UNREACHABLE = 3,     ///< no route, or ICMP says that network, host or port cannot be reached
   HM_REASON_CONNECT_TIMEOUT = 4, ///< no answer to the TCP handshake in time
   HM_REASON_CONNECT_ERROR = 5,   ///< the TCP handshake failed in another way
   HM_REASON_TLS_TIMEOUT = 6,     ///< the TLS handshake was not finished in time
   HM_REASON_TLS_HANDSHAKE = 7,   ///< the TLS handshake failed, or the peer closed during it
   HM_REASON_TLS_VERIFY =
         8,                 ///< the peer's certificate is not trusted, expired, or not for the address probed
   HM_REASON_TLS_FILES = 9, ///< the CA or certificate file cannot be used; the log names the file
   HM_REASON_REPLY_TIMEOUT = 10,   ///< the reply was not complete in time
   HM_REASON_REPLY_CLOSED = 11,    ///< closed, reset or broken off before the reply was complete
   HM_REASON_REPLY_MALFORMED = 12, ///< not an HTTP/1.x response
   HM_REASON_REPLY_TOO_LARGE =
         13, ///< headers beyond the limit below, or framing around the body beyond eight times the body's
   HM_REASON_SETTINGS = 14, ///< the host group cannot be checked as configured (a port that is none)
};

/// The reason in a few words, for people.
const char * HMReasonText( HM_REASON reason );

/// Bytes of a reply that are accepted before its body (1xx responses included); more is
/// HM_REASON_REPLY_TOO_LARGE.
inline constexpr std::size_t HM_MAX_HEADER_BYTES = 16 * 1024;
/// Bytes of a body that are kept. The rest of a longer body is not read and the check counts as answered.
inline constexpr std::size_t HM_MAX_BODY_BYTES = 16 * 1024;

/// One finished check. Every attempt is one: a host with two retries reports up to three a turn.
///
/// The running counters belong to the host in its host group and start at zero when the host enters it; a
/// reload that keeps the host keeps them. They wrap at 2^32. `m_numChecks` is the sum of the other four.
struct HMCheckData {
   std::string m_hostName;
   std::string m_hostGroupName;
   HM_RESPONSE m_response = HM_RESPONSE_NONE;
   HM_REASON m_reason = HM_REASON_NONE;
   std::uint32_t m_responseCode = 0; ///< HTTP status code; 0 for TCP and without an answer
   std::string m_responsePayload;    ///< body, at most HM_MAX_BODY_BYTES, any bytes; empty without an answer
   std::uint32_t m_numChecks = 0;
   std::uint32_t m_numResponses = 0;
   std::uint32_t m_numConnectFailures = 0;
   std::uint32_t m_numFailures = 0;
   std::uint32_t m_numTimeouts = 0;
   std::uint32_t m_responseTimeMs =
         0;                 ///< from the start of this attempt to its end, rounded to the nearest millisecond
   HMTimeStamp m_checkTime; ///< start of this attempt
};
