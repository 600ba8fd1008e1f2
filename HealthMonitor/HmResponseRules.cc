#include "HealthMonitor/HmResponseRules.h"

#include "HealthMonitor/HmCommonData.h"

namespace hm {

namespace {

std::string_view upToNul( std::string_view text ) {
   return text.substr( 0, text.find( '\0' ) );
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

bool ResponseRuleMatcher::foundIn( const HmState::ResponseRule & rule, std::string_view text ) {
   patternIs( upToNul( rule.pattern() ) );
   if ( !regex_ ) {
      return false;
   }
   if ( !lastFound_ || lastText_ != text ) {
      lastFound_ = regex_->foundIn( text );
      lastText_ = text;
   }
   return *lastFound_;
}

bool ResponseRuleMatcher::matches( const HmState::ResponseRule & rule, std::string_view text ) {
   patternIs( upToNul( rule.pattern() ) );
   return regex_ && regex_->matches( text );
}

HttpVerdict HttpResponseRules::verdict(
      const HmState::ProbeConfig & probeConfig, std::uint32_t responseCode, const std::string & payload ) {
   HttpVerdict verdict;
   const auto apply = [&verdict]( const HmState::ResponseRule & rule ) {
      if ( rule.action() == HmState::ruleActionShutdown ) {
         verdict.adminState = HmState::ServerAdminState::shutdown;
      }
      if ( rule.action() == HmState::ruleActionDown ) {
         verdict.operState = HmState::ServerOperState::down;
      }
   };
   const auto payloadRule = probeConfig.responsePayloadRule();
   if ( payloadRule_.foundIn( *payloadRule, upToNul( payload ) ) ) {
      apply( *payloadRule );
   }
   const auto codeRule = probeConfig.responseCodeRule();
   if ( codeRule_.matches( *codeRule, std::to_string( responseCode ) ) ) {
      apply( *codeRule );
   }
   return verdict;
}

} // namespace hm
