#pragma once

#include "netchasm/HMIPAddress.h"
#include "netchasm/Schedule.h"
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace netchasm {

class TlsContext;

enum class Protocol : std::uint8_t { http, https, tcp };
/// Which of a host's addresses may be probed.
enum class DualStack : std::uint8_t { both, ipv4Only, ipv6Only };

/// How the hosts of one group are checked. Immutable once loaded; shared by the engine, the workers and
/// running checks.
struct HostGroup {
   std::string name;
   Protocol protocol = Protocol::tcp;
   bool needsMark = false; ///< "-mark": no packet before the host's mark is set
   bool verifyPeer = true; ///< false: "-no-peer-check"
   DualStack dualStack = DualStack::both;
   std::uint16_t port = 0;    ///< 0: the configured port is none, and every check fails
   std::uint16_t retries = 0; ///< attempts after a failed one
   Duration interval{};
   Duration timeout{};                      ///< of the whole attempt
   Duration connectTimeout{};               ///< of the TCP handshake in it
   Duration retryDelay{};                   ///< from the end of a failed attempt to the next
   HMIPAddress source;                      ///< empty: the kernel chooses
   std::string caFile;                      ///< empty: the system's trusted certificates
   std::string certFile;                    ///< client certificate and key in one PEM; empty: none
   std::string requestHead;                 ///< HTTP: the request up to the Host header's value
   std::string requestTail;                 ///< and from there on
   std::shared_ptr< const TlsContext > tls; ///< HTTPS only

   bool operator==( const HostGroup & ) const = default;

   /// Whether an address of this family is one to probe.
   bool takes( HMIPAddress::Family family ) const;
   /// The Host header's value for this address: an IPv6 address in brackets, a port only when it is not the
   /// protocol's own (RFC 9110, section 7.2).
   std::string authority( const HMIPAddress & address ) const;
};

struct Config {
   struct Group {
      HostGroup settings; ///< without TLS context
      std::vector< std::string > hosts;
   };
   unsigned threads = 65535; ///< at most; unset or 0: no bound but the machine's cores
   std::vector< Group > groups;
   std::vector< std::string > notices; ///< what was set aside or altered, ready for the log
};

inline constexpr std::chrono::milliseconds defaultTimeout{ 10'000 };
inline constexpr std::chrono::milliseconds defaultConnectTimeout{ 3'000 };
inline constexpr std::chrono::milliseconds minInterval{ 10 };
inline constexpr std::size_t maxHosts = 1U << 18;
inline constexpr std::size_t maxConfigBytes = 16U << 20;
/// Values, lists and maps of one file: a tree of them costs some 500 bytes each, whatever the file's size. As
/// many groups as there are firewall marks, each with every key and a host of its own, stay within.
inline constexpr std::size_t maxConfigNodes = 1U << 20;

/// Reads the master file and the host file that it names. Files are judged whole: nothing, with the file,
/// line and reason in `error`, when anything in them cannot be used. Keys that are not known are noticed and
/// left alone.
[[nodiscard]] std::optional< Config > loadConfig( const std::string & masterPath, std::string & error );

} // namespace netchasm
