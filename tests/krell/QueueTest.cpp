// The change queue by itself: what its writer keeps in it, and what its readers are told.

#include <filesystem>
#include <numeric>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "krell/QueueSupport.h"

using namespace KrellTest;
using Krell::QueueReader;
using Drain = QueueReader::Drain;
using Keys = std::vector< U64 >;

namespace {

class QueueTest : public testing::Test {
protected:
    // Changes keys beyond those that the test looks at, until the queue went round `rounds` times.
    static void lap( QueueWriterSide& writer, U64 key, unsigned rounds = 1 ) {
        const U64 until = writer.tail() + rounds * writer.queue().places();
        while ( writer.tail() < until ) {
            writer.put( key, ++lastValue_ );
        }
    }

    QueuePlace place;

private:
    inline static U64 lastValue_ = 1000;
};

TEST_F( QueueTest, ANewcomerIsToldEverySlotInTheOrderOfLastChanges ) {
    QueueWriterSide writer( place, 20 );
    for ( const U64 key : { 5, 1, 4, 2, 3 } ) {
        writer.put( key, 1 );
    }
    writer.put( 1, 2 );
    writer.put( 5, 2 );
    writer.del( 4 );
    QueueReaderSide reader( place );
    EXPECT_TRUE( reader.queue.isPending() );
    EXPECT_EQ( reader.keys(), ( Keys { 2, 3, 1, 5, 4 } ) );
    EXPECT_EQ( reader.last, Drain::end );
    EXPECT_EQ( reader.queue.sequence(), 8U );
    EXPECT_FALSE( reader.queue.isPending() );
    EXPECT_EQ( reader.keys(), Keys() );
    EXPECT_EQ( reader.last, Drain::empty );
    EXPECT_EQ( reader.queue.counts().restarts, 1U );
    EXPECT_EQ( reader.queue.counts().tombed, 3U );
    EXPECT_EQ( reader.queue.counts().probes, 0U );
}

TEST_F( QueueTest, TheOrderOutlivesCompactionsAndTakeovers ) {
    std::vector< U64 > wanted = { 7, 3, 9, 1 };
    {
        QueueWriterSide writer( place, 8 );
        for ( const U64 key : wanted ) {
            writer.put( key, 1 );
        }
        lap( writer, 50, 5 );
        EXPECT_GT( writer.queue().compactions(), 3U );
        writer.put( 3, 2 );
        lap( writer, 50 );
        writer.expectSound();
        wanted = { 7, 9, 1, 3, 50 };
        EXPECT_EQ( QueueReaderSide( place ).keys(), wanted );
    }
    QueueWriterSide next( place );
    next.expectSound();
    QueueReaderSide reader( place );
    EXPECT_EQ( reader.keys(), wanted );
    EXPECT_LE( reader.queue.counts().probes, 4U ) << "it is found without a walk";
}

TEST_F( QueueTest, AnEmptyCollectionHasNothingToTell ) {
    QueueWriterSide writer( place );
    QueueReaderSide reader( place );
    EXPECT_EQ( reader.keys(), Keys() );
    EXPECT_EQ( reader.last, Drain::empty );
    EXPECT_FALSE( reader.queue.isPending() );
    EXPECT_NE( reader.queue.address(), nullptr );
}

TEST_F( QueueTest, ASlotIsToldOnceADrain ) {
    QueueWriterSide writer( place, 20 );
    QueueReaderSide reader( place );
    reader.keys();
    for ( U64 n = 1; n < 10; ++n ) {
        writer.put( 1, n );
        writer.put( 2, n );
    }
    EXPECT_TRUE( reader.queue.isPending() );
    EXPECT_EQ( reader.keys(), ( Keys { 1, 2 } ) );
    EXPECT_EQ( reader.queue.counts().tombed, 16U );
    writer.del( 1 );
    writer.put( 2, 9 ); // no change
    EXPECT_EQ( reader.keys(), ( Keys { 1 } ) );
    writer.put( 3, 1 );
    writer.del( 3 );
    EXPECT_EQ( reader.keys(), ( Keys { 3 } ) );
    EXPECT_EQ( reader.queue.counts().tombed, 17U );
    EXPECT_EQ( reader.queue.sequence(), writer.table.sequence() );
    EXPECT_EQ( reader.queue.counts().restarts, 1U );
    writer.expectSound();
}

TEST_F( QueueTest, AReportThatStopsGoesOnBehindIt ) {
    QueueWriterSide writer( place, 20 );
    for ( const U64 key : range( 0, 6 ) ) {
        writer.put( key, 1 );
    }
    QueueReaderSide newcomer( place );
    EXPECT_EQ( newcomer.some( 2 ), range( 0, 2 ) );
    EXPECT_EQ( newcomer.last, Drain::stopped );
    EXPECT_TRUE( newcomer.queue.isPending() );
    EXPECT_EQ( newcomer.some( 4 ), range( 2, 6 ) );
    EXPECT_EQ( newcomer.last, Drain::stopped );
    EXPECT_EQ( newcomer.keys(), Keys() );
    EXPECT_EQ( newcomer.last, Drain::end );
    for ( const U64 key : range( 0, 6 ) ) {
        writer.put( key, 2 );
    }
    EXPECT_EQ( newcomer.some( 1 ), range( 0, 1 ) );
    EXPECT_EQ( newcomer.some( 3 ), range( 1, 4 ) );
    EXPECT_EQ( newcomer.keys(), range( 4, 6 ) );
    EXPECT_EQ( newcomer.last, Drain::end );
    EXPECT_FALSE( newcomer.queue.isPending() );
}

TEST_F( QueueTest, AReportThatThrowsIsMadeAgain ) {
    QueueWriterSide writer( place, 20 );
    for ( const U64 key : range( 0, 4 ) ) {
        writer.put( key, 1 );
    }
    QueueReaderSide reader( place );
    for ( unsigned round = 0; round < 2; ++round ) { // by a search, then by following
        Keys told;
        const auto throwAtThird = [ & ]( U32 slot ) {
            if ( told.size() == 2 ) {
                throw std::runtime_error( "the report" );
            }
            told.push_back( reader.keyAt( slot ) );
            return true;
        };
        EXPECT_THROW( reader.queue.drain( throwAtThird ), std::runtime_error );
        EXPECT_EQ( told, range( 0, 2 ) );
        EXPECT_THROW( reader.queue.drain( throwAtThird ), std::runtime_error );
        EXPECT_TRUE( reader.queue.isPending() );
        EXPECT_EQ( reader.keys(), range( 2, 4 ) );
        EXPECT_EQ( reader.last, Drain::end );
        for ( const U64 key : range( 0, 4 ) ) {
            writer.put( key, 2 );
        }
    }
    EXPECT_EQ( reader.queue.counts().restarts, 1U );
}

// A drain ends where the head stood when it began; what was overtaken since is told now, and again.
TEST_F( QueueTest, ChangesDuringADrainAreNeitherAwaitedNorLost ) {
    QueueWriterSide writer( place, 20 );
    for ( const U64 key : range( 0, 4 ) ) {
        writer.put( key, 1 );
    }
    QueueReaderSide reader( place );
    for ( unsigned round = 0; round < 2; ++round ) { // by a search, then by following
        EXPECT_EQ( reader.some( 1 ), range( 0, 1 ) );
        writer.put( 2, 10 + round );
        writer.put( 0, 10 + round );
        writer.put( 9, 10 + round );
        EXPECT_EQ( reader.keys(), range( 1, 4 ) );
        EXPECT_EQ( reader.last, Drain::end );
        EXPECT_EQ( reader.keys(), ( Keys { 2, 0, 9 } ) );
        for ( const U64 key : range( 0, 4 ) ) {
            writer.put( key, 20 + round );
        }
    }
}

TEST_F( QueueTest, ADrainOfAWriterThatDoesNotStopEndsAllTheSame ) {
    QueueWriterSide writer( place, 20 );
    writer.put( 1, 0 );
    QueueReaderSide reader( place );
    reader.keys();
    U64 value = 0;
    writer.put( 1, ++value );
    unsigned told = 0;
    EXPECT_EQ( reader.queue.drain( [ & ]( U32 ) {
        writer.put( 1, ++value );
        writer.put( 2, ++value );
        return ++told < 1000;
    } ),
               Drain::end );
    EXPECT_EQ( told, 1U );
}

TEST_F( QueueTest, AReaderThatWasLappedLosesNothing ) {
    QueueWriterSide writer( place, 8 );
    for ( const U64 key : range( 0, 5 ) ) {
        writer.put( key, 1 );
    }
    QueueReaderSide reader( place );
    EXPECT_EQ( reader.keys(), range( 0, 5 ) );
    writer.put( 3, 2 );
    writer.del( 1 );
    lap( writer, 50, 3 );
    EXPECT_TRUE( reader.queue.isPending() );
    EXPECT_EQ( reader.keys(), ( Keys { 3, 1, 50 } ) );
    EXPECT_EQ( reader.last, Drain::end );
    EXPECT_EQ( reader.queue.counts().restarts, 2U );
    EXPECT_EQ( reader.queue.sequence(), writer.table.sequence() );
    EXPECT_EQ( reader.keys(), Keys() );
    writer.put( 2, 2 );
    EXPECT_EQ( reader.keys(), Keys { 2 } );
    EXPECT_EQ( reader.queue.counts().restarts, 2U );
}

TEST_F( QueueTest, WhatWasToldBeforeAReaderLostItsPlaceIsNotToldAgain ) {
    QueueWriterSide writer( place, 20 );
    QueueReaderSide reader( place );
    reader.keys();
    for ( unsigned round = 0; round < 2; ++round ) { // by following, then by a search
        for ( const U64 key : range( 0, 9 ) ) {
            writer.put( key, 1 + round );
        }
        if ( round == 1 ) {
            lap( writer, 50, 2 );
        }
        EXPECT_EQ( reader.some( 3 ), range( 0, 3 ) );
        lap( writer, 50, 2 );
        Keys told = reader.some( 3 );
        lap( writer, 50, 2 );
        do {
            const Keys more = reader.keys();
            told.insert( told.end(), more.begin(), more.end() );
        } while ( reader.last != Drain::empty );
        Keys wanted = range( 3, 9 );
        told.erase( std::remove( told.begin(), told.end(), 50 ), told.end() );
        EXPECT_EQ( told, wanted ) << round;
    }
    EXPECT_GT( reader.queue.counts().restarts, 2U );
}

TEST_F( QueueTest, GrowthKeepsTheReadersPlace ) {
    QueueWriterSide writer( place, 4 );
    for ( const U64 key : range( 0, 4 ) ) {
        writer.put( key, 1 );
    }
    QueueReaderSide reader( place );
    reader.keys();
    const U64 places = writer.queue().places();
    writer.put( 0, 2 );
    writer.table.reserve( 600 );
    EXPECT_GT( writer.queue().places(), places );
    writer.put( 1, 2 );
    EXPECT_TRUE( reader.queue.isPending() );
    EXPECT_EQ( reader.keys(), range( 0, 2 ) );
    EXPECT_EQ( reader.queue.counts().resizes, 0U ) << "nothing stands in the new places yet";
    // In the middle of a drain, by inserting.
    for ( const U64 key : range( 0, 4 ) ) {
        writer.put( key, 3 );
    }
    EXPECT_EQ( reader.some( 2 ), range( 0, 2 ) );
    for ( const U64 key : range( 10, 2010 ) ) {
        writer.put( key, 1 );
    }
    EXPECT_GE( writer.queue().resizes(), 2U );
    writer.expectSound();
    Keys told = reader.keys();
    EXPECT_EQ( reader.last, Drain::end );
    const Keys more = reader.keys();
    told.insert( told.end(), more.begin(), more.end() );
    Keys wanted = { 2, 3 };
    const Keys inserted = range( 10, 2010 );
    wanted.insert( wanted.end(), inserted.begin(), inserted.end() );
    EXPECT_EQ( told, wanted );
    EXPECT_EQ( QueueReaderSide( place ).keys().size(), 2004U );
    EXPECT_FALSE( std::filesystem::exists( place / "conquer.1" ) &&
                  std::filesystem::exists( place / "conquer.2" ) );
}

TEST_F( QueueTest, OneGrowthIsNoRestart ) {
    QueueWriterSide writer( place, 32 );
    writer.put( 1, 1 );
    QueueReaderSide reader( place );
    reader.keys();
    lap( writer, 1, 3 );
    reader.keys();
    const U32 restarts = reader.queue.counts().restarts;
    for ( U32 slots = 64; slots <= 1024; slots *= 2 ) {
        writer.put( 1, slots );
        writer.table.reserve( slots );
        writer.expectSound();
        writer.put( slots, 1 );
        EXPECT_EQ( reader.keys(), ( Keys { 1, slots } ) );
    }
    EXPECT_EQ( reader.queue.counts().restarts, restarts );
    EXPECT_EQ( writer.queue().resizes(), 2U );
    EXPECT_LE( reader.queue.counts().resizes, writer.queue().resizes() );
}

TEST_F( QueueTest, AfterATakeoverThePlaceIsFoundByABinarySearch ) {
    constexpr U64 many = 5000;
    const U32 logarithm = 13;
    auto writer = std::make_unique< QueueWriterSide >( place, many + 100 );
    QueueReaderSide old( place );
    for ( const U64 key : range( 0, many ) ) {
        writer->put( key, 1 );
        if ( key == many / 3 ) {
            old.keys();
        }
    }
    QueueReaderSide reader( place );
    reader.keys();
    writer.reset();
    writer = std::make_unique< QueueWriterSide >( place );
    for ( const U64 key : { 17, 4711, 6000 } ) {
        writer->put( key, 2 );
    }
    EXPECT_EQ( reader.keys(), ( Keys { 17, 4711, 6000 } ) );
    EXPECT_EQ( reader.queue.counts().restarts, 2U );
    EXPECT_GT( reader.queue.counts().probes, 5U );
    EXPECT_LE( reader.queue.counts().probes, logarithm + 4 );
    EXPECT_LT( reader.queue.counts().tombed, 100U );
    const Keys late = old.keys();
    EXPECT_EQ( late.size(), many - many / 3 - 1 + 1 + 1 ); // key 17 changed again, 6000 is new
    EXPECT_LE( old.queue.counts().probes, logarithm + 4 );
    EXPECT_LE( reader.queue.counts().resizes, 1U );
}

TEST_F( QueueTest, ATakeoverWithNothingNewTellsNothing ) {
    auto writer = std::make_unique< QueueWriterSide >( place, 100 );
    for ( const U64 key : range( 0, 100 ) ) {
        writer->put( key, 1 );
    }
    QueueReaderSide reader( place );
    reader.keys();
    for ( unsigned round = 1; round <= 3; ++round ) {
        writer.reset();
        writer = std::make_unique< QueueWriterSide >( place );
        EXPECT_EQ( reader.keys(), Keys() );
        EXPECT_EQ( reader.last, Drain::empty );
        EXPECT_EQ( reader.queue.counts().restarts, 1 + round );
        EXPECT_FALSE( reader.queue.isPending() );
    }
    EXPECT_LE( reader.queue.counts().probes, 3U * 9 );
}

// The search passes over runs of tombstones, and through what was changed since.
TEST_F( QueueTest, ATakeoverWhoseOrderIsFullOfTombstonesLosesNothing ) {
    for ( const U64 changed : { 1, 50, 150, 199, 200 } ) {
        SCOPED_TRACE( changed );
        QueuePlace here;
        auto writer = std::make_unique< QueueWriterSide >( here, 200 );
        for ( const U64 key : range( 0, 100 ) ) {
            writer->put( key, 1 );
        }
        QueueReaderSide reader( here );
        reader.keys();
        for ( const U64 key : range( 100, 200 ) ) {
            writer->put( key, 1 );
        }
        writer.reset();
        writer = std::make_unique< QueueWriterSide >( here );
        for ( const U64 key : range( 0, changed ) ) {
            writer->put( key, 2 );
        }
        const Keys told = reader.keys();
        const std::set< U64 > once( told.begin(), told.end() );
        EXPECT_EQ( once.size(), told.size() );
        std::set< U64 > wanted;
        for ( const U64 key : range( 0, 200 ) ) {
            if ( key >= 100 || key < changed ) {
                wanted.insert( key );
            }
        }
        EXPECT_EQ( once, wanted );
        EXPECT_LE( reader.queue.counts().probes, 200U );
    }
}

TEST_F( QueueTest, ATakeoverInTheMiddleOfADrainGoesOn ) {
    auto writer = std::make_unique< QueueWriterSide >( place, 20 );
    for ( const U64 key : range( 0, 9 ) ) {
        writer->put( key, 1 );
    }
    QueueReaderSide reader( place );
    EXPECT_EQ( reader.some( 3 ), range( 0, 3 ) );
    writer.reset();
    writer = std::make_unique< QueueWriterSide >( place );
    EXPECT_EQ( reader.some( 3 ), range( 3, 6 ) );
    writer->put( 0, 2 );
    writer->put( 8, 2 );
    writer.reset();
    writer = std::make_unique< QueueWriterSide >( place );
    EXPECT_EQ( reader.keys(), ( Keys { 6, 7, 0, 8 } ) );
    EXPECT_EQ( reader.last, Drain::end );
}

TEST_F( QueueTest, TheQueueIsBoundedWhateverTheNumberOfChanges ) {
    constexpr U64 changes = 1000000;
    constexpr U32 slots = 40;
    QueueWriterSide writer( place, slots );
    for ( const U64 key : range( 0, 30 ) ) {
        writer.put( key, 0 );
    }
    QueueReaderSide stopped( place );
    stopped.keys();
    QueueReaderSide halfway( place );
    EXPECT_EQ( halfway.some( 7 ).size(), 7U );
    const U64 places = writer.queue().places();
    const auto bytes = std::filesystem::file_size( writer.file() );
    ASSERT_GE( places, slots * 5 / 2 + 64 );
    std::mt19937_64 random( 1 );
    for ( U64 n = 1; n <= changes; ++n ) {
        const U64 key = random() % 100 == 0 ? random() % 30 : random() % 3;
        writer.put( key, n );
        if ( n % 1000 == 0 ) {
            writer.del( key );
            writer.put( key, n );
        }
        if ( n % 100000 == 0 ) {
            writer.expectSound();
        }
    }
    EXPECT_EQ( writer.queue().places(), places );
    EXPECT_EQ( std::filesystem::file_size( writer.file() ), bytes );
    EXPECT_EQ( writer.queue().resizes(), 0U );
    EXPECT_EQ( writer.queue().notifications(), writer.table.sequence() );
    EXPECT_GT( writer.queue().compactions(), 0U );
    EXPECT_LT( writer.queue().compactions(), changes );
    EXPECT_GT( writer.queue().tombstones(), changes * 9 / 10 );
    for ( QueueReaderSide* reader : { &stopped, &halfway } ) {
        const Keys told = reader->keys();
        EXPECT_EQ( reader->last, Drain::end );
        EXPECT_EQ( reader->queue.counts().restarts, 2U );
        std::set< U64 > live;
        U64 last = 0;
        for ( const U64 key : told ) {
            U64 value = 0;
            ASSERT_TRUE( ( reader->table.find< 1, 1 >( &key, &value ) ) || key < 30 );
            live.insert( key );
            last = key;
        }
        EXPECT_EQ( live, ( [] {
                       const Keys keys = range( 0, 30 );
                       return std::set< U64 >( keys.begin(), keys.end() );
                   }() ) );
        U64 value = 0;
        EXPECT_TRUE( ( reader->table.find< 1, 1 >( &last, &value ) ) );
        EXPECT_EQ( value, changes );
        EXPECT_EQ( reader->keys(), Keys() );
    }
}

} // namespace
