#pragma once

#include "HealthMonitor/HmCallbackArgs.h"
#include "platform/EventLoop.h"
#include "platform/Reactor.h"

struct nfgenmsg;
struct nfq_data;
struct nfq_handle;
struct nfq_q_handle;

namespace hm {

/// The agent's side of netfilter queue 0: the queue, its socket on the main loop, and the raw sockets that
/// echo replies leave by. Set up when it is made, which needs CAP_NET_ADMIN and CAP_NET_RAW and a queue that
/// nobody else in this network namespace has; without any of these the process stops. Main thread only; not
/// to be released while a packet is handled.
class NfQueueSm : public Reactor {
 public:
   static constexpr std::uint16_t queueNumber = 0;
   static constexpr int uninitSocket = -1;
   /// Bytes of the receive buffer, and packets that may wait for a verdict, asked of the kernel. Its defaults
   /// (some 256 and 1,024 packets) lose packets as soon as a few thousand checks begin together.
   static constexpr int receiveBufferBytes = 16 * 1024 * 1024;
   static constexpr std::uint32_t queueLength = 32768;

   NfQueueSm( Ptr<EventLoop> mainLoop, Ptr<const Bridging::Config> bridgingConfig,
         Ptr<const HmState::ProbeConfig> probeConfig, Ptr<const HmState::ServerStatus> serverStatus,
         Ptr<CommonData> commonData );
   ~NfQueueSm() override;

   int pingSock() const { return pingSock_; }
   int ping6Sock() const { return ping6Sock_; }
   bool initialized() const { return initialized_; }

   void handleInitialized();     // once
   void handleNfQueueReadable(); // takes one message
   /// Lets the queue and the sockets go, for good. Packets that wait in the queue are dropped by the kernel.
   void doCleanup();

 private:
   void createPingSockets();
   static void closeSockAndCheck( int sock );
   void enlargeReceiveBuffer();
   void openQueue();
   void watchQueue();
   void discardReceived() const;
   void dropCutOff( std::size_t received );

   // Constant after construction.
   const Ptr<EventLoop> mainLoop_;
   const Ptr<const Bridging::Config> bridgingConfig_;
   const Ptr<const HmState::ProbeConfig> probeConfig_;
   const Ptr<const HmState::ServerStatus> serverStatus_;
   const Ptr<CommonData> commonData_;

   // From set-up to tear-down.
   nfq_handle * nfHandle_ = nullptr;
   nfq_q_handle * nfQueueHandle_ = nullptr;
   Ptr<CallbackArgs> callbackArgs_;
   Ptr<FdWatcher> nfQueueFd_;
   int pingSock_ = uninitSocket;
   int ping6Sock_ = uninitSocket;
   bool initialized_ = false;
};

/// The library's callback for one packet: gives its verdict. `context` is a CallbackArgs.
int nfCallback( nfq_q_handle * qh, nfgenmsg * message, nfq_data * packetData, void * context );

Ptr<NfQueueSm> nfQueueSmFactory( Ptr<EventLoop> mainLoop, Ptr<const Bridging::Config> bridgingConfig,
      Ptr<const HmState::ProbeConfig> probeConfig, Ptr<const HmState::ServerStatus> serverStatus,
      Ptr<CommonData> commonData );

} // namespace hm
