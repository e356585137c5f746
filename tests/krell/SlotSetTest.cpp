// A set of slots: what is in it, and that emptying it costs what is in it.

#include <random>
#include <set>

#include <gtest/gtest.h>

#include <Krell/SlotSet>

#include "krell/Allocations.h"
#include "krell/EngineSupport.h"

using namespace KrellTest;
using Krell::SlotSet;

namespace {

// All that it has below that number.
std::set< U32 > contentsOf( const SlotSet& slots, U32 below ) {
    std::set< U32 > contents;
    for ( U32 slot = 0; slot < below; ++slot ) {
        if ( slots.has( slot ) ) {
            contents.insert( slot );
        }
    }
    return contents;
}

TEST( SlotSetTest, ItHasWhatWasInsertedUntilItIsCleared ) {
    SlotSet slots;
    slots.reserve( 200 );
    EXPECT_EQ( contentsOf( slots, 400 ), std::set< U32 >() );
    const std::set< U32 > wanted = { 0, 1, 63, 64, 127, 128, 199 };
    for ( unsigned round = 0; round < 3; ++round ) {
        for ( const U32 slot : wanted ) {
            EXPECT_FALSE( slots.has( slot ) );
            slots.insert( slot );
            slots.insert( slot ); // again
            EXPECT_TRUE( slots.has( slot ) );
        }
        EXPECT_EQ( contentsOf( slots, 400 ), wanted );
        slots.clear();
        EXPECT_EQ( contentsOf( slots, 400 ), std::set< U32 >() );
        slots.clear();
    }
}

TEST( SlotSetTest, NothingBeyondItsRoomIsInIt ) {
    SlotSet slots;
    for ( const U32 slot : { 0U, 1U, 63U, 64U, 0x3fffffffU, 0xffffffffU } ) {
        EXPECT_FALSE( slots.has( slot ) );
    }
    slots.clear();
    slots.reserve( 64 );
    slots.insert( 63 );
    for ( const U32 slot : { 64U, 127U, 128U, 191U, 0x3fffffffU, 0x7fffffffU, 0xffffffffU } ) {
        EXPECT_FALSE( slots.has( slot ) ) << slot;
    }
}

TEST( SlotSetTest, MoreRoomKeepsWhatIsInIt ) {
    SlotSet slots;
    std::set< U32 > wanted;
    for ( U32 room = 1; room < 5000; room += room / 3 + 1 ) {
        slots.reserve( room );
        slots.reserve( room / 2 ); // never less
        slots.insert( room - 1 );
        wanted.insert( room - 1 );
        ASSERT_EQ( contentsOf( slots, 6000 ), wanted ) << "room " << room;
    }
    slots.clear();
    EXPECT_EQ( contentsOf( slots, 6000 ), std::set< U32 >() );
}

TEST( SlotSetTest, ManyRandomSetsAreWhatAModelHas ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    SlotSet slots;
    for ( unsigned round = 0; round < 300; ++round ) {
        const U32 room = U32( random() % 3000 + 1 );
        slots.reserve( room );
        std::set< U32 > model;
        for ( U64 n = random() % ( 2 * room ); n > 0; --n ) {
            const U32 slot = U32( random() % room );
            slots.insert( slot );
            model.insert( slot );
        }
        ASSERT_EQ( contentsOf( slots, 3100 ), model );
        slots.clear();
        ASSERT_EQ( contentsOf( slots, 3100 ), std::set< U32 >() );
    }
}

TEST( SlotSetTest, OnlyMoreRoomAllocates ) {
    SlotSet slots;
    slots.reserve( 10000 );
    const U64 before = allocations;
    for ( unsigned round = 0; round < 3; ++round ) {
        slots.reserve( 10000 );
        for ( U32 slot = 0; slot < 10000; ++slot ) {
            slots.insert( slot );
        }
        slots.clear();
    }
    EXPECT_EQ( allocations, before );
}

TEST( SlotSetTest, RoomThatIsNotThereChangesNothing ) {
    for ( const U64 succeed : { 0, 1 } ) {
        SlotSet slots;
        slots.reserve( 100 );
        slots.insert( 70 );
        {
            const FewAllocations few( succeed );
            EXPECT_THROW( slots.reserve( 100000 ), std::bad_alloc );
        }
        EXPECT_EQ( contentsOf( slots, 1000 ), std::set< U32 > { 70 } );
        slots.reserve( 100000 );
        slots.insert( 99999 );
        EXPECT_EQ( contentsOf( slots, 200000 ), ( std::set< U32 > { 70, 99999 } ) );
        slots.clear();
        EXPECT_EQ( contentsOf( slots, 200000 ), std::set< U32 >() );
    }
}

} // namespace
