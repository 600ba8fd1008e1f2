#include "HealthMonitor/HmNetCHASMInterface.h"
#include "HealthMonitor/HmUtils.h"
#include "platform/CliPrinter.h"

#include <algorithm>
#include <numeric>

/// The report on how late checks start.
namespace hm {

namespace {

std::uint32_t sumOf( const std::vector<std::uint64_t> & histogram, std::size_t first, std::size_t end ) {
   std::uint32_t sum = 0;
   for ( std::size_t i = first; i < end; ++i ) {
      sum += static_cast<std::uint32_t>( histogram[i] );
   }
   return sum;
}

float percentOf( std::uint64_t count, std::uint32_t total ) {
   return total == 0 ? 0.0f : static_cast<float>( count ) * 100 / static_cast<float>( total );
}

} // namespace

void calculateProbeDelayRanges( std::vector<std::string> & labels, std::vector<std::uint64_t> & counts,
      const std::vector<std::uint64_t> & histogram, std::uint32_t interval ) {
   const auto addSum = [&]( std::size_t lo, std::size_t end, const std::string & hi ) {
      if ( const auto sum = sumOf( histogram, lo, end ); sum != 0 ) {
         labels.push_back( fmt::format( "({},{}]", lo, hi ) );
         counts.push_back( sum );
      }
   };
   const std::size_t size = histogram.size();
   if ( size == 0 ) {
      return;
   }
   if ( histogram[0] != 0 ) {
      labels.push_back( "(0,1]" );
      counts.push_back( histogram[0] );
   }
   // Beyond this end there is only the element of everything later, which the last range takes.
   const std::size_t longestEnd = std::max<std::size_t>( size, 3 ) - 2;
   std::size_t lo = 1;
   for ( const unsigned percent : { 10, 25, 50, 100, 200, 300, 400 } ) {
      const auto scaled = std::uint64_t{ interval } * percent;
      if ( scaled < 200 ) {
         continue; // below two seconds
      }
      const std::size_t hi = std::min<std::size_t>( scaled / 100, longestEnd );
      addSum( lo, hi, std::to_string( hi ) );
      lo = hi;
      if ( hi == longestEnd ) {
         break;
      }
   }
   addSum( lo, size, "+\u221e" ); // the infinity sign
}

void NetCHASMInterface::showProbeDelay( unsigned socket, unsigned format, unsigned probeInterval ) const {
   HM_TRACE( 9, "socket: {}, output format: {}, probeInterval: {}", socket, format, probeInterval );
   try {
      CliPrinter printer( socket, format );
      printer.start();
      std::vector<std::uint64_t> histogram;
      if ( auto * const engine = netChasmStateMgr() ) {
         engine->workQueue().getProbeDelay( histogram );
      }
      const auto total = sumOf( histogram, 0, histogram.size() );
      if ( probeInterval == 0 ) {
         probeInterval = hmCommonData_->probeInterval();
      }
      std::vector<std::string> labels;
      std::vector<std::uint64_t> counts;
      calculateProbeDelayRanges( labels, counts, histogram, probeInterval );
      int width = 6;
      for ( const auto count : counts ) {
         width = std::max( width, static_cast<int>( std::to_string( count ).size() ) );
      }
      printer.frill( "Delay Range ( in seconds ) %-*s Percentage of Probes\n", width, "Probes" );
      printer.frill( "-------------------------- %-*s --------------------\n", width, "------" );
      for ( std::size_t i = 0; i < labels.size(); ++i ) {
         // The infinity sign is one column in three bytes.
         const int labelWidth = labels[i].find( '+' ) == std::string::npos ? 26 : 28;
         printer.frill( "%-*s %-*s %.2f%%\n", labelWidth, labels[i].c_str(), width,
               std::to_string( counts[i] ).c_str(), static_cast<double>( percentOf( counts[i], total ) ) );
      }
      printer.dictStart( "intervals" );
      for ( std::size_t i = 0; i < histogram.size(); ++i ) {
         const bool last = i + 1 == histogram.size();
         printer.entryStart( last ? fmt::format( "greater than {}", i ) : std::to_string( i + 1 ) );
         printer.attributeJson( "numProbes", histogram[i] );
         printer.attributeJson( "percentProbes", percentOf( histogram[i], total ) );
         printer.entryEnd();
      }
      printer.dictEnd();
      printer.end();
      printer.flush();
   } catch ( const CliInterrupt & interrupt ) {
      HM_TRACE( 1, "got exception: {}", interrupt.what() );
   }
}

void NetCHASMInterface::clearProbeDelay() const {
   HM_TRACE( 9, "" );
   if ( auto * const engine = netChasmStateMgr() ) {
      engine->workQueue().clearProbeDelay();
   }
}

} // namespace hm
