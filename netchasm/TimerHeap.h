#pragma once

#include "netchasm/Schedule.h"
#include <cstddef>
#include <vector>

namespace netchasm {

/// A worker's timers, the earliest first: at most one for each item. Items hold their own position in a
/// member `std::size_t timerIndex` (npos: no timer), so moving and cancelling need no search. Four children a
/// node: a heap of 16,000 is 7 levels deep and each level lies in one or two cache lines.
template< typename Item >
class TimerHeap {
 public:
   static constexpr std::size_t npos = static_cast< std::size_t >( -1 );

   bool empty() const { return entries_.empty(); }
   std::size_t size() const { return entries_.size(); }
   TimePoint earliest() const { return entries_.front().when; }
   Item & front() const { return *entries_.front().item; }

   /// Sets or moves the item's timer.
   void schedule( Item & item, TimePoint when ) {
      if ( item.timerIndex == npos ) {
         item.timerIndex = entries_.size();
         entries_.push_back( { when, &item } );
         up( item.timerIndex );
         return;
      }
      const TimePoint before = entries_[item.timerIndex].when;
      entries_[item.timerIndex].when = when;
      if ( when < before )
         up( item.timerIndex );
      else
         down( item.timerIndex );
   }

   /// Without a timer: nothing happens.
   void cancel( Item & item ) {
      const std::size_t at = item.timerIndex;
      if ( at == npos )
         return;
      item.timerIndex = npos;
      const Entry last = entries_.back();
      entries_.pop_back();
      if ( at == entries_.size() )
         return;
      place( at, last );
      up( at );
      down( last.item->timerIndex );
   }

 private:
   struct Entry {
      TimePoint when;
      Item * item;
   };

   void place( std::size_t at, const Entry & entry ) {
      entries_[at] = entry;
      entry.item->timerIndex = at;
   }

   void up( std::size_t at ) {
      const Entry entry = entries_[at];
      while ( at > 0 ) {
         const std::size_t parent = ( at - 1 ) / 4;
         if ( entries_[parent].when <= entry.when )
            break;
         place( at, entries_[parent] );
         at = parent;
      }
      place( at, entry );
   }

   void down( std::size_t at ) {
      const Entry entry = entries_[at];
      while ( true ) {
         const std::size_t first = at * 4 + 1;
         if ( first >= entries_.size() )
            break;
         const std::size_t end = first + 4 < entries_.size() ? first + 4 : entries_.size();
         std::size_t least = first;
         for ( std::size_t child = first + 1; child < end; ++child ) {
            if ( entries_[child].when < entries_[least].when )
               least = child;
         }
         if ( entry.when <= entries_[least].when )
            break;
         place( at, entries_[least] );
         at = least;
      }
      place( at, entry );
   }

   std::vector< Entry > entries_;
};

} // namespace netchasm
