// Patterns and texts from outside: what is accepted, what is refused, and that nothing explodes.
#include "platform/BoundedRegex.h"

#include <gmock/gmock.h>

using namespace platform;

namespace {

std::string repeated( const std::string & text, int times ) {
   std::string result;
   while ( times-- > 0 ) {
      result += text;
   }
   return result;
}

BoundedRegex compiled( const std::string & pattern ) {
   std::string why;
   const auto regex = BoundedRegex::compile( pattern, &why );
   EXPECT_TRUE( regex ) << pattern << ": " << why;
   return *regex;
}

} // namespace

TEST( BoundedRegex, FindsAnywhereAndMatchesWhole ) {
   const struct {
      const char * pattern;
      const char * text;
      bool found;
      bool whole;
   } rows[] = {
         { "OK", "all OK here", true, false },
         { "ok", "OK", false, false },
         { "50.", "503", true, true },
         { "20[0-4]|503", "503", true, true },
         { "^up$", "up", true, true },
         { "^up$", "is up", false, false },
         { "\\bup\\b", "it is up.", true, false },
         { "\\bup\\b", "update", false, false },
         { "\"status\": *\"(UP|OK)\"", "{\"status\": \"UP\"}", true, false },
         { "a.b", "a\nb", false, false },
         { "a[^]b", "a\nb", true, true },
         { "(a*)*", "", true, true },
         { "[[:digit:]]{3}", "code 404!", true, false },
         { "x|y|", "z", true, false },
         { "\xc3\xa9+", "caf\xc3\xa9", true, false },
   };
   for ( const auto & row : rows ) {
      SCOPED_TRACE( std::string( row.pattern ) + " on " + row.text );
      const auto regex = compiled( row.pattern );
      EXPECT_EQ( regex.foundIn( row.text ), row.found );
      EXPECT_EQ( regex.matches( row.text ), row.whole );
   }
}

TEST( BoundedRegex, PlainTextIsFoundWhereTheAutomatonFindsIt ) {
   const std::string nul( 1, '\0' );
   const std::string nearlyAll( BoundedRegex::maxTextBytes - 5, 'm' );
   const std::string literals[] = { "maintenance", "m", "mm", "down", " ", "a\nb", "caf\xc3\xa9", "\xff",
         "-,:/<>=!\"'#&~%@;_`", "x" + nul + "y" };
   const std::string texts[] = { "", "m", "maintenanc", "maintenance", "in mmaintenance.", "Maintenance",
         "down\n", "a\nb", "a b", "un caf\xc3\xa9 noir", "caf\xc3", "\xff", "<-,:/<>=!\"'#&~%@;_`",
         "x" + nul + "y", "xy", nearlyAll, nearlyAll + " down", nearlyAll + "  down" };
   unsigned found = 0;
   for ( const auto & literal : literals ) {
      const auto plain = compiled( literal );
      const auto automaton = compiled( "(?:" + literal + ")" ); // the same, but not plain text
      for ( const auto & text : texts ) {
         SCOPED_TRACE( literal + " in " + text.substr( 0, 40 ) );
         EXPECT_EQ( plain.foundIn( text ), automaton.foundIn( text ) );
         EXPECT_EQ( plain.matches( text ), automaton.matches( text ) );
         found += plain.foundIn( text );
      }
   }
   EXPECT_EQ( found, 25u );
}

TEST( BoundedRegex, RefusesWhatHasNoBoundAndWhatIsNoPattern ) {
   const std::pair<std::string, const char *> rows[] = {
         { "(a)\\1", "back-references" },
         { "(?!x)", "look-ahead" },
         { "\\c\\(?=x)", "look-ahead" },
         { "(((a{1,9}){1,9}){1,9}){1,9}", "too large" },
         { "(){1000000000}", "too large" },
         { "a{99999999999999999999}", "too large" },
         { "a{2,1}", "not valid" },
         { "*", "nothing to repeat" },
         { "[a", "not closed" },
         { "[z-a]", "not valid" },
         { "a)(b", "no partner" },
         { std::string( 256, '(' ), "no partner" },
         { std::string( BoundedRegex::maxPatternBytes + 1, 'a' ), "longer than" },
   };
   for ( const auto & [pattern, reason] : rows ) {
      std::string why;
      EXPECT_FALSE( BoundedRegex::compile( pattern, &why ) ) << pattern;
      EXPECT_THAT( why, testing::HasSubstr( reason ) ) << pattern;
   }
}

// Each of these takes exponential time or a frame a character with a matcher that tries one way after
// another.
TEST( BoundedRegex, HostilePatternsOnHostileTextsEnd ) {
   const std::string patterns[] = { "(a*)*b", "(a|aa)+$", "(.*){10}x", ".{200}x",
         repeated( "a?", 60 ) + repeated( "a", 60 ), repeated( "(", 80 ) + "a" + repeated( ")*", 80 ),
         repeated( "(", 120 ) + "a" + repeated( ")", 120 ), "(a{1,20}){1,20}x",
         "(a" + repeated( "|", 200 ) + ")*b" };
   const std::string text( BoundedRegex::maxTextBytes, 'a' );
   for ( const auto & pattern : patterns ) {
      const auto regex = compiled( pattern );
      // Asked twice: where the work is used up must not depend on anything but pattern and text.
      EXPECT_EQ( regex.foundIn( text ), regex.foundIn( text ) ) << pattern;
   }
}

TEST( BoundedRegex, AnOrdinaryRuleSeesAllOfTheTextAndNothingSeesMore ) {
   const std::string filler( BoundedRegex::maxTextBytes - 8, '.' );
   const auto rule = compiled( "\"(UP|OK)\"" );
   EXPECT_TRUE( rule.foundIn( filler + "x \"UP\" y" ) );
   EXPECT_FALSE( rule.foundIn( filler + "........\"UP\"" ) );
   const auto word = compiled( "draining" );
   EXPECT_TRUE( word.foundIn( filler + "draining" ) );
   EXPECT_FALSE( word.foundIn( filler + "-draining" ) );
   // What keeps hundreds of states alive sees a part only, and that part decides.
   EXPECT_TRUE( compiled( "x.{400}" ).foundIn( "x" + filler ) );
   EXPECT_FALSE( compiled( ".{400}x" ).foundIn( filler + "x" ) );
}
