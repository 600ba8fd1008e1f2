#pragma once

#include <cstdint>
#include <string>

/// Detail of the engine's log, from -2 (nothing) to 9 (everything). An entry is written when its level is at
/// or below the configured one. Any signed 8-bit value may be given as a level.
///
/// What to expect: 0 to 2 need an operator (a file that cannot be used, no descriptors left), 3 is notable (a
/// reload, a setting that was ignored), 7 is each failed check.
enum HM_LOG_LEVEL : std::int8_t {
   HM_LOG_LEVEL_MIN = -2,
   HM_LOG_FATAL = 0,
   HM_LOG_ERROR = 1,
   HM_LOG_WARNING = 2,
   HM_LOG_NOTICE = 3,
   HM_LOG_INFO = 5,
   HM_LOG_DETAIL = 7,
   HM_LOG_DEBUG = 9,
   HM_LOG_LEVEL_MAX = 9,
};

/// Where the engine's log entries go. Implemented by whoever embeds the engine and given to it with
/// HMStateManager::registerLog(); the engine shares its ownership. openLog() is called when the
/// engine starts, closeLog() when it is destroyed or does not start after all, both on the thread that calls
/// the engine. writeLog() runs on the engine's threads and on the thread that calls the engine, possibly on
/// several at once, and must not block, throw or call the engine. The engine never calls rotate(); it is for
/// the owner of the log.
class HMLogBase {
 public:
   /// One entry, valid only during writeLog().
   struct LogEntry {
      const char * m_text = ""; ///< UTF-8 without a newline, NUL-terminated; never null
      std::int8_t m_level = 0;  ///< HM_LOG_LEVEL of the entry
   };

   virtual ~HMLogBase() = default;
   virtual void rotate() = 0;
   /// False: the log cannot be opened; the engine then does not start, and says so in one last entry.
   virtual bool openLog( std::string name ) = 0;
   virtual void closeLog() = 0;
   virtual void writeLog( LogEntry * entry ) = 0;
};
