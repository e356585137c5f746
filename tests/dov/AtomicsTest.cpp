// Shared words: single moves that read-only pages allow, whole under a concurrent writer.

#include <Dov/Atomics>

#include <atomic>
#include <cstring>
#include <thread>

#include <gmock/gmock.h>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace Dov;
namespace Atomics = Dov::Atomics;

static_assert( alignof( Atomics::Word64 ) == 8 && sizeof( Atomics::Word64 ) == 8 );

struct Packed { // what two widths must agree on
    U32 first;
    alignas( 8 ) U64 second;
};
static_assert( sizeof( Packed ) == 16 && alignof( Packed ) == 8 );

TEST( AtomicsTest, StoresAreLoadedAgainInEveryWidth ) {
    U8 byte = 0;
    U32 word = 0;
    alignas( 8 ) U64 wide = 0;
    Atomics::storeRelease( &byte, 0xa5 );
    Atomics::storeRelease( &word, 0xdeadbeefU );
    Atomics::storeRelease( &wide, 0x0123456789abcdefULL );
    EXPECT_EQ( Atomics::loadAcquire( &byte ), 0xa5 );
    EXPECT_EQ( Atomics::loadRelaxed( &byte ), 0xa5 );
    EXPECT_EQ( Atomics::loadAcquire( &word ), 0xdeadbeefU );
    EXPECT_EQ( Atomics::loadRelaxed( &word ), 0xdeadbeefU );
    EXPECT_EQ( Atomics::load32( &word ), 0xdeadbeefU );
    EXPECT_EQ( Atomics::loadAcquire( &wide ), 0x0123456789abcdefULL );
    EXPECT_EQ( Atomics::loadRelaxed( &wide ), 0x0123456789abcdefULL );
    EXPECT_EQ( Atomics::load64( &wide ), 0x0123456789abcdefULL );
    Atomics::storeRelaxed( &byte, 1 );
    Atomics::storeRelaxed( &word, 2 );
    Atomics::storeRelaxed( &wide, 3 );
    Atomics::fullFence();
    EXPECT_EQ( byte, 1 );
    EXPECT_EQ( word, 2U );
    EXPECT_EQ( wide, 3U );
}

TEST( AtomicsTest, WordsOfOtherTypesAreSeen ) {
    struct alignas( 8 ) Pair {
        U32 low;
        U32 high;
    } pair { 0x11111111U, 0x22222222U };
    EXPECT_EQ( Atomics::load64( &pair ), 0x2222222211111111ULL );
    pair.high = 0x33333333U;
    EXPECT_EQ( Atomics::load64( &pair ), 0x3333333311111111ULL );
    alignas( 8 ) char text[ 8 ] = { 'K', 'R', 'E', 'L', 'L', 'S', 'L', 'T' };
    EXPECT_EQ( Atomics::load32( text ), 0x4c45524bU );
}

// A locked instruction would write to the page, and die.
TEST( AtomicsTest, LoadsWorkOnPagesThatMayOnlyBeRead ) {
    const std::size_t size = std::size_t( ::sysconf( _SC_PAGESIZE ) );
    void* page =
        ::mmap( nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
    ASSERT_NE( page, MAP_FAILED );
    std::memset( page, 0x5a, size );
    ASSERT_EQ( ::mprotect( page, size, PROT_READ ), 0 );
    EXPECT_EQ( Atomics::load64( page ), 0x5a5a5a5a5a5a5a5aULL );
    EXPECT_EQ( Atomics::loadAcquire( static_cast< const U64* >( page ) ), 0x5a5a5a5a5a5a5a5aULL );
    EXPECT_EQ( Atomics::loadRelaxed( static_cast< const U64* >( page ) ), 0x5a5a5a5a5a5a5a5aULL );
    EXPECT_EQ( Atomics::loadAcquire( static_cast< const U32* >( page ) ), 0x5a5a5a5aU );
    EXPECT_EQ( Atomics::loadAcquire( static_cast< const U8* >( page ) ), 0x5a );
    ::munmap( page, size );
}

TEST( AtomicsTest, AWideWordIsNeverSeenHalfWritten ) {
    Atomics::Word64 word { 0 };
    std::atomic< bool > done { false };
    unsigned torn = 0;
    std::atomic< unsigned > changes { 0 };
    std::thread reader( [ & ] {
        for ( U64 last = 0; !done.load( std::memory_order_relaxed ); ) {
            const U64 seen = Atomics::load64( &word );
            torn += U32( seen ) != U32( seen >> 32 );
            if ( seen != last ) {
                changes.fetch_add( 1, std::memory_order_relaxed );
                last = seen;
            } else {
                std::this_thread::yield();
            }
        }
    } );
    for ( U32 i = 0; i < 1000000U || changes.load( std::memory_order_relaxed ) < 50; ++i ) {
        Atomics::storeRelease( &word.value, U64( i ) << 32 | i );
        if ( i % 4096 == 0 ) {
            std::this_thread::yield(); // where there is one processor
        }
    }
    done = true;
    reader.join();
    EXPECT_EQ( torn, 0U );
    EXPECT_GE( changes.load(), 50U );
}

TEST( AtomicsTest, WhatWasWrittenBeforeAReleaseIsSeenAfterTheAcquire ) {
    constexpr U32 rounds = 20000;
    U32 payload = 0; // plain: the orderings alone keep it whole
    U32 turn = 0;
    U32 wrong = 0;
    std::thread other( [ & ] {
        for ( U32 i = 1; i <= rounds; ++i ) {
            while ( Atomics::loadAcquire( &turn ) != 2 * i - 1 ) {
                std::this_thread::yield();
            }
            wrong += payload != i;
            Atomics::storeRelease( &turn, 2 * i );
        }
    } );
    for ( U32 i = 1; i <= rounds; ++i ) {
        payload = i;
        Atomics::storeRelease( &turn, 2 * i - 1 );
        while ( Atomics::loadAcquire( &turn ) != 2 * i ) {
            std::this_thread::yield();
        }
    }
    other.join();
    EXPECT_EQ( wrong, 0U );
}

} // namespace
