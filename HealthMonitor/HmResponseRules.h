#pragma once

#include "platform/BoundedRegex.h"
#include "platform/state/HmState.h"

#include <optional>
#include <string>
#include <string_view>

namespace hm {

/// One rule on HTTP responses with its pattern ready for use. Asked for each result; compiles only when the
/// pattern's text has changed.
///
/// A pattern counts up to its first NUL byte. One that is not accepted (see BoundedRegex) counts as not
/// configured, and a trace says so once for each change.
class ResponseRuleMatcher {
 public:
   /// `name` of the rule, for traces.
   explicit ResponseRuleMatcher( const char * name ) : name_( name ) {}

   bool configured( const HmState::ResponseRule & rule );
   bool foundIn( const HmState::ResponseRule & rule, std::string_view text );
   bool matches( const HmState::ResponseRule & rule, std::string_view text );

 private:
   void patternIs( std::string_view pattern );

   const char * const name_;
   std::string pattern_ = HmState::rulePatternNone;
   std::optional<platform::BoundedRegex> regex_; // none: not configured
   // The servers of a group mostly answer alike, and comparing is a thousand times cheaper than matching.
   std::string lastText_;
   std::optional<bool> lastFound_; // none: nothing asked of this pattern yet
};

/// The states that an HTTP response gives a server.
struct HttpVerdict {
   HmState::ServerAdminState adminState = HmState::ServerAdminState::enabled;
   HmState::ServerOperState operState = HmState::ServerOperState::up;
};

/// The two rules on HTTP responses, in their order: the payload's, found anywhere in the body, and the status
/// code's, matching it whole. Of each, action 0 takes the server down and action 1 shuts it down; any other
/// action does nothing. Main thread.
class HttpResponseRules {
 public:
   /// `payload` counts up to its first NUL byte.
   HttpVerdict verdict(
         const HmState::ProbeConfig & probeConfig, std::uint32_t responseCode, const std::string & payload );
   /// Of a response whose payload is not known: what the payload's rule would say stands as in `last`, the
   /// verdict before.
   HttpVerdict verdictWithoutPayload(
         const HmState::ProbeConfig & probeConfig, std::uint32_t responseCode, const HttpVerdict & last );

 private:
   void applyCodeRule(
         const HmState::ProbeConfig & probeConfig, std::uint32_t responseCode, HttpVerdict & verdict );

   ResponseRuleMatcher payloadRule_{ "responsePayloadRule" };
   ResponseRuleMatcher codeRule_{ "responseCodeRule" };
};

} // namespace hm
