#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "platform/state/Bridging.h"

#include <functional>
#include <span>
#include <sys/types.h>

namespace hm {

/// Sends a whole IP packet of `to`'s family, header included, on raw socket `sock`. Returns what sendto(2)
/// returns.
ssize_t sendOnRawSocket( int sock, std::span<const std::uint8_t> packet, const IpGenAddr & to );

/// All that the packet path knows: the queue's reactor makes it and gives it to the packet callback. Main
/// thread only.
class CallbackArgs : public RefCounted {
 public:
   using Send = std::function<decltype( sendOnRawSocket )>;

   CallbackArgs( int pingSock, Ptr<const Bridging::Config> bridgingConfig,
         Ptr<const HmState::ProbeConfig> probeConfig, Ptr<const HmState::ServerStatus> serverStatus,
         Ptr<CommonData> commonData, int ping6Sock, Send send = sendOnRawSocket )
         : pingSock_( pingSock ),
           bridgingConfig_( std::move( bridgingConfig ) ),
           probeConfig_( std::move( probeConfig ) ),
           serverStatus_( std::move( serverStatus ) ),
           commonData_( std::move( commonData ) ),
           ping6Sock_( ping6Sock ),
           send_( std::move( send ) ) {}

   int pingSock() const { return pingSock_; } // raw, IPv4; belongs to the queue's reactor
   const Ptr<const Bridging::Config> & bridgingConfig() const { return bridgingConfig_; }
   const Ptr<const HmState::ProbeConfig> & probeConfig() const { return probeConfig_; }
   const Ptr<const HmState::ServerStatus> & serverStatus() const { return serverStatus_; }
   const Ptr<CommonData> & commonData() const { return commonData_; }
   int ping6Sock() const { return ping6Sock_; } // raw, IPv6; as above
   const Send & send() const { return send_; }

 private:
   const int pingSock_;
   const Ptr<const Bridging::Config> bridgingConfig_;
   const Ptr<const HmState::ProbeConfig> probeConfig_;
   const Ptr<const HmState::ServerStatus> serverStatus_;
   const Ptr<CommonData> commonData_;
   const int ping6Sock_;
   const Send send_;
};

} // namespace hm
