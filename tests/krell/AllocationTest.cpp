// What allocates nothing, once the collection has its size.

#include <gtest/gtest.h>

#include "krell/Allocations.h"
#include "krell/EngineSupport.h"

using namespace KrellTest;

namespace {

constexpr unsigned keyWords = 2;
constexpr unsigned valueWords = 6;
constexpr U64 entries = 300;
constexpr U64 changes = 5000; // several times round the queue of some 2000 places

std::array< U64, keyWords > keyOf( U64 n ) { return { n, ~n }; }

// Updates, deletions and insertions. The retired slots are used again, so nothing grows.
void change( TestCollection& writer, U64 from ) {
    for ( U64 n = from; n < from + changes; ++n ) {
        const auto key = keyOf( n * 7 % entries );
        if ( n % 5 == 0 ) {
            writer.writer().del< keyWords >( key.data() );
        }
        writer.writer().put< keyWords, valueWords >( key.data(),
                                                     wholeValue< valueWords >( n ).data() );
    }
}

// Counts what it is told: keeping it would allocate.
class Silent : public TestCollection {
public:
    using TestCollection::TestCollection;
    U64 told = 0;

protected:
    void handleChanged( const U64*, bool ) override { ++told; }
};

// By the number of the role.
class AllocationTest : public testing::TestWithParam< int > {
protected:
    AllocationTest() {
        writer.asWriter( 512 );
        change( writer, 0 );
        follower.init( QelKrell::QelKrellType( GetParam() ), false, 0 );
    }

    TestRoot root;
    TestCollection writer { layoutOf( keyWords, valueWords ) };
    Silent follower { layoutOf( keyWords, valueWords ) };
};

TEST_P( AllocationTest, Drains ) {
    for ( U64 round = 0; round < 4; ++round ) { // what is kept for deletions finds its room
        follower.poll();
        change( writer, round * changes );
        follower.poll();
    }
    const U64 told = follower.told;
    for ( U64 round = 0; round < 20; ++round ) {
        for ( U64 n = 0; n < entries; ++n ) {
            writer.writer().put< keyWords, valueWords >(
                keyOf( n ).data(), wholeValue< valueWords >( round + n ).data() );
        }
        const U64 before = allocations;
        follower.poll();
        ASSERT_EQ( allocations, before );
    }
    EXPECT_GE( follower.told, told + 19 * entries );
}

TEST_P( AllocationTest, FindsAndIteration ) {
    follower.poll();
    std::array< U64, keyWords * 40 > keys {};
    for ( U64 n = 0; n < 40; ++n ) {
        std::copy_n( keyOf( n ).data(), keyWords, keys.data() + n * keyWords );
    }
    U64 found = 0;
    const U64 before = allocations;
    std::array< U64, valueWords > value {};
    for ( U64 n = 0; n < entries; ++n ) {
        found += follower.table().find< keyWords, valueWords >( keyOf( n ).data(), value.data() );
    }
    follower.table().forEach< keyWords, valueWords >(
        [ & ]( const U64*, const U64* ) { ++found; } );
    follower.table().findMany< keyWords, valueWords >(
        keys.data(), 40, [ & ]( std::size_t, const U64* v ) { found += v != nullptr; } );
    EXPECT_EQ( allocations, before );
    EXPECT_EQ( found, 2 * entries + 40 );
}

TEST_P( AllocationTest, Changes ) {
    const U64 before = allocations;
    change( writer, changes );
    EXPECT_EQ( allocations, before );
}

INSTANTIATE_TEST_SUITE_P( Roles,
                          AllocationTest,
                          testing::Values( QelKrell::reader,
                                           QelKrell::keyshadow,
                                           QelKrell::shadow ) );

} // namespace
