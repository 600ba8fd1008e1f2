#pragma once

#include "host/RedisLink.h"
#include "host/RedisReader.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace host {

/// State in a Redis server, for other programs to read and, at the configuration paths, to write.
/// docs/state.md has the keys and channels.
///
/// Two connections: one writes, and reads what a reader asks for; the other is told by the server which keys
/// others have written (client side caching's tracking, with the writing connection left out). Both end
/// together and are made anew together, every half second until they stand.
///
/// `hm:heartbeat` names the process that writes and lives for `heartbeatMs` from its last turn of the main
/// loop. It is the lock as well: while it names another process that may be alive nothing is written, nor
/// after the time for which it was last taken; a process that was paused for longer asks first. `hm:turn`
/// grows with each batch, and a server that comes back with an older one has lost something.
class RedisStore final : public StateStore {
 public:
   static constexpr unsigned heartbeatMs = 5000;

   RedisStore( StoreUrl url, const platform::Ptr<platform::EventLoop> & mainLoop,
         std::shared_ptr<const Schema> schema, std::vector<StoredRoot> roots );
   ~RedisStore() override;

   /// Waits for the server for a few seconds, and lets the host go on without it after that.
   [[nodiscard]] platform::Refusal open( StoredState & state, std::vector<std::string> & notes ) override;
   bool holdsState() const override { return holdsState_; }
   bool isShared() const override { return true; }

 private:
   static constexpr const char * turnKey = "hm:turn"; // holds how many transactions have been stored
   enum class Phase {
      away,     // no connections; retry_ makes them
      greeting, // until the server knows what we want and the lock is ours
      notOwner, // another process has the lock; each beat asks again
      ready
   };
   // Between open() and the thread.
   struct Opening {
      std::mutex mutex;
      std::condition_variable changed;
      bool done = false;
      bool abandoned = false; // open() has gone on
      platform::Refusal refusal;
      std::optional<StoredState> state; // empty: the server holds nothing of ours
      std::string trouble = "no answer";
   };

   void doInitSm() override;
   void doDelSm() override;
   void handle( const platform::Ptr<platform::QueueElement> & request ) override;
   bool idle() override;

   // RedisStore.cc: connections, lock, heartbeat, what others write
   void connect();
   void ended( std::string why ); // by value: the links, and what they hold, go
   void greet();
   void claim( const std::string & inPlaceOf );
   void claimed( const redisReply & reply, const std::string & inPlaceOf, platform::Clock::TimePoint until );
   void lockLost( const std::string & owner );
   bool lockHeld();
   void track();
   void turnCame( const redisReply & reply );
   void openingRead();
   bool openingDone( platform::Refusal refusal, std::optional<StoredState> state );
   void ready();
   void beat();
   void invalidated( const redisReply & message );
   void keyInvalidated( std::string_view key );
   void quiet();
   void refuse( const std::string & line );
   void trouble( const std::string & why );

   // RedisStoreWrite.cc: batches and statistics
   void next();
   void wholeRead( const StoreBatch & batch );
   void configurationRead( const StoreRead & read );
   void stepsBegin( std::vector<StoreChange> steps );
   void chunks();
   void chunk( std::size_t begin, std::size_t end );
   void write( const StoreChange & change );
   void drop( const std::string & path );
   void announce( const std::string & path );
   void chunkDone( const redisReply & reply );
   void batchDone();
   void statistics( const StoreStatistics & statistics );
   void statisticsPurge();
   void known( const StoredState & state );

   const StoreUrl url_;
   const std::string name_; // for messages
   const std::shared_ptr<const Schema> schema_;
   const std::vector<StoredRoot> roots_;
   const std::string owner_;
   const std::string changesChannel_, refusedChannel_;
   Opening opening_;
   bool holdsState_ = false; // main thread

   // The store's thread.
   Phase phase_ = Phase::away;
   bool troubled_ = false; // said that the server is out of reach, or refuses to store
   std::unique_ptr<RedisLink> link_, watch_;
   std::unique_ptr<RedisReader> reader_;
   platform::Ptr<platform::LoopTimer> retry_, writeRetry_, quiet_;
   unsigned beatsWithoutAnswer_ = 0;
   platform::Clock::TimePoint lockedUntil_{}; // at least, unless somebody takes the key away
   std::uint64_t turn_ = 0;                   // of the last batch that stands
   bool released_ = false;                    // the lock, at the end

   std::deque<platform::Ptr<platform::QueueElement>> pending_; // batches and reads in their order
   std::vector<StoreChange> steps_;                            // what the front of them comes to
   std::size_t configurationEnd_ = 0;                          // of its steps, which begin with those
   std::size_t nextChange_ = 0;
   std::size_t chunksUnderWay_ = 0;
   bool writing_ = false; // the front of pending_ is under way
   std::string writeFailed_;
   bool wrongType_ = false;
   std::set<std::string> known_; // paths at which we have keys, to delete what is below one
   bool purging_ = false;

   // Since quiet_ was started for the first time.
   std::optional<platform::Clock::TimePoint> quietBegan_;
   bool configurationWritten_ = false, publishedWritten_ = false;
   std::uint64_t unknownKeys_ = 0;
   std::string unknownKey_; // the first
   bool unknownTold_ = false;
   bool readDisturbed_ = false; // others wrote since the reading began
   unsigned readsDisturbed_ = 0;
};

} // namespace host
