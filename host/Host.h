#pragma once

#include "host/ChangeFeed.h"
#include "host/ConfigQueue.h"
#include "host/ControlServer.h"
#include "host/ControlSocket.h"
#include "host/HostStatus.h"
#include "host/KernelInterfaces.h"
#include "host/PacketFilter.h"
#include "host/Schema.h"
#include "host/StateKeeper.h"
#include "platform/Agent.h"

#include <memory>
#include <optional>
#include <string>

struct event;

namespace host {

struct HostOptions {
   std::string agentLibrary{};
   std::string agentName = "HealthMonitor";
   std::string configFile{}; // empty: none
   std::string socketPath{};
   bool packetFilter = false; // keep rules of our own in step
   StoreUrl stateDb{};
   std::string version{};
   bool interfacesFromKernel = false; // rather than from the configuration
};

/// The agent host: the state, the main loop, the control socket and the agent. One a process; everything on
/// the thread that calls run(), but for the checking of configuration.
class Host {
 public:
   explicit Host( HostOptions options );
   ~Host();

   /// Sets everything up in order, the startup configuration before the agent. Returns why not, one line
   /// each.
   [[nodiscard]] std::vector<std::string> start();
   /// The main loop; returns after SIGTERM or SIGINT with everything torn down.
   void run();

 private:
   std::vector<Schema::Closed> closedPaths() const;
   platform::Refusal stateRestore();
   std::vector<std::string> startupConfigure();
   void teardown();
   void hangup();
   void configReload();
   void changeEnded( const ChangeOutcome & outcome );
   void statusRefresh();
   void signalWatch( int signal, void ( *handler )( int, short, void * ) );

   const HostOptions options_;
   const platform::Clock::TimePoint begun_;
   const platform::Ptr<platform::EventLoop> mainLoop_;
   const platform::Ptr<platform::TaskScheduler> scheduler_;
   const platform::Ptr<platform::EntityManager> entityManager_;
   const platform::Ptr<HostStatus> status_;
   ControlSocket socket_;
   std::vector<event *> signals_;
   bool reloading_ = false;   // the startup file waits to be checked, or to be applied
   bool reloadAgain_ = false; // it may have changed since: once more, however many signals came
   std::shared_ptr<const Schema> schema_;
   platform::Ptr<KernelInterfaces> kernelInterfaces_; // empty: they are configured
   platform::Ptr<PacketFilter> packetFilter_;         // outlives the agent: no probe without rules
   platform::Ptr<StateKeeper> stateKeeper_;           // none: the state ends with the process
   platform::Ptr<platform::Agent> agent_;
   platform::Ptr<ConfigQueue> configQueue_;
   platform::Ptr<ChangeFeed> changeFeed_;
   platform::Ptr<ControlServer> controlServer_;
};

enum class FileKind {
   regular, // nothing else: it is read again and again, and never waited for
   any,     // a pipe or a terminal as well, whose writer is waited for
};

/// The bytes of a file, all of them, or why they cannot be had: a writer, too, that is silent for `patience`.
[[nodiscard]] std::optional<std::string> fileRead( const std::string & path, FileKind kind,
      std::size_t maxBytes, std::string & text,
      platform::Clock::Duration patience = std::chrono::seconds( 30 ) );

} // namespace host
