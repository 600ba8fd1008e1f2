#include "netchasm/HMTimeStamp.h"
#include <ctime>

HMTimeStamp HMTimeStamp::now() {
   timespec ts{};
   ::clock_gettime( CLOCK_REALTIME, &ts );
   HMTimeStamp stamp;
   stamp.setTime( static_cast< unsigned long >( ts.tv_sec ) * 1000 +
                  static_cast< unsigned long >( ts.tv_nsec ) / 1'000'000 );
   return stamp;
}

std::string HMTimeStamp::lprint( const std::string & format ) const {
   const std::time_t seconds = static_cast< std::time_t >( msSinceEpoch_ / 1000 );
   std::tm local{};
   if ( format.empty() || !::localtime_r( &seconds, &local ) )
      return {};
   char text[256];
   return { text, std::strftime( text, sizeof( text ), format.c_str(), &local ) };
}
