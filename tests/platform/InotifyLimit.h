// A process with an inotify limit of its own.

#pragma once

#include <cerrno>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace QelKrellTest {

// Sets how many watches may stand in this user namespace; whether that was possible.
inline bool inotifyWatchesAre( int limit ) {
    std::ofstream file( "/proc/sys/user/max_inotify_watches" );
    file << limit << std::flush;
    return bool( file );
}

// Runs `body` in a forked process in which no more watches than that can stand. Its status, 0 when
// nothing failed; nothing where the system does not let one set such a limit.
inline std::optional< int > withInotifyWatches( int limit, const std::function< void() >& body ) {
    constexpr int notPossible = 77;
    const pid_t pid = fork();
    if ( pid == 0 ) {
        if ( unshare( CLONE_NEWUSER ) != 0 || !inotifyWatchesAre( limit ) ) {
            _exit( notPossible );
        }
        body();
        std::cout.flush();
        _exit( testing::Test::HasFailure() ? 1 : 0 );
    }
    int status = -1;
    EXPECT_EQ( waitpid( pid, &status, 0 ), pid );
    if ( WIFEXITED( status ) && WEXITSTATUS( status ) == notPossible ) {
        return std::nullopt;
    }
    return status;
}

} // namespace QelKrellTest
