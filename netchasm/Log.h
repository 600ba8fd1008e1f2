#pragma once

#include "netchasm/HMLogBase.h"
#include <atomic>
#include <fmt/format.h>
#include <memory>
#include <string>

namespace netchasm {

/// The engine's way to the registered log. Entries above the level cost one relaxed load. Any thread, once
/// the sink stands.
class Log {
 public:
   /// Before any worker runs.
   void sinkIs( std::shared_ptr< HMLogBase > sink ) { sink_ = std::move( sink ); }
   const std::shared_ptr< HMLogBase > & sink() const { return sink_; }

   void levelIs( int level ) { level_.store( level, std::memory_order_relaxed ); }
   bool enabled( int level ) const { return sink_ && level <= level_.load( std::memory_order_relaxed ); }

   template< typename... Args >
   void write( int level, fmt::format_string< Args... > format, Args &&... args ) const {
      if ( enabled( level ) )
         deliver( level, fmt::format( format, std::forward< Args >( args )... ) );
   }

 private:
   void deliver( int level, std::string text ) const;

   std::shared_ptr< HMLogBase > sink_;
   std::atomic< int > level_{ HM_LOG_NOTICE };
};

} // namespace netchasm
