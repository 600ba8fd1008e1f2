#pragma once

#include "host/InterfaceTable.h"
#include "platform/EntityManager.h"
#include "platform/EventLoop.h"
#include "platform/state/Bridging.h"
#include "platform/state/Ip.h"
#include "platform/Task.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct mnl_socket;

namespace host {

/// Keeps the interface status of both families and the bridge's MAC address as the kernel has them: an
/// interface that is up has an IPv4 status with its first primary global address, and an IPv6 status with
/// all addresses that it may use. Needs no rights.
///
/// The kernel is listened to and asked for everything once; when it had more to tell than its buffer holds,
/// everything is asked for again, on a new socket. Both are read, and what changed is published, in small
/// pieces between the main loop's other work. Main thread.
class KernelInterfaces : public platform::RefCounted {
 public:
   /// The paths that are the kernel's then, and closed to configuration.
   static const std::vector<std::string> paths;

   KernelInterfaces( platform::Ptr<platform::EventLoop> mainLoop,
         const platform::Ptr<platform::TaskScheduler> & scheduler,
         const platform::Ptr<platform::EntityManager> & entityManager );
   ~KernelInterfaces() override;

   /// Waits until the first list is published, before the main loop runs. Returns why that did not come
   /// about.
   [[nodiscard]] platform::Refusal start();

 private:
   enum class Phase : std::uint8_t { links, addresses, following };
   struct SocketClose {
      void operator()( mnl_socket * socket ) const;
   };

   [[nodiscard]] platform::Refusal listen();
   [[nodiscard]] platform::Refusal request( RtDump what );
   void again();
   void readable();
   void handle( const RtMessage & message );
   void dumpEnded( const DumpEnd & end );
   void publishSoon();
   void publishSlice();
   void publish( const std::string & name );
   void publishIpv6( const platform::IntfId & intf, const std::string & name );

   const platform::Ptr<platform::EventLoop> mainLoop_;
   const platform::Ptr<Ip::Status> ipStatus_;
   const platform::Ptr<Ip6::Status> ip6Status_;
   const platform::Ptr<Bridging::Config> bridging_;
   platform::Ptr<platform::Task> task_; // publishes
   platform::Ptr<platform::LoopTimer> againTimer_;
   bool againWaits_ = false;

   std::unique_ptr<mnl_socket, SocketClose> socket_;
   platform::Ptr<platform::FdWatcher> watcher_;
   std::uint32_t sequence_ = 0; // of the last request
   Phase phase_ = Phase::links;
   bool complete_ = true; // nothing of this dump is known to be missing
   InterfaceTable table_;
   alignas( 4 ) std::array<std::uint8_t, 32 * 1024> buffer_; // as large as the kernel makes a part of a list
};

} // namespace host
