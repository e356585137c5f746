// Every way to let go of the writer's lock, as the state machine notices it. No time passes in
// these tests, so no timer helps, but where a row says so.

#include "writerunlock/Watching.h"

#include <algorithm>
#include <filesystem>

#include <Krell/Directory>
#include <Krell/WriterLock>

namespace {

using QelKrellTest::Writer;

struct Way {
    const char* name;
    Writer::Manner manner;
    void ( *letGo )( Writer& writer, const std::string& directory );
    Qel::U32 releases;
    bool needsTimer = false;
};

void release( Writer& writer, const std::string& ) { writer.release(); }
void exits( Writer& writer, const std::string& ) { writer.exit(); }
void killed( Writer& writer, const std::string& ) { writer.kill(); }
void executes( Writer& writer, const std::string& ) { writer.becomeOther(); }

void releasedAfterFork( Writer& writer, const std::string& ) {
    writer.forkChild();
    writer.release();
}
void killedAfterFork( Writer& writer, const std::string& ) {
    writer.forkChild();
    writer.kill();
}
void killedAfterClone( Writer& writer, const std::string& ) {
    writer.cloneChild();
    writer.kill();
}
// It lets go, and the cleaner that has the lock next is it again.
void cleansUp( Writer& writer, const std::string& ) {
    writer.release();
    writer.cleanup();
}
void isRemovedAndKilled( Writer& writer, const std::string& directory ) {
    std::filesystem::remove_all( directory );
    writer.kill();
}
void isMovedAndReleased( Writer& writer, const std::string& directory ) {
    std::filesystem::rename( directory, directory + ".moved" );
    writer.release();
}
void locksAgainAndReleases( Writer& writer, const std::string& ) {
    writer.release();
    writer.lockAgain();
    writer.release();
}

constexpr auto silent = Writer::silent;
constexpr auto listening = Writer::listening;

const Way ways[] = {
    { "Detach", silent, release, 1 },
    { "DetachListening", listening, release, 1 },
    { "Exit", silent, exits, 1 },
    { "ExitListening", listening, exits, 1 },
    { "Kill", silent, killed, 1 },
    { "KillListening", listening, killed, 1 },
    { "Exec", silent, executes, 1 },
    { "ExecListening", listening, executes, 1 },
    { "DetachAfterFork", silent, releasedAfterFork, 1, true }, // the child keeps the file open
    { "DetachAfterForkListening", listening, releasedAfterFork, 1 },
    { "KillAfterFork", silent, killedAfterFork, 1 },
    { "KillAfterForkListening", listening, killedAfterFork, 1 },
    { "KillAfterClone", silent, killedAfterClone, 1 },
    { "KillAfterCloneListening", listening, killedAfterClone, 1 },
    { "CleanupByTheWriter", silent, cleansUp, 2 },
    { "CleanupByTheWriterListening", listening, cleansUp, 2 },
    { "RemovedAndKilled", silent, isRemovedAndKilled, 1 },
    { "RemovedAndKilledListening", listening, isRemovedAndKilled, 1 },
    { "MovedAndReleased", silent, isMovedAndReleased, 1 },
    { "MovedAndReleasedListening", listening, isMovedAndReleased, 1 },
    { "LockedAgainAndReleased", silent, locksAgainAndReleases, 2 },
    { "LockedAgainAndReleasedListening", listening, locksAgainAndReleases, 2 },
};

class Ways : public QelKrellTest::Watching, public testing::WithParamInterface< Way > {
protected:
    Ways() {
        settle();
        writer = std::make_unique< Writer >( directory, GetParam().manner );
    }
    const char* stateWithWriter() const {
        return GetParam().manner == listening ? "listening" : "watching";
    }
    void letGo() { GetParam().letGo( *writer, directory ); }
    // For a process that is killed or executes another program the system closes its files one
    // after the other.
    void expectSoon( Qel::U32 releases ) {
        if ( GetParam().needsTimer ) {
            tick();
        }
        for ( int i = 0; i < 500 && counter->count() < releases; ++i ) {
            Qel::System::runOnce( 0.02 );
        }
        settle();
        EXPECT_EQ( counter->count(), releases );
    }
    // Exactly so many are counted, whatever happens later.
    void expectCount( Qel::U32 releases ) {
        expectSoon( releases );
        writer.reset();
        for ( int i = 0; i < 5; ++i ) {
            clock.advance( 1 );
            settle();
        }
        EXPECT_EQ( counter->count(), releases );
    }

    std::unique_ptr< Writer > writer;
};

TEST_P( Ways, IsNoticed ) {
    sm->connectedIs( true );
    settle();
    EXPECT_EQ( state(), stateWithWriter() );
    EXPECT_EQ( counter->count(), 0u );
    letGo();
    expectCount( GetParam().releases );
}

// Nothing is left of a file that nobody saw.
class WaysThatLeaveTheFile : public Ways {};
// For a successor that waits for the lock of that very file, and locks at any time.
class WaysThatLeaveTheLockOnce : public Ways {};

// The writer has taken the connection, and said so.
TEST_P( Ways, IsNoticedOnceTheWriterHasAnswered ) {
    sm->connectedIs( true );
    writer->turn();
    settle();
    EXPECT_EQ( state(), stateWithWriter() );
    letGo();
    expectCount( GetParam().releases );
}

TEST_P( Ways, ThatIsOverWhenItConnectsIsNotCounted ) {
    letGo();
    writer.reset();
    sm->connectedIs( true );
    EXPECT_EQ( state(), "waiting" );
    expectCount( 0 );
}

TEST_P( WaysThatLeaveTheFile, OfAWriterThatCameLaterIsNoticed ) {
    writer.reset();
    std::filesystem::remove_all( directory );
    sm->connectedIs( true );
    settle();
    EXPECT_EQ( state(), "waiting" );
    writer = std::make_unique< Writer >( directory, GetParam().manner );
    letGo();
    expectCount( GetParam().releases );
}

TEST_P( WaysThatLeaveTheLockOnce, WithASuccessorIsNoticedAndTheSuccessorWatched ) {
    sm->connectedIs( true );
    Writer successor( directory, Writer::whenFree, GetParam().manner );
    letGo();
    successor.started();
    expectSoon( 1 );
    EXPECT_EQ( state(), stateWithWriter() );
    successor.kill();
    expectCount( 2 );
}

std::vector< Way > chosen( bool ( *choice )( const Way& ) ) {
    std::vector< Way > result;
    std::copy_if( std::begin( ways ), std::end( ways ), std::back_inserter( result ), choice );
    return result;
}
bool leavesTheFile( const Way& way ) {
    return way.letGo != cleansUp && way.letGo != isRemovedAndKilled &&
           way.letGo != isMovedAndReleased;
}
bool leavesTheLockOnce( const Way& way ) { return leavesTheFile( way ) && way.releases == 1; }
std::string nameOf( const testing::TestParamInfo< Way >& info ) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P( All, Ways, testing::ValuesIn( ways ), nameOf );
INSTANTIATE_TEST_SUITE_P( All,
                          WaysThatLeaveTheFile,
                          testing::ValuesIn( chosen( leavesTheFile ) ),
                          nameOf );
INSTANTIATE_TEST_SUITE_P( All,
                          WaysThatLeaveTheLockOnce,
                          testing::ValuesIn( chosen( leavesTheLockOnce ) ),
                          nameOf );

} // namespace
