#pragma once

#include "host/ChangeFeed.h"
#include "host/ConfigQueue.h"
#include "host/Schema.h"
#include "platform/CommandCallback.h"
#include "platform/EventLoop.h"
#include "platform/Task.h"

#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace host {

class ControlClient;

/// What the requests of the control socket reach. All of it outlives the server.
struct ControlServices {
   platform::Ptr<platform::EventLoop> mainLoop;
   platform::Ptr<platform::TaskScheduler> scheduler;
   const platform::Clock * clock = &platform::Clock::steady();
   platform::Ptr<platform::EntityManager> entityManager;
   std::shared_ptr<const Schema> schema;
   platform::Ptr<ConfigQueue> configQueue;
   platform::Ptr<ChangeFeed> changeFeed;
   platform::Ptr<platform::CommandRequestDirectory> commandDirectory;      // of the agent
   std::function<void()> statusRefresh = [] {};                            // before state is read
   std::function<std::string()> cleanState = [] { return std::string{}; }; // of the agent; empty: clean
   std::function<void( std::size_t )> clientCountChanged = []( std::size_t ) {};
   std::function<void( const ChangeOutcome & )> changeEnded = []( const ChangeOutcome & ) {};
   /// Runs what it is given once the state as it is now outlives the process, or cannot in time.
   std::function<void( std::function<void()> )> whenStored = []( const std::function<void()> & done ) {
      done();
   };
};

/// Serves the control socket: any number of clients come and go, a bounded number stays, and each of them
/// takes turns with the others and with everything else on the main loop, whatever it sends or fails to read.
/// The protocol is described in docs/control-protocol.md.
///
/// Main thread only.
class ControlServer : public platform::RefCounted {
 public:
   static constexpr std::size_t maxClients = 64;
   /// A client that has kept the host waiting for so long, in the middle of a request, counts as idle.
   static constexpr platform::Clock::Duration patience = std::chrono::seconds( 30 );
   /// Of documents that are being received or wait to be checked, of all clients together.
   static constexpr std::size_t maxPendingDocumentBytes = 64u << 20;

   /// Takes over `listenFd`, a listening stream socket.
   ControlServer( ControlServices services, int listenFd );
   ~ControlServer() override;

   const ControlServices & services() const { return services_; }
   std::size_t clientCount() const { return clients_.size(); }

 private:
   friend class ControlClient;

   void listen();
   void accept();
   void turnIs( const platform::Ptr<ControlClient> & client ); // has something to do
   void turns();
   void clientDel( ControlClient & client );
   /// Makes room for one client more at the expense of an idle one, the longest silent first. False: none is
   /// idle.
   [[nodiscard]] bool roomMake();
   platform::Clock::TimePoint now() const { return services_.clock->now(); }
   /// Makes room for `bytes` of a document of `client`, at the expense of the slowest sender if need be.
   bool documentRoomMake( const ControlClient & client, std::size_t bytes );

   const ControlServices services_;
   const int listenFd_;
   platform::Ptr<platform::FdWatcher> listener_; // none while there is no descriptor for a client
   const platform::Ptr<platform::LoopTimer> acceptRetry_;
   platform::Ptr<platform::Task> turnTask_;
   std::vector<platform::Ptr<ControlClient>> clients_;
   std::deque<platform::Ptr<ControlClient>> turns_; // in the order of their turns
   const std::shared_ptr<std::size_t> pendingDocumentBytes_ = std::make_shared<std::size_t>( 0 );
};

} // namespace host
