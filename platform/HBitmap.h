#pragma once

#include "platform/Ptr.h"

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

/// Hierarchical bitmap: a bit a slot, above it a word a 64 slots that says which of them are full, and so on
/// to one word. Finding a clear bit and changing one cost a step a level (three for 262,144 bits). Main
/// thread, or one thread at a time.
class HBitmap : public RefCounted {
 public:
   using Index = std::uint32_t;
   static constexpr Index nullIndex = ~Index{ 0 };

   HBitmap( std::string id, Index size, bool initialBitState );

   const std::string & id() const { return id_; }
   Index size() const { return size_; }
   Index bitsSet() const { return bitsSet_; }
   bool bit( Index index ) const; // false beyond the size

   void setBit( Index index );   // index < size()
   void clearBit( Index index ); // index < size()
   /// The lowest clear bit at or after `preference`, else the lowest before it, else nullIndex.
   Index findBitInClearState( Index preference = 0 ) const;

 private:
   Index firstClearFrom( Index index ) const;

   const std::string id_;
   const Index size_;
   Index bitsSet_ = 0;
   // levels_[ 0 ] holds the bits themselves; a bit of a higher level is set when its 64 below are all set.
   // Bits past the end count as set.
   std::vector<std::vector<std::uint64_t>> levels_;
};

} // namespace platform
