#include "HealthMonitor/HmOperatorCli.h"

#include "HealthMonitor/HmAgent.h"
#include "HealthMonitor/HmProbeNow.h"
#include "HealthMonitor/HmStatusTable.h"

namespace hm {

namespace {

constexpr std::string_view statusCommand = "status";
constexpr std::string_view probeCommand = "probe";
constexpr std::string_view packetsCommand = "show health-monitor packets";

/// What stands behind `command` and a blank; none when no blank does or the command is another.
std::optional<std::string_view> argumentsOf( std::string_view text, std::string_view command ) {
   return text.starts_with( command ) && text.substr( command.size() ).starts_with( ' ' )
                ? std::optional( text.substr( command.size() + 1 ) )
                : std::nullopt;
}

} // namespace

HmOperatorCli::HmOperatorCli( std::string name, std::string commandType, HmAgent * agent )
      : AgentCommandCallbackWithFormat( std::move( name ), std::move( commandType ) ),
        hmAgent_( agent ) {}

std::vector<CommandInfo> HmOperatorCli::commands() const {
   return { { std::string( statusCommand ), "[NHG]",
                  "State of every server, or of those of one nexthop group, and why" },
         { std::string( probeCommand ), "NHG SERVER",
               "Check one server once, now, and show what it answers" },
         { std::string( packetsCommand ), "",
               "Probes and echo requests from the netfilter queue, and what became of them" } };
}

void HmOperatorCli::handleCommand( unsigned socket, const std::string & command, unsigned format ) {
   // The others are answered in slices.
   if ( command == packetsCommand ) {
      showPackets( socket, format, *hmAgent_->hmCommonData() );
   }
}

Ptr<AsyncCommandRequestSm> HmOperatorCli::createAgentAsyncCommandRequestSm(
      const Ptr<const AgentCommandRequest> & request ) {
   const auto & command = request->command();
   if ( const auto group = argumentsOf( command, statusCommand ); group || command == statusCommand ) {
      return new StatusTableSm( request, hmAgent_, std::optional<NexthopGroupName>( group ) );
   }
   if ( const auto arguments = argumentsOf( command, probeCommand ); arguments || command == probeCommand ) {
      return new ProbeNowSm( request, hmAgent_, arguments.value_or( "" ) );
   }
   return nullptr;
}

} // namespace hm
