#pragma once

#include "hmctl/Client.h"
#include "hmctl/Grammar.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace hmctl {

/// Conversation with a host that may go away and come back: each request takes the connection there is, or
/// makes one.
class Session {
 public:
   /// `reconnected` is called when a connection that was lost stands again.
   explicit Session(
         std::string socketPath, std::function<void()> reconnected = [] {} )
         : socketPath_( std::move( socketPath ) ),
           reconnected_( std::move( reconnected ) ) {}

   /// As Client::request().
   nlohmann::json request( const nlohmann::json & request,
         const std::function<void( const nlohmann::json & line, const std::string & text )> & each,
         const std::string & document = {} );

   /// What the host offers beyond the commands of the control protocol. Asked for once a connection; none of
   /// an older host.
   const std::vector<Command> & hostCommands();

 private:
   void connect();

   const std::string socketPath_;
   const std::function<void()> reconnected_;
   std::unique_ptr<Client> client_;
   bool lost_ = false;
   bool hostCommandsKnown_ = false;
   std::vector<Command> hostCommands_;
};

} // namespace hmctl
