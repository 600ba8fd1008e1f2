#pragma once

#include "HealthMonitor/HmCommonData.h"

#include <string>
#include <string_view>
#include <vector>

/// Names that the agent and the engine share, and the URLs behind them.
namespace hm {

/// "http/NHG/ADDRESS" or "tcp/NHG/ADDRESS": the engine's name of one server of a group under one kind of
/// check.
std::string hostNameFromNhgAndServerIp(
      const NexthopGroupName & nhgName, ProbeType probeType, const IpGenAddr & serverIp );
/// "NHG-http" or "NHG-tcp": the engine's name of a host group.
std::string hostGroupNameFromNhgAndProbeType( const NexthopGroupName & nhgName, ProbeType probeType );
/// "(NHG: …, Server: …)", for traces.
std::string ipNhgString( const IpNhgPair & pair );
/// The kind of check of a name that hostNameFromNhgAndServerIp() made.
ProbeType probeTypeFromHostName( const std::string & hostName );

/// "http", "https" or "tcp" as the URL begins; empty for anything else.
std::string getProbeTypeFromUrl( std::string_view url );
/// The URL to probe for a group and a kind of check; empty: none. A group that sets no URL at all inherits
/// the global one for HTTP.
std::string getUrl(
      const HmState::ProbeConfig & probeConfig, const NexthopGroupName & nhgName, ProbeType probeType );

/// Groups a histogram of seconds (element i: above i, up to i + 1; the last: all above) into ranges scaled to
/// a probe interval in seconds, and appends the label and the count of each that is not empty, in ascending
/// order. A range that would reach the end of the histogram is the last one before "(…,+∞]".
void calculateProbeDelayRanges( std::vector<std::string> & labels, std::vector<std::uint64_t> & counts,
      const std::vector<std::uint64_t> & histogram, std::uint32_t interval );

} // namespace hm
