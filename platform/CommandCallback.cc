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
   if ( sm_ ) {
      refusal_ = sm_->refusal();
   }
   if ( interrupted_ || ( sm_ && ( sm_->executionCompleted() || !refusal_.empty() ) ) ) {
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
   while ( !callbacks_.empty() ) {
      callbacks_.back()->parentIs( nullptr );
   }
}

void CommandRequestDirectory::commandCallbackIs( Ptr<AgentCommandCallback> callback ) {
   for ( const auto & present : callbacks_ ) {
      if ( present->name() == callback->name() && present != callback ) {
         present->parentIs( nullptr );
         break;
      }
   }
   if ( callback->parent() != this ) {
      callbacks_.push_back( callback );
      callback->parentIs( this );
   }
}

void CommandRequestDirectory::callbackDel( AgentCommandCallback & callback ) {
   std::erase_if( callbacks_, [&]( const auto & present ) { return present.get() == &callback; } );
}

std::vector<CommandInfo> CommandRequestDirectory::commands() const {
   std::vector<CommandInfo> commands;
   for ( const auto & callback : callbacks_ ) {
      std::ranges::copy( callback->commands(), std::back_inserter( commands ) );
   }
   std::ranges::sort( commands, {}, &CommandInfo::command );
   return commands;
}

Ptr<CommandRun> CommandRequestDirectory::run(
      const std::string & command, unsigned socket, unsigned format ) {
   const auto found = std::ranges::find_if(
         callbacks_, [&]( const auto & callback ) { return answers( *callback, command ); } );
   if ( found == callbacks_.end() ) {
      return nullptr;
   }
   const Ptr<AgentCommandCallback> callback = *found;
   const auto withFormat = dynamicPtrCast<AgentCommandCallbackWithFormat>( callback );
   Ptr<AsyncCommandRequestSm> sm;
   if ( withFormat ) {
      const auto name = fmt::format( "{}-{}", callback->commandType(), ++requests_ );
      sm = withFormat->createAgentAsyncCommandRequestSm(
            new AgentCommandRequest( name, command, socket, format ) );
   }
   const bool atOnce = !sm;
   const Ptr<CommandRun> run = new CommandRun( callback, std::move( sm ), socket );
   if ( atOnce ) {
      run->perform( [&] {
         withFormat ? withFormat->handleCommand( socket, command, format )
                    : callback->handleCommand( socket, command );
      } );
   }
   return run;
}

} // namespace platform
