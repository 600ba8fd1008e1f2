#pragma once

#include "platform/IpGenAddr.h"

#include <set>
#include <string>
#include <vector>

namespace host {

/// What the packet filter's rules depend on.
struct PacketFilterTargets {
   std::set<platform::IpGenAddr> vips; // of both families, none empty
   /// Of both families, former ones as well: what is left of their probes still meets late answers.
   std::vector<platform::IpGenAddr> probeSources;
   bool operator==( const PacketFilterTargets & ) const = default;
};

/// The two ways of handing packets to a netfilter queue. Many kernels have only the older one.
enum class PacketFilterForm {
   native,  // the statement "queue" of nftables, in a table of our own
   xtables, // the target NFQUEUE of iptables-nft and ip6tables-nft, in chains of our own in their mangle
            // tables
};

/// A program to run, found along PATH.
struct PacketFilterCommand {
   std::vector<std::string> arguments; // the program first
   std::string input{};                // what it reads
   bool mayFail = false;               // it takes away what may not be there
};
using PacketFilterCommands = std::vector<PacketFilterCommand>;

/// The rules, as commands to be run in turn; a command that fails ends the turn unless it may. All rules of
/// a change come into effect together, for each address family in the older form. The caller holds no state
/// here: these are functions of their arguments.
///
///     locally sent TCP with mark 1 to 0x3fff      to queue 0, where the agent wraps it for its server
///     unmarked TCP from a probe source to a VIP   dropped: it belongs to a probe that is gone
///     arriving echo requests to a VIP             to queue 0, where the agent answers
///
/// Fragments, and echo requests behind IPv4 options or IPv6 extension headers, are none of these: the agent
/// reads and writes plain headers. Nothing is ever let through
/// because the queue is full or not served: a probe that is not wrapped would reach the wrong server.
namespace packetFilter {

inline constexpr const char * table = "health-monitor";

/// Succeeds where the kernel has the native form; changes nothing.
PacketFilterCommand nativeTry();
/// Puts the rules up, in place of whatever an earlier run has left behind.
PacketFilterCommands install( PacketFilterForm form, const PacketFilterTargets & targets );
/// Brings rules that stand to the targets.
PacketFilterCommands update( PacketFilterForm form, const PacketFilterTargets & targets );
/// Succeeds while the rules stand, as far as a look at one of each kind tells.
PacketFilterCommands look( PacketFilterForm form, const PacketFilterTargets & targets );
/// Takes the rules away and leaves every other one alone.
PacketFilterCommands remove( PacketFilterForm form );

} // namespace packetFilter

} // namespace host
