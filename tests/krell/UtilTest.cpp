// The hash of the file formats, the hex dump, and facts about processes.

#include <Krell/Util>

#include <array>
#include <cmath>
#include <cstring>
#include <set>

#include <gmock/gmock.h>

#include <unistd.h>

#include "Hooks.h"

namespace {

using namespace Krell;

// The definition in the header, written down once more and bit by bit.
U32 modelHash( const std::string& bytes ) {
    const auto rotl = []( U32 v, int n ) { return U32( v << n | v >> ( 32 - n ) ); };
    U32 h = U32( bytes.size() ) * 0x9e3779b1U;
    for ( std::size_t at = 0; at < bytes.size(); at += 4 ) {
        U32 word = 0;
        for ( std::size_t i = 0; i < 4 && at + i < bytes.size(); ++i ) {
            word += U32( U8( bytes[ at + i ] ) ) << ( 8 * i );
        }
        h ^= rotl( word * 0xcc9e2d51U, 15 ) * 0x1b873593U;
        h = rotl( h, 13 ) * 5 + 0xe6546b64U;
    }
    h ^= h >> 16;
    h *= 0x85ebca6bU;
    h ^= h >> 13;
    h *= 0xc2b2ae35U;
    return h ^ h >> 16;
}

U32 hashOf( const std::string& bytes ) {
    return Util::hash( bytes.data(), unsigned( bytes.size() ) );
}

TEST( UtilTest, HashIsTheDefinedOneForEveryLengthAndAlignment ) {
    std::string bytes;
    for ( int i = 0; i < 80; ++i ) {
        bytes += char( i * 37 + 200 );
    }
    for ( std::size_t from = 0; from < 8; ++from ) {
        for ( std::size_t length = 0; from + length <= bytes.size(); ++length ) {
            EXPECT_EQ( Util::hash( bytes.data() + from, unsigned( length ) ),
                       modelHash( bytes.substr( from, length ) ) );
        }
    }
}

// These stand in files: they are the same on every width, and for ever.
TEST( UtilTest, HashesOfKnownBytes ) {
    EXPECT_EQ( hashOf( "" ), 0U );
    EXPECT_EQ( hashOf( "KRELLSLT" ), modelHash( "KRELLSLT" ) );
    EXPECT_EQ( hashOf( std::string( 64, '\0' ) ), 0xb03d464fU );
    EXPECT_EQ( hashOf( "slots" ), 0xcb4c0d82U );
    EXPECT_EQ( hashOf( std::string( "\xff\x00\x80", 3 ) ), 0xa4a1d64aU );
}

TEST( UtilTest, TrailingZerosChangeTheHash ) {
    std::set< U32 > seen;
    for ( std::size_t length = 0; length < 64; ++length ) {
        seen.insert( hashOf( std::string( length, '\0' ) ) );
    }
    EXPECT_EQ( seen.size(), 64U );
}

// Each input bit flips each output bit in about half of the inputs.
TEST( UtilTest, EveryInputBitChangesEveryOutputBitHalfOfTheTime ) {
    constexpr int inputs = 2000;
    for ( unsigned length : { 4U, 8U, 16U } ) {
        for ( unsigned bit = 0; bit < length * 8; ++bit ) {
            std::array< int, 32 > flips {};
            U64 state = 88172645463325252ULL;
            for ( int n = 0; n < inputs; ++n ) {
                std::string bytes( length, '\0' );
                for ( char& c : bytes ) {
                    state ^= state << 13;
                    state ^= state >> 7;
                    state ^= state << 17;
                    c = char( state );
                }
                const U32 before = hashOf( bytes );
                bytes[ bit / 8 ] = char( bytes[ bit / 8 ] ^ 1 << bit % 8 );
                const U32 changed = before ^ hashOf( bytes );
                for ( int out = 0; out < 32; ++out ) {
                    flips[ std::size_t( out ) ] += changed >> out & 1;
                }
            }
            for ( int count : flips ) {
                EXPECT_NEAR( double( count ) / inputs, 0.5, 0.06 )
                    << length << " bytes, bit " << bit;
            }
        }
    }
}

TEST( UtilTest, CounterLikeKeysDoNotCollideMoreThanChanceSays ) {
    std::set< U32 > high;
    for ( U32 i = 0; i < 65536; ++i ) {
        high.insert( Util::hash( reinterpret_cast< const char* >( &i ), sizeof i ) >> 16 );
    }
    // 65536 balls into 65536 boxes leave about 1 / e of them empty.
    EXPECT_NEAR( double( high.size() ) / 65536, 1 - std::exp( -1 ), 0.01 );
}

TEST( UtilTest, DumpOfNothingIsEmpty ) {
    EXPECT_EQ( Util::dumpHex( "abc", 0 ), "" );
    EXPECT_EQ( Util::dumpHex( "abc", -1 ), "" );
}

TEST( UtilTest, DumpShowsOffsetHexAndPrintableBytes ) {
    EXPECT_EQ( Util::dumpHex( "KRELLSLT\4\0\0\0", 12 ),
               "00000000  4b 52 45 4c 4c 53 4c 54  04 00 00 00              |KRELLSLT....|" );
    EXPECT_EQ( Util::dumpHex( "0123456789abcdef~ \x7f\xff", 20 ),
               "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
               "00000010  7e 20 7f ff                                       |~ ..|" );
}

TEST( UtilTest, DumpTakesExactlyTheBytesNamed ) {
    const std::string bytes( 100, 'x' );
    for ( int size = 1; size <= 100; ++size ) {
        const std::string text = Util::dumpHex( bytes.data(), size );
        EXPECT_EQ( std::count( text.begin(), text.end(), 'x' ), size );
        EXPECT_EQ( std::count( text.begin(), text.end(), '\n' ), ( size - 1 ) / 16 );
    }
}

TEST( UtilTest, StartTimeTellsProcessesApart ) {
    const U64 own = Util::processStartTime( ::getpid() );
    EXPECT_GT( own, 0U );
    EXPECT_EQ( Util::processStartTime( ::getpid() ), own );
    EXPECT_EQ( Util::processStartTime( -5 ), 0U );
    KrellTest::Child child( [] { return true; } );
    EXPECT_GE( Util::processStartTime( child.pid() ), own );
    const pid_t gone = child.pid();
    child.finish();
    EXPECT_EQ( Util::processStartTime( gone ), 0U );
}

// The program's name stands in the kernel's line between parentheses, and may hold some itself.
TEST( UtilTest, StartTimeIsFoundBehindAnyProgramName ) {
    const int status = KrellTest::inChild( [] {
        const U64 before = Util::processStartTime( ::getpid() );
        KrellTest::bytesInto( "/proc/self/comm", ") 1 (2 ) 3" );
        return before > 0 && Util::processStartTime( ::getpid() ) == before ? 0 : 1;
    } );
    EXPECT_EQ( status, 0 );
}

TEST( UtilTest, BootIdIsOneLineAndStays ) {
    const std::string id = Util::bootId();
    EXPECT_EQ( id.size(), 36U );
    EXPECT_EQ( id.find( '\n' ), std::string::npos );
    EXPECT_EQ( id, Util::bootId() );
}

TEST( UtilTest, ProcessNameIsTheProgramsFileName ) {
    char path[ 4096 ] = {};
    ASSERT_GT( ::readlink( "/proc/self/exe", path, sizeof path - 1 ), 0 );
    EXPECT_EQ( Util::processName(), std::strrchr( path, '/' ) + 1 );
}

} // namespace
