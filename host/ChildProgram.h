#pragma once

#include "platform/Clock.h"

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace host {

/// A program of the system's that runs beside us: it reads a given text, and of what it writes to standard
/// error the first line is kept. Ended and reaped at the latest with this object. One thread.
class ChildProgram {
 public:
   /// Starts `arguments[ 0 ]`, found along PATH.
   ChildProgram( const std::vector<std::string> & arguments, const std::string & input );
   ~ChildProgram();
   ChildProgram( const ChildProgram & ) = delete;
   ChildProgram & operator=( const ChildProgram & ) = delete;

   /// Readable once the program has ended; -1 when it could not be started.
   int endedFd() const { return endedFd_; }
   /// Blocks for at most `patience`.
   void wait( platform::Clock::Duration patience ) const;
   /// Why the program failed, beginning with its name; empty: it ended with status 0. One that still runs is
   /// killed.
   [[nodiscard]] std::optional<std::string> finish();

 private:
   std::string firstErrorLine() const;

   const std::string name_;
   int inputFd_ = -1;
   int errorFd_ = -1;
   int endedFd_ = -1;
   pid_t pid_ = -1;
   std::optional<std::string> failure_{};
};

} // namespace host
