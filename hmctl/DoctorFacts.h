#pragma once

#include "hmctl/DoctorRules.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace hmctl {

/// A group that is probed through a virtual address.
struct VipGroup {
   std::string name{};
   Address vip{};
   std::vector<Address> servers{};
   double intervalSeconds = 5;
   unsigned timeoutSeconds = 10;
   unsigned checksAServer = 1; // of different kinds
};

struct LocalLink {
   unsigned mtu = 0; // bytes
   int rpFilter = 0; // of IPv4: 0 off, 1 strict, 2 loose
};

struct Route {
   std::string device{};
   unsigned mtu = 0; // of its own; 0: the device's
   std::string gateway{};
};

/// A line of /proc/net/netfilter/nfnetlink_queue. What was lost counts from when the program bound the queue.
struct KernelQueue {
   unsigned long long lostFull = 0;   // the kernel held as many packets as it may
   unsigned long long lostUnread = 0; // the program's receive buffer was full
};

struct Finding {
   std::string subject{};
   std::string problem{};
   std::string advice{};
   auto operator<=>( const Finding & ) const = default;
};

/// What doctor knows of the host's configuration and of the network namespace that it runs in. What could not
/// be found out is empty, and a finding of its own.
struct DoctorFacts {
   std::vector<VipGroup> groups{};
   std::set<Address> silentVips{}; // get no echo reply
   std::string tunnelIntf{};
   Address sourceIpv4{};
   Address sourceIpv6{};
   std::optional<FilterRules> rules = std::nullopt;
   std::optional<KernelQueue> queue = std::nullopt; // number 0; empty: nobody has bound it
   std::optional<std::map<std::string, LocalLink>> links = std::nullopt;
   std::map<Address, std::string> localAddresses{}; // with their interface
   int rpFilterAll = 0;
   std::optional<std::map<Address, Route>> routes = std::nullopt; // of servers and virtual addresses
   unsigned sourcePorts = 0;                                      // 0: not known
   std::vector<Finding> unknown{};
};

/// What commonly breaks the way of a probe, or of an echo request, in the order of that way.
std::vector<Finding> doctorFindings( const DoctorFacts & facts );

} // namespace hmctl
