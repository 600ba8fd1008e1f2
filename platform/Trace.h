#pragma once

#include "platform/Ptr.h"

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace platform {

/// One named source of trace messages with the set of levels that are enabled for it. Level 0 is the gravest,
/// 9 the most detailed; level 10 can be switched but nothing is ever written at it. A new facility has 0 to 2
/// enabled.
///
/// Facilities are found or created by name and live as long as the process. Asking whether a level is enabled
/// costs one relaxed load and is safe on every thread, as is writing. Levels are changed, and observers
/// called, on the main thread.
class TraceFacility : public RefCounted {
 public:
   static constexpr int maxLevel = 9;
   static constexpr int levelCount = 11;
   static constexpr std::uint16_t defaultLevels = 0b111;

   static Ptr<TraceFacility> find( std::string_view name ); // creates it when there is none
   static std::vector<Ptr<TraceFacility>> all();            // in the order of their names

   const std::string & name() const { return name_; }
   bool levelEnabled( int level ) const {
      return level >= 0 && level < levelCount && ( levels_.load( std::memory_order_relaxed ) >> level & 1 );
   }
   std::uint16_t levels() const { return levels_.load( std::memory_order_relaxed ); } // bit n: level n
   void levelsIs( std::uint16_t levels );

   /// `observer` runs after every change of the enabled levels until the returned token is dropped.
   using Token = std::shared_ptr<void>;
   [[nodiscard]] Token observe( std::function<void()> observer );

   /// Writes `text` when the level is enabled. Bytes that are not printable are written as \xNN, so that
   /// nothing from the wire can forge a line.
   void write( int level, const char * file, int line, std::string_view text );

   /// What HM_TRACE calls: `function` and ":" go before the message.
   template<class... Args>
   void trace( int level, const char * file, int line, const char * function,
         fmt::format_string<Args...> format, Args &&... args ) {
      write( level, file, line,
            fmt::format( "{}:{}", function, fmt::format( format, std::forward<Args>( args )... ) ) );
   }

 private:
   explicit TraceFacility( std::string_view name ) : name_( name ) {}

   const std::string name_;
   std::atomic<std::uint16_t> levels_{ defaultLevels };
   std::vector<std::weak_ptr<std::function<void()>>> observers_; // main thread
};

/// Reads levels as an operator writes them: "0-4", "5", "0-2,7" or "none". Empty on anything else.
[[nodiscard]] std::optional<std::uint16_t> traceLevelsFromText( std::string_view text );
std::string traceLevelsText( std::uint16_t levels );

/// Applies "HealthMonitor=0-4,NetCHASM=5,0-2": items without a name belong to the facility before them.
/// Returns what is wrong with the text, and then changes nothing.
[[nodiscard]] std::optional<std::string> traceSpecApply( std::string_view spec );

/// Trace lines also go to standard error.
void traceToStderrIs( bool on );
/// Writes out what is buffered; called before the process ends in a hurry.
void traceFlush();

/// The fast trace file: bounded in size for good, oldest lines dropped first, so that it may stay on for the
/// life of a switch.
struct FastTraceConfig {
   std::string fileName;               // "%d" in it stands for the process id
   std::array<unsigned, 10> ringKiB{}; // share of each level; their sum bounds the files together
   std::string secondaryName{};        // a second place for the same lines; empty: none
   unsigned bufferedLines = 0;         // lines held back before a write; 0: each line is written at once
   unsigned pieces = 24;        // files that the sum is cut into, the oldest dropped as a new one starts
   unsigned threadingMode = 0;  // 0: any thread may write
   bool keepOld = true;         // lines of an earlier run stay until they are the oldest
   unsigned maxLineBytes = 512; // longer messages are cut and end in "..."
};

/// Opens the file in the directory that FLASHLOGDIR names, else in /var/log/health-monitor, else (when that
/// cannot be made) in /tmp. Returns its path, or an empty string after reporting to standard error: tracing
/// is an aid and its failure never stops the agent.
std::string fastTraceInit( const FastTraceConfig & config, const char * directory );
void fastTraceClose();

} // namespace platform

/// Traces a message of the function around it: HM_TRACE( 7, "NHG: {}, server: {}", nhgName, serverIp ). The
/// facility is what `traceFacility()` names in the scope of the call; each library declares its own. The
/// arguments are not evaluated when the level is off.
#define HM_TRACE( level, ... )                                                       \
   do {                                                                              \
      auto & hmTraceFacility_ = traceFacility();                                     \
      if ( hmTraceFacility_.levelEnabled( level ) ) {                                \
         hmTraceFacility_.trace( level, __FILE__, __LINE__, __func__, __VA_ARGS__ ); \
      }                                                                              \
   } while ( false )
