#pragma once

#include "host/StateStore.h"
#include "platform/Agent.h"
#include "platform/Task.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace host {

/// Writes the agent's statistics into a store that others read: every ten seconds what has changed since,
/// looked at in slices. They are too lively to be watched as the state is.
///
/// Main thread only.
class StatisticsKeeper final : public platform::RefCounted {
 public:
   static constexpr platform::Seconds period{ 10 };

   StatisticsKeeper( const platform::Ptr<platform::TaskScheduler> & scheduler,
         platform::Ptr<StateStore> store, std::vector<platform::Statistics> sources );

   void counted();   // the store has taken what it was given
   void forgotten(); // the store has none of them any more

 private:
   struct Frame {
      platform::Ptr<const platform::Entity> entity;
      const platform::CollectionInfo * collection;
      std::string path; // keys on the way
      std::optional<std::string> after = std::nullopt;
   };
   struct Known {
      std::size_t hash = 0; // of the values that were written
      std::uint64_t round = 0;
   };

   void slice();
   bool step();
   void entry( const platform::Ptr<const platform::Entity> & entity, const std::string & path );
   void roundEnd();
   void hand();

   const platform::Ptr<StateStore> store_;
   const std::vector<platform::Statistics> sources_;
   const platform::Ptr<platform::TimerTask> task_;
   std::vector<Frame> frames_; // where the round is; empty between two
   std::unordered_map<std::string, Known> known_;
   std::uint64_t round_ = 0;
   platform::Ptr<StoreStatistics> filling_;
   bool underWay_ = false; // what the store was given
   bool waiting_ = false;  // for that, in the middle of a round
};

} // namespace host
