#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "HealthMonitor/HmResponseRules.h"
#include "platform/CommandCallback.h"

#include <future>
#include <string_view>
#include <vector>

#include <netchasm/HMProbeReport.h>

namespace hm {

class HmAgent;

/// "probe NHG SERVER": has the engine check one server now, once for each kind of check that the group runs,
/// and shows what each saw and when, and what the response rules make of it. Nothing is counted or published.
/// Main thread; the reports come from threads of the engine.
class ProbeNowSm final : public AsyncCommandRequestSm {
 public:
   /// `arguments`: what stands behind "probe ". `agent` outlives the request.
   ProbeNowSm( const Ptr<const AgentCommandRequest> & request, HmAgent * agent, std::string_view arguments );

   void handleAsyncCommand( unsigned socket, unsigned format ) override;

 private:
   struct Asked {
      ProbeType probeType;
      std::string url;
      std::future<HMProbeReport> report;
   };
   /// Empty when it is under way; else why it cannot be.
   std::string ask();
   void print( const Asked & asked, const HMProbeReport & report );
   void printRules( const HMProbeReport & report );

   HmAgent * const hmAgent_;
   NexthopGroupName nhgName_;
   std::string serverText_;
   CliPrinter printer_;
   std::vector<Asked> asked_;
   ResponseRuleMatcher payloadRule_{ "responsePayloadRule" };
   ResponseRuleMatcher codeRule_{ "responseCodeRule" };
};

} // namespace hm
