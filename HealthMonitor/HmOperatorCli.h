#pragma once

#include "platform/CommandCallback.h"

namespace hm {

using namespace platform;

class HmAgent;

/// The commands that an operator begins with, beside the "show health-monitor" ones: what state every server
/// is in, and what one server answers right now. Main thread.
class HmOperatorCli final : public AgentCommandCallbackWithFormat {
 public:
   /// `agent` outlives the callback.
   HmOperatorCli( std::string name, std::string commandType, HmAgent * agent );

   std::vector<CommandInfo> commands() const override;
   using AgentCommandCallbackWithFormat::handleCommand;
   void handleCommand( unsigned socket, const std::string & command, unsigned format ) override;
   Ptr<AsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
         const Ptr<const AgentCommandRequest> & request ) override;

 private:
   HmAgent * const hmAgent_;
};

} // namespace hm
