#include "netchasm/HMCheckData.h"

const char * HMReasonText( HM_REASON reason ) {
   switch ( reason ) {
   case HM_REASON_NONE:
      return "answered";
   case HM_REASON_NO_VERDICT:
      return "not checked";
   case HM_REASON_CONNECT_REFUSED:
      return "connection refused";
   case HM_REASON_UNREACHABLE:
      return "unreachable";
   case HM_REASON_CONNECT_TIMEOUT:
      return "no connection in time";
   case HM_REASON_CONNECT_ERROR:
      return "no connection";
   case HM_REASON_TLS_TIMEOUT:
      return "TLS handshake not finished in time";
   case HM_REASON_TLS_HANDSHAKE:
      return "TLS handshake failed";
   case HM_REASON_TLS_VERIFY:
      return "certificate refused";
   case HM_REASON_TLS_FILES:
      return "certificate files cannot be used";
   case HM_REASON_REPLY_TIMEOUT:
      return "reply not complete in time";
   case HM_REASON_REPLY_CLOSED:
      return "connection ended before the reply was complete";
   case HM_REASON_REPLY_MALFORMED:
      return "reply is not HTTP";
   case HM_REASON_REPLY_TOO_LARGE:
      return "header block too large";
   case HM_REASON_SETTINGS:
      return "settings cannot be used";
   }
   return "?";
}
