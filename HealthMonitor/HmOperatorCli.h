#pragma once

#include "platform/CommandCallback.h"

namespace hm {

using namespace platform;

class HmAgent;

/// The commands that an operator begins with, beside those of HmCli: what state every server is in, what one
/// server answers right now, and what becomes of packets. Main thread.
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
