#include "platform/CommandCallback.h"

#include <algorithm>

#include <fmt/format.h>

namespace platform {

namespace {

bool matches( const CommandInfo & info, const std::string & command ) {
   return command == info.command || ( !info.arguments.empty() && command.starts_with( info.command + " " ) );
}

bool answers( const AgentCommandCallback & callback, const std::string & command ) {
   return std::ranges::any_of(
         callback.commands(), [&]( const auto & info ) { return matches( info, command ); } );
}

} // namespace

void AgentCommandCallback::parentIs( CommandRequestDirectory * parent ) {
   if ( auto * const former = std::exchange( parent_, parent ); former && former != parent ) {
      former->callbackDel( *this ); // may release this callback: nothing may follow
   }
}

void AgentCommandCallbackWithFormat::handleCommand( unsigned socket, const std::string & command ) {
   handleCommand( socket, command, static_cast<unsigned>( CliFormat::text ) );
}

AsyncCommandRequestSm::AsyncCommandRequestSm(
      std::string name, Ptr<const AgentCommandRequest> request, Seconds maxRunTime, const Clock & clock )
      : name_( std::move( name ) ),
        request_( std::move( request ) ),
        maxRunTime_( maxRunTime ),
        clock_( clock ),
        socket_( CliSocket::find( request_->socket() ) ) {}

void AsyncCommandRequestSm::initializeSm() {
   deferred_ = false;
   executionCompleted_ = false;
}

void AsyncCommandRequestSm::runSlice() {
   sliceStart_ = clock_.now();
   sliceAsked_ = false;
   handleAsyncCommand( request_->socket(), request_->format() );
   sliceStart_.reset();
}

bool AsyncCommandRequestSm::shouldYield() {
   if ( !sliceStart_ ) {
      sliceStart_ = clock_.now();
   }
   if ( !sliceAsked_ ) {
      sliceAsked_ = true;
      return false;
   }
   const Seconds budget = TaskScheduler::defaultSliceBudget;
   const bool spent = socket_->pending() > pendingHighWater ||
                      clock_.now() - *sliceStart_ >= std::min( maxRunTime_, budget );
   if ( spent ) {
      sliceAsked_ = false;
      sliceStart_.reset();
   }
   return spent;
}

CommandRun::CommandRun( Ptr<AgentCommandCallback> callback, Ptr<AsyncCommandRequestSm> sm, unsigned socket )
      : callback_( std::move( callback ) ),
        sm_( std::move( sm ) ),
        socket_( CliSocket::find( socket ) ) {}

CommandRun::~CommandRun() {
   socket_->forget();
}

bool CommandRun::finished() const {
   return interrupted_ || ( !sm_ && pending() == 0 );
}

void CommandRun::step() {
   if ( finished() ) {
      return;
   }
   if ( !socket_->drain() ) {
      interrupted_ = true;
   } else if ( sm_ && !callback_->parent() ) {
      interrupted_ = true; // what the request prints has gone with the agent
   } else if ( sm_ && pending() == 0 ) {
      perform( [this] { sm_->runSlice(); } );
   }
   if ( interrupted_ || ( sm_ && sm_->executionCompleted() ) ) {
      sm_ = nullptr;
   }
}

void CommandRun::perform( const std::function<void()> & work ) {
   try {
      work();
   } catch ( const CliInterrupt & ) {
      interrupted_ = true;
   }
   interrupted_ = interrupted_ || socket_->gone(); // the work may have caught it
}

CommandRequestDirectory::~CommandRequestDirectory() {
   commandCallbackIs( nullptr );
   commandCallbackWithFormatIs( nullptr );
}

template<class Callback>
void CommandRequestDirectory::replace( Ptr<Callback> & place, Ptr<Callback> callback ) {
   if ( place == callback ) {
      return;
   }
   if ( const auto former = place ) {
      former->parentIs( nullptr );
   }
   place = std::move( callback );
   if ( place ) {
      place->parentIs( this );
   }
}

void CommandRequestDirectory::commandCallbackIs( Ptr<AgentCommandCallback> callback ) {
   replace( callback_, std::move( callback ) );
}

void CommandRequestDirectory::commandCallbackWithFormatIs( Ptr<AgentCommandCallbackWithFormat> callback ) {
   replace( callbackWithFormat_, std::move( callback ) );
}

void CommandRequestDirectory::callbackDel( AgentCommandCallback & callback ) {
   if ( callback_.get() == &callback ) {
      callback_ = nullptr;
   } else if ( callbackWithFormat_.get() == &callback ) {
      callbackWithFormat_ = nullptr;
   }
}

std::vector<CommandInfo> CommandRequestDirectory::commands() const {
   std::vector<CommandInfo> commands;
   if ( callbackWithFormat_ ) {
      commands = callbackWithFormat_->commands();
   }
   if ( callback_ ) {
      std::ranges::copy( callback_->commands(), std::back_inserter( commands ) );
   }
   return commands;
}

Ptr<CommandRun> CommandRequestDirectory::run(
      const std::string & command, unsigned socket, unsigned format ) {
   if ( callbackWithFormat_ && answers( *callbackWithFormat_, command ) ) {
      const auto callback = callbackWithFormat_;
      const auto name = fmt::format( "{}-{}", callback->commandType(), ++requests_ );
      auto sm = callback->createAgentAsyncCommandRequestSm(
            new AgentCommandRequest( name, command, socket, format ) );
      const bool atOnce = !sm;
      const Ptr<CommandRun> run = new CommandRun( callback, std::move( sm ), socket );
      if ( atOnce ) {
         run->perform( [&] { callback->handleCommand( socket, command, format ); } );
      }
      return run;
   }
   if ( callback_ && answers( *callback_, command ) ) {
      const auto callback = callback_;
      const Ptr<CommandRun> run = new CommandRun( callback, nullptr, socket );
      run->perform( [&] { callback->handleCommand( socket, command ); } );
      return run;
   }
   return nullptr;
}

} // namespace platform
