#pragma once

#include "platform/EthAddr.h"
#include "platform/IpGenAddr.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

/// Messages of the kernel's routing socket (RFC 3549, sections 3.1.2 and 3.1.3), as far as interfaces and
/// their addresses go. Pure functions over bytes; numbers are in host byte order but for the bytes of
/// addresses.

namespace host {

struct LinkMessage {
   int index = 0; // the interface's number; its name may change
   bool removed = false;
   std::string name{};      // not empty
   bool up = false;         // switched on by its administrator; says nothing of the cable
   bool ethernet = false;   // its frames have Ethernet addresses
   bool bridge = false;     // joins others to one Ethernet
   platform::EthAddr mac{}; // all zero: none of six bytes
};

struct AddressMessage {
   int index = 0; // of the interface
   bool removed = false;
   platform::IpGenPrefix prefix{}; // the interface's own address
   platform::IpGenAddr peer{};     // IPv4: the other end, or the address itself; one address may have several
   bool usable = false;            // IPv6: known to be nobody else's
   bool secondary = false;         // IPv4: another address of the same network came first
   bool global = false;            // not of this link or this host alone
};

/// The end of what a request asked for.
struct DumpEnd {
   int error = 0; // errno; 0: all of it came
};

struct RtMessage {
   std::variant<LinkMessage, AddressMessage, DumpEnd> content{};
   std::uint32_t port = 0;     // of the socket whose request it answers, or whose request caused it
   std::uint32_t sequence = 0; // of that request
   bool interrupted = false;   // what was asked for changed while it was told: some of it may be missing
};

struct RtMessages {
   std::vector<RtMessage> messages{};
   std::size_t malformed = 0; // left out; messages of other kinds are not counted
};

/// Reads one datagram, which must lie at an address that is a multiple of four.
RtMessages rtMessages( std::span<const std::uint8_t> datagram );

/// A request for all links, or for all addresses of both families.
enum class RtDump : std::uint8_t { links, addresses };
std::vector<std::uint8_t> rtDumpRequest( RtDump what, std::uint32_t sequence );

} // namespace host
