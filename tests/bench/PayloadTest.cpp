// Keys, values and draws of the benchmarks: a wrong value is recognised, and draws are spread as
// they say.

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <set>

#include "bench/peers/Draws.h"

namespace {

using namespace bench;

TEST( Payload, KeysOfDifferentEntriesDifferInTheirFirstWordAndHash ) {
    std::set< uint64_t > first;
    std::set< uint64_t > hashes;
    for ( uint64_t i = 0; i < 20000; ++i ) {
        first.insert( keyOf( i ).a );
        hashes.insert( hash( keyOf( i ) ) );
    }
    EXPECT_EQ( first.size(), 20000u );
    EXPECT_EQ( hashes.size(), 20000u );
}

TEST( Payload, AWholeValueOfTheKeyIsIntact ) {
    for ( uint64_t i = 0; i < 100; ++i ) {
        EXPECT_TRUE( intact( keyOf( i ), valueOf( keyOf( i ), i * i, 1000 - i ) ) );
    }
}

TEST( Payload, AnotherKeysValueIsNotIntact ) {
    EXPECT_FALSE( intact( keyOf( 1 ), valueOf( keyOf( 2 ), 7, 8 ) ) );
}

TEST( Payload, AValueWithWordsOfTwoVersionsIsNotIntact ) {
    const Key key = keyOf( 5 );
    const Value older = valueOf( key, 41, 1000 );
    const Value newer = valueOf( key, 42, 2000 );
    for ( unsigned taken = 0; taken < 64; ++taken ) {
        Value torn = older;
        bool differs[ 2 ] = { false, false };
        for ( unsigned i = 0; i < 6; ++i ) {
            torn.w[ i ] = ( taken >> i & 1 ? newer : older ).w[ i ];
            differs[ 0 ] |= torn.w[ i ] != older.w[ i ];
            differs[ 1 ] |= torn.w[ i ] != newer.w[ i ];
        }
        EXPECT_EQ( intact( key, torn ), !differs[ 0 ] || !differs[ 1 ] ) << taken;
    }
}

TEST( Draws, AreUniformWithoutSkew ) {
    constexpr uint64_t n = 10;
    Draws draws( n, 0, 1 );
    std::map< uint64_t, unsigned > counts;
    for ( unsigned i = 0; i < 100000; ++i ) {
        ++counts[ draws.next() ];
    }
    ASSERT_EQ( counts.size(), n );
    EXPECT_EQ( counts.rbegin()->first, n - 1 );
    for ( const auto& [ entry, count ] : counts ) {
        EXPECT_NEAR( count, 10000, 500 ) << entry; // over five standard deviations
    }
}

TEST( Draws, OfOneSeedAreTheSame ) {
    for ( const double skew : { 0.0, 0.9 } ) {
        Draws one( 1000, skew, 5 );
        Draws other( 1000, skew, 5 );
        for ( unsigned i = 0; i < 1000; ++i ) {
            ASSERT_EQ( one.next(), other.next() );
        }
    }
}

TEST( Draws, StayBelowTheirNumberWhenSkewed ) {
    for ( const uint64_t n : { 1, 2, 3, 100 } ) {
        Draws draws( n, 0.99, 1 );
        for ( unsigned i = 0; i < 10000; ++i ) {
            ASSERT_LT( draws.next(), n );
        }
    }
}

TEST( Zipf, GivesEachRankItsShare ) {
    constexpr uint64_t n = 1000;
    constexpr unsigned draws = 400000;
    for ( const double theta : { 0.5, 0.99 } ) {
        double zeta = 0;
        for ( uint64_t i = 1; i <= n; ++i ) {
            zeta += std::pow( double( i ), -theta );
        }
        const Zipf zipf( n, theta );
        Random random( 9 );
        std::vector< unsigned > counts( n );
        for ( unsigned i = 0; i < draws; ++i ) {
            ++counts.at( zipf.next( random ) );
        }
        // The first two ranks are exact; later ones lie on a continuous curve near the law's.
        for ( const uint64_t rank : { 0, 1 } ) {
            const double share = std::pow( double( rank + 1 ), -theta ) / zeta;
            EXPECT_NEAR( counts[ rank ] / double( draws ), share, share * 0.06 ) << rank;
        }
        double lawful = 0;
        double drawn = 0;
        for ( uint64_t rank = 0; rank < n / 10; ++rank ) {
            lawful += std::pow( double( rank + 1 ), -theta ) / zeta;
            drawn += counts[ rank ] / double( draws );
        }
        EXPECT_NEAR( drawn, lawful, 0.03 ) << theta;
    }
}

} // namespace
