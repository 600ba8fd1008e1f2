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
   default:
      return HMReasonText( static_cast<HM_REASON>( reason ) );
   }
}

} // namespace hm
