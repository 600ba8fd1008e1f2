#pragma once

#include "host/ConfigQueue.h"
#include "host/StateStore.h"
#include "host/StatisticsKeeper.h"
#include "platform/EntityManager.h"
#include "platform/Task.h"

#include <functional>
#include <map>
#include <string>

namespace host {

/// Keeps a store in step with the state, and the state with the store.
///
/// What changes in a turn of the main loop is noted by its place alone; a task turns the places into one
/// batch of present values, in slices, and hands it to the store's thread. While a batch is under way places
/// gather: a store that is slow, full or out of reach costs as much memory as the state has places, and gets
/// each value once when it is back.
///
/// Configuration that others write into a store is read whole, checked and applied like a document, unless
/// the configuration has changed here since the reading began: then it is read again. What is refused is
/// replaced in the store by what is in force.
///
/// Main thread only.
class StateKeeper final : public platform::RefCounted, private platform::TreeObserver {
 public:
   static constexpr std::chrono::seconds patience{ 2 };

   struct Services {
      platform::Ptr<platform::EventLoop> mainLoop;
      platform::Ptr<platform::TaskScheduler> scheduler;
      platform::Ptr<platform::EntityManager> entityManager;
      /// For whoever reads the journal.
      std::function<void( const std::string & )> report;
      /// Configuration came from the store, or was refused.
      std::function<void( const ChangeOutcome & )> changeEnded;
      /// So many things in the store were refused.
      std::function<void( std::uint64_t )> refusals;
   };

   StateKeeper( Services services, std::vector<StoredRoot> roots, platform::Ptr<StateStore> store );
   ~StateKeeper() override;

   /// Opens the store and brings the state to what it holds. Returns why the host must not start.
   [[nodiscard]] platform::Refusal restore();
   /// From here on what others write into the store is taken up, and statistics are written where they can be
   /// read. `configQueue` outlives finish().
   void agentStarted(
         const platform::Ptr<ConfigQueue> & configQueue, std::vector<platform::Statistics> statistics );
   /// Runs `done` once the store has what has changed so far; at once when nothing has, or when the store has
   /// not taken anything for `patience`: what is changed must not wait for a store that is away. Never after
   /// finish().
   void whenStored( std::function<void()> done );
   /// Hands over everything that the store does not have yet, and ends the store.
   void finish();

 private:
   // What of one path is to be written: the values of an entity, or the keys of a set or a collection.
   struct Place {
      platform::Ptr<const platform::Entity> entity{};
      const platform::AttributeInfo * keyed = nullptr; // null: values
      std::vector<const platform::AttributeInfo *> values{};
      std::map<std::string, bool> keys{}; // true: has been away, so that nothing of the old entry may stay
      bool all = false;                   // every key, and every entry below it as it stands
      std::optional<std::string> after = std::nullopt; // bookmark in them
   };

   [[nodiscard]] bool apply( const platform::Ptr<CheckedChange> & change ); // false: some was left out
   void begin();
   void treeChanged( const platform::Entity & entity, const platform::AttributeInfo & attribute,
         const std::string & key ) override;
   void entityMark( const std::string & path, const platform::Ptr<const platform::Entity> & entity );
   void forget( const std::string & path );
   void wholeMark( bool configuration, bool published );
   void slice();
   void step();
   void keyStep( const std::string & path, const Place & place, const std::string & key, bool wasAway );
   void hand();
   void storeEvents();
   void statisticsForget();
   void waitersRelease( std::uint64_t batches );
   void contentCame( const StoreEvent & event );
   void refused( const std::vector<std::string> & errors );

   // Counts the changes of the configuration, whoever makes them.
   class Stamp final : public platform::TreeObserver {
    public:
      std::uint64_t value = 0;
      void treeChanged(
            const platform::Entity &, const platform::AttributeInfo &, const std::string & ) override {
         ++value;
      }
   };

   const Services services_;
   const std::vector<StoredRoot> roots_;
   const platform::Ptr<StateStore> store_;
   const platform::Ptr<platform::Task> task_;
   platform::Ptr<platform::LoopTimer> beat_;
   platform::Ptr<ConfigQueue> configQueue_;
   platform::Ptr<StatisticsKeeper> statistics_;
   bool observing_ = false;
   std::map<std::string, Place> dirty_;            // by path, so that an entry precedes what stands below it
   const platform::Entity * lastEntity_ = nullptr; // whose values were noted last, at lastPlace_
   Place * lastPlace_ = nullptr;
   platform::Ptr<StoreBatch> batch_;                             // being filled
   bool underWay_ = false;                                       // a batch
   std::uint64_t handed_ = 0;                                    // batches
   std::multimap<std::uint64_t, std::function<void()>> waiters_; // by how many batches are to be written
   platform::Ptr<platform::LoopTimer> impatience_;               // runs while a batch is under way
   bool slow_ = false;                                           // it has run out
   bool readWanted_ = false;
   Stamp configuration_;
};

} // namespace host
