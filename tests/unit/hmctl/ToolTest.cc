#include "hmctl/Tool.h"

#include <gtest/gtest.h>

namespace hmctl {

TEST( Tool, GivesWhatAProgramPrintsAndHowItEnds ) {
   const std::string much( 3'000'000, 'x' ); // more than a pipe holds, both ways
   const auto copied = toolRun( { "cat" }, much );
   ASSERT_TRUE( copied );
   EXPECT_EQ( copied->status, 0 );
   EXPECT_TRUE( copied->output == much );
   const auto failed = toolRun( { "sh", "-c", "echo half; echo why >&2; exit 3" } );
   ASSERT_TRUE( failed );
   EXPECT_EQ( failed->status, 3 );
   EXPECT_EQ( failed->output, "half\n" );
   EXPECT_EQ( failed->errors, "why\n" );
   EXPECT_EQ( toolRun( { "false" } )->errors, "it failed" );
}

TEST( Tool, OneThatIsNotThereIsNoFaultAndOneWithoutEndIsEnded ) {
   EXPECT_FALSE( toolRun( { "hm-no-such-program" } ) );
   const auto endless = toolRun( { "yes" } );
   ASSERT_TRUE( endless );
   EXPECT_EQ( endless->status, -1 );
   EXPECT_FALSE( endless->errors.empty() );
}

} // namespace hmctl
