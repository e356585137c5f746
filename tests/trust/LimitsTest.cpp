// What a collection must be able to hold: values of every size, keys of every size, and keys that
// all have one hash; written, followed in each role, and taken over from a writer that was killed.

#include <utility>

#include "trust/Limits.h"

namespace {

using namespace TrustTest;
using QelKrellTest::Torture;

// The second word makes one factor of the hash's product zero.
std::array< U64, 2 > collidingKey( U64 n ) { return { n, 0xe7037ed1a0b428dbu }; }

template < unsigned... K >
void keySizes( Torture& torture, std::integer_sequence< unsigned, K... > ) {
    ( oneSize< K, 3 >( torture ), ... );
}

TEST( LimitsTest, ValuesOfEverySizeAreKept ) {
    Torture torture( "limits", 1 );
    while ( torture.goesOn() ) {
        valueSizes( torture, std::integer_sequence< unsigned, 0, 1, 2, 3, 4, 5, 8, 9, 33 >() );
    }
}

TEST( LimitsTest, KeysOfEverySizeAreKept ) {
    Torture torture( "limits", 1 );
    while ( torture.goesOn() ) {
        keySizes( torture, std::integer_sequence< unsigned, 1, 2, 5, 32 >() );
    }
}

TEST( LimitsTest, KeysThatAllCollideAreKept ) {
    constexpr U64 entries = 1000;
    ASSERT_EQ( ( Limits< 2, 3 >::hashes( entries, collidingKey ) ), 1U );
    Torture torture( "limits", 1 );
    while ( torture.goesOn() ) {
        const QelKrellTest::Root root;
        const U64 lost = Limits< 2, 3 >( entries, collidingKey ).lost();
        EXPECT_EQ( lost, 0U );
        torture.count( "collisions", entries );
        torture.count( "lost", lost );
    }
}

} // namespace
