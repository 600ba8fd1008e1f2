#include "HealthMonitor/HmProbeNow.h"

#include "HealthMonitor/HmAgent.h"
#include "HealthMonitor/HmUtils.h"
#include "platform/Printable.h"

#include <algorithm>
#include <atomic>
#include <memory>

namespace hm {

namespace {

/// Of a body that is shown.
constexpr std::size_t shownBodyBytes = 64;
/// Checks under way at once, of everybody who asks: each holds a descriptor until it ends, whether or not
/// somebody still waits for it.
constexpr unsigned maxUnderWay = 64;
std::atomic<unsigned> underWay = 0; // they end on threads of the engine

double ms( std::uint32_t microseconds ) {
   return microseconds / 1000.0;
}

/// What a rule does to a server whose response it fits.
const char * actionWord( std::uint8_t action ) {
   return action == HmState::ruleActionDown       ? "matches: down"
          : action == HmState::ruleActionShutdown ? "matches: shutdown"
                                                  : "matches: nothing done";
}

} // namespace

ProbeNowSm::ProbeNowSm(
      const Ptr<const AgentCommandRequest> & request, HmAgent * agent, std::string_view arguments )
      : AsyncCommandRequestSm( request->name(), request, defaultMaxRunTime, *agent->context().clock ),
        hmAgent_( agent ),
        printer_( request->socket(), request->format() ) {
   // The name of a group may hold blanks, an address does not.
   const auto blank = arguments.rfind( ' ' );
   if ( blank != arguments.npos ) {
      nhgName_ = arguments.substr( 0, blank );
      serverText_ = arguments.substr( blank + 1 );
   }
   initializeSm();
}

void ProbeNowSm::handleAsyncCommand( unsigned, unsigned ) {
   if ( asked_.empty() ) {
      if ( const auto why = ask(); !why.empty() ) {
         refusedIs( why );
         return;
      }
   }
   const auto here = []( const Asked & asked ) {
      return asked.report.wait_for( std::chrono::seconds( 0 ) ) == std::future_status::ready;
   };
   deferredIs( !std::ranges::all_of( asked_, here ) );
   if ( deferred() ) {
      return;
   }
   printer_.start();
   printer_.dictStart( "hmProbe" );
   for ( auto & asked : asked_ ) {
      print( asked, asked.report.get() );
   }
   printer_.dictEnd();
   printer_.end();
   printer_.flush();
   executionCompletedIs( true );
}

std::string ProbeNowSm::ask() {
   if ( nhgName_.empty() ) {
      return "usage: probe NHG SERVER";
   }
   const auto serverIp = IpGenAddr::fromText( serverText_ );
   if ( !serverIp || serverIp->empty() ) {
      return fmt::format( "\"{}\" is not an IP address", printable( serverText_ ) );
   }
   const auto group = hmAgent_->hmServerStatus()->nhgProbeStatus( nhgName_ );
   if ( !group ) {
      return fmt::format( "no nexthop group \"{}\" is monitored", printable( nhgName_ ) );
   }
   if ( !group->serverProbeStatusHas( *serverIp ) ) {
      return fmt::format( "nexthop group \"{}\" has no server {}", printable( nhgName_ ), *serverIp );
   }
   auto * const engine = hmAgent_->netChasmInterface()->netChasmStateMgr();
   for ( const auto probeType : { ProbeType::http, ProbeType::tcp } ) {
      const auto url = getUrl( *hmAgent_->hmProbeConfig(), nhgName_, probeType );
      if ( url.empty() || !engine ) {
         continue;
      }
      if ( underWay >= maxUnderWay ) {
         return "too many checks are under way";
      }
      ++underWay;
      const std::shared_ptr<void> counted( nullptr, []( void * ) { --underWay; } );
      const auto promise = std::make_shared<std::promise<HMProbeReport>>();
      if ( engine->probe( hostGroupNameFromNhgAndProbeType( nhgName_, probeType ),
                 hostNameFromNhgAndServerIp( nhgName_, probeType, *serverIp ),
                 [promise, counted]( const HMProbeReport & report ) { promise->set_value( report ); } ) ) {
         asked_.push_back( { probeType, url, promise->get_future() } );
      }
   }
   return asked_.empty() ? "the check engine does not know this server yet" : "";
}

void ProbeNowSm::print( const Asked & asked, const HMProbeReport & report ) {
   const auto & check = report.m_check;
   const bool answered = check.m_response == HM_RESPONSE_ANSWERED;
   const auto address = report.m_address.toString();
   const bool withReply = asked.probeType == ProbeType::http;
   printer_.entryStart( getProbeTypeFromUrl( asked.url ) );
   printer_.frill( "%s\n", printable( asked.url ).c_str() );
   printer_.attributeJson( "url", asked.url );
   printer_.row( { { "address", address }, { "mark", report.m_mark } }, "   Address:      %s%s\n",
         address.c_str(), report.m_mark == 0 ? "" : fmt::format( ", mark {}", report.m_mark ).c_str() );
   printer_.row( { { "answered", answered }, { "reason", HMReasonText( check.m_reason ) },
                       { "detail", report.m_detail } },
         "   Result:       %s%s%s\n", HMReasonText( check.m_reason ), report.m_detail.empty() ? "" : ": ",
         printable( report.m_detail ).c_str() );
   const auto phase = [this]( const char * label, const char * name, std::uint32_t us ) {
      if ( us != 0 ) {
         printer_.attribute( name, us, "   %-13s %.3f ms\n", label, ms( us ) );
      }
   };
   phase( "Connect:", "connectUs", report.m_connectUs );
   phase( "TLS:", "tlsUs", report.m_tlsUs );
   phase( "First byte:", "firstByteUs", report.m_firstByteUs );
   phase( "Total:", "totalUs", report.m_totalUs );
   if ( answered && withReply ) {
      const auto & body = check.m_responsePayload;
      const std::string_view shown = std::string_view( body ).substr( 0, shownBodyBytes );
      printer_.attribute( "status", check.m_responseCode, "   Status:       %u\n", check.m_responseCode );
      printer_.row( { { "bodyBytes", body.size() }, { "bodyBegin", shown } }, "   Body:         \"%s\"%s\n",
            printable( shown ).c_str(),
            body.size() > shown.size()
                  ? fmt::format( " and {} bytes more", body.size() - shown.size() ).c_str()
                  : "" );
      printRules( report );
   }
   printer_.entryEnd();
}

void ProbeNowSm::printRules( const HMProbeReport & report ) {
   const auto & config = *hmAgent_->hmProbeConfig();
   const auto rule = [this]( const char * label, const char * name, const HmState::ResponseRule & configured,
                           bool fits ) {
      const char * const verdict = configured.pattern() == HmState::rulePatternNone ? "not configured"
                                   : fits ? actionWord( configured.action() )
                                          : "does not match";
      printer_.attribute( name, verdict, "   %-13s %s\n", label, verdict );
   };
   const auto payloadRule = config.responsePayloadRule();
   const auto codeRule = config.responseCodeRule();
   const auto & check = report.m_check;
   rule( "Payload rule:", "payloadRule", *payloadRule,
         payloadRule_.foundIn( *payloadRule, std::string_view( check.m_responsePayload )
                                                   .substr( 0, check.m_responsePayload.find( '\0' ) ) ) );
   rule( "Code rule:", "codeRule", *codeRule,
         codeRule_.matches( *codeRule, std::to_string( check.m_responseCode ) ) );
}

} // namespace hm
