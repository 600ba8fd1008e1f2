#include "HealthMonitor/HmAgent.h"
#include "HealthMonitor/HmCli.h"
#include "HealthMonitor/HmUtils.h"
#include "platform/Printable.h"

#include <algorithm>
#include <cstdlib>

#include <netchasm/HMTimeStamp.h>

/// The show commands that go through all servers.
namespace hm {

namespace {

constexpr std::string_view nhgHeading = "Nexthop Group";

/// The first column; whatever a name holds, it stays within its line.
std::string nhgColumn( const NexthopGroupName & nhgName ) {
   return printable( nhgName );
}

std::string timeText( std::uint64_t msSinceEpoch ) {
   HMTimeStamp time;
   time.setTime( msSinceEpoch );
   return time.lprint( "%b:%d:%Y %H:%M:%S" ).substr( 0, 29 );
}

} // namespace

void ShowAsyncCommandRequestBaseSm::initialize() {
   initializeSm();
   handleEnvVars();
   initialized_ = true;
}

void ShowAsyncCommandRequestBaseSm::handleEnvVars() {
   const char * const text = hmAgent().context().environment( "TEST_YIELD" );
   forceYieldInTestVal_ = text ? static_cast<std::uint8_t>( std::strtol( text, nullptr, 10 ) ) : 0;
   forceYieldInTest_ = forceYieldInTestVal_ != 0;
   if ( forceYieldInTest_ ) {
      HM_TRACE( 9, " force yield set from test" );
   }
}

bool ShowAsyncCommandRequestBaseSm::forceYieldInTestEval() {
   if ( !forceYieldInTest_ ) {
      return false;
   }
   forceYieldInTestCounterInc();
   return forceYieldInTestCounter_ % forceYieldInTestVal_ == 0;
}

template<class Groups, class ServersOf, class PrintServer>
void ShowAsyncCommandRequestBaseSm::slice( unsigned socket, unsigned format, const Table & table,
      const Groups & groups, ServersOf serversOf, PrintServer printServer ) {
   if ( !initialized_ ) {
      deferredIs( true );
      return;
   }
   deferredIs( false );
   HM_ASSERT( executionCompleted() == false, "execution completed before start" );
   try {
      if ( !headerPrinted_ ) {
         headerPrint( socket, format, table, groups );
      }
      if ( walk( groups, serversOf, printServer ) ) {
         printer_->dictEnd();
         printer_->end();
         printer_->flush();
         executionCompletedIs( true );
      }
   } catch ( const CliInterrupt & interrupt ) {
      HM_TRACE( 1, "got exception: {}", interrupt.what() );
      executionCompletedIs( true );
   }
}

template<class Groups>
void ShowAsyncCommandRequestBaseSm::headerPrint(
      unsigned socket, unsigned format, const Table & table, const Groups & groups ) {
   printer_.emplace( socket, format );
   if ( !printer_->json() ) {
      std::size_t width = nhgHeading.size();
      for ( const auto & item : groups ) {
         width = std::max( width, nhgColumn( item.key ).size() );
      }
      nhgMaxWidth_ = static_cast<std::uint8_t>( std::min<std::size_t>( width, 255 ) );
   }
   printer_->start();
   printer_->dictStart( table.key );
   printer_->frill( "%-*s %s", nhgMaxWidth(), nhgHeading.data(), table.columns );
   printer_->frill( "%-*s %s", nhgMaxWidth(), std::string( nhgHeading.size(), '-' ).c_str(), table.rule );
   headerPrinted_ = true;
}

/// True when the walk has come to its end.
template<class Groups, class ServersOf, class PrintServer>
bool ShowAsyncCommandRequestBaseSm::walk(
      const Groups & groups, ServersOf serversOf, PrintServer printServer ) {
   if ( !nhgBookmark_.empty() && !groups.find( nhgBookmark_ ) ) {
      nhgBookmark_.clear();
      if ( groupOpen_ ) {
         groupEnd();
      }
   }
   bool firstOfSlice = true;
   for ( const auto & [nhgName, group] : groups.from( std::exchange( nhgBookmark_, {} ) ) ) {
      if ( !groupOpen_ ) {
         HM_TRACE( 9, "nhgName:{}", nhgName );
         if ( shouldYield() || ( forceYieldInTestEval() && !firstOfSlice ) ) {
            HM_TRACE( 9, "yielding before processing nhg: {}", nhgName );
            nhgBookmark_ = nhgName;
            return false;
         }
         printer_->entryStart( nhgName );
         printer_->dictStart( "servers" );
         groupOpen_ = true;
      }
      firstOfSlice = false;
      if ( !serversWalk( nhgName, serversOf( *group ), printServer ) ) {
         nhgBookmark_ = nhgName;
         return false;
      }
      groupEnd();
   }
   return true;
}

void ShowAsyncCommandRequestBaseSm::groupEnd() {
   printer_->dictEnd();
   printer_->entryEnd();
   groupOpen_ = false;
   serverBookmark_ = {};
}

/// True when all servers have been printed.
template<class Servers, class PrintServer>
bool ShowAsyncCommandRequestBaseSm::serversWalk(
      const NexthopGroupName & nhgName, const Servers & servers, PrintServer printServer ) {
   nhgText_ = nhgColumn( nhgName );
   for ( const auto probeType : { ProbeType::http, ProbeType::tcp } ) {
      probeTypeWords_[static_cast<std::size_t>( probeType )] =
            getProbeTypeFromUrl( getUrl( *hmAgent().hmProbeConfig(), nhgName, probeType ) );
   }
   bool firstOfSlice = true;
   for ( const auto & [ip, server] : servers.after( serverBookmark_ ) ) {
      if ( !firstOfSlice && shouldYield() ) {
         return false;
      }
      firstOfSlice = false;
      printer_->entryStart( ip.text() );
      printer_->dictStart( "probeType" );
      printServer( nhgName, ip, *server );
      printer_->dictEnd();
      printer_->entryEnd();
      serverBookmark_ = ip;
   }
   return true;
}

template<class Print>
void ShowAsyncCommandRequestBaseSm::probeTypeEntry( ProbeType probeType, Print print ) {
   const auto & word = probeTypeWords_[static_cast<std::size_t>( probeType )];
   if ( !word.empty() ) {
      printer_->entryStart( word );
      print( *printer_, word.c_str() );
      printer_->entryEnd();
   }
}

void ShowCountersAsyncCommandRequestSm::handleInitialized() {
   HM_TRACE( 9, "" );
   initialize();
}

void ShowCountersAsyncCommandRequestSm::handleAsyncCommand( unsigned socket, unsigned format ) {
   HM_TRACE( 9, "Socket:{} format:{}", socket, format );
   constexpr Table table{
         "hmCounters",
         "Server IP       Probe Type Checks     Responses  Connect Failures Misc Failures Timeouts\n",
         "--------------- ---------- ---------- ---------- ---------------- ------------- ----------\n",
   };
   slice(
         socket, format, table, hmAgent().hmCommonData()->probeCountersItems(),
         []( const ProbeCounters & group ) -> const auto & { return group.serverIpItems(); },
         [this]( const NexthopGroupName &, const IpGenAddr & ip, const ServerIpCounters & server ) {
            const auto ipText = ip.text();
            for ( const auto & item : server.probeTypeCountersItems() ) {
               const auto & counters = *item.value;
               probeTypeEntry( item.key, [&]( CliPrinter & printer, const char * word ) {
                  printer.row(
                        {
                              { "numChecks", counters.numChecks() },
                              { "numResponses", counters.numResponses() },
                              { "numConnectFailures", counters.numConnectFailures() },
                              { "numFailures", counters.numFailures() },
                              { "numTimeouts", counters.numTimeouts() },
                        },
                        "%-*s %-15s %-10s %-10u %-10u %-16u %-13u %-10u\n", nhgMaxWidth(), nhgText(),
                        ipText.c_str(), word, counters.numChecks(), counters.numResponses(),
                        counters.numConnectFailures(), counters.numFailures(), counters.numTimeouts() );
               } );
            }
         } );
}

void ShowTimestampsAsyncCommandRequestSm::handleInitialized() {
   HM_TRACE( 9, "" );
   initialize();
}

void ShowTimestampsAsyncCommandRequestSm::handleAsyncCommand( unsigned socket, unsigned format ) {
   HM_TRACE( 9, "Socket:{} format:{}", socket, format );
   constexpr Table table{
         "hmTimestamps",
         "Server IP       Probe Type Last Response Time Last Check Time      Next Check Time\n",
         "--------------- ---------- ------------------ -------------------- --------------------\n",
   };
   slice(
         socket, format, table, hmAgent().hmCommonData()->probeCountersItems(),
         []( const ProbeCounters & group ) -> const auto & { return group.serverIpItems(); },
         [this]( const NexthopGroupName &, const IpGenAddr & ip, const ServerIpCounters & server ) {
            const auto ipText = ip.text();
            for ( const auto & item : server.probeTypeCountersItems() ) {
               const auto & counters = *item.value;
               probeTypeEntry( item.key, [&]( CliPrinter & printer, const char * word ) {
                  if ( !printer.json() ) {
                     printer.frill( "%-*s %-18s %-10s %-15s %-15s %-15s\n", nhgMaxWidth(), nhgText(),
                           ipText.c_str(), word, fmt::format( "{} ms", counters.lastResponseTime() ).c_str(),
                           timeText( counters.lastCheckTime() ).c_str(),
                           timeText( counters.nextCheckTime() ).c_str() );
                  }
                  printer.attributeJson( "lastResponseTime", counters.lastResponseTime() );
                  printer.attributeJson( "lastCheckTime", counters.lastCheckTime() );
                  printer.attributeJson( "nextCheckTime", counters.nextCheckTime() );
               } );
            }
         } );
}

void ShowStatusDetailAsyncCommandRequestSm::handleInitialized() {
   HM_TRACE( 9, "" );
   initialize();
}

void ShowStatusDetailAsyncCommandRequestSm::handleAsyncCommand( unsigned socket, unsigned format ) {
   HM_TRACE( 9, "Socket:{} format:{}", socket, format );
   constexpr Table table{
         "hmStatusDetail",
         "Server IP       Probe Type AdminState OperState Weight\n",
         "--------------- ---------- ---------- --------- ------\n",
   };
   const auto & probeStatusSm = *hmAgent().probeStatusSm();
   slice(
         socket, format, table, hmAgent().hmServerStatus()->nhgProbeStatusItems(),
         []( const HmState::NexthopGroupProbeStatus & group ) -> const auto & {
            return group.serverProbeStatusItems();
         },
         [&]( const NexthopGroupName & nhgName, const IpGenAddr & ip, const HmState::ProbeStatus & ) {
            const auto ipText = ip.text();
            for ( const auto probeType : { ProbeType::http, ProbeType::tcp } ) {
               probeTypeEntry( probeType, [&]( CliPrinter & printer, const char * word ) {
                  const auto admin = probeStatusSm.getCachedAdminState( nhgName, ip, probeType );
                  const auto oper = probeStatusSm.getCachedOperState( nhgName, ip, probeType );
                  const unsigned weight = probeStatusSm.getCachedWeight( nhgName, ip, probeType );
                  const auto adminText = ValueTraits<HmState::ServerAdminState>::toText( admin );
                  const auto operText = ValueTraits<HmState::ServerOperState>::toText( oper );
                  printer.row(
                        {
                              { "adminState", adminText },
                              { "operState", operText },
                              { "weight", weight },
                        },
                        "%-*s %-15s %-10s %-10s %-10s %-16u\n", nhgMaxWidth(), nhgText(), ipText.c_str(),
                        word, adminText.c_str(), operText.c_str(), weight );
               } );
            }
         } );
}

namespace {

template<class Sm>
Ptr<Sm> requestNew( const std::string & name, const Ptr<const AgentCommandRequest> & request,
      Seconds maxRunTime, const Clock & clock, HmAgent * hmAgent ) {
   const Ptr<Sm> sm = new Sm( name, request, maxRunTime, clock, hmAgent );
   sm->handleInitialized();
   return sm;
}

} // namespace

Ptr<ShowCountersAsyncCommandRequestSm> showCountersAsyncCommandRequestSmFactory( const std::string & name,
      const Ptr<const AgentCommandRequest> & request, Seconds maxRunTime, const Clock & clock,
      HmAgent * hmAgent ) {
   return requestNew<ShowCountersAsyncCommandRequestSm>( name, request, maxRunTime, clock, hmAgent );
}

Ptr<ShowTimestampsAsyncCommandRequestSm> showTimestampsAsyncCommandRequestSmFactory( const std::string & name,
      const Ptr<const AgentCommandRequest> & request, Seconds maxRunTime, const Clock & clock,
      HmAgent * hmAgent ) {
   return requestNew<ShowTimestampsAsyncCommandRequestSm>( name, request, maxRunTime, clock, hmAgent );
}

Ptr<ShowStatusDetailAsyncCommandRequestSm> showStatusDetailAsyncCommandRequestSmFactory(
      const std::string & name, const Ptr<const AgentCommandRequest> & request, Seconds maxRunTime,
      const Clock & clock, HmAgent * hmAgent ) {
   return requestNew<ShowStatusDetailAsyncCommandRequestSm>( name, request, maxRunTime, clock, hmAgent );
}

} // namespace hm
