// Ctrl-C failed a round whose test waited in poll(2): what came back looked like a reader that sees
// nothing for ever.

#include <cstdlib>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>

#include "Torture.h"

namespace {

using QelKrellTest::Torture;

// In a process of its own, for the signal stays pending: 0 if all is well.
int interruptedRound() {
    ::setenv( "QELKRELL_TORTURE", "3600", 1 );
    Torture torture( "soak", 1 );
    if ( !torture.goesOn() ) {
        return 1;
    }
    ::kill( ::getpid(), SIGINT );
    if ( ::poll( nullptr, 0, 50 ) != 0 ) {
        return 2;
    }
    return torture.goesOn() ? 3 : 0;
}

TEST( InterruptTest, EndsALongRunBetweenRoundsAndInterruptsNoCall ) {
    const pid_t pid = ::fork();
    if ( pid == 0 ) {
        ::_exit( interruptedRound() );
    }
    int status = -1;
    ASSERT_EQ( ::waitpid( pid, &status, 0 ), pid );
    EXPECT_EQ( status, 0 );
}

} // namespace
