#include "host/PacketFilterRules.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace host::packetFilter {

using platform::IpGenAddr;

namespace {

// The native form: only the elements of the sets ever change, so that no chain is taken down and put up
// again, which would drop what waits in the queue.

constexpr const char * nativeRules = R"(
add table inet {0}
delete table inet {0}
table inet {0} {{
   set vips4 {{ type ipv4_addr; }}
   set vips6 {{ type ipv6_addr; }}
   set sources4 {{ type ipv4_addr; }}
   set sources6 {{ type ipv6_addr; }}
   chain output {{
      type filter hook output priority mangle; policy accept;
      meta l4proto tcp meta mark 0x1-0x3fff counter queue to 0 comment "probes, which the agent wraps for their servers"
      meta l4proto tcp meta mark 0 ip saddr @sources4 ip daddr @vips4 counter drop comment "left over from probes that are gone"
      meta l4proto tcp meta mark 0 ip6 saddr @sources6 ip6 daddr @vips6 counter drop comment "left over from probes that are gone"
   }}
   chain prerouting {{
      type filter hook prerouting priority mangle; policy accept;
      ip daddr @vips4 ip protocol icmp ip hdrlength 5 ip frag-off & 0x3fff == 0 icmp type echo-request counter queue to 0 comment "pings, which the agent answers"
      ip6 daddr @vips6 ip6 nexthdr ipv6-icmp icmpv6 type echo-request counter queue to 0 comment "pings, which the agent answers"
   }}
}}
)";

std::vector<std::string> ofFamily( const auto & addresses, bool ipv6 ) {
   std::vector<std::string> texts;
   for ( const auto & address : addresses ) {
      if ( ipv6 ? address.isIpv6() : address.isIpv4() ) {
         texts.push_back( address.text() );
      }
   }
   return texts;
}

std::string nativeElements( const PacketFilterTargets & targets ) {
   std::string text;
   const auto fill = [&text]( const char * set, const std::vector<std::string> & elements ) {
      text += fmt::format( "flush set inet {} {}\n", table, set );
      if ( !elements.empty() ) {
         text += fmt::format( "add element inet {} {} {{ {} }}\n", table, set, fmt::join( elements, ", " ) );
      }
   };
   fill( "vips4", ofFamily( targets.vips, false ) );
   fill( "vips6", ofFamily( targets.vips, true ) );
   fill( "sources4", ofFamily( targets.probeSources, false ) );
   fill( "sources6", ofFamily( targets.probeSources, true ) );
   return text;
}

PacketFilterCommand nft( std::string input ) {
   return { { "nft", "-f", "-" }, std::move( input ) };
}

// The older form: chains of our own below the built-in ones. Those below OUT and IN list the virtual
// addresses and are entered by the few packets only that may be meant for one.

using Words = std::vector<std::string>;

const Words outHook{ "OUTPUT", "-j", "HEALTH-MONITOR-OUT" };
const Words inHook{ "PREROUTING", "-j", "HEALTH-MONITOR-IN" };
const Words probeRule{ "HEALTH-MONITOR-OUT", "-p", "tcp", "-m", "mark", "!", "--mark", "0x0/0x3fff", "-m",
      "mark", "--mark", "0x0/0xffffc000", "-m", "comment", "--comment",
      "probes, which the agent wraps for their servers", "-j", "NFQUEUE", "--queue-num", "0" };
// The matches on bytes keep out fragments, and what hides behind IPv4 options and IPv6 extension headers.
const Words echoRule4{ "HEALTH-MONITOR-IN", "-p", "icmp", "-m", "u32", "--u32", "0>>24&0xF=5&&4&0x3FFF=0",
      "-m", "icmp", "--icmp-type", "echo-request", "-m", "comment", "--comment",
      "pings, which the agent answers", "-j", "HEALTH-MONITOR-ECHO" };
const Words echoRule6{ "HEALTH-MONITOR-IN", "-p", "ipv6-icmp", "-m", "u32", "--u32", "4>>8&0xFF=58", "-m",
      "icmp6", "--icmpv6-type", "echo-request", "-m", "comment", "--comment",
      "pings, which the agent answers", "-j", "HEALTH-MONITOR-ECHO" };
Words strayDrop( const std::string & vip ) {
   return { "HEALTH-MONITOR-STRAY", "-d", vip, "-j", "DROP" };
}
Words echoToQueue( const std::string & vip ) {
   return { "HEALTH-MONITOR-ECHO", "-d", vip, "-j", "NFQUEUE", "--queue-num", "0" };
}
constexpr const char * chains = ":HEALTH-MONITOR-OUT - [0:0]\n:HEALTH-MONITOR-STRAY - [0:0]\n"
                                ":HEALTH-MONITOR-IN - [0:0]\n:HEALTH-MONITOR-ECHO - [0:0]\n";
constexpr bool bothFamilies[] = { false, true };

std::string program( bool ipv6, const char * suffix = "" ) {
   return fmt::format( "ip{}tables-nft{}", ipv6 ? "6" : "", suffix );
}

PacketFilterCommand ruleCommand( bool ipv6, const char * what, const Words & rule ) {
   PacketFilterCommand command{ { program( ipv6 ), "-w", "-t", "mangle", what } };
   command.arguments.insert( command.arguments.end(), rule.begin(), rule.end() );
   return command;
}

/// A rule as restore() reads it.
std::string line( const char * what, const Words & rule ) {
   std::string text = what;
   for ( const auto & word : rule ) {
      text += word.find( ' ' ) == word.npos ? " " + word : " \"" + word + '"';
   }
   return text + '\n';
}

/// All or nothing; naming a chain empties it, or makes it.
PacketFilterCommand restore( bool ipv6, const std::string & lines ) {
   return { { program( ipv6, "-restore" ), "--noflush" },
         fmt::format( "*mangle\n{}{}COMMIT\n", chains, lines ) };
}

std::string xtablesRules( bool ipv6, const PacketFilterTargets & targets ) {
   std::string text = line( "-A", probeRule );
   for ( const auto & source : ofFamily( targets.probeSources, ipv6 ) ) {
      text += line( "-A",
            { "HEALTH-MONITOR-OUT", "-s", source, "-p", "tcp", "-m", "mark", "--mark", "0x0", "-m", "comment",
                  "--comment", "left over from probes that are gone", "-j", "HEALTH-MONITOR-STRAY" } );
   }
   text += line( "-A", ipv6 ? echoRule6 : echoRule4 );
   for ( const auto & vip : ofFamily( targets.vips, ipv6 ) ) {
      text += line( "-A", strayDrop( vip ) ) + line( "-A", echoToQueue( vip ) );
   }
   return text;
}

} // namespace

PacketFilterCommand nativeTry() {
   return { { "nft", "-c", "-f", "-" },
         fmt::format(
               "table inet {} {{ chain try {{ type filter hook output priority mangle; queue to 0; }}; }}\n",
               table ) };
}

PacketFilterCommands install( PacketFilterForm form, const PacketFilterTargets & targets ) {
   if ( form == PacketFilterForm::native ) {
      return { nft( fmt::format( nativeRules, table ) + nativeElements( targets ) ) };
   }
   auto commands = remove( form );
   for ( const bool ipv6 : bothFamilies ) {
      commands.push_back(
            restore( ipv6, xtablesRules( ipv6, targets ) + line( "-I", outHook ) + line( "-I", inHook ) ) );
   }
   return commands;
}

PacketFilterCommands update( PacketFilterForm form, const PacketFilterTargets & targets ) {
   if ( form == PacketFilterForm::native ) {
      return { nft( nativeElements( targets ) ) };
   }
   PacketFilterCommands commands;
   for ( const bool ipv6 : bothFamilies ) {
      commands.push_back( restore( ipv6, xtablesRules( ipv6, targets ) ) );
   }
   return commands;
}

PacketFilterCommands look( PacketFilterForm form, const PacketFilterTargets & targets ) {
   PacketFilterCommands commands;
   for ( const bool ipv6 : bothFamilies ) {
      const auto vips = ofFamily( targets.vips, ipv6 );
      if ( form == PacketFilterForm::native ) {
         commands.push_back( { { "nft", "list", "chain", "inet", table, ipv6 ? "prerouting" : "output" } } );
         if ( !vips.empty() ) {
            commands.push_back( { { "nft", "get", "element", "inet", table, ipv6 ? "vips6" : "vips4",
                  "{ " + vips.back() + " }" } } );
         }
         continue;
      }
      for ( const auto & rule : { outHook, inHook, probeRule, ipv6 ? echoRule6 : echoRule4 } ) {
         commands.push_back( ruleCommand( ipv6, "-C", rule ) );
      }
      if ( !vips.empty() ) {
         commands.push_back( ruleCommand( ipv6, "-C", strayDrop( vips.back() ) ) );
         commands.push_back( ruleCommand( ipv6, "-C", echoToQueue( vips.back() ) ) );
      }
   }
   return commands;
}

PacketFilterCommands remove( PacketFilterForm form ) {
   if ( form == PacketFilterForm::native ) {
      return { nft( fmt::format( "add table inet {0}\ndelete table inet {0}\n", table ) ) };
   }
   PacketFilterCommands commands;
   for ( const bool ipv6 : bothFamilies ) {
      for ( const auto & hook : { outHook, inHook } ) {
         commands.push_back( ruleCommand( ipv6, "-D", hook ) );
         commands.back().mayFail = true;
      }
      commands.push_back( restore( ipv6, "-X HEALTH-MONITOR-OUT\n-X HEALTH-MONITOR-STRAY\n"
                                         "-X HEALTH-MONITOR-IN\n-X HEALTH-MONITOR-ECHO\n" ) );
   }
   return commands;
}

} // namespace host::packetFilter
