#include "hmctl/Words.h"

#include <gmock/gmock.h>

namespace hmctl {

using Stages = std::vector<std::vector<std::string>>;

Stages texts( std::string_view line ) {
   Stages stages;
   for ( const auto & words : split( line ).stages ) {
      auto & stage = stages.emplace_back();
      for ( const auto & word : words ) {
         stage.push_back( word.text );
      }
   }
   return stages;
}

TEST( Words, AreSplitAtBlanksOutsideOfQuotes ) {
   const std::pair<std::string, Stages> lines[] = {
         { "", { {} } },
         { " get  a/b\t--json ", { { "get", "a/b", "--json" } } },
         { "set p a 'b | c' \"d \\\" \\\\ \\n\"", { { "set", "p", "a", "b | c", "d \" \\ \\n" } } },
         { "a\\ b\\|c 'it'\"'\"'s' ''", { { "a b|c", "it's", "" } } },
         { "show x|json | match 'a b'", { { "show", "x" }, { "json" }, { "match", "a b" } } },
         { "|", { {}, {} } },
         { "'open a", { { "open a" } } },
         { "end\\", { { "end\\" } } },
   };
   for ( const auto & [line, stages] : lines ) {
      EXPECT_EQ( texts( line ), stages ) << line;
   }
   EXPECT_TRUE( split( "get a" ).wordOpen );
   EXPECT_FALSE( split( "get " ).wordOpen );
   EXPECT_FALSE( split( "get |" ).wordOpen );
   EXPECT_TRUE( split( "get 'a " ).quoteOpen );
   EXPECT_EQ( split( "get  'a b" ).stages[0][1].begin, 5u );
}

TEST( Words, AreReadBackFromTheirQuotes ) {
   for ( const std::string word :
         { "", "plain/x:1", "a b", "it's", "\"", "\\", "'\"\\ |", "größe", "a\tb" } ) {
      EXPECT_EQ( texts( quoted( word ) ), Stages{ { word } } ) << word;
      EXPECT_EQ( texts( quotedOpen( word + " x/" ) ), Stages{ { word + " x/" } } ) << word;
   }
}

TEST( Words, CommonBeginningNeverCutsACharacter ) {
   EXPECT_EQ( commonBeginning( { "probeInterval", "probeSrcIp" } ), "probe" );
   EXPECT_EQ( commonBeginning( { "web", "web-2" } ), "web" );
   EXPECT_EQ( commonBeginning( { "aé", "aè" } ), "a" ); // one lead byte, two continuations
   EXPECT_EQ( commonBeginning( {} ), "" );
}

TEST( Words, KeysBecomePathComponents ) {
   EXPECT_EQ( pathComponent( "a/b%\n\x7f é" ), "a%2Fb%25%0A%7F é" );
}

/// The command that is meant, or what is the matter.
std::string expanded( const std::string & line ) {
   const Stages commands{ { "show", "health-monitor", "summary" },
         { "show", "health-monitor", "status", "detail" }, { "show", "health-monitor", "probe", "delay" },
         { "clear", "health-monitor", "probe", "delay" }, { "status" }, { "set" }, { "probe" },
         { "probe", "all" }, { "sets" } };
   const auto words = texts( line ).front();
   const auto expansion = expand( words, commands );
   switch ( expansion.outcome ) {
   case Expansion::Outcome::found:
      return joined( commands[expansion.command] );
   case Expansion::Outcome::incomplete:
      return "incomplete";
   case Expansion::Outcome::ambiguous:
      return "ambiguous at " + words[expansion.at];
   case Expansion::Outcome::unknown:
      return "unknown at " + words[expansion.at];
   }
   return {};
}

TEST( Expand, FindsTheOneCommandThatIsMeant ) {
   const std::pair<std::string, std::string> lines[] = {
         { "sh health-mon sum", "show health-monitor summary" },
         { "sh h st d", "show health-monitor status detail" },
         { "sh --json h su", "show health-monitor summary" },
         { "sh h s", "ambiguous at s" },
         { "sh h x", "unknown at x" },
         { "sh h ''", "unknown at " },
         { "sh h", "incomplete" },
         { "", "incomplete" },
         { "s", "ambiguous at s" },
         { "set a", "set" }, // written out, though there are longer ones
         { "Set", "unknown at Set" },
         { "probe all", "probe all" },
         { "probe a 10.1.1.1", "probe" }, // an argument, not an abbreviation
         { "c h p d", "clear health-monitor probe delay" },
   };
   for ( const auto & [line, meant] : lines ) {
      EXPECT_EQ( expanded( line ), meant ) << line;
   }
}

} // namespace hmctl
