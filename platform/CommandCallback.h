#pragma once

#include "platform/CliPrinter.h"
#include "platform/Clock.h"
#include "platform/Task.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// Commands that an agent answers. A host runs one like this:
///
///     const auto run = agent->commandRequestDirectory()->run( "show health-monitor counters", fd, format );
///     if ( !run ) …                 // no such command; commandRequestDirectory()->commands() says which are
///     while ( !run->finished() ) {
///        …                          // the main loop has its turn; while run->pending(), until fd is
///        writable run->step();
///     }
///
/// and drops the run when its client goes away, before it closes the descriptor. Main thread only.
namespace platform {

class CommandRequestDirectory;

/// A command as a person reads of it.
struct CommandInfo {
   std::string command;   // "show health-monitor probe delay"
   std::string arguments; // what may follow it, after a blank: "[interval SECONDS]"; empty: nothing may
   std::string help;      // one line
};

/// Who answers commands that print nothing. Owned by the directory that it is registered with and by runs of
/// its commands.
class AgentCommandCallback : public RefCounted {
 public:
   AgentCommandCallback( std::string name, std::string commandType )
         : name_( std::move( name ) ),
           commandType_( std::move( commandType ) ) {}
   ~AgentCommandCallback() override = default;

   const std::string & name() const { return name_; }
   const std::string & commandType() const { return commandType_; }

   /// The commands that are answered.
   virtual std::vector<CommandInfo> commands() const = 0;
   /// Does `command`; nothing when it is another's. `socket` is a descriptor as CliSocket takes it.
   virtual void handleCommand( unsigned socket, const std::string & command ) = 0;

   /// The directory in which it is registered, which sets it. Set to none by anybody, it answers no command
   /// any more, and runs of its commands end at their next step.
   CommandRequestDirectory * parent() const { return parent_; }
   void parentIs( CommandRequestDirectory * parent );

 private:
   friend class CommandRequestDirectory;
   const std::string name_;
   const std::string commandType_;
   CommandRequestDirectory * parent_ = nullptr;
};

/// One command of one client.
class AgentCommandRequest : public RefCounted {
 public:
   AgentCommandRequest( std::string name, std::string command, unsigned socket, unsigned format )
         : name_( std::move( name ) ),
           command_( std::move( command ) ),
           socket_( socket ),
           format_( format ) {}
   const std::string & name() const { return name_; } // of this process only: no other request has it
   const std::string & command() const { return command_; }
   unsigned socket() const { return socket_; }
   unsigned format() const { return format_; }

 private:
   const std::string name_;
   const std::string command_;
   const unsigned socket_;
   const unsigned format_;
};

/// A command whose answer is long: printed in slices, each a call of handleAsyncCommand(), until
/// executionCompleted(). Between two slices everything else on the main loop has its turn, and the next one
/// comes when the socket has taken all that was printed, so that little waits however slow the reader is.
class AsyncCommandRequestSm : public RefCounted {
 public:
   /// Bytes that wait for the reader at which a slice ends.
   static constexpr std::size_t pendingHighWater = 64 * 1024;

   /// `clock` outlives the request.
   AsyncCommandRequestSm(
         std::string name, Ptr<const AgentCommandRequest> request, Seconds maxRunTime, const Clock & clock );

   const std::string & name() const { return name_; }
   const Ptr<const AgentCommandRequest> & request() const { return request_; }
   static constexpr Seconds defaultMaxRunTime{ 0.1 };
   Seconds maxRunTime() const { return maxRunTime_; }
   const Clock & clock() const { return clock_; }

   /// Whether the slice has used up its time, which is the smaller of maxRunTime() and the budget of a slice
   /// of a task, or printed faster than the reader takes it. The first question of a slice is always answered
   /// no, so that every slice moves on by one item.
   bool shouldYield();
   /// The last call did nothing, as the request is not ready yet.
   bool deferred() const { return deferred_; }
   void deferredIs( bool deferred ) { deferred_ = deferred; }
   /// Why there is no answer. Said before anything is printed, and nothing is then; empty: there is one.
   const std::string & refusal() const { return refusal_; }
   void refusedIs( std::string why ) { refusal_ = std::move( why ); }
   bool executionCompleted() const { return executionCompleted_; }
   void executionCompletedIs( bool completed ) { executionCompleted_ = completed; }

   /// One slice. May throw CliInterrupt, and is not called again then.
   virtual void handleAsyncCommand( unsigned socket, unsigned format ) = 0;

   /// Calls handleAsyncCommand() with a full budget. For whoever runs the request.
   void runSlice();

 protected:
   /// Called once by the derived class when it is complete.
   void initializeSm();

 private:
   const std::string name_;
   const Ptr<const AgentCommandRequest> request_;
   const Seconds maxRunTime_;
   const Clock & clock_;
   const Ptr<CliSocket> socket_;
   std::optional<Clock::TimePoint> sliceStart_; // none between slices
   bool sliceAsked_ = false;
   std::string refusal_;
   bool deferred_ = false;
   bool executionCompleted_ = false;
};

/// Who answers commands that print, as text or JSON. A command is done at once by handleCommand(), whose
/// output is small and bounded, or in slices by a request.
class AgentCommandCallbackWithFormat : public AgentCommandCallback {
 public:
   using AgentCommandCallback::AgentCommandCallback;

   using AgentCommandCallback::handleCommand;
   void handleCommand( unsigned socket, const std::string & command ) override; // as text
   virtual void handleCommand( unsigned socket, const std::string & command, unsigned format ) = 0;
   /// Empty: the command is not one that is answered in slices.
   virtual Ptr<AsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
         const Ptr<const AgentCommandRequest> & request ) = 0;
};

/// One command under way. Dropped before it has finished, it ends there: nothing is printed any more, and
/// what the socket has not taken is forgotten.
class CommandRun : public RefCounted {
 public:
   CommandRun( Ptr<AgentCommandCallback> callback, Ptr<AsyncCommandRequestSm> sm, unsigned socket );
   ~CommandRun() override;

   /// Offers the socket what waits, and when nothing does, prints one slice: a few milliseconds at most.
   void step();
   /// The command is done and the socket has taken all output, or there is nobody to answer any more.
   bool finished() const;
   /// Finished before its end: the reader has gone, or the agent has.
   bool interrupted() const { return interrupted_; }
   /// Finished with nothing printed, for this reason.
   const std::string & refusal() const { return refusal_; }
   /// Bytes that wait for the reader. step() does nothing while the socket takes none of them.
   std::size_t pending() const { return socket_->pending(); }

 private:
   friend class CommandRequestDirectory;
   void perform( const std::function<void()> & work );

   const Ptr<AgentCommandCallback> callback_;
   Ptr<AsyncCommandRequestSm> sm_; // empty: done
   const Ptr<CliSocket> socket_;
   bool interrupted_ = false;
   std::string refusal_;
};

/// The commands of an agent, and where a host runs them.
class CommandRequestDirectory : public RefCounted {
 public:
   ~CommandRequestDirectory() override;

   /// Replaces the one of the same name.
   void commandCallbackIs( Ptr<AgentCommandCallback> callback );

   std::vector<CommandInfo> commands() const; // sorted

   /// Begins `command`, with its arguments, for the reader of `socket` (see CliSocket). `format`: a
   /// CliFormat. Commands of few words are done at once; the run of a long one waits for its first step.
   /// Empty: there is no such command.
   Ptr<CommandRun> run( const std::string & command, unsigned socket, unsigned format );

 private:
   friend class AgentCommandCallback;
   void callbackDel( AgentCommandCallback & callback );

   std::vector<Ptr<AgentCommandCallback>> callbacks_;
   std::uint64_t requests_ = 0; // so far
};

} // namespace platform
