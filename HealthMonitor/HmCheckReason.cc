#include "HealthMonitor/HmCheckReason.h"

#include <fmt/format.h>

#include <netchasm/HMCheckData.h>

namespace hm {

namespace {

const char * responseText( std::uint8_t response ) {
   switch ( static_cast<HM_RESPONSE>( response ) ) {
   case HM_RESPONSE_NONE:
      return "not checked yet";
   case HM_RESPONSE_ANSWERED:
      return "answered";
   case HM_RESPONSE_CONNECT_FAILURE:
      return "no connection";
   case HM_RESPONSE_TIMEOUT:
      return "no answer in time";
   case HM_RESPONSE_FAILURE:
      return "failed";
   case HM_RESPONSE_NOT_CHECKED:
      return "this machine could not make the check";
   }
   return "unknown";
}

} // namespace

std::string checkReasonText( std::uint8_t response, std::uint32_t responseCode, std::uint8_t reason ) {
   switch ( static_cast<HM_REASON>( reason ) ) {
   case HM_REASON_NONE:
      return responseCode == 0 ? responseText( response )
                               : fmt::format( "{} {}", responseText( response ), responseCode );
   case HM_REASON_NO_VERDICT:
      return fmt::format( "no verdict, {}", responseText( response ) );
   case HM_REASON_CONNECT_REFUSED:
      return "connection refused";
   case HM_REASON_UNREACHABLE:
      return "unreachable";
   case HM_REASON_CONNECT_TIMEOUT:
      return "no connection in time";
   case HM_REASON_CONNECT_ERROR:
      return "connecting failed";
   case HM_REASON_TLS_TIMEOUT:
      return "TLS handshake not finished in time";
   case HM_REASON_TLS_HANDSHAKE:
      return "TLS handshake failed";
   case HM_REASON_TLS_VERIFY:
      return "certificate not accepted";
   case HM_REASON_TLS_FILES:
      return "CA or certificate file not usable";
   case HM_REASON_REPLY_TIMEOUT:
      return "reply not complete in time";
   case HM_REASON_REPLY_CLOSED:
      return "connection closed before the reply was complete";
   case HM_REASON_REPLY_MALFORMED:
      return "reply is not HTTP";
   case HM_REASON_REPLY_TOO_LARGE:
      return "reply too large";
   case HM_REASON_SETTINGS:
      return "group cannot be checked as configured";
   }
   return fmt::format( "{}, reason {}", responseText( response ), reason );
}

} // namespace hm
