// Releases of a writer's lock, by real processes, as the state machine notices them.

#include "writerunlock/Watching.h"

#include <filesystem>
#include <fstream>

#include <Krell/Directory>
#include <Krell/WriterLock>

#include "platform/InotifyLimit.h"

namespace {

using QelKrellTest::Message;
using QelKrellTest::Writer;
using testing::ElementsAre;
using testing::IsEmpty;

class Release : public QelKrellTest::Watching {
protected:
    // Nothing more happens, however long one looks.
    void expectStaysAt( Qel::U32 count ) {
        for ( int i = 0; i < 5; ++i ) {
            turn();
            tick();
        }
        EXPECT_EQ( counter->count(), count );
    }
};

TEST_F( Release, ByDeathIsNoticedInOneTurnWithoutTime ) {
    Writer writer( directory );
    sm->connectedIs( true );
    turn();
    EXPECT_EQ( counter->count(), 0u );
    writer.kill();
    turn();
    EXPECT_EQ( counter->count(), 1u );
    expectStaysAt( 1 );
}

TEST_F( Release, ByExitIsNoticedInOneTurnWithoutTime ) {
    Writer writer( directory );
    sm->connectedIs( true );
    writer.exit();
    turn();
    EXPECT_EQ( counter->count(), 1u );
    expectStaysAt( 1 );
}

TEST_F( Release, ByAProcessThatLivesOnIsNoticedInOneTurnWithoutTime ) {
    Writer writer( directory );
    sm->connectedIs( true );
    writer.release();
    turn();
    EXPECT_EQ( counter->count(), 1u );
    writer.kill();
    expectStaysAt( 1 );
}

TEST_F( Release, ByExecIsNoticedByTheTimerAtLast ) {
    Writer writer( directory );
    sm->connectedIs( true );
    writer.becomeOther();
    tick();
    EXPECT_EQ( counter->count(), 1u );
    writer.kill();
    expectStaysAt( 1 );
}

TEST_F( Release, AForkedChildDoesNotKeepTheLock ) {
    Writer writer( directory );
    writer.forkChild();
    sm->connectedIs( true );
    tick();
    EXPECT_EQ( counter->count(), 0u );
    writer.kill();
    turn();
    EXPECT_EQ( counter->count(), 1u );
    expectStaysAt( 1 );
}

TEST_F( Release, AStoppedOrIdleWriterHasNotReleased ) {
    const Writer writer( directory );
    sm->connectedIs( true );
    kill( writer.pid(), SIGSTOP );
    expectStaysAt( 0 );
}

TEST_F( Release, WithoutAWriterThereIsNone ) {
    sm->connectedIs( true );
    expectStaysAt( 0 );
    Krell::Directory::create( directory );
    expectStaysAt( 0 );
}

TEST_F( Release, AWriterThatComesLaterIsWatched ) {
    sm->connectedIs( true );
    expectStaysAt( 0 );
    Writer writer( directory );
    tick();
    writer.kill();
    turn();
    EXPECT_EQ( counter->count(), 1u );
    expectStaysAt( 1 );
}

TEST_F( Release, AFastSuccessorIsOneRelease ) {
    Writer first( directory );
    sm->connectedIs( true );
    Writer second( directory, Writer::whenFree );
    first.kill();
    second.started();
    turn();
    EXPECT_EQ( counter->count(), 1u );
    expectStaysAt( 1 );
    second.kill();
    turn();
    EXPECT_EQ( counter->count(), 2u );
    expectStaysAt( 2 );
}

TEST_F( Release, AFastSuccessorOfALivingProcessIsOneRelease ) {
    Writer first( directory );
    sm->connectedIs( true );
    first.release();
    Writer second( directory );
    tick();
    EXPECT_EQ( counter->count(), 1u );
    first.kill();
    expectStaysAt( 1 );
}

// A writer with that process id, or null where the system does not let one choose.
std::unique_ptr< Writer > writerOf( const std::string& directory, pid_t pid, Qel::U32& others ) {
    constexpr Qel::U32 attempts = 100; // other processes may fork in between
    for ( others = 0; others < attempts; ++others ) {
        std::ofstream last( "/proc/sys/kernel/ns_last_pid" );
        last << pid - 1 << std::flush;
        if ( !last ) {
            break;
        }
        auto writer = std::make_unique< Writer >( directory );
        if ( writer->pid() == pid ) {
            return writer;
        }
    }
    return nullptr;
}

TEST_F( Release, ASuccessorOfTheSameProcessIdIsOneRelease ) {
    Writer first( directory );
    const pid_t pid = first.pid();
    sm->connectedIs( true );
    first.kill();
    Qel::U32 others = 0; // that held the lock, but had another process id
    const auto second = writerOf( directory, pid, others );
    if ( !second ) {
        GTEST_SKIP() << "process ids cannot be chosen here";
    }
    turn();
    EXPECT_EQ( counter->count(), 1 + others );
    expectStaysAt( 1 + others );
    second->kill();
    turn();
    EXPECT_EQ( counter->count(), 2 + others );
}

TEST_F( Release, AHundredTakeoversAreAHundredReleases ) {
    auto writer = std::make_unique< Writer >( directory );
    sm->connectedIs( true );
    for ( Qel::U32 i = 1; i <= 100; ++i ) {
        auto successor = std::make_unique< Writer >( directory, Writer::whenFree );
        switch ( i % 3 ) {
        case 0:
            writer->kill();
            break;
        case 1:
            writer->exit();
            break;
        default:
            writer->release();
        }
        successor->started();
        turn();
        tick();
        ASSERT_EQ( counter->count(), i );
        writer = std::move( successor );
    }
    expectStaysAt( 100 );
}

TEST_F( Release, OneLockedAndReleasedAgainCountsEachTime ) {
    Writer writer( directory );
    sm->connectedIs( true );
    for ( Qel::U32 i = 1; i <= 3; ++i ) {
        writer.release();
        tick();
        EXPECT_EQ( counter->count(), i );
        writer.lockAgain();
        tick();
        EXPECT_EQ( counter->count(), i );
    }
}

TEST_F( Release, WhileDisconnectedIsNotCounted ) {
    Writer writer( directory );
    sm->connectedIs( true );
    sm->connectedIs( false );
    writer.kill();
    expectStaysAt( 0 );
    sm->connectedIs( true );
    expectStaysAt( 0 );
}

TEST_F( Release, NothingWakesADisconnectedOne ) {
    Writer writer( directory );
    sm->connectedIs( true );
    sm->connectedIs( false );
    writer.kill();
    EXPECT_FALSE( turn() );
    clock.set( clock.now() + 1 );
    EXPECT_FALSE( turn() );
}

TEST_F( Release, ConnectingAgainWatchesThePresentWriter ) {
    Writer first( directory );
    sm->connectedIs( true );
    sm->connectedIs( false );
    first.kill();
    Writer second( directory );
    sm->connectedIs( true );
    expectStaysAt( 0 );
    second.kill();
    turn();
    EXPECT_EQ( counter->count(), 1u );
}

TEST_F( Release, ConnectingAConnectedOneLooksAtOnce ) {
    Writer writer( directory );
    sm->connectedIs( true );
    sm->connectedIs( true );
    EXPECT_EQ( counter->count(), 0u );
    writer.release();
    sm->connectedIs( true );
    EXPECT_EQ( counter->count(), 1u );
    expectStaysAt( 1 );
}

TEST_F( Release, OfThisProcessIsNoticedToo ) {
    const Krell::Directory opened = Krell::Directory::create( directory );
    Krell::WriterLock lock;
    ASSERT_TRUE( lock.tryLock( opened ) );
    sm->connectedIs( true );
    expectStaysAt( 0 );
    EXPECT_TRUE( lock.held() ) << "looking does not cost the lock";
    lock.unlock();
    tick();
    EXPECT_EQ( counter->count(), 1u );
}

TEST_F( Release, ADirectoryThatWasTakenAwayIsAFreeLock ) {
    const Writer writer( directory );
    sm->connectedIs( true );
    std::filesystem::rename( directory, scratch.path( "away" ) );
    tick();
    EXPECT_EQ( counter->count(), 1u );
    Writer next( directory );
    tick();
    next.kill();
    turn();
    EXPECT_EQ( counter->count(), 2u );
}

TEST_F( Release, AReactorMayLetTheStateMachineGo ) {
    Writer writer( directory );
    sm->connectedIs( true );
    const auto byDeath = onCount( [ this ] { sm = nullptr; } );
    writer.kill();
    turn();
    EXPECT_FALSE( sm );
    EXPECT_EQ( counter->count(), 1u );

    sm = QelKrell::writerUnlockSmFactory( directory, "", counter );
    Writer next( directory );
    sm->connectedIs( true );
    next.release();
    tick();
    EXPECT_FALSE( sm );
    expectStaysAt( 2 );
}

TEST_F( Release, AReactorMayDisconnectAndConnect ) {
    Writer writer( directory );
    sm->connectedIs( true );
    const auto reactor = onCount( [ this ] {
        sm->connectedIs( false );
        sm->connectedIs( true );
    } );
    writer.kill();
    turn();
    expectStaysAt( 1 );
    Writer next( directory );
    tick();
    next.kill();
    turn();
    expectStaysAt( 2 );
}

TEST_F( Release, SeveralWatchersAllNotice ) {
    const auto otherCounter = QelKrell::writerUnlockFactory( "other" );
    const auto other = QelKrell::writerUnlockSmFactory( directory, "", otherCounter );
    Writer writer( directory );
    sm->connectedIs( true );
    other->connectedIs( true );
    writer.kill();
    turn();
    EXPECT_EQ( counter->count(), 1u );
    EXPECT_EQ( otherCounter->count(), 1u );
}

TEST_F( Release, WhereNothingCanBeWatchedTheTimerDoes ) {
    const auto status = QelKrellTest::withInotifyWatches( 0, [ & ] {
        tracing.settingsAre( "KrellWriterUnlock/1" );
        sm->connectedIs( true );
        ASSERT_EQ( state(), "blind" );
        EXPECT_EQ( tracing.taken().size(), 1u );
        for ( Qel::U32 i = 1; i <= 3; ++i ) {
            Writer writer( directory );
            writer.release();
            tick();
            EXPECT_EQ( counter->count(), i );
        }
        Writer writer( directory, Writer::listening );
        tick();
        EXPECT_EQ( state(), "listening" );
        writer.release();
        turn();
        EXPECT_EQ( counter->count(), 4u );
    } );
    if ( !status ) {
        GTEST_SKIP() << "a process cannot be given limits of its own here";
    }
    EXPECT_EQ( *status, 0 );
}

TEST_F( Release, AFailureToLookIsTracedOnceAndOvercome ) {
    Writer writer( directory );
    sm->connectedIs( true );
    std::filesystem::rename( directory, scratch.path( "away" ) );
    std::filesystem::create_directory_symlink( scratch.path( "away" ), directory );
    tracing.settingsAre( "KrellWriterUnlock/1" );
    expectStaysAt( 0 );
    const auto messages = tracing.taken();
    ASSERT_EQ( messages.size(), 1u );
    EXPECT_EQ( messages[ 0 ].level, 1 );
    EXPECT_THAT( messages[ 0 ].text, testing::StartsWith( "Krell::WriterUnlockSm cannot look at '" +
                                                          directory + "': " ) );
    std::filesystem::remove( directory );
    std::filesystem::rename( scratch.path( "away" ), directory );
    expectStaysAt( 0 );
    writer.kill();
    tick();
    EXPECT_EQ( counter->count(), 1u );
}

} // namespace
