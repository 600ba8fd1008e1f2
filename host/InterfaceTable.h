#pragma once

#include "host/RtNetlink.h"

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace host {

/// The interfaces of this machine and their addresses as the kernel told them last: by listing them (a dump,
/// all links before all addresses) and by events, both on one socket. Holds facts only; any thread, one at a
/// time.
///
/// An event is newer than what a dump says of the same thing, whichever of the two is read first: what
/// arrives while the kernel makes its list may be queued before the part of the list that it outdated. So the
/// list does not change what an event of the same time has said.
class InterfaceTable {
 public:
   enum class Origin : std::uint8_t { dump, event };

   void dumpBegin();
   /// `complete`: what the dump did not name is no more. Otherwise it stays until the next one.
   void dumpEnd( bool complete );
   void apply( const LinkMessage & link, Origin origin );
   void apply( const AddressMessage & address, Origin origin );

   /// The first of the addresses that are global and primary, in the order in which they came; empty: none,
   /// no such interface, or it is down.
   platform::IpGenAddr ipv4( const std::string & name ) const;
   /// All that are usable, link-local ones as well, in their order; none of an interface that is down.
   std::vector<platform::IpGenPrefix> ipv6( const std::string & name ) const;
   /// Of the bridge with the lowest index, or else of the Ethernet interface with the lowest index that is
   /// up; all zero: none.
   platform::EthAddr bridgeMac() const;

   /// One of the names for which ipv4() or ipv6() may have changed, and forgets it; empty: none is left.
   std::string changedTake();
   bool changedAny() const { return !changed_.empty(); }

 private:
   // The peer counts for IPv4 alone, as does the length: an IPv6 address stands once on an interface.
   using AddressKey = std::tuple<platform::IpGenAddr, std::uint8_t, platform::IpGenAddr>;
   struct Address {
      platform::IpGenPrefix prefix{};
      bool usable = false;
      bool secondary = false;
      bool global = false;
      std::uint64_t order = 0; // of arrival
      std::uint64_t seen = 0;  // dump that named it last
   };
   struct Interface {
      LinkMessage link{};
      std::map<AddressKey, Address> addresses{};
      std::uint64_t seen = 0;
   };
   using Interfaces = std::map<int, Interface>;

   static AddressKey keyOf( const AddressMessage & address );
   const Interface * upInterface( const std::string & name ) const;
   Interfaces::iterator forget( Interfaces::iterator at );

   Interfaces interfaces_; // by index
   std::map<std::string, int> indexes_;
   std::set<std::string> changed_;
   std::uint64_t arrivals_ = 0;
   std::uint64_t dump_ = 0; // counts them
   bool dumping_ = false;
   // What events spoke of since the dump began; empty outside of one.
   std::set<int> eventLinks_;
   std::set<std::pair<int, AddressKey>> eventAddresses_;
};

} // namespace host
