#include "hmctl/DoctorCollect.h"

#include "hmctl/Session.h"
#include "hmctl/Tool.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

namespace hmctl {

namespace {

using Json = nlohmann::json;

const std::string probeConfigPath = "healthMonitor/config/probeConfig";
const std::string serverConfigPath = "healthMonitor/config/serverConfig";
const std::string statusPath = "healthMonitor/status/serverStatus";

Json stateAt( Session & session, const std::string & path ) {
   std::string text;
   session.request( { { "command", "get" }, { "path", path }, { "format", "json" } },
         [&text]( const Json & line, const std::string & ) { text += line.value( "text", std::string{} ); } );
   return Json::parse( text, nullptr, false );
}

std::string fileText( const std::string & path ) {
   std::ifstream file( path );
   std::ostringstream text;
   text << file.rdbuf();
   return text.str();
}

Address addressOf( const Json & json ) {
   return json.is_string() ? Address::fromText( json.get<std::string>() ).value_or( Address{} ) : Address{};
}

std::string firstLine( const std::string & text ) {
   return text.substr( 0, text.find( '\n' ) );
}

// What a program prints; otherwise a finding, and nothing.
std::optional<std::string> toolText( DoctorFacts & facts, const std::vector<std::string> & words,
      const char * package, const char * ofWhat, const std::string & input = {}, bool mayFail = false ) {
   const auto result = toolRun( words, input );
   if ( !result ) {
      facts.unknown.push_back(
            { words.front(), fmt::format( "is not installed: {} could not be looked at", ofWhat ),
                  fmt::format( "apt install {}", package ) } );
      return std::nullopt;
   }
   if ( result->status < 0 || ( result->status != 0 && !mayFail ) ) {
      facts.unknown.push_back( { words.front(),
            fmt::format( "{} could not be looked at: {}", ofWhat, firstLine( result->errors ) ),
            "run hmctl as root" } );
      return std::nullopt;
   }
   return result->output;
}

void rulesCollect( DoctorFacts & facts ) {
   FilterRules rules;
   bool any = false;
   if ( const auto text =
               toolText( facts, { "nft", "-j", "list", "ruleset" }, "nftables", "rules of nftables" ) ) {
      any = rules.nftAdd( *text );
      if ( !any ) {
         facts.unknown.push_back( { "nft", "rules of nftables could not be read", "update nftables" } );
      }
   }
   const auto iptables = toolText( facts, { "iptables-nft-save" }, "iptables", "rules of iptables" );
   if ( iptables ) {
      rules.iptablesAdd( *iptables, 4 );
      any = true;
      // Of the same package: without the one there is not the other.
      if ( const auto text = toolText( facts, { "ip6tables-nft-save" }, "iptables", "rules of ip6tables" ) ) {
         rules.iptablesAdd( *text, 6 );
      }
   }
   if ( any ) {
      facts.rules = std::move( rules );
   }
}

void networkCollect( DoctorFacts & facts ) {
   const auto addresses = toolText( facts, { "ip", "-j", "addr" }, "iproute2", "addresses and routes" );
   if ( !addresses ) {
      return;
   }
   addressFactsRead( *addresses, facts );
   const std::string conf = "/proc/sys/net/ipv4/conf/";
   const auto filterOf = [&conf]( const std::string & name ) {
      return std::atoi( fileText( conf + name + "/rp_filter" ).c_str() );
   };
   facts.rpFilterAll = filterOf( "all" );
   if ( facts.links ) {
      for ( auto & [name, link] : *facts.links ) {
         link.rpFilter = filterOf( name );
      }
   }
   std::set<Address> wanted;
   for ( const auto & group : facts.groups ) {
      wanted.insert( group.vip );
      wanted.insert( group.servers.begin(), group.servers.end() );
   }
   std::string batch;
   for ( const auto & address : wanted ) {
      batch += "route get " + address.text() + "\n";
   }
   // It goes on behind an address that has no route, and says so in its status.
   if ( const auto routes = toolText(
              facts, { "ip", "-force", "-j", "-batch", "-" }, "iproute2", "routes", batch, true ) ) {
      routeFactsRead( *routes, facts );
   }
}

} // namespace

void hostFactsRead( const Json & state, DoctorFacts & facts ) {
   const auto at = [&state]( const std::string & path ) { return state.value( path, Json::object() ); };
   const auto probe = at( probeConfigPath );
   const auto nhgs = at( serverConfigPath ).value( "nhgConfig", Json::object() );
   const double globalInterval = probe.value( "probeInterval", 5.0 );
   const bool globalUrl = !probe.value( "globalUrl", std::string{} ).empty();
   constexpr double unsetInterval = 5; // stands for the global one
   const auto groups = probe.value( "nhgProbeConfig", Json::object() );
   for ( const auto & [name, settings] : groups.items() ) {
      VipGroup group;
      group.name = name;
      group.vip = addressOf( settings.value( "vip", Json() ) );
      group.timeoutSeconds = settings.value( "timeout", 10u );
      const auto interval = settings.value( "probeInterval", unsetInterval );
      group.intervalSeconds = std::max( interval == unsetInterval ? globalInterval : interval, 0.001 );
      const unsigned http = settings.value( "httpUrl", std::string{} ).empty() ? 0 : 1;
      const unsigned tcp = settings.value( "tcpUrl", std::string{} ).empty() ? 0 : 1;
      group.checksAServer = http + tcp != 0 ? http + tcp : globalUrl ? 1 : 0;
      const auto servers = nhgs.value( name, Json::object() ).value( "serverIp", Json::array() );
      for ( const auto & server : servers ) {
         if ( const auto address = addressOf( server ); !address.empty() ) {
            group.servers.push_back( address );
         }
      }
      if ( !group.vip.empty() && !group.servers.empty() && group.checksAServer != 0 &&
            !settings.value( "disabled", false ) ) {
         facts.groups.push_back( std::move( group ) );
      }
   }
   for ( const auto & vip : probe.value( "pingDisabledVip", Json::array() ) ) {
      facts.silentVips.insert( addressOf( vip ) );
   }
   facts.tunnelIntf = probe.value( "localTunnelIntf", std::string{} );
   facts.sourceIpv4 = addressOf( state.value( statusPath + "/probeSrcIp", Json() ) );
   facts.sourceIpv6 = addressOf( state.value( statusPath + "/probeSrcIp6", Json() ) );
}

void addressFactsRead( const std::string & ipJson, DoctorFacts & facts ) {
   std::map<std::string, LocalLink> links;
   try {
      for ( const auto & link : Json::parse( ipJson ) ) {
         const auto name = link.value( "ifname", std::string{} ); // an empty object stands for what is hidden
         links[name].mtu = link.value( "mtu", 0u );
         for ( const auto & each : link.value( "addr_info", Json::array() ) ) {
            if ( const auto address = addressOf( each.value( "local", Json() ) ); !address.empty() ) {
               facts.localAddresses.emplace( address, name );
            }
         }
      }
      facts.links = std::move( links );
   } catch ( const Json::exception & ) {
      facts.unknown.push_back( { "ip", "addresses could not be read", "update iproute2" } );
   }
}

void routeFactsRead( const std::string & ipJsonLines, DoctorFacts & facts ) {
   std::map<Address, Route> routes;
   std::istringstream lines( ipJsonLines );
   try {
      for ( std::string line; std::getline( lines, line ); ) {
         if ( line.find_first_not_of( " \t" ) == line.npos ) {
            continue;
         }
         for ( const auto & each : Json::parse( line ) ) {
            const auto type = each.value( "type", std::string{ "unicast" } );
            const auto address = addressOf( each.value( "dst", Json() ) );
            Route route{ each.value( "dev", std::string{} ) };
            for ( const auto & metric : each.value( "metrics", Json::array() ) ) {
               route.mtu = metric.value( "mtu", route.mtu );
            }
            route.gateway = each.value( "gateway", std::string{} );
            if ( !address.empty() && !route.device.empty() && ( type == "unicast" || type == "local" ) ) {
               routes.emplace( address, route );
            }
         }
      }
      facts.routes = std::move( routes );
   } catch ( const Json::exception & ) {
      facts.unknown.push_back( { "ip", "routes could not be read", "update iproute2" } );
   }
}

// Columns: number, port of the program's socket, waiting, copy mode, copy range, lost because full, lost
// because not read, last packet.
void queueFactsRead( const std::string & nfnetlinkQueue, DoctorFacts & facts ) {
   std::istringstream lines( nfnetlinkQueue );
   for ( std::string line; std::getline( lines, line ); ) {
      std::istringstream columns( line );
      unsigned long long number = 0, port = 0, waiting = 0, mode = 0, range = 0;
      KernelQueue queue;
      if ( columns >> number >> port >> waiting >> mode >> range >> queue.lostFull >> queue.lostUnread &&
            number == 0 ) {
         facts.queue = queue;
      }
   }
}

DoctorFacts doctorCollect( Session & session ) {
   DoctorFacts facts;
   Json state = Json::object();
   for ( const auto & path :
         { probeConfigPath, serverConfigPath, statusPath + "/probeSrcIp", statusPath + "/probeSrcIp6" } ) {
      if ( const auto answer = stateAt( session, path ); answer.is_object() ) {
         state.update( answer );
      }
   }
   try {
      hostFactsRead( state, facts );
   } catch ( const Json::exception & ) {
      throw Refused( "the host's configuration is not as it is known here: is it of another version?" );
   }
   if ( facts.groups.empty() ) {
      return facts;
   }
   rulesCollect( facts );
   networkCollect( facts );
   queueFactsRead( fileText( "/proc/net/netfilter/nfnetlink_queue" ), facts );
   std::istringstream range( fileText( "/proc/sys/net/ipv4/ip_local_port_range" ) );
   unsigned first = 0, last = 0;
   if ( range >> first >> last && last >= first ) {
      facts.sourcePorts = last - first + 1;
   }
   return facts;
}

} // namespace hmctl
