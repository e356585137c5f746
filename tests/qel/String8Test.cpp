// Strings and names: any bytes, comparison, hashes.

#include <gmock/gmock.h>

#include <bitset>
#include <random>
#include <sstream>

#include <Qel/Name>

namespace {

using Qel::String;

TEST( String8, HoldsAnyBytes ) {
    const String s( "a\0b", 3 );
    EXPECT_EQ( 3U, s.length() );
    EXPECT_EQ( '\0', s[ 1 ] );
    EXPECT_NE( s, String( "a" ) );
    EXPECT_NE( s, "a" );
    EXPECT_EQ( 1U, s.find( '\0' ) );
    std::ostringstream out;
    out << s;
    EXPECT_EQ( std::string( "a\0b", 3 ), out.str() );
}

TEST( String8, NullTextIsEmpty ) {
    const char* none = nullptr;
    EXPECT_TRUE( String( none ).empty() );
    EXPECT_EQ( String(), String( "" ) );
}

TEST( String8, ConcatenatesComparesAndSearches ) {
    String s = String( "one" ) + "/" + String( "two" );
    s += '/';
    s += "three";
    EXPECT_EQ( s, "one/two/three" );
    EXPECT_EQ( 3U, s.find( '/' ) );
    EXPECT_EQ( 7U, s.rfind( '/' ) );
    EXPECT_EQ( 4U, s.find( "two" ) );
    EXPECT_EQ( String::npos, s.find( "four" ) );
    EXPECT_EQ( s.substr( 4, 3 ), "two" );
    EXPECT_EQ( s.substr( 8 ), "three" );
    EXPECT_THROW( s.substr( 100 ), std::out_of_range );
    EXPECT_LT( String( "a" ), String( "b" ) );
    EXPECT_LT( String( "a" ), "ab" );
    EXPECT_GT( String( "\xff" ), String( "a" ) );
}

TEST( String8, IteratorsArePositions ) {
    const String s( "abc" );
    String::IteratorConst it = s.begin();
    EXPECT_EQ( 'a', *it++ );
    EXPECT_EQ( 'c', *( it + 1 ) );
    EXPECT_EQ( 2, s.end() - it );
    EXPECT_LT( it, s.end() );
    it += 2;
    EXPECT_EQ( s.end(), it );
}

TEST( String8, DecimalNumbers ) {
    EXPECT_EQ( Qel::decimal( 18446744073709551615ULL ), "18446744073709551615" );
    EXPECT_EQ( Qel::decimalSigned( -9223372036854775807LL - 1 ), "-9223372036854775808" );
    EXPECT_EQ( Qel::decimal( 0 ), "0" );
}

TEST( String8, ReversedBitsAreReversed ) {
    EXPECT_EQ( 0x80000000U, Qel::bitReversed( 1 ) );
    EXPECT_EQ( 0x00000001U, Qel::bitReversed( 0x80000000U ) );
    EXPECT_EQ( 0xf0000000U, Qel::bitReversed( 0x0000000fU ) );
    std::mt19937 random( 7 );
    for ( int i = 0; i < 1000; ++i ) {
        const Qel::U32 v = Qel::U32( random() );
        std::string bits = std::bitset< 32 >( v ).to_string();
        std::reverse( bits.begin(), bits.end() );
        ASSERT_EQ( std::bitset< 32 >( bits ).to_ulong(), Qel::bitReversed( v ) );
    }
}

TEST( String8, HashesAreTheSameOnEveryWidthAndSpread ) {
    EXPECT_EQ( 0xa61db31cU, Qel::stringHash( "" ) );
    EXPECT_EQ( 0xd4dc8a8bU, Qel::stringHash( "eth0" ) );
    std::vector< int > buckets( 256 );
    for ( int i = 0; i < 25600; ++i ) {
        ++buckets[ Qel::bitReversed( Qel::stringHash( std::to_string( i ) ) ) >> 24 ];
    }
    EXPECT_GT( *std::min_element( buckets.begin(), buckets.end() ), 50 );
    EXPECT_LT( *std::max_element( buckets.begin(), buckets.end() ), 200 );
}

TEST( Name, IsAStringThatIsMeant ) {
    const Qel::Name a( "alpha" );
    const Qel::Name b( String( "beta" ) );
    EXPECT_EQ( Qel::Name( std::string( "alpha" ) ), a );
    EXPECT_LT( a, b );
    EXPECT_TRUE( Qel::Name().empty() );
    EXPECT_EQ( a.string(), "alpha" );
    std::ostringstream out;
    out << b;
    EXPECT_EQ( "beta", out.str() );
}

} // namespace
