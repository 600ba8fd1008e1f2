#include "HealthMonitor/HmStatusTable.h"

#include "HealthMonitor/HmAgent.h"
#include "HealthMonitor/HmUtils.h"

#include "platform/Printable.h"

#include <algorithm>

#include <netchasm/HMCheckData.h>
#include <netchasm/HMTimeStamp.h>

namespace hm {

namespace {

constexpr int longestIpv6 = 39; // bytes of its text

const char * stateWord( HmState::ServerAdminState admin, HmState::ServerOperState oper ) {
   return admin != HmState::ServerAdminState::enabled ? "shutdown"
          : oper == HmState::ServerOperState::up      ? "up"
                                                      : "down";
}

std::string timeText( std::uint64_t msSinceEpoch ) {
   if ( msSinceEpoch == 0 ) {
      return "-";
   }
   HMTimeStamp time;
   time.setTime( msSinceEpoch );
   return time.lprint( "%Y-%m-%d %H:%M:%S" );
}

/// In columns of a terminal, not bytes: names are UTF-8.
std::string padded( const std::string & text, int columns ) {
   return fmt::format( "{:{}}", text, columns );
}

int columnsOf( const std::string & text ) {
   const auto wide = text.size(); // no character has more columns than bytes
   return static_cast<int>( 2 * wide - padded( text, static_cast<int>( wide ) ).size() );
}

} // namespace

StatusTableSm::StatusTableSm( const Ptr<const AgentCommandRequest> & request, HmAgent * agent,
      std::optional<NexthopGroupName> nhgName )
      : AsyncCommandRequestSm( request->name(), request, defaultMaxRunTime, *agent->context().clock ),
        hmAgent_( agent ),
        only_( std::move( nhgName ) ),
        printer_( request->socket(), request->format() ) {
   initializeSm();
}

void StatusTableSm::handleAsyncCommand( unsigned, unsigned ) {
   const auto & groups = *hmAgent_->hmServerStatus();
   if ( !begun_ ) {
      if ( only_ && !groups.nhgProbeStatusHas( *only_ ) ) {
         refusedIs( fmt::format( "no nexthop group \"{}\" is monitored", printable( *only_ ) ) );
         return;
      }
      if ( !printer_.json() && !measure() ) {
         return;
      }
      begin();
   }
   if ( !rows() ) {
      return;
   }
   printer_.dictEnd();
   printer_.end();
   printer_.flush();
   executionCompletedIs( true );
}

bool StatusTableSm::measure() {
   const auto & config = *hmAgent_->hmProbeConfig();
   const auto widen = []( int & width, const std::string & text ) {
      width = std::max( width, columnsOf( text ) );
   };
   for ( const auto & group : hmAgent_->hmServerStatus()->nhgProbeStatusItems().from( measuredTo_ ) ) {
      if ( !wanted( group.key ) ) {
         break;
      }
      if ( shouldYield() ) {
         measuredTo_ = group.key;
         return false;
      }
      widen( widths_.nhg, printable( group.key ) );
      if ( const auto probe = config.nhgProbeConfig( group.key ) ) {
         widen( widths_.vip, probe->vip().text() );
      }
      // The servers of a group are of one family.
      const auto & servers = group.value->serverProbeStatusItems();
      if ( !servers.empty() && servers.begin()->key.isIpv6() ) {
         widths_.server = longestIpv6;
      }
   }
   return true;
}

void StatusTableSm::begin() {
   begun_ = true;
   printer_.start();
   printer_.dictStart( "hmStatus" );
   printer_.frill( "%-*s %-*s %-*s %-8s %-8s %-8s %-19s %-28s %s\n", widths_.nhg, "Nexthop Group",
         widths_.vip, "VIP", widths_.server, "Server", "State", "HTTP", "TCP", "Since", "Last Check",
         "Response" );
   printer_.frill( "%-*s %-*s %-*s %-8s %-8s %-8s %-19s %-28s %s\n", widths_.nhg, "-------------",
         widths_.vip, "---", widths_.server, "---------------", "--------", "--------", "--------",
         "-------------------", "----------------------------", "--------" );
}

bool StatusTableSm::rows() {
   const auto & groups = hmAgent_->hmServerStatus()->nhgProbeStatusItems();
   // A group that went meanwhile is closed where it was; the walk goes on at the next one above it.
   auto range =
         nhgBookmark_ ? groups.from( *nhgBookmark_ ) : groups.from( only_.value_or( NexthopGroupName{} ) );
   for ( const auto & group : range ) {
      if ( !wanted( group.key ) ) {
         break;
      }
      if ( nhgBookmark_ != group.key ) {
         groupEnd();
         groupBegin( group.key );
      } else if ( !groupOpen_ ) {
         continue; // was finished in an earlier slice
      }
      const auto & servers = group.value->serverProbeStatusItems();
      const auto rest = serverBookmark_ ? servers.after( *serverBookmark_ ) : servers.from( IpGenAddr{} );
      for ( const auto & server : rest ) {
         if ( shouldYield() ) {
            return false;
         }
         row( group.key, server.key, *server.value );
         serverBookmark_ = server.key;
      }
      groupEnd();
   }
   groupEnd();
   return true;
}

void StatusTableSm::groupBegin( const NexthopGroupName & nhgName ) {
   nhgBookmark_ = nhgName;
   serverBookmark_.reset();
   groupOpen_ = true;
   const auto probe = hmAgent_->hmProbeConfig()->nhgProbeConfig( nhgName );
   vip_ = probe ? probe->vip().text() : std::string{};
   printer_.entryStart( nhgName );
   printer_.attributeJson( "vip", vip_ );
   printer_.dictStart( "servers" );
}

void StatusTableSm::groupEnd() {
   if ( std::exchange( groupOpen_, false ) ) {
      printer_.dictEnd();
      printer_.entryEnd();
   }
}

void StatusTableSm::row(
      const NexthopGroupName & nhgName, const IpGenAddr & serverIp, const HmState::ProbeStatus & published ) {
   const auto & config = *hmAgent_->hmProbeConfig();
   const auto & statusSm = *hmAgent_->probeStatusSm();
   const auto group = hmAgent_->hmCommonData()->probeCounters( nhgName );
   const auto counters = group ? group->serverIp( serverIp ) : nullptr;
   const auto server = serverIp.text();
   const char * words[] = { "-", "-" };
   Ptr<const ProbeTypeCounters> last; // the check that the row tells of
   printer_.entryStart( server );
   printer_.dictStart( "probeType" );
   for ( const auto probeType : { ProbeType::http, ProbeType::tcp } ) {
      const auto url = getUrl( config, nhgName, probeType );
      if ( url.empty() ) {
         continue;
      }
      auto & word = words[static_cast<std::size_t>( probeType )];
      word = stateWord( statusSm.getCachedAdminState( nhgName, serverIp, probeType ),
            statusSm.getCachedOperState( nhgName, serverIp, probeType ) );
      printer_.entryStart( getProbeTypeFromUrl( url ) );
      printer_.attributeJson( "state", word );
      const auto seen = counters ? counters->probeTypeCounters( probeType ) : nullptr;
      if ( seen && seen->lastCheckTime() != 0 ) {
         printer_.attributeJson( "lastCheckTime", seen->lastCheckTime() );
         printer_.attributeJson( "lastResponseTime", seen->lastResponseTime() );
         printer_.attributeJson( "lastReason", HMReasonText( static_cast<HM_REASON>( seen->lastReason() ) ) );
         // What took the server down says more than what did not.
         const bool failed = seen->lastReason() != HM_REASON_NONE;
         if ( !last || std::pair( failed, seen->lastCheckTime() ) >
                             std::pair( last->lastReason() != HM_REASON_NONE, last->lastCheckTime() ) ) {
            last = seen;
         }
      }
      printer_.entryEnd();
   }
   printer_.dictEnd();
   const auto * const state = stateWord( published.adminState(), published.operState() );
   printer_.row( { { "state", state }, { "weight", published.weight() }, { "since", published.since() } },
         "%s %-*s %-*s %-8s %-8s %-8s %-19s %-28s %s\n", padded( printable( nhgName ), widths_.nhg ).c_str(),
         widths_.vip, vip_.c_str(), widths_.server, server.c_str(), state, words[0], words[1],
         timeText( published.since() ).c_str(),
         last ? HMReasonText( static_cast<HM_REASON>( last->lastReason() ) ) : "-",
         last ? fmt::format( "{} ms", last->lastResponseTime() ).c_str() : "-" );
   printer_.entryEnd();
}

} // namespace hm
