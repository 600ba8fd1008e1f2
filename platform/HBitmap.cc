#include "platform/HBitmap.h"

#include "platform/Assert.h"

#include <bit>

namespace platform {

namespace {

constexpr std::uint64_t full = ~std::uint64_t{ 0 };

std::uint64_t maskOf( HBitmap::Index index ) {
   return std::uint64_t{ 1 } << ( index % 64 );
}

} // namespace

HBitmap::HBitmap( std::string id, Index size, bool initialBitState ) : id_( std::move( id ) ), size_( size ) {
   Index bits = size;
   do {
      const Index words = ( bits + 63 ) / 64;
      auto & level = levels_.emplace_back( words, std::uint64_t{ 0 } );
      if ( bits % 64 != 0 ) {
         level.back() = full << ( bits % 64 );
      }
      bits = words;
   } while ( bits > 1 );
   if ( initialBitState ) {
      for ( auto & level : levels_ ) {
         level.assign( level.size(), full );
      }
      bitsSet_ = size;
   }
}

bool HBitmap::bit( Index index ) const {
   return index < size_ && ( levels_[0][index / 64] & maskOf( index ) );
}

void HBitmap::setBit( Index index ) {
   HM_ASSERT( index < size_, "bit {} of bitmap {} of {} bits", index, id_, size_ );
   if ( bit( index ) ) {
      return;
   }
   ++bitsSet_;
   for ( auto & level : levels_ ) {
      auto & word = level[index / 64];
      word |= maskOf( index );
      if ( word != full ) {
         return;
      }
      index /= 64;
   }
}

void HBitmap::clearBit( Index index ) {
   HM_ASSERT( index < size_, "bit {} of bitmap {} of {} bits", index, id_, size_ );
   if ( !bit( index ) ) {
      return;
   }
   --bitsSet_;
   for ( auto & level : levels_ ) {
      level[index / 64] &= ~maskOf( index );
      index /= 64;
   }
}

HBitmap::Index HBitmap::findBitInClearState( Index preference ) const {
   const Index found = firstClearFrom( preference );
   return found == nullIndex && preference > 0 ? firstClearFrom( 0 ) : found;
}

HBitmap::Index HBitmap::firstClearFrom( Index index ) const {
   if ( index >= size_ ) {
      return nullIndex;
   }
   // Up until a word has a clear bit at or after our place in it, then down along the first clear bits.
   std::size_t height = 0;
   for ( ;; ++height, index = index / 64 + 1 ) {
      if ( height == levels_.size() || index / 64 >= levels_[height].size() ) {
         return nullIndex;
      }
      const std::uint64_t below = maskOf( index ) - 1;
      const std::uint64_t clear = ~( levels_[height][index / 64] | below );
      if ( clear != 0 ) {
         index = index / 64 * 64 + static_cast<Index>( std::countr_zero( clear ) );
         break;
      }
   }
   while ( height-- > 0 ) {
      index = index * 64 + static_cast<Index>( std::countr_zero( ~levels_[height][index] ) );
   }
   return index;
}

} // namespace platform
