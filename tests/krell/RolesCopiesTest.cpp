// What a follower's own copy knows, and what every counter counts.

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "krell/QueueSupport.h"
#include "krell/RolesSupport.h"

using namespace KrellTest;

namespace {

TEST_F( RolesTest, ACopyNamesAKeyWhoseSlotWasUsedAgain ) {
    for ( const QelKrellType role : { QelKrell::keyshadow, QelKrell::shadow } ) {
        writer.asWriter( 2 );
        put( 1, 1 );
        put( 2, 1 );
        Listener follower( layout );
        follower.init( role, false, 0 );
        follower.poll();
        follower.takeChanges();
        del( 1 );
        put( 3, 1 ); // takes its slot
        follower.poll();
        EXPECT_EQ( follower.changes.size(), 2U );
        EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, false }, { 3, true } } ) );
        EXPECT_EQ( follower.readerCounters().keyShadowMismatch, 1U );
        // Two keys change places.
        del( 2 );
        put( 1, 5 );
        del( 3 );
        put( 2, 5 );
        follower.poll();
        EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true }, { 2, true }, { 3, false } } ) );
        writer.cleanup();
    }
}

TEST_F( RolesTest, OnlyAShadowHasAViewAndAReaderHasNoCopy ) {
    writer.asWriter( 10 );
    put( 1, 10 );
    Listener follower( layout );
    for ( const QelKrellType role : { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow,
                                      QelKrell::reader, QelKrell::shadow } ) {
        follower.init( role, false, 0 ); // another role: closed and opened
        follower.takeChanges();
        EXPECT_EQ( follower.readerCounters().conquerNotified, 0U );
        follower.poll();
        EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true } } ) ) << int( role );
        EXPECT_EQ( follower.shadow() != nullptr, role != QelKrell::reader );
        EXPECT_EQ( follower.view() != nullptr, role == QelKrell::shadow );
        if ( role == QelKrell::keyshadow ) {
            EXPECT_EQ( follower.contents(), ( std::map< U64, U64 > { { 1, 0 } } ) );
        }
        const Krell::ShadowTable* const copy = follower.shadow();
        follower.init( role, false, 0 );
        EXPECT_EQ( follower.shadow(), copy ) << "the same role: kept";
    }
    EXPECT_EQ( follower.contents(), ( std::map< U64, U64 > { { 1, 10 } } ) );
}

TEST_F( RolesTest, TheOldValueIsAtHand ) {
    writer.asWriter( 10 );
    put( 1, 10 );
    put( 2, 20 );
    Listener follower( layout );
    follower.init( QelKrell::shadow, false, 0 );
    std::map< U64, U64 > old;
    follower.onKey = [ & ]( U64 key, bool present ) {
        U64 value = 0;
        if ( follower.view()->oldValueOf( &key, &value ) ) {
            old[ key ] = value;
        }
        EXPECT_EQ( follower.view()->find( &key ) != nullptr, present );
    };
    follower.poll();
    EXPECT_EQ( old, ( std::map< U64, U64 >() ) ) << "they are new";
    put( 1, 11 );
    put( 1, 12 );
    del( 2 );
    put( 3, 30 );
    follower.poll();
    EXPECT_EQ( old, ( std::map< U64, U64 > { { 1, 10 }, { 2, 20 } } ) );
    old.clear();
    put( 2, 21 );
    del( 1 );
    follower.poll();
    EXPECT_EQ( old, ( std::map< U64, U64 > { { 1, 12 } } ) );
}

TEST_F( RolesTest, TheViewStandsStillBetweenRounds ) {
    writer.asWriter( 10 );
    put( 1, 10 );
    put( 2, 20 );
    Listener follower( layout );
    follower.init( QelKrell::shadow, false, 0 );
    follower.poll();
    const std::map< U64, U64 > before = { { 1, 10 }, { 2, 20 } };
    EXPECT_EQ( follower.contents(), before );
    put( 1, 11 );
    del( 2 );
    put( 3, 30 );
    EXPECT_EQ( follower.contents(), before );
    follower.notifying( false );
    follower.poll();
    EXPECT_EQ( follower.contents(), before );
    // A writer that is gone, and one that makes the collection anew.
    writer.cleanup();
    EXPECT_EQ( follower.contents(), before );
    writer.asWriter( 10 );
    put( 4, 40 );
    EXPECT_EQ( follower.contents(), before );
    follower.notifying( true );
    EXPECT_EQ( follower.contents(), before );
    fireTimers();
    fireTimers();
    EXPECT_EQ( follower.contents(), ( std::map< U64, U64 > { { 4, 40 } } ) );
}

TEST_F( RolesTest, TheReaderCountersMove ) {
    writer.asWriter( 4 );
    put( 1, 1 );
    Listener follower( layout );
    follower.init( QelKrell::shadow, false, 0 );
    const QelKrell::ReaderCounters first = follower.readerCounters();
    EXPECT_EQ( first.conquerNotified, 0U );
    EXPECT_EQ( first.conquerBaseAddress, 0U );
    EXPECT_NE( first.slotBaseAddress, 0U );
    follower.poll();
    QelKrell::ReaderCounters counters = follower.readerCounters();
    EXPECT_EQ( counters.occupiedSlots, 1U );
    EXPECT_EQ( counters.conquerRestarts, 1U );
    EXPECT_EQ( counters.conquerEnd, 1U );
    EXPECT_EQ( counters.conquerEmpty, 0U );
    EXPECT_EQ( counters.conquerNotified, 1U );
    EXPECT_EQ( counters.conquerSequence, 1U );
    EXPECT_EQ( counters.conquerTombed, 0U );
    EXPECT_NE( counters.conquerBaseAddress, 0U );
    EXPECT_GT( counters.slotShadowResizes, 0U );
    follower.poll();
    EXPECT_EQ( follower.readerCounters().conquerEmpty, 1U );
    EXPECT_EQ( follower.readerCounters().conquerEnd, 1U );
    put( 1, 2 );
    put( 1, 3 );
    follower.poll();
    counters = follower.readerCounters();
    EXPECT_EQ( counters.conquerTombed, 1U );
    EXPECT_EQ( counters.conquerEnd, 2U );
    EXPECT_EQ( counters.conquerSequence, 3U );
    EXPECT_EQ( counters.slotResizes, 0U );
    EXPECT_EQ( counters.conquerResizes, 0U );
    EXPECT_EQ( counters.conquerProbes, 0U );
    for ( U64 key = 0; key < 1200; ++key ) {
        put( key, 7 );
    }
    follower.poll();
    counters = follower.readerCounters();
    EXPECT_GT( counters.slotResizes, 0U );
    EXPECT_EQ( counters.conquerResizes, 1U );
    EXPECT_EQ( counters.occupiedSlots, 1200U );
    EXPECT_GT( counters.slotShadowResizes, 3U );
    EXPECT_EQ( counters.keyShadowMismatch, 0U );
    EXPECT_EQ( counters.conquerYields, 0U );
    EXPECT_EQ( counters.conquerConnections, 0U );
    EXPECT_EQ( counters.conquerKicks, 0U );
    const U32 restarts = counters.conquerRestarts;
    const U32 probes = counters.conquerProbes;
    writer.detach();
    writer.asWriter();
    follower.poll();
    counters = follower.readerCounters();
    EXPECT_EQ( counters.conquerRestarts, restarts + 1 );
    EXPECT_GT( counters.conquerProbes, probes + 3 );
    EXPECT_EQ( counters.conquerNotified, 1U + 1U + 1200U );
    follower.init( QelKrell::reader, false, 0 );
    EXPECT_EQ( follower.readerCounters().conquerRestarts, 0U ) << "from 0 when it is opened";
    EXPECT_EQ( follower.readerCounters().slotShadowResizes, 0U );
}

TEST_F( RolesTest, TheCountersOfReadingMove ) {
    writer.asWriter( 4 );
    put( 1, 1 );
    put( 1, 2 ); // leaves its lookaside record
    Listener follower( layout );
    follower.asReader();
    MappedFile slots( writer.rootPath() + "/slots" );
    U64* const version = &slots.word( Krell::Segments::slotsAt_ );
    const Krell::SlotVersion whole( *version );
    const U64 written =
        Krell::SlotVersion( whole.sequence() - 1, whole.state() ).whileWriting().word();
    *version = written;
    U64 value = 0;
    const U64 key = 1;
    EXPECT_TRUE( ( follower.table().find< 1, 1 >( &key, &value ) ) );
    EXPECT_EQ( value, 2U );
    EXPECT_EQ( follower.readerCounters().usedLookaside, 1U );
    EXPECT_EQ( follower.readerCounters().chainRestarts, 0U );
    // A slot that does not hold still.
    if ( !canRace() ) {
        GTEST_SKIP() << "one processor: a slot holds still while it is read";
    }
    std::atomic< bool > stopped { false };
    std::thread changing( [ & ] {
        for ( U64 n = 1; !stopped; ++n ) {
            const Krell::SlotVersion next( whole.sequence() + n, whole.state() );
            Dov::Atomics::storeRelease( version, next.word() );
        }
    } );
    while ( follower.readerCounters().chainRestarts == 0 ) {
        ASSERT_TRUE( ( follower.table().find< 1, 1 >( &key, &value ) ) );
    }
    stopped = true;
    changing.join();
    *version = whole.word();
}

TEST_F( RolesTest, TheWriterCountersMove ) {
    writer.asWriter( 4 );
    QelKrell::WriterCounters counters = writer.writerCounters();
    EXPECT_EQ( counters.slotAllocs, 0U );
    EXPECT_EQ( counters.conquerNotifications, 0U );
    EXPECT_EQ( counters.conquerResizes, 0U );
    EXPECT_EQ( counters.kicksIssued, 0U );
    EXPECT_NE( counters.slotBaseAddress, 0U );
    EXPECT_NE( counters.conquerBaseAddress, 0U );
    put( 1, 1 );
    put( 2, 1 );
    put( 1, 2 );
    put( 1, 2 ); // no change
    del( 2 );
    counters = writer.writerCounters();
    EXPECT_EQ( counters.slotAllocs, 2U );
    EXPECT_EQ( counters.slotDeallocs, 1U );
    EXPECT_EQ( counters.directWrite, 1U );
    EXPECT_EQ( counters.directCommit, 2U );
    EXPECT_EQ( counters.conquerNotifications, 4U );
    EXPECT_EQ( counters.conquerTombstones, 2U );
    EXPECT_EQ( counters.conquerSequence, 4U );
    EXPECT_EQ( counters.conquerCompactions, 0U );
    for ( U64 n = 0; n < 1200; ++n ) {
        put( 3, n );
    }
    EXPECT_GE( writer.writerCounters().conquerCompactions, 2U );
    for ( U64 key = 0; key < 400; ++key ) {
        put( key, 5 );
    }
    EXPECT_GT( writer.writerCounters().conquerResizes, 0U );
    EXPECT_NE( writer.writerCounters().conquerBaseAddress, 0U );
    TestCollection local( layout );
    local.init( QelKrell::writer, true, 4 );
    EXPECT_EQ( local.writerCounters().conquerBaseAddress, 0U );
    EXPECT_EQ( local.writerCounters().conquerNotifications, 0U );
}

} // namespace
