// Assertions: the whole text, and that they stay in release builds.

#include <csignal>

#include <gmock/gmock.h>

#include <Qel/Assert>

namespace {

using testing::Eq;
using testing::KilledBySignal;

constexpr Qel::SourcePosition here = { "libs/Some/Unit", 17, "void Some::unit(int)" };

TEST( AssertDeathTest, PrintsThePositionAndTheTextAndAborts ) {
    EXPECT_EXIT( Qel::assertThat( 1 > 2, "1 > 2 && \"numbers\"", here ), KilledBySignal( SIGABRT ),
                 Eq( "libs/Some/Unit:17: void Some::unit(int): Assertion `1 > 2 && \"numbers\"' "
                     "failed.\n" ) );
}

TEST( AssertDeathTest, FailureNeedsNoCondition ) {
    EXPECT_EXIT( Qel::assertionFailed( "false", "S", 3, "f" ), KilledBySignal( SIGABRT ),
                 Eq( "S:3: f: Assertion `false' failed.\n" ) );
}

TEST( Assert, HoldingAssertionDoesNothing ) { Qel::assertThat( true, "", here ); }

} // namespace
