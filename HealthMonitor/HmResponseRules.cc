#include "HealthMonitor/HmResponseRules.h"

#include "HealthMonitor/HmCommonData.h"

namespace hm {

namespace {

std::string_view upToNul( std::string_view text ) {
   return text.substr( 0, text.find( '\0' ) );
}

void apply( const HmState::ResponseRule & rule, HttpVerdict & verdict ) {
   if ( rule.action() == HmState::ruleActionShutdown ) {
      verdict.adminState = HmState::ServerAdminState::shutdown;
   }
   if ( rule.action() == HmState::ruleActionDown ) {
      verdict.operState = HmState::ServerOperState::down;
   }
}

} // namespace

void ResponseRuleMatcher::patternIs( std::string_view pattern ) {
   if ( pattern == pattern_ ) {
      return;
   }
   pattern_ = pattern;
   regex_.reset();
   lastFound_.reset();
   if ( pattern == HmState::rulePatternNone ) {
      return;
   }
   std::string why;
   regex_ = BoundedRegex::compile( pattern, &why );
   if ( !regex_ ) {
      HM_TRACE( 2, "{}: pattern \"{}\" is ignored: {}", name_, pattern, why );
   }
}

bool ResponseRuleMatcher::configured( const HmState::ResponseRule & rule ) {
   patternIs( upToNul( rule.pattern() ) );
   return regex_.has_value();
}

bool ResponseRuleMatcher::foundIn( const HmState::ResponseRule & rule, std::string_view text ) {
   if ( !configured( rule ) ) {
      return false;
   }
   if ( !lastFound_ || lastText_ != text ) {
      lastFound_ = regex_->foundIn( text );
      lastText_ = text;
   }
   return *lastFound_;
}

bool ResponseRuleMatcher::matches( const HmState::ResponseRule & rule, std::string_view text ) {
   return configured( rule ) && regex_->matches( text );
}

HttpVerdict HttpResponseRules::verdict(
      const HmState::ProbeConfig & probeConfig, std::uint32_t responseCode, const std::string & payload ) {
   HttpVerdict verdict;
   const auto payloadRule = probeConfig.responsePayloadRule();
   if ( payloadRule_.foundIn( *payloadRule, upToNul( payload ) ) ) {
      apply( *payloadRule, verdict );
   }
   applyCodeRule( probeConfig, responseCode, verdict );
   return verdict;
}

HttpVerdict HttpResponseRules::verdictWithoutPayload(
      const HmState::ProbeConfig & probeConfig, std::uint32_t responseCode, const HttpVerdict & last ) {
   auto verdict = payloadRule_.configured( *probeConfig.responsePayloadRule() ) ? last : HttpVerdict{};
   applyCodeRule( probeConfig, responseCode, verdict );
   return verdict;
}

void HttpResponseRules::applyCodeRule(
      const HmState::ProbeConfig & probeConfig, std::uint32_t responseCode, HttpVerdict & verdict ) {
   const auto codeRule = probeConfig.responseCodeRule();
   if ( codeRule_.matches( *codeRule, std::to_string( responseCode ) ) ) {
      apply( *codeRule, verdict );
   }
}

} // namespace hm
