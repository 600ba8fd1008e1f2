#include "hmctl/Commands.h"

#include <gmock/gmock.h>

namespace hmctl {

using ::testing::HasSubstr;

// What comes of the words, or what is said against them.
std::string given( const std::string & arguments, const std::vector<std::string> & words ) {
   const auto command = hostCommand( { "do" }, "does it", arguments );
   try {
      const auto result = invocation( command, words );
      std::string text = result.help.empty() ? "" : "help";
      for ( const auto & argument : result.arguments ) {
         text += "<" + argument + ">";
      }
      return text + ( result.has( "--json" ) ? "json" : "" );
   } catch ( const std::invalid_argument & error ) {
      return error.what();
   }
}

TEST( Grammar, ReadsWhatTheHostSaysOfArguments ) {
   for ( const std::string text :
         { "", "NHG SERVER", "[NHG]", "NHG [interval SECONDS] [FILE]", "[NAME...]" } ) {
      EXPECT_EQ( argumentsText( argumentsFromText( text ) ), text );
   }
   const auto arguments = argumentsFromText( " NHG [interval SECONDS][X]" );
   ASSERT_EQ( arguments.size(), 4u );
   EXPECT_FALSE( arguments[0].optional );
   EXPECT_TRUE( arguments[1].keyword && arguments[1].beginsGroup && !arguments[2].beginsGroup );
   EXPECT_TRUE( arguments[3].beginsGroup );
}

TEST( Grammar, TakesTheArgumentsOfACommandAndNoOthers ) {
   EXPECT_EQ( given( "[interval SECONDS]", {} ), "" );
   EXPECT_EQ( given( "[interval SECONDS]", { "--json", "int", "-15" } ), "<interval><-15>json" );
   EXPECT_EQ( given( "NHG SERVER", { "[a,b]", "x=y" } ), "<[a,b]><x=y>" );
   EXPECT_EQ( given( "[NAME...]", { "a", "b", "c" } ), "<a><b><c>" );
   EXPECT_EQ( given( "NHG", { "--help" } ), "help" );
   EXPECT_THAT( given( "NHG SERVER", { "web" } ), HasSubstr( "SERVER is required\nusage: do NHG SERVER" ) );
   EXPECT_THAT( given( "[interval SECONDS]", { "interval" } ), HasSubstr( "SECONDS is missing" ) );
   EXPECT_THAT( given( "[interval SECONDS]", { "every", "5" } ), HasSubstr( "where \"interval\" belongs" ) );
   EXPECT_THAT( given( "NHG", { "web", "more" } ), HasSubstr( "more" ) );
   EXPECT_THAT( given( "NHG", { "web", "--frob" } ), HasSubstr( "--frob" ) );
}

} // namespace hmctl
