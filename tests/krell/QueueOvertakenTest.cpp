// What a queue's writer notes as overtaken: bits of a window that goes on, against a model.

#include <random>
#include <set>

#include <gtest/gtest.h>

#include <Krell/QueueOvertaken>

#include "krell/Allocations.h"
#include "krell/EngineSupport.h"

using namespace KrellTest;
using Krell::QueueOvertaken;

namespace {

const U64 begins[] = {
    0, 1, 62, 63, 64, 65, 255, 256, ( U64( 1 ) << 32 ) - 70, ( U64( 1 ) << 62 ) + 5
};

std::set< U64 > contentsOf( const QueueOvertaken& overtaken, U64 from, U64 to ) {
    std::set< U64 > contents;
    for ( ; from != to; ++from ) {
        if ( overtaken.has( from ) ) {
            contents.insert( from );
        }
    }
    return contents;
}

TEST( QueueOvertakenTest, ItHasWhatWasInserted ) {
    constexpr U64 size = 200;
    for ( const U64 begin : begins ) {
        SCOPED_TRACE( begin );
        QueueOvertaken overtaken;
        overtaken.growTo( size, begin, begin );
        EXPECT_EQ( contentsOf( overtaken, begin, begin + size ), std::set< U64 >() );
        std::set< U64 > wanted;
        for ( const U64 offset : { 0, 1, 62, 63, 64, 65, 127, 128, 129, 199 } ) {
            overtaken.insert( begin + offset );
            overtaken.insert( begin + offset ); // again
            wanted.insert( begin + offset );
            ASSERT_EQ( contentsOf( overtaken, begin, begin + size ), wanted );
        }
    }
}

// All places in a word and across its end, all numbers of positions, with neighbours set and not.
TEST( QueueOvertakenTest, ATakeTellsWhatWasInsertedAndForgetsThat ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    for ( U64 offset = 0; offset < 130; ++offset ) {
        for ( unsigned count = 0; count <= 32; ++count ) {
            const U64 begin = begins[ random() % std::size( begins ) ];
            const U64 bits = random();
            QueueOvertaken overtaken;
            overtaken.growTo( 300, begin, begin );
            std::set< U64 > wanted;
            for ( U64 position = begin; position < begin + 200; ++position ) {
                const U64 at = position - ( begin + offset ); // wraps before it
                const bool in = at < 32 ? bits >> at & 1 : random() % 2;
                if ( in ) {
                    overtaken.insert( position );
                    wanted.insert( position );
                }
            }
            const U64 all = ( U64( 1 ) << count ) - 1;
            ASSERT_EQ( overtaken.take( begin + offset, count ), bits & all )
                << "offset " << offset << ", " << count << " of them";
            wanted.erase( wanted.lower_bound( begin + offset ),
                          wanted.lower_bound( begin + offset + count ) );
            ASSERT_EQ( contentsOf( overtaken, begin, begin + 200 ), wanted );
            ASSERT_EQ( overtaken.take( begin + offset, count ), 0U );
        }
    }
}

// As a writer does: positions come at the head, are noted anywhere, and are taken at the tail in
// runs; at times there is to be more room. The words are used anew many times.
TEST( QueueOvertakenTest, AWindowGoesOnAndGrowsInItsMidst ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    for ( const U64 begin : begins ) {
        SCOPED_TRACE( begin );
        U64 size = 1 + random() % 100;
        QueueOvertaken overtaken;
        overtaken.growTo( size, 0, 0 );
        std::set< U64 > model;
        U64 tail = begin;
        U64 head = begin;
        for ( unsigned step = 0; step < 20000; ++step ) {
            const U64 room = size - ( head - tail );
            head += std::min( room, random() % 20 );
            for ( U64 n = head == tail ? 0 : random() % 8; n > 0; --n ) {
                const U64 position = tail + random() % ( head - tail );
                overtaken.insert( position );
                model.insert( position );
            }
            const unsigned count = unsigned( std::min< U64 >( head - tail, random() % 17 ) );
            U64 wanted = 0;
            for ( unsigned i = 0; i < count; ++i ) {
                wanted |= U64( model.erase( tail + i ) ) << i;
            }
            ASSERT_EQ( overtaken.take( tail, count ), wanted );
            tail += count;
            if ( step % 1500 == 0 ) {
                size += random() % size;
                overtaken.growTo( size, tail, head );
            }
            if ( step % 97 == 0 ) {
                ASSERT_EQ( contentsOf( overtaken, tail, tail + size ), model );
            }
        }
    }
}

// Every begin of a window in a word, and every size near the ends of words, whole.
TEST( QueueOvertakenTest, GrowthKeepsEachPositionOfAFullWindow ) {
    for ( U64 begin = 1000; begin < 1130; begin += 3 ) {
        for ( const U64 size : { 1, 63, 64, 65, 127, 128, 129, 191, 192, 193, 256, 500 } ) {
            for ( const U64 step : { 1, 2, 3 } ) {
                QueueOvertaken overtaken;
                overtaken.growTo( size, begin, begin );
                std::set< U64 > wanted;
                for ( U64 position = begin; position < begin + size; position += step ) {
                    overtaken.insert( position );
                    wanted.insert( position );
                }
                U64 grown = size;
                for ( const U64 more : { 1, 64, 1000 } ) {
                    grown += more;
                    overtaken.growTo( grown, begin, begin + size );
                    ASSERT_EQ( contentsOf( overtaken, begin, begin + grown ), wanted )
                        << "begin " << begin << ", size " << size << ", then " << grown;
                }
                overtaken.growTo( 1, begin, begin + size ); // never less
                ASSERT_EQ( contentsOf( overtaken, begin, begin + grown ), wanted );
            }
        }
    }
}

TEST( QueueOvertakenTest, RoomThatIsNotThereChangesNothing ) {
    QueueOvertaken overtaken;
    overtaken.growTo( 100, 7, 7 );
    const std::set< U64 > wanted = { 7, 70, 106 };
    for ( const U64 position : wanted ) {
        overtaken.insert( position );
    }
    {
        const FewAllocations none( 0 );
        EXPECT_THROW( overtaken.growTo( 100000, 7, 107 ), std::bad_alloc );
    }
    EXPECT_EQ( contentsOf( overtaken, 7, 107 ), wanted );
    overtaken.growTo( 100000, 7, 107 );
    EXPECT_EQ( contentsOf( overtaken, 7, 100007 ), wanted );
}

} // namespace
