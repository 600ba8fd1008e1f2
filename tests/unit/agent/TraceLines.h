#pragma once

#include "HealthMonitor/HmCommonData.h"

#include <algorithm>
#include <sstream>

#include <gmock/gmock.h>

/// The agent's trace as operators read it.
namespace hm::test {

struct TraceRow {
   int level;
   std::string text; // name of the function, ":", message
};

/// What `scenario` traces at any level.
inline std::vector<std::string> linesOf( const std::function<void()> & scenario ) {
   traceFacility().levelsIs( 0x3ff );
   traceToStderrIs( true );
   testing::internal::CaptureStderr();
   scenario();
   std::istringstream captured( testing::internal::GetCapturedStderr() );
   traceToStderrIs( false );
   traceFacility().levelsIs( TraceFacility::defaultLevels );
   std::vector<std::string> lines;
   for ( std::string line; std::getline( captured, line ); ) {
      lines.push_back( line );
   }
   return lines;
}

inline auto countOf( const std::vector<std::string> & lines, const std::string & text ) {
   return std::ranges::count_if(
         lines, [&text]( const auto & line ) { return line.find( text ) != std::string::npos; } );
}

inline void expectLines( const std::vector<std::string> & lines, const std::vector<TraceRow> & rows ) {
   for ( const auto & row : rows ) {
      const auto written = [&row]( const std::string & line ) {
         return line.ends_with( " " + row.text ) &&
                line.find( fmt::format( "HealthMonitor {} ", row.level ) ) != std::string::npos;
      };
      EXPECT_TRUE( std::ranges::any_of( lines, written ) ) << row.level << " " << row.text;
   }
}

} // namespace hm::test
