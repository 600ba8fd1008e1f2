// What a response rule costs a check, against std::regex in its default form, which is faster on friendly
// input and takes exponential time or the whole stack on hostile input.
#include "platform/BoundedRegex.h"

#include <benchmark/benchmark.h>
#include <regex>
#include <string>

namespace {

struct Case {
   const char * pattern;
   std::string text;
};

/// A status code rule; a word at the end of a small body; a word that a body of 16 KiB has not; a pattern
/// with nested repetition on a text that makes a backtracking matcher explode, kept short enough for it to
/// end; one of two words, neither of which 16 KiB have.
const Case & sample( std::int64_t which ) {
   static const Case cases[] = { { "5..", "503" }, { "maintenance", std::string( 200, 'x' ) + "maintenance" },
         { "maintenance", std::string( 16 * 1024, 'm' ) }, { "(a+)+b", std::string( 20, 'a' ) },
         { "maintenance|draining", std::string( 16 * 1024, 'm' ) } };
   return cases[which];
}

void boundedRegex( benchmark::State & state ) {
   const Case & c = sample( state.range( 0 ) );
   std::string why;
   const auto regex = platform::BoundedRegex::compile( c.pattern, &why );
   if ( !regex ) {
      state.SkipWithError( why.c_str() );
      return;
   }
   for ( auto _ : state ) {
      benchmark::DoNotOptimize( regex->foundIn( c.text ) );
   }
}
BENCHMARK( boundedRegex )->DenseRange( 0, 4 );

void standardRegex( benchmark::State & state ) {
   const Case & c = sample( state.range( 0 ) );
   const std::regex regex( c.pattern );
   for ( auto _ : state ) {
      benchmark::DoNotOptimize( std::regex_search( c.text, regex ) );
   }
}
BENCHMARK( standardRegex )->DenseRange( 0, 1 )->Arg( 3 );

void compileBoundedRegex( benchmark::State & state ) {
   std::string why;
   for ( auto _ : state ) {
      benchmark::DoNotOptimize( platform::BoundedRegex::compile( "maintenance|draining", &why ) );
   }
}
BENCHMARK( compileBoundedRegex );

} // namespace
