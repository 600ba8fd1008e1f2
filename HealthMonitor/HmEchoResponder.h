#pragma once

#include "HealthMonitor/HmPacketHeaders.h"

/// Answers echo requests to virtual addresses, which no interface owns. Main thread only; bytes may be
/// anything, a payload that is no pointer stops the process.
namespace hm {

/// Whether the packet is to be answered: 1, or 0. Its ICMP type is not looked at; a rule of the packet filter
/// lets only echo requests come.
int verifyIcmpPingHdr( ConstBytes payload, const CallbackArgs & callbackData );  // IPv4
int verifyIcmp6PingHdr( ConstBytes payload, const CallbackArgs & callbackData ); // IPv6

/// Answers a packet that was verified to be answered. Always 1: the request itself goes no further.
int buildAndSendIcmpPingReply( ConstBytes payload, const CallbackArgs & callbackData );
int buildAndSendIcmp6PingReply( ConstBytes payload, const CallbackArgs & callbackData );

} // namespace hm
