#pragma once

#include "host/StoredState.h"
#include "platform/EventLoopThread.h"
#include "platform/EventMpmcQueue.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace host {

/// One step that brings a store to the present state.
struct StoreChange {
   enum class Kind {
      fields, // of the entity at `path`; those that are not named stay
      insert, // of `key` into the set or collection at `path`
      remove  // of `key`, and of everything at and below its path
   };
   Kind kind;
   std::string path;
   std::string key{};
   StoredFields fields{};
};

/// What is written at a time: all of it or, when the process dies, nothing. In the order in which it is to be
/// done. Immutable once pushed.
class StoreBatch : public platform::QueueElement {
 public:
   std::vector<StoreChange> changes{};
   /// Roots of which the batch holds everything: what the store has beside it goes.
   std::vector<std::string> whole{};
};

/// Asks a store that others write, too, for what it holds at the configuration paths.
class StoreRead : public platform::QueueElement {
 public:
   explicit StoreRead( std::uint64_t stamp ) : stamp( stamp ) {}
   const std::uint64_t stamp; // given back with the answer
};

/// Statistics of the agent that others may read in a store that they share: `fields` of `path`, and `remove`
/// of the key `path`. They are lost when the store is out of reach. At most one is under way.
class StoreStatistics : public platform::QueueElement {
 public:
   std::vector<StoreChange> changes{};
};

/// Configuration that others wrote there was refused: the writers are to know. It will be replaced.
class StoreRefusal : public platform::QueueElement {
 public:
   explicit StoreRefusal( std::vector<std::string> errors ) : errors( std::move( errors ) ) {}
   const std::vector<std::string> errors;
};

/// The main loop runs. A store that tells others of it needs one a second.
class StoreBeat : public platform::QueueElement {};

/// What a store has to say, in the order in which it came about.
class StoreEvent : public platform::QueueElement {
 public:
   enum class Kind {
      written, // the batch that was pushed stands
      empty,   // the store has lost what it held (its file was set aside, its server begins anew): all of it
               // is to be written
      back,    // the store is in reach again: what is published is to be compared, the configuration read
      foreign, // others may have written at the configuration paths: read them
      content, // answer to a StoreRead
      counted, // the statistics that were pushed are written, or cannot be at the moment
      message  // for whoever reads the journal
   };
   explicit StoreEvent( Kind kind ) : kind( kind ) {}
   const Kind kind;
   std::uint64_t stamp = 0;               // content
   platform::Ptr<CheckedChange> change{}; // content
   bool untidy = false;                   // content: the store holds more than that, or another form
   std::string text{};                    // message
   std::uint64_t refusals = 0;            // message: things in the store that it tells of
};

/// Where the state outlives the process. A store holds text by paths (StoredState.h) and knows nothing of
/// what it means; StateKeeper brings it there, and back at the start.
///
/// open() is called once, on the main thread. Everything else happens on a thread of the store's own, which
/// the two queues lead to and from, so that no disk and no network ever holds the main loop. At most one
/// batch is under way: the next one is pushed when StoreEvent::written has come back, however long that
/// takes, and what changes meanwhile waits as a list of places, not of values.
class StateStore : public platform::EventLoopThread {
 public:
   ~StateStore() override;

   /// Takes the store for this process, starts the thread and gives what the store holds. Refuses a store
   /// that another host writes. `notes`: what somebody should know although it was no reason to refuse.
   [[nodiscard]] virtual platform::Refusal open( StoredState & state, std::vector<std::string> & notes ) = 0;
   /// Whether open() has read what stands there. Otherwise an event will tell what is to be written.
   virtual bool holdsState() const = 0;
   /// Whether others may write the configuration there, and are told that this process lives.
   virtual bool isShared() const { return false; }

   void push( platform::Ptr<platform::QueueElement> request ); // main thread
   platform::Ptr<StoreEvent> pop();                            // main thread
   const platform::Ptr<platform::FifoEvent> & events() const { return told_.consumerEvent(); }
   /// Does what was pushed before, as far as it can be done at once, and ends the thread.
   void close(); // main thread

 protected:
   StateStore( std::string threadName, const platform::Ptr<platform::EventLoop> & mainLoop );

   virtual void handle( const platform::Ptr<platform::QueueElement> & request ) = 0; // store's thread
   /// Asked once handle() has had everything: false while something is left that will end soon.
   virtual bool idle() = 0; // store's thread
   void tell( const platform::Ptr<StoreEvent> & event );
   void tell( StoreEvent::Kind kind );
   void say( const std::string & line, std::uint64_t refusals = 0 ); // a message
   void doInitSm() override;
   void doDelSm() override;

 private:
   class Closing;
   void take();

   const platform::Ptr<platform::FifoEvent> askedEvent_;
   platform::EventMpmcQueue asked_; // main thread to this one
   platform::EventMpmcQueue told_;  // back
   platform::Ptr<platform::LoopTimer> closing_;
   unsigned closingTurns_ = 0;
};

/// What --state-db names.
struct StoreUrl {
   enum class Kind {
      memory, // "memory:": nothing outlives the process
      sqlite, // "sqlite:PATH"
      redis   // "redis://HOST[:PORT][/DB]" or, over a Unix socket, "redis+unix:PATH[?db=DB]"
   };
   Kind kind = Kind::memory;
   std::string path{}; // of the file or the socket
   std::string host{}; // Redis; an IPv6 address without brackets; empty: the socket
   std::uint16_t port = 6379;
   unsigned database = 0;
   std::string password{}; // never part of the text

   [[nodiscard]] static platform::Refusal fromText( const std::string & text, StoreUrl & url );
};

/// Makes the store of `url`; empty for memory.
[[nodiscard]] platform::Ptr<StateStore> stateStoreMake( const StoreUrl & url,
      const platform::Ptr<platform::EventLoop> & mainLoop, const std::shared_ptr<const Schema> & schema,
      const std::vector<StoredRoot> & roots );

} // namespace host
