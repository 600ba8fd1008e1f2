#include "HealthMonitor/HmCli.h"

#include "HealthMonitor/HmAgent.h"

#include <charconv>
#include <limits>

namespace hm {

namespace {

constexpr const char * showSummary = "show health-monitor summary";
constexpr const char * showCounters = "show health-monitor counters";
constexpr const char * showTimestamps = "show health-monitor timestamps";
constexpr const char * showStatusDetail = "show health-monitor status detail";
constexpr const char * showProbeDelay = "show health-monitor probe delay";
constexpr const char * clearProbeDelay = "clear health-monitor probe delay";

/// The number in a probe delay command: the first run of characters that the words of the command do not
/// have. 0: none.
std::uint32_t intervalOf( std::string_view command ) {
   constexpr std::string_view words = "show health-monitor probe delay interval";
   const auto begin = command.find_first_not_of( words );
   if ( begin == command.npos ) {
      return 0;
   }
   const auto run = command.substr( begin, command.find_first_of( words, begin ) - begin );
   std::uint64_t value = 0;
   if ( std::from_chars( run.data(), run.data() + run.size(), value ).ec == std::errc::result_out_of_range ) {
      value = std::numeric_limits<std::uint64_t>::max();
   }
   return static_cast<std::uint32_t>( value );
}

} // namespace

std::vector<CommandInfo> HmCli::commands() const {
   return { { clearProbeDelay, "", "Begin counting the delays of probes anew" } };
}

void HmCli::handleCommand( unsigned socket, const std::string & command ) {
   HM_TRACE( 9, "socket: {}, command: {}", socket, command );
   if ( command == clearProbeDelay ) {
      hmAgent()->netChasmInterface()->clearProbeDelay();
   }
}

std::vector<CommandInfo> HmCliF::commands() const {
   return {
         { showSummary, "", "What is configured, and whether it has reached the check engine" },
         { showCounters, "", "Checks of each server and what became of them" },
         { showTimestamps, "", "Last response time, last and next check of each server" },
         { showStatusDetail, "", "State of each server by kind of check" },
         { showProbeDelay, "[interval SECONDS]",
               "How late checks start, in ranges of the probe interval or the one given" },
   };
}

void HmCliF::handleCommand( unsigned socket, const std::string & command, unsigned format ) {
   HM_TRACE( 9, "socket: {}, command: {}, outputFormat: {}", socket, command, format );
   if ( command == showSummary ) {
      hmAgent()->configSm()->showSummary( socket, format );
   } else if ( command.starts_with( showProbeDelay ) ) {
      hmAgent()->netChasmInterface()->showProbeDelay( socket, format, intervalOf( command ) );
   }
}

Ptr<AsyncCommandRequestSm> HmCliF::createAgentAsyncCommandRequestSm(
      const Ptr<const AgentCommandRequest> & request ) {
   const auto & clock = *hmAgent()->context().clock;
   const auto & command = request->command();
   const auto & name = request->name();
   if ( command == showCounters ) {
      return showCountersAsyncCommandRequestSmFactory(
            name, request, AsyncCommandRequestSm::defaultMaxRunTime, clock, hmAgent() );
   }
   if ( command == showTimestamps ) {
      return showTimestampsAsyncCommandRequestSmFactory(
            name, request, AsyncCommandRequestSm::defaultMaxRunTime, clock, hmAgent() );
   }
   if ( command == showStatusDetail ) {
      return showStatusDetailAsyncCommandRequestSmFactory(
            name, request, AsyncCommandRequestSm::defaultMaxRunTime, clock, hmAgent() );
   }
   return nullptr;
}

Ptr<HmCli> hmCliFactory( const std::string & name, const std::string & commandType, HmAgent * hmAgent ) {
   return new HmCli( name, commandType, hmAgent );
}

Ptr<HmCliF> hmCliFFactory( const std::string & name, const std::string & commandType, HmAgent * hmAgent ) {
   return new HmCliF( name, commandType, hmAgent );
}

} // namespace hm
