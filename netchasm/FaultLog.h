#pragma once

#include "netchasm/Log.h"
#include "netchasm/Schedule.h"
#include <map>
#include <string>

namespace netchasm {

/// Reports faults of this machine once for each kind, and again at most once a minute with the number that
/// fell in between. Used by one thread.
class FaultLog {
 public:
   static constexpr std::chrono::minutes repeat{ 1 };

   explicit FaultLog( const Log & log ) : log_{ log } {}

   /// `what` names the kind; `example` the host that it happened to.
   void report( const std::string & what, const std::string & example, TimePoint now ) {
      const auto [it, first] = seen_.try_emplace( what );
      Seen & seen = it->second;
      if ( !first && now - seen.last < repeat ) {
         ++seen.silent;
         return;
      }
      log_.write( HM_LOG_ERROR, "{} (host {}{})", what, example,
            seen.silent ? fmt::format( ", and {} more since the last report", seen.silent ) : std::string{} );
      seen = { now, 0 };
   }

 private:
   struct Seen {
      TimePoint last;
      unsigned long silent = 0;
   };
   const Log & log_;
   std::map< std::string, Seen > seen_; ///< as many as there are pairs of call and errno
};

} // namespace netchasm
