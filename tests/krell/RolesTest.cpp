// Reader, key shadow and shadow: what each of them is told.

#include <gtest/gtest.h>

#include "krell/RolesSupport.h"

using namespace KrellTest;

namespace {

class EachRole : public RoleByRole {};
INSTANTIATE_TEST_SUITE_P( Roles, EachRole, everyRole() );

constexpr QelKrellType followers[] = { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow };

TEST_P( EachRole, AFollowerBeforeItsWriterFillsWhenThatComes ) {
    Listener follower( layout );
    follower.init( role(), false, 0 );
    EXPECT_EQ( follower.mountStatus(), 0 );
    fireTimers();
    EXPECT_EQ( follower.mountStatus(), 0 );
    EXPECT_TRUE( timerOf( follower ).armed );
    EXPECT_EQ( follower.attachments, 0U );
    writer.asWriter( 10 );
    put( 1, 10 );
    put( 2, 20 );
    fireTimers();
    EXPECT_EQ( follower.mountStatus(), 1 );
    EXPECT_EQ( follower.attachments, 1U );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true }, { 2, true } } ) );
    EXPECT_TRUE( follower.failures.empty() );
    EXPECT_EQ( follower.readerCounters().conquerSequence, 2U );
}

TEST_P( EachRole, AChangeInTheDirectoryWakesAFollowerThatWaits ) {
    Listener follower( layout );
    follower.init( role(), false, 0 );
    fireTimers();
    fireTimers();
    ASSERT_TRUE( timerOf( follower ).armed );
    EXPECT_GT( timerOf( follower ).seconds, 0.02 ) << "the watch makes it look seldom";
    writer.asWriter( 10 );
    put( 1, 10 );
    for ( const char* name : { "sys", "Krell", "e", "c", "fenix" } ) {
        if ( !watches()[ 0 ]->watched.empty() ) {
            watches()[ 0 ]->handler->watchEvent( name );
        }
    }
    EXPECT_EQ( follower.mountStatus(), 1 );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true } } ) );
    EXPECT_TRUE( watches()[ 0 ]->watched.empty() );
    turnAll();
    EXPECT_EQ( follower.mountStatus(), 2 );
}

TEST_P( EachRole, EveryChangeIsToldOnce ) {
    writer.asWriter( 40 );
    put( 1, 1 );
    Listener follower( layout );
    follower.init( role(), false, 0 );
    follower.poll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true } } ) );
    put( 1, 2 );
    put( 1, 3 );
    put( 2, 1 );
    put( 3, 1 );
    del( 3 );
    follower.poll();
    const bool knowsAll = role() == QelKrell::reader; // 3 was never there for the copies
    EXPECT_EQ( follower.changes.size(), knowsAll ? 3U : 2U );
    Changes told = follower.takeChanges();
    told.erase( 3 );
    EXPECT_EQ( told, ( Changes { { 1, true }, { 2, true } } ) );
    del( 1 );
    put( 1, 4 );
    del( 2 );
    follower.poll();
    EXPECT_EQ( follower.changes.size(), 2U );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true }, { 2, false } } ) );
    follower.poll();
    EXPECT_TRUE( follower.changes.empty() );
}

// Two slots still hold the key.
TEST_P( EachRole, AKeyThatWentTwiceIsToldOnce ) {
    writer.asWriter( 40 );
    put( 1, 1 );
    Listener follower( layout );
    follower.init( role(), false, 0 );
    follower.poll();
    follower.takeChanges();
    for ( unsigned round = 0; round < 2; ++round ) {
        del( 1 );
        put( 1, 2 );
        del( 1 );
        put( 1, 3 );
        del( 1 );
        follower.poll();
        EXPECT_EQ( follower.changes.size(), 1U );
        EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, false } } ) );
        put( 1, 4 );
        follower.poll();
        EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true } } ) );
    }
}

TEST_P( EachRole, ADeletionWhoseHandlerThrowsIsToldAgain ) {
    writer.asWriter( 40 );
    put( 1, 1 );
    Listener follower( layout );
    follower.init( role(), false, 0 );
    follower.poll();
    follower.takeChanges();
    put( 1, 2 );
    follower.onKey = []( U64, bool ) { throw std::runtime_error( "the handler" ); };
    EXPECT_THROW( follower.poll(), std::runtime_error );
    follower.onKey = nullptr;
    follower.poll();
    EXPECT_EQ( follower.changes.size(), 2U );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true } } ) );
    if ( role() != QelKrell::reader ) {
        return; // a gone key is out of the copy before it is named
    }
    del( 1 );
    follower.onKey = []( U64, bool ) { throw std::runtime_error( "the handler" ); };
    EXPECT_THROW( follower.poll(), std::runtime_error );
    follower.onKey = nullptr;
    follower.poll();
    EXPECT_EQ( follower.changes.size(), 2U );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, false } } ) );
}

// It was told of the key, and the writer was followed by another before the first drain ended.
TEST_P( EachRole, ADeletionDuringTheFirstDrainIsToldThroughATakeover ) {
    writer.asWriter( 40 );
    for ( U64 key = 0; key < 30; ++key ) {
        put( key, 1 );
    }
    Listener follower( layout );
    follower.init( role(), false, 0 );
    follower.yieldTimeIs( 0 );
    follower.poll();
    ASSERT_EQ( follower.changes.size(), 8U );
    ASSERT_TRUE( follower.takeChanges().at( 3 ) );
    del( 3 );
    writer.detach();
    writer.asWriter();
    follower.yieldTimeIs( 1000 );
    follower.poll();
    follower.poll();
    const Changes told = follower.takeChanges();
    ASSERT_TRUE( told.count( 3 ) );
    EXPECT_FALSE( told.at( 3 ) );
    EXPECT_EQ( told.size(), 23U ) << "those told before are not told again";
}

TEST_P( EachRole, RoundsEndWithTheYieldTimeAndGoOnInTheNextTurn ) {
    writer.asWriter( 100 );
    for ( U64 key = 0; key < 50; ++key ) {
        put( key, 1 );
    }
    Listener follower( layout );
    EXPECT_TRUE( follower.yieldTimeIs( 0 ) );
    follower.init( role(), false, 0 );
    unsigned rounds = 0;
    do {
        timerOf( follower ).fire();
        ++rounds;
    } while ( timerOf( follower ).armed && timerOf( follower ).seconds == 0 );
    EXPECT_GE( rounds, 6U );
    EXPECT_EQ( follower.readerCounters().conquerYields, 6U );
    EXPECT_EQ( follower.changes.size(), 50U );
    EXPECT_EQ( follower.takeChanges().size(), 50U );
    // Keys that went are named by and by, too.
    for ( U64 key = 0; key < 50; ++key ) {
        del( key );
    }
    for ( unsigned i = 0; i < 30; ++i ) {
        fireTimers();
    }
    EXPECT_EQ( follower.changes.size(), 50U );
    EXPECT_GT( follower.readerCounters().conquerYields, 10U );
    EXPECT_EQ( follower.readerCounters().conquerNotified, 100U );
}

TEST_P( EachRole, NothingIsToldWhileNotificationsAreOff ) {
    writer.asWriter( 40 );
    put( 1, 1 );
    put( 2, 1 );
    Listener follower( layout );
    follower.init( role(), false, 0 );
    follower.poll();
    follower.takeChanges();
    follower.notifying( false );
    put( 1, 2 );
    put( 1, 3 );
    del( 2 );
    for ( unsigned i = 0; i < 3; ++i ) {
        follower.poll();
    }
    EXPECT_TRUE( follower.changes.empty() );
    follower.notifying( true );
    EXPECT_TRUE( timerOf( follower ).armed );
    EXPECT_EQ( timerOf( follower ).seconds, 0 );
    fireTimers();
    EXPECT_EQ( follower.changes.size(), 2U );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true }, { 2, false } } ) );
}

// An incarnation that came while nothing was told, too.
TEST_P( EachRole, ANewIncarnationIsToldAsDifferences ) {
    writer.asWriter( 10 );
    for ( U64 key = 1; key <= 4; ++key ) {
        put( key, key );
    }
    Listener follower( layout );
    follower.init( role(), false, 0 );
    follower.poll();
    follower.takeChanges();
    del( 4 );    // not told before the end of its incarnation
    put( 5, 5 ); // nor this
    writer.cleanup();
    writer.asWriter( 10 );
    put( 3, 33 );
    put( 6, 66 );
    for ( unsigned i = 0; i < 3; ++i ) {
        follower.poll();
    }
    EXPECT_EQ( follower.attachments, 2U );
    Changes told = follower.takeChanges();
    if ( told.count( 5 ) ) {
        EXPECT_FALSE( told.at( 5 ) );
        told.erase( 5 );
    }
    EXPECT_EQ( told,
               ( Changes { { 1, false }, { 2, false }, { 3, true }, { 4, false }, { 6, true } } ) );
    EXPECT_TRUE( follower.failures.empty() );
}

TEST_P( EachRole, AnIncarnationThatHadGrownBeforeItWasReplacedIsToldAsDifferences ) {
    writer.asWriter( 4 );
    for ( U64 key = 1; key <= 3; ++key ) {
        put( key, key );
    }
    Listener follower( layout );
    follower.init( role(), false, 0 );
    follower.poll();
    follower.takeChanges();
    for ( U64 key = 100; key < 140; ++key ) {
        put( key, key );
    }
    writer.cleanup();
    writer.asWriter( 10 );
    put( 3, 33 );
    follower.poll();
    follower.poll();
    Changes told = follower.takeChanges();
    std::erase_if( told, []( const auto& t ) { return t.first >= 100 && !t.second; } );
    EXPECT_EQ( told, ( Changes { { 1, false }, { 2, false }, { 3, true } } ) );
    EXPECT_EQ( follower.failures, std::vector< std::string >() );
}

TEST_P( EachRole, ACollectionThatIsTakenAwayIsToldAsDeletions ) {
    writer.asWriter( 10 );
    put( 1, 1 );
    put( 2, 2 );
    Listener follower( layout );
    follower.init( role(), false, 0 );
    follower.poll();
    follower.takeChanges();
    writer.cleanup();
    for ( unsigned i = 0; i < 3; ++i ) {
        follower.poll();
    }
    EXPECT_EQ( follower.mountStatus(), 0 );
    EXPECT_EQ( follower.changes.size(), 2U );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, false }, { 2, false } } ) );
    EXPECT_TRUE( timerOf( follower ).armed ) << "it waits for the next one";
    EXPECT_EQ( follower.sequence(), 0U );
}

TEST_P( EachRole, ACallbackMayCloseTheCollectionAtAnyKey ) {
    for ( U64 last = 1; last <= 3; ++last ) {
        writer.asWriter( 10 );
        for ( U64 key = 0; key < 6; ++key ) {
            put( key, last );
        }
        Listener follower( layout );
        follower.init( role(), false, 0 );
        follower.onKey = [ & ]( U64, bool ) {
            if ( follower.changes.size() == last ) {
                follower.detach();
            }
        };
        follower.poll();
        EXPECT_EQ( follower.changes.size(), last );
        EXPECT_EQ( follower.mountStatus(), 0 );
        EXPECT_EQ( follower.shadow(), nullptr );
        EXPECT_FALSE( timerOf( follower ).armed );
        follower.poll();
        EXPECT_EQ( follower.changes.size(), last );
        // While deletions are named.
        follower.onKey = nullptr;
        follower.init( role(), false, 0 );
        follower.poll();
        follower.takeChanges();
        for ( U64 key = 0; key < 6; ++key ) {
            del( key );
        }
        follower.onKey = [ & ]( U64, bool present ) {
            EXPECT_FALSE( present );
            if ( follower.changes.size() == last ) {
                follower.detach();
            }
        };
        follower.poll();
        EXPECT_EQ( follower.changes.size(), last );
    }
}

TEST_P( EachRole, ACallbackMayOpenTheCollectionAgainInAnyRole ) {
    for ( const QelKrellType next : followers ) {
        writer.asWriter( 10 );
        for ( U64 key = 0; key < 6; ++key ) {
            put( key, key );
        }
        Listener follower( layout );
        follower.init( role(), false, 0 );
        follower.onKey = [ & ]( U64 key, bool ) {
            if ( key == 2 && follower.attachments == 1 ) {
                follower.detach();
                follower.init( next, false, 0 );
                follower.poll(); // nothing within a round
            }
        };
        follower.poll();
        EXPECT_EQ( follower.changes.size(), 3U );
        EXPECT_EQ( follower.attachments, 2U );
        EXPECT_EQ( follower.mountStatus(), 1 );
        EXPECT_TRUE( timerOf( follower ).armed );
        EXPECT_EQ( follower.shadow() != nullptr, next != QelKrell::reader );
        EXPECT_EQ( follower.view() != nullptr, next == QelKrell::shadow );
        fireTimers();
        EXPECT_EQ( follower.changes.size(), 9U );
    }
}

// The follower that tells is not the one that the round began with.
TEST_P( EachRole, ACallbackMayCloseWhatAnotherOpenedInTheSameRound ) {
    writer.asWriter( 10 );
    Listener follower( layout );
    follower.onAttached = [ & ] {
        if ( follower.attachments == 1 ) {
            follower.detach();
            follower.init( role(), false, 0 );
        }
    };
    follower.onKey = [ & ]( U64, bool ) { follower.detach(); };
    writer.detach();
    writer.cleanup();
    follower.init( role(), false, 0 );
    ASSERT_EQ( follower.mountStatus(), 0 );
    writer.asWriter( 10 );
    put( 1, 1 );
    put( 2, 2 );
    follower.poll();
    follower.poll();
    EXPECT_EQ( follower.changes.size(), 1U );
    EXPECT_EQ( follower.attachments, 2U );
    EXPECT_EQ( follower.mountStatus(), 0 );
}

TEST_P( EachRole, ALocalCollectionIsEmptyAndTellsNothing ) {
    Listener follower( layout );
    follower.init( role(), true, 3 );
    EXPECT_EQ( follower.mountStatus(), 1 );
    follower.poll();
    follower.notifying( false );
    follower.notifying( true );
    EXPECT_EQ( fireTimers(), 0U );
    EXPECT_TRUE( follower.changes.empty() );
    EXPECT_EQ( follower.readerCounters().conquerNotified, 0U );
    EXPECT_EQ( follower.view() != nullptr, role() == QelKrell::shadow );
}

} // namespace
