// The hash of keys: part of the file format, the same on every width.

#include <Krell/Slot>

#include <algorithm>
#include <functional>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Qel::U32;
using Qel::U64;
using Words = std::vector< U64 >;

U32 hashOf( const Words& key ) { return Krell::hashWords( key.data(), unsigned( key.size() ) ); }

TEST( HashTest, IsTheOneThatTheFormatHas ) {
    constexpr U64 ones = ~U64( 0 );
    EXPECT_EQ( hashOf( { 0 } ), 0xce97a331U );
    EXPECT_EQ( hashOf( { 1 } ), 0xb481b834U );
    EXPECT_EQ( hashOf( { ones } ), 0x35669a86U );
    EXPECT_EQ( hashOf( { 1, 2 } ), 0x63875706U );
    EXPECT_EQ( hashOf( { 0x123456789abcdef0U, 0xfedcba9876543210U } ), 0x8178e3b4U );
    EXPECT_EQ( hashOf( { 1, 2, 3 } ), 0x7edc97cdU );
    EXPECT_EQ( hashOf( { ones, ones, ones, ones, ones } ), 0x0d2c8594U );
    EXPECT_EQ( hashOf( { 0, 1, 2, 3, 4, 5, 6, 7 } ), 0x99980afcU );
}

// Keys as people have them fill buckets as evenly as random numbers do: of 65536 keys in 8192
// buckets, with room for twelve in each, about 1040 stand beyond the twelfth.
TEST( HashTest, SpreadsKeysThatAreAlike ) {
    const std::vector< std::pair< const char*, std::function< Words( U64 ) > > > kinds = {
        { "in a row", []( U64 i ) { return Words { i }; } },
        { "in steps of a page", []( U64 i ) { return Words { i * 4096 }; } },
        { "in the upper half", []( U64 i ) { return Words { i << 32 }; } },
        { "pairs",
          []( U64 i ) {
              return Words { i % 256, i / 256 };
          } },
        { "pairs with one first word",
          []( U64 i ) {
              return Words { 7, i };
          } },
        { "triples with one last word",
          []( U64 i ) {
              return Words { i, i, 9 };
          } },
    };
    for ( const auto& [ what, keyOf ] : kinds ) {
        SCOPED_TRACE( what );
        std::vector< unsigned > bucket( 8192 );
        std::vector< unsigned > tag( 256 );
        for ( U64 i = 0; i < 65536; ++i ) {
            const U32 hash = hashOf( keyOf( i ) );
            ++bucket[ hash % 8192 ];
            ++tag[ hash >> 24 ];
        }
        const unsigned beyond =
            std::accumulate( bucket.begin(), bucket.end(), 0U, []( unsigned sum, unsigned n ) {
                return sum + ( n > 12 ? n - 12 : 0 );
            } );
        EXPECT_LT( beyond, 1300U );
        EXPECT_LT( *std::max_element( tag.begin(), tag.end() ), 400U );
        EXPECT_GT( *std::min_element( tag.begin(), tag.end() ), 150U );
    }
}

} // namespace
