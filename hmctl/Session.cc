#include "hmctl/Session.h"

#include "hmctl/Commands.h"
#include "hmctl/Words.h"

namespace hmctl {

void Session::connect() {
   if ( client_ && client_->alive() ) {
      return;
   }
   lost_ = lost_ || client_;
   client_ = nullptr;
   hostCommandsKnown_ = false;
   client_ = std::make_unique<Client>( socketPath_ );
   if ( std::exchange( lost_, false ) ) {
      reconnected_();
   }
}

nlohmann::json Session::request( const nlohmann::json & request,
      const std::function<void( const nlohmann::json &, const std::string & )> & each,
      const std::string & document ) {
   connect();
   try {
      return client_->request( request, document, each );
   } catch ( const Refused & ) {
      throw;
   } catch ( const NoHost & ) {
      lost_ = true;
      client_ = nullptr;
      throw;
   } catch ( ... ) {
      client_ = nullptr; // by our own doing: nobody need be told of the next one
      throw;
   }
}

const std::vector<Command> & Session::hostCommands() {
   connect();
   if ( hostCommandsKnown_ ) {
      return hostCommands_;
   }
   hostCommands_.clear();
   try {
      request( { { "command", "commands" } }, [this]( const nlohmann::json & line, const std::string & ) {
         for ( const auto & each : line.value( "commands", nlohmann::json::array() ) ) {
            const auto words = split( each.value( "command", "" ) ).stages.front();
            if ( words.empty() ) {
               continue;
            }
            std::vector<std::string> name;
            for ( const auto & word : words ) {
               name.push_back( word.text );
            }
            hostCommands_.push_back(
                  hostCommand( std::move( name ), each.value( "help", "" ), each.value( "arguments", "" ) ) );
         }
      } );
   } catch ( const Refused & ) {
      // It does not know of the request.
   } catch ( const nlohmann::json::exception & ) {
      throw NoHost( "the host at " + socketPath_ + " does not speak the control protocol" );
   }
   hostCommandsKnown_ = true;
   return hostCommands_;
}

} // namespace hmctl
