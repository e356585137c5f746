// Rounds of the change queue and its growth in place: where readers may stand meanwhile, and that
// there is always room.

#include <filesystem>
#include <optional>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include <signal.h>

#include "FileLimit.h"
#include "krell/QueueSupport.h"

using namespace KrellTest;
using Drain = Krell::QueueReader::Drain;
using Keys = std::vector< U64 >;

namespace {

constexpr U32 fullPage = 371;   // slots whose queue fills a page, but for one place
constexpr U32 fullPages = 1600; // and some whose queue fills four: the fewest places for each

class QueueRoundTest : public testing::Test {
protected:
    // One change to `key`, and how little room there ever was before one.
    void change( QueueWriterSide& writer, U64 key ) {
        writer.put( key, ++value_ );
        leastRoom = std::min( leastRoom, writer.queue().room() );
    }
    void change( QueueWriterSide& writer, const Keys& keys ) {
        for ( const U64 key : keys ) {
            change( writer, key );
        }
    }
    // Changes `key` until the head is at that position.
    void advance( QueueWriterSide& writer, U64 key, U64 position ) {
        while ( writer.head() < position ) {
            change( writer, key );
        }
    }
    // Everything that a reader is told until nothing is new, and that it ends with the versions.
    static std::set< U64 > allTold( QueueReaderSide& reader ) {
        std::set< U64 > told;
        do {
            for ( const U64 key : reader.keys() ) {
                told.insert( key );
            }
        } while ( reader.last == Drain::end );
        EXPECT_EQ( reader.last, Drain::empty );
        return told;
    }
    static std::set< U64 > setOf( const Keys& keys ) { return { keys.begin(), keys.end() }; }

    QueuePlace place;
    U64 leastRoom = ~U64( 0 );

private:
    U64 value_ = 0;
};

TEST_F( QueueRoundTest, ThereAreTenBytesForASlot ) {
    QueueWriterSide writer( place, 100000 );
    EXPECT_LE( std::filesystem::file_size( writer.file() ), 10 * 100000 + 8192U );
    writer.table.reserve( 200000 );
    EXPECT_LE( std::filesystem::file_size( writer.file() ), 10 * 200000 + 8192U );
}

// Every step of a writer and of readers at all distances, through several rounds.
TEST_F( QueueRoundTest, ReadersAtEveryDistanceAreToldEachChangeThroughManyRounds ) {
    QueueWriterSide writer( place, 40 );
    change( writer, range( 0, 40 ) );
    const U64 places = writer.queue().places();
    std::vector< std::unique_ptr< QueueReaderSide > > readers;
    std::vector< U64 > known; // how far each has read
    for ( U64 n = 0; n < 24; ++n ) {
        readers.push_back( std::make_unique< QueueReaderSide >( place ) );
        readers.back()->keys();
        known.push_back( writer.head() );
    }
    U64 wraps = 0;
    for ( U64 n = 0; n < 6 * places; ++n ) {
        const U64 round = writer.round();
        change( writer, n * 7 % 40 );
        wraps += writer.round() != round;
        // Reader r stands r/20 of the queue behind, and goes on by what is new since.
        for ( U64 r = 0; r < readers.size(); ++r ) {
            if ( writer.head() - known[ r ] >= r * places / 20 + 1 ) {
                const U64 changes = std::min< U64 >( 40, writer.head() - known[ r ] );
                const Keys told = readers[ r ]->keys();
                ASSERT_EQ( setOf( told ).size(), told.size() ) << "reader " << r;
                ASSERT_LE( told.size(), changes );
                ASSERT_TRUE( setOf( told ).count( n * 7 % 40 ) );
                ASSERT_EQ( readers[ r ]->queue.sequence(), writer.table.sequence() );
                known[ r ] = writer.head();
            }
        }
    }
    EXPECT_GE( wraps, 5U );
    writer.expectSound();
    EXPECT_EQ( readers[ 0 ]->queue.counts().restarts, 1U );
    EXPECT_EQ( readers[ 16 ]->queue.counts().restarts, 1U ) << "it was not lapped yet";
    EXPECT_GT( readers.back()->queue.counts().restarts, 5U );
}

// A reader that stands in the middle of a drain at the last positions of a round, at the first of
// the next, and in the round before.
TEST_F( QueueRoundTest, ADrainThatStoppedGoesOnAcrossTheEndOfARound ) {
    for ( U64 offset = 0; offset < 12; ++offset ) {
        SCOPED_TRACE( offset );
        QueuePlace here;
        QueueWriterSide writer( here, 40 );
        change( writer, range( 0, 40 ) );
        const U64 begin = writer.round();
        const U64 end = begin + writer.queue().places();
        advance( writer, 39, end - 10 );
        QueueReaderSide reader( here );
        reader.keys();
        change( writer, range( 0, 20 ) );
        ASSERT_EQ( writer.round(), end );
        ASSERT_EQ( writer.roundBefore(), begin );
        const Keys first = reader.some( offset + 1 );
        ASSERT_EQ( first, range( 0, offset + 1 ) );
        change( writer, range( 30, 32 ) );
        ASSERT_EQ( reader.keys(), range( offset + 1, 20 ) );
        ASSERT_EQ( reader.keys(), range( 30, 32 ) );
        EXPECT_EQ( reader.queue.counts().restarts, 1U );
        writer.expectSound();
    }
}

TEST_F( QueueRoundTest, AStoppedReaderLosesNothingThroughAnyNumberOfRounds ) {
    for ( U64 rounds = 0; rounds < 6; ++rounds ) {
        for ( const U64 offset : { 0, 1, 7, 200 } ) {
            SCOPED_TRACE( std::to_string( rounds ) + " rounds and " + std::to_string( offset ) );
            QueuePlace here;
            QueueWriterSide writer( here, 40 );
            change( writer, range( 0, 40 ) );
            QueueReaderSide reader( here );
            QueueReaderSide halfway( here );
            reader.keys();
            ASSERT_EQ( halfway.some( 5 ), range( 0, 5 ) );
            change( writer, { 3, 4 } );
            advance( writer, 20, writer.head() + rounds * writer.queue().places() + offset );
            change( writer, 5 );
            EXPECT_EQ( allTold( reader ), rounds + offset > 0 ? ( std::set< U64 > { 3, 4, 5, 20 } )
                                                              : ( std::set< U64 > { 3, 4, 5 } ) );
            std::set< U64 > rest = allTold( halfway );
            const std::set< U64 > wanted = setOf( range( 3, 40 ) );
            EXPECT_TRUE( std::includes( rest.begin(), rest.end(), wanted.begin(), wanted.end() ) );
            EXPECT_EQ( QueueReaderSide( here ).keys().size(), 40U );
            writer.expectSound();
        }
    }
}

// One key for ever, between long runs of live entries; with the fewest places for each slot.
TEST_F( QueueRoundTest, RunsOfLiveEntriesAtTheTailNeverTakeAllRoom ) {
    QueueWriterSide writer( place, fullPages );
    const Keys others = range( 1, fullPages );
    change( writer, range( 0, fullPages ) );
    ASSERT_EQ( writer.queue().places(), Krell::QueueSegment::placesFor( fullPages ) );
    const U64 places = writer.queue().places();
    for ( U64 gap = 0; gap < 2 * places; gap += gap < 40 ? 1 : 37 ) {
        SCOPED_TRACE( gap );
        change( writer, others ); // a run of them, whole
        advance( writer, 0, writer.head() + gap );
        change( writer, others );
        advance( writer, 0, writer.head() + 5 * places );
        writer.expectSound();
        ASSERT_FALSE( HasFatalFailure() );
    }
    EXPECT_GE( leastRoom, 2 * Krell::QueueSegment::run_ - 4U );
    EXPECT_LT( leastRoom, places / 16 + 2 * Krell::QueueSegment::run_ ) << "it was short";
    EXPECT_GT( writer.queue().compactions(), 1000U );
}

TEST_F( QueueRoundTest, RandomChangesAndGrowthNeverTakeAllRoom ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    for ( unsigned history = 0; history < 40; ++history ) {
        QueuePlace here;
        QueueWriterSide writer( here, fullPage );
        QueueReaderSide often( here );
        QueueReaderSide seldom( here );
        U64 keys = fullPage; // that there are
        for ( unsigned step = 0; step < 40; ++step ) {
            const U64 first = random() % keys;
            const U64 count = std::min< U64 >( random() % 400, keys - first );
            switch ( random() % 6 ) {
            case 0:
                advance( writer, first, writer.head() + random() % 1800 );
                break;
            case 1: // all that there is room for, at once, wherever the tail is
                if ( keys < 4000 ) {
                    const U64 more = keys + random() % ( keys / 2 );
                    change( writer, range( keys, more ) );
                    keys = more;
                }
                break;
            default:
                change( writer, range( first, first + count ) );
            }
            if ( step % 4 == 0 ) {
                writer.expectSound();
                allTold( often );
                ASSERT_EQ( often.queue.sequence(), writer.table.sequence() );
            }
        }
        allTold( seldom );
        ASSERT_EQ( QueueReaderSide( here ).keys().size(), writer.table.occupied() );
        ASSERT_FALSE( HasFailure() );
    }
    EXPECT_GE( leastRoom, 2 * Krell::QueueSegment::run_ - 4U );
}

// As between the mark and the tail of a run that is moved: its live entries stand in both places,
// and their slots name the former ones. Then the writer goes on in the midst of the drain, or not.
class QueueMidRunTest : public QueueRoundTest {
protected:
    QueueMidRunTest() {
        const U64 begin = writer.tail();
        change( writer, { 10, 11 } );
        reader.keys();
        for ( const U64 key : moved ) {
            change( writer, { key, 0 } );
        }
        for ( const U32 slot : writer.slotsInOrder() ) {
            positions[ slot ] = writer.positionOf( slot );
        }
        while ( writer.queue().compactions() == 0 && writer.tail() == begin ) {
            change( writer, 0 );
        }
        EXPECT_EQ( writer.queue().compactions(), 2 + moved.size() );
        positions.erase( writer.slotsInOrder().back() ); // that of 0, which was not moved
        queue.emplace( writer.file() );
        end = writer.tail();
        exchange( begin );
    }
    // Between the state before the tail was stored and the one when all is done.
    void exchange( U64 tail ) {
        queue->word( offsetof( Krell::QueueHeader, tail ) ) = tail;
        for ( auto& [ slot, position ] : positions ) {
            std::swap( writer.positionOf( slot ), position );
        }
    }
    void done() { exchange( end ); }
    // Drains, and says what was told; calls `react` for each key.
    template < class F >
    Keys drained( F&& react ) {
        Keys told;
        reader.last = reader.queue.drain( [ & ]( U32 slot ) {
            told.push_back( reader.keyAt( slot ) );
            react( slot, told );
            return true;
        } );
        EXPECT_EQ( reader.last, Drain::end );
        EXPECT_EQ( reader.queue.counts().restarts, 1U );
        EXPECT_EQ( told.size(), 1 + moved.size() ) << "each once";
        EXPECT_EQ( setOf( told ), setOf( range( 0, 7 ) ) );
        return told;
    }

    const Keys moved = range( 1, 7 );
    QueuePlace here;
    QueueWriterSide writer { here, 40 };
    QueueReaderSide reader { here };
    std::map< U32, U64 > positions; // that slots named, or will name
    std::optional< MappedFile > queue;
    U64 end = 0; // the tail once the run is done
};

TEST_F( QueueMidRunTest, AnEntryInBothItsPlacesIsToldOnce ) {
    drained( []( U32, const Keys& ) {} );
    EXPECT_EQ( reader.keys(), Keys() );
    done();
    EXPECT_EQ( reader.keys(), Keys() );
    writer.expectSound();
}

TEST_F( QueueMidRunTest, AnEntryInBothItsPlacesIsToldOnceThoughTheWriterGoesOn ) {
    drained( [ & ]( U32, const Keys& told ) {
        if ( told.size() == 1 ) {
            done();
            change( writer, moved );
        }
    } );
    EXPECT_EQ( reader.keys(), moved );
    writer.expectSound();
}

// A slot whose own change makes room: its version is newer than the drain, which meets its entry in
// the former place, and in the new one when the slot names that.
TEST_F( QueueMidRunTest, ASlotThatChangesWhileItsEntryIsMovedIsToldOnce ) {
    U32 busy = 0;
    for ( const auto& [ slot, position ] : positions ) {
        busy = reader.keyAt( slot ) == moved.back() ? slot : busy;
    }
    U64& version = writer.segments().slot( busy )->version;
    const U64 before = version;
    version =
        Krell::SlotVersion( writer.table.sequence() + 1, Krell::SlotVersion::occupied ).word();
    drained( [ & ]( U32 slot, const Keys& ) {
        if ( slot == busy ) {
            done();
        }
    } );
    version = before;
    writer.expectSound();
}

// Growth while the tail is in the present round, in the one before, and at the very ends.
TEST_F( QueueRoundTest, GrowthInEveryPartOfARoundKeepsEveryReadersPlace ) {
    for ( U64 offset = 0; offset < 2200;
          offset += offset % 992 < 8 || offset % 992 > 976 ? 1 : 47 ) {
        SCOPED_TRACE( offset );
        QueuePlace here;
        QueueWriterSide writer( here, fullPage );
        change( writer, range( 0, 40 ) );
        const U64 places = writer.queue().places();
        QueueReaderSide whole( here );
        whole.keys();
        advance( writer, 41, writer.head() + offset );
        QueueReaderSide recent( here );
        recent.keys();
        change( writer, { 7, 8 } );
        QueueReaderSide halfway( here );
        const Keys first = halfway.some( 5 );
        writer.table.reserve( 2 * fullPage );
        ASSERT_GT( writer.queue().places(), places );
        ASSERT_EQ( writer.queue().resizes(), 1U );
        ASSERT_EQ( recent.keys(), ( Keys { 7, 8 } ) );
        change( writer, range( 100, 100 + fullPage ) );
        ASSERT_EQ( recent.keys(), range( 100, 100 + fullPage ) );
        ASSERT_EQ( recent.queue.counts().restarts, 1U );
        advance( writer, 41, writer.head() + 2 * writer.queue().places() );
        writer.expectSound();
        ASSERT_EQ( allTold( recent ), std::set< U64 > { 41 } );
        std::set< U64 > wanted = setOf( range( 100, 100 + fullPage ) );
        wanted.insert( { 7, 8, 41 } );
        ASSERT_EQ( allTold( whole ), wanted );
        const std::set< U64 > rest = allTold( halfway );
        ASSERT_TRUE( std::includes( rest.begin(), rest.end(), wanted.begin(), wanted.end() ) );
        ASSERT_EQ( first.size(), 5U );
        ASSERT_GE( recent.queue.counts().resizes, 1U );
        ASSERT_EQ( QueueReaderSide( here ).keys().size(), writer.table.occupied() );
    }
}

// Growth is of no use before the head comes to the new places, and nothing waits for that.
TEST_F( QueueRoundTest, PlacesThatCameInTheMiddleOfARoundAreFilledBeforeItEnds ) {
    QueueWriterSide writer( place, fullPage );
    const U64 second = writer.round() + writer.queue().places();
    change( writer, range( 0, fullPage ) );
    advance( writer, 0, second + 20 );
    ASSERT_EQ( writer.round(), second );
    ASSERT_LT( writer.tail(), writer.round() );
    writer.table.reserve( 8 * fullPage );
    const U64 grown = writer.queue().places();
    advance( writer, 0, second + grown );
    EXPECT_EQ( writer.round(), second ) << "the round goes on to the new end";
    change( writer, 0 );
    EXPECT_EQ( writer.round(), second + grown );
    EXPECT_EQ( writer.roundBefore(), second );
    writer.expectSound();
}

TEST_F( QueueRoundTest, AReaderMapsTheLongerFileWhenItComesToItsPlaces ) {
    QueueWriterSide writer( place, fullPage );
    change( writer, range( 0, 10 ) );
    QueueReaderSide reader( place );
    reader.keys();
    const auto mapped = reader.queue.counts().resizes;
    writer.table.reserve( 2 * fullPage );
    change( writer, 1 );
    EXPECT_EQ( reader.keys(), Keys { 1 } );
    EXPECT_EQ( reader.queue.counts().resizes, mapped ) << "nothing stands there yet";
    advance( writer, 2, writer.round() + writer.queue().places() );
    EXPECT_EQ( allTold( reader ), std::set< U64 > { 2 } );
    EXPECT_EQ( reader.queue.counts().resizes, mapped + 1 );
}

// The slots' file is long enough: what finds no space is the queue's.
TEST_F( QueueRoundTest, GrowthThatFindsNoSpaceChangesNothing ) {
    QueueWriterSide( place, fullPage );
    std::filesystem::resize_file( place / "slots",
                                  2 * std::filesystem::file_size( place / "slots" ) );
    QueueWriterSide writer( place );
    change( writer, range( 0, fullPage ) );
    QueueReaderSide reader( place );
    reader.keys();
    const std::string before = bytesOf( writer.file() );
    {
        const QelKrellTest::FileLimit limit( 4096 );
        const std::string text = messageOf< Krell::MemoryResourceException >(
            [ & ] { writer.table.reserve( 2 * fullPage ); } );
        EXPECT_NE( text.find( "posix_fallocate " + writer.file() ), std::string::npos ) << text;
        EXPECT_EQ( bytesOf( writer.file() ), before );
        EXPECT_EQ( writer.table.slotCount(), fullPage );
        EXPECT_EQ( writer.queue().resizes(), 0U );
        advance( writer, 5, writer.head() + 4000 ); // goes on with what it has
        EXPECT_EQ( allTold( reader ), std::set< U64 > { 5 } );
        writer.expectSound();
    }
    writer.table.reserve( 2 * fullPage );
    EXPECT_EQ( writer.queue().resizes(), 1U );
    writer.expectSound();
}

// Its file is not there under its name any more, and it has to map more of it.
TEST_F( QueueRoundTest, AReaderWhoseGrownFileWasTakenAwayIsNoCorruption ) {
    QueueWriterSide writer( place, fullPage );
    change( writer, range( 0, 10 ) );
    QueueReaderSide reader( place );
    reader.keys();
    writer.table.reserve( 4 * fullPage );
    advance( writer, 2, writer.round() + writer.queue().places() - 1 );
    const std::string aside = place / "aside";
    std::filesystem::rename( writer.file(), aside );
    EXPECT_EQ( reader.keys(), Keys() );
    EXPECT_EQ( reader.last, Drain::absent );
    EXPECT_TRUE( reader.queue.isPending() );
    std::filesystem::rename( aside, writer.file() );
    EXPECT_EQ( reader.keys(), Keys { 2 } );
    EXPECT_EQ( reader.last, Drain::end );
}

// Takes over queues in all parts of a round, of either file.
TEST_F( QueueRoundTest, ATakeoverMakesTheQueueAnewWhereverItsRoundStands ) {
    auto writer = std::make_unique< QueueWriterSide >( place, fullPage );
    change( *writer, range( 0, 100 ) );
    QueueReaderSide reader( place );
    reader.keys();
    for ( U64 n = 0; n < 12; ++n ) {
        change( *writer, n );
        advance( *writer, 99, writer->head() + n * 197 );
        if ( n % 3 == 2 ) {
            writer->table.reserve( writer->table.slotCount() + 400 );
            advance( *writer, 98, writer->head() + n * 197 );
        }
        const U32 generation = writer->segments().queueGeneration();
        const U64 head = writer->head();
        writer.reset();
        writer = std::make_unique< QueueWriterSide >( place );
        ASSERT_EQ( writer->segments().queueGeneration(), generation + 1 );
        ASSERT_GE( writer->round(), head ) << "positions only grow";
        ASSERT_EQ( writer->round(), writer->tail() );
        writer->expectSound();
        const std::set< U64 > told = allTold( reader );
        ASSERT_TRUE( told.count( n ) );
        ASSERT_LE( told.size(), 3U );
        EXPECT_FALSE( std::filesystem::exists( place / "conquer.1" ) &&
                      std::filesystem::exists( place / "conquer.2" ) );
    }
}

} // namespace
