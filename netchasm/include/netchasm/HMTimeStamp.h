#pragma once

#include <cstdint>
#include <string>

/// A point of wall-clock time with millisecond resolution, only ever reported to people: no schedule or
/// timeout depends on it. A value; any thread.
class HMTimeStamp {
 public:
   /// The epoch (1970-01-01 00:00:00 UTC).
   HMTimeStamp() = default;

   /// The wall clock now.
   static HMTimeStamp now();

   /// Milliseconds since the epoch.
   std::uint64_t getTimeSinceEpoch() const { return msSinceEpoch_; }
   void setTime( unsigned long msSinceEpoch ) { msSinceEpoch_ = msSinceEpoch; }

   /// The time in the local time zone in strftime's format, for instance "%b:%d:%Y %H:%M:%S". Empty when the
   /// format is empty, yields more than 255 bytes, or the year cannot be represented.
   std::string lprint( const std::string & format ) const;

 private:
   std::uint64_t msSinceEpoch_ = 0;
};
