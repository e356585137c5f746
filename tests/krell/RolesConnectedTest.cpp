// Followers that their writer wakes: when they sleep, when they look by themselves.

#include <filesystem>

#include <gtest/gtest.h>

#include <Krell/DoorbellFence>

#include "krell/DoorbellSupport.h"
#include "krell/RolesSupport.h"

using namespace KrellTest;

namespace {

class EachRoleConnected : public RoleByRole {};
INSTANTIATE_TEST_SUITE_P( Roles, EachRoleConnected, everyRole() );

TEST_P( EachRoleConnected, AKickMayCloseAndOpenTheCollection ) {
    writer.asWriter( 10 );
    put( 1, 1 );
    Listener follower( layout );
    connect( follower, role() );
    follower.takeChanges();
    follower.onKey = [ & ]( U64 key, bool ) {
        if ( key == 2 && follower.attachments == 1 ) {
            follower.detach();
            follower.init( role(), false, 0 );
        }
    };
    put( 2, 2 );
    turnAll();
    EXPECT_EQ( follower.attachments, 2U );
    fireTimers();
    turnAll();
    EXPECT_EQ( follower.mountStatus(), 2 );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true }, { 2, true } } ) );
}

TEST_P( EachRoleConnected, AConnectedFollowerSleepsAndIsWoken ) {
    writer.asWriter( 40 );
    put( 1, 1 );
    Listener follower( layout );
    connect( follower, role() );
    EXPECT_EQ( follower.readerCounters().conquerConnections, 1U );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true } } ) );
    EXPECT_FALSE( timerOf( follower ).armed ) << "nothing looks by itself";
    const U64 kicks = writer.writerCounters().kicksIssued;
    put( 2, 2 );
    put( 3, 3 );
    EXPECT_EQ( writer.writerCounters().kicksIssued, kicks + 1 ) << "one kick for all";
    EXPECT_TRUE( follower.changes.empty() );
    turnAll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 2, true }, { 3, true } } ) );
    EXPECT_EQ( follower.readerCounters().conquerKicks, 1U );
    EXPECT_FALSE( timerOf( follower ).armed );
    del( 2 );
    turnAll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 2, false } } ) );
    EXPECT_EQ( follower.readerCounters().conquerKicks, 2U );
    EXPECT_EQ( writer.writerCounters().kicksIssued, kicks + 2 );
}

TEST_P( EachRoleConnected, ASleeperThatLooksNoLongerLosesNothing ) {
    writer.asWriter( 40 );
    Listener follower( layout );
    follower.sampleIs( 0 );
    connect( follower, role() );
    for ( U64 n = 0; n < 50; ++n ) {
        put( n % 5, n );
        turnAll();
        ASSERT_EQ( follower.takeChanges(), ( Changes { { n % 5, true } } ) );
        ASSERT_FALSE( timerOf( follower ).armed );
    }
    EXPECT_EQ( follower.readerCounters().conquerKicks, 50U );
}

// Its process may not make the call any more by which it saw to its writer's fence.
TEST_P( EachRoleConnected, AFollowerThatLosesTheFenceLooksByItselfAndConnectsAgain ) {
    constexpr int cannotRefuse = 77;
    const int result = inChild( [ & ] {
        writer.asWriter( 40 );
        put( 1, 1 );
        Listener follower( layout );
        connect( follower, role() );
        follower.takeChanges();
        if ( !Krell::DoorbellFence::forAll() || writer.doorbell()->fences() != 0 ||
             !refuseMembarrier( commandOfReaders, EPERM ) ) {
            return cannotRefuse;
        }
        put( 2, 2 );
        turnAll(); // it cannot go to sleep after that
        const bool looks = follower.mountStatus() == 1 && timerOf( follower ).armed &&
                           follower.takeChanges() == Changes { { 2, true } };
        put( 3, 3 );
        fireTimers();
        turnAll();
        const bool sleeps = follower.mountStatus() == 2 && !timerOf( follower ).armed &&
                            follower.takeChanges() == Changes { { 3, true } };
        put( 4, 4 );
        turnAll();
        const bool woken = follower.takeChanges() == Changes { { 4, true } };
        return looks && sleeps && woken && writer.doorbell()->fences() == 1 ? 0 : 1;
    } );
    if ( result == cannotRefuse ) {
        GTEST_SKIP() << "this system has no fence for all, or refuses nothing on demand";
    }
    EXPECT_EQ( result, 0 );
}

// Its own callback changes the collection before it goes to sleep.
TEST_P( EachRoleConnected, AChangeDuringTheRoundIsSeenBeforeItSleeps ) {
    for ( const U32 sample : { 0U, 20U } ) {
        writer.asWriter( 40 );
        Listener follower( layout );
        follower.sampleIs( sample );
        connect( follower, role() );
        U64 value = 0;
        follower.onKey = [ & ]( U64, bool ) {
            if ( value < 20 ) {
                put( 1, ++value );
            }
        };
        put( 1, 1000 );
        turnAll();
        EXPECT_EQ( value, 20U );
        EXPECT_EQ( follower.changes.size(), 21U );
        EXPECT_FALSE( timerOf( follower ).armed );
        EXPECT_EQ( follower.readerCounters().conquerSequence, writer.sequence() );
        follower.onKey = nullptr;
        writer.cleanup();
    }
}

TEST_P( EachRoleConnected, AConnectedFollowerYieldsAndGoesOn ) {
    writer.asWriter( 100 );
    Listener follower( layout );
    follower.yieldTimeIs( 0 );
    connect( follower, role() );
    for ( U64 key = 0; key < 30; ++key ) {
        put( key, 1 );
    }
    turnAll();
    EXPECT_EQ( follower.changes.size(), 8U );
    EXPECT_TRUE( timerOf( follower ).armed );
    EXPECT_EQ( timerOf( follower ).seconds, 0 );
    while ( timerOf( follower ).armed ) {
        fireTimers();
    }
    EXPECT_EQ( follower.changes.size(), 30U );
    put( 1, 2 );
    turnAll();
    while ( timerOf( follower ).armed ) {
        fireTimers();
    }
    EXPECT_EQ( follower.changes.size(), 31U ) << "it went to sleep armed";
}

TEST_P( EachRoleConnected, NotificationsThatAreOffDoNotKeepAConnectedFollowerAwake ) {
    writer.asWriter( 40 );
    Listener follower( layout );
    connect( follower, role() );
    follower.notifying( false );
    put( 1, 1 );
    turnAll();
    EXPECT_TRUE( follower.changes.empty() );
    EXPECT_FALSE( timerOf( follower ).armed );
    put( 2, 1 );
    turnAll();
    EXPECT_TRUE( follower.changes.empty() );
    follower.notifying( true );
    while ( timerOf( follower ).armed ) {
        fireTimers();
    }
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true }, { 2, true } } ) );
    put( 3, 1 );
    turnAll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 3, true } } ) );
}

// A queue that is not there for a moment: nobody will kick, so it has to look.
TEST_P( EachRoleConnected, AConnectedFollowerWithoutAQueueLooksByItself ) {
    writer.asWriter( 40 );
    put( 1, 1 );
    const std::string queue = writer.rootPath() + "/conquer.1";
    const std::string aside = root / "aside";
    std::filesystem::rename( queue, aside );
    Listener follower( layout );
    connect( follower, role() );
    EXPECT_TRUE( follower.changes.empty() );
    EXPECT_TRUE( timerOf( follower ).armed );
    std::filesystem::rename( aside, queue );
    fireTimers();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true } } ) );
    EXPECT_FALSE( timerOf( follower ).armed );
}

TEST_P( EachRoleConnected, TheTimerIsBackWhenTheWriterIsGone ) {
    writer.asWriter( 40 );
    put( 1, 1 );
    Listener follower( layout );
    connect( follower, role() );
    follower.takeChanges();
    put( 2, 2 );
    writer.detach();
    turnAll();
    EXPECT_EQ( follower.mountStatus(), 1 );
    EXPECT_TRUE( timerOf( follower ).armed );
    fireTimers();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 2, true } } ) );
    U64 value = 0;
    const U64 key = 1;
    EXPECT_TRUE( ( follower.table().find< 1, 1 >( &key, &value ) ) );
    // The next writer is noticed, called, and there are no more timers.
    writer.asWriter();
    put( 3, 3 );
    fireTimers();
    ASSERT_TRUE( turnUntil( [ & ] { return follower.mountStatus() == 2; } ) );
    turnAll();
    while ( timerOf( follower ).armed ) {
        fireTimers();
    }
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 3, true } } ) );
    EXPECT_EQ( follower.readerCounters().conquerConnections, 2U );
    EXPECT_EQ( follower.attachments, 1U ) << "the same incarnation";
}

} // namespace
