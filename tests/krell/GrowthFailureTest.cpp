// Growth of a table when the file system refuses: each allocation in turn finds no space, and
// spaces cannot be given back.

#include <gtest/gtest.h>

#include <cerrno>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "krell/EngineSupport.h"

using namespace KrellTest;

namespace {

unsigned allocationsLeft = 0; // the one after them fails; 0: none does
ino_t refusedFile = 0;        // gets no space at all
unsigned refusals = 0;
bool holesAreRefused = false;
unsigned holes = 0;

class GrowthFailureTest : public testing::Test {
protected:
    ~GrowthFailureTest() override {
        allocationsLeft = 0;
        refusedFile = 0;
        holesAreRefused = false;
    }
    void put( U64 key, U64 value ) { writer.writer().put< 1, 1 >( &key, &value ); }
    void check( U64 keys ) {
        ASSERT_TRUE( writer.validate() );
        ASSERT_EQ( writer.table().occupied(), keys );
        for ( U64 key = 0; key < keys; ++key ) {
            U64 value = 0;
            ASSERT_TRUE( ( writer.table().find< 1, 1 >( &key, &value ) ) ) << key;
            ASSERT_EQ( value, key * 3 );
        }
    }

    TestRoot root;
    TestCollection writer { layoutOf( 1, 1 ) };
};

TEST_F( GrowthFailureTest, EachAllocationMayFindNoSpaceAndNothingIsLost ) {
    constexpr U64 keys = 3000;
    unsigned refused = 0;
    unsigned failing = 1;
    for ( ;; ++failing ) {
        SCOPED_TRACE( "allocation " + std::to_string( failing ) );
        writer.asWriter( 0 );
        allocationsLeft = failing;
        for ( U64 key = 0; key < keys; ++key ) {
            try {
                put( key, key * 3 );
            } catch ( const Krell::MemoryResourceException& ) {
                ++refused;
                ASSERT_EQ( writer.table().occupied(), key );
                ASSERT_FALSE( writer.table().contains( &key ) );
                ASSERT_TRUE( writer.validate() );
                put( key, key * 3 ); // there is space again
            }
        }
        const bool reached = allocationsLeft == 0;
        allocationsLeft = 0;
        check( keys );
        writer.detach();
        writer.cleanup();
        if ( HasFatalFailure() || !reached ) {
            break;
        }
    }
    EXPECT_GT( failing, 20U );
    EXPECT_GT( refused, 5U ); // slots and queue; buckets are tried again later
}

TEST_F( GrowthFailureTest, ReservedRoomNeedsNoSpaceAndMoreThanThatWaitsForIt ) {
    constexpr U64 reserved = 8192;
    writer.asWriter( 16 );
    writer.writer().reserve( reserved );
    struct stat status {};
    ASSERT_EQ( ::stat( ( root / "sys/Krell/e/c/buckets" ).c_str(), &status ), 0 );
    refusedFile = status.st_ino;
    refusals = 0;
    const U32 before = writer.writer().growth().published();
    U64 key = 0;
    for ( ; key < reserved; ++key ) {
        put( key, key * 3 );
    }
    ASSERT_EQ( refusals, 0U );
    const auto insertAll = [ & ] {
        for ( ; key < 4 * reserved; ++key ) {
            put( key, key * 3 );
        }
    };
    ASSERT_THROW( insertAll(), Krell::MemoryResourceException );
    ASSERT_GT( refusals, 0U );
    ASSERT_GT( key, reserved ) << "a place in the present array does as well";
    check( key );
    refusedFile = 0;
    insertAll();
    EXPECT_GT( writer.writer().growth().published(), before );
    check( key );
}

// The entries that collide need overflow buckets in the next array, too.
TEST_F( GrowthFailureTest, AnArrayThatFindsNoSpaceInTheMiddleIsLeftAndBuiltLater ) {
    constexpr U64 colliding = 300;
    TestCollection table( layoutOf( 2, 1 ), "sys/Krell/e/d" );
    table.asWriter( 0 );
    std::map< std::array< U64, 2 >, U64 > model;
    const auto put = [ & ]( const std::array< U64, 2 >& key, U64 value ) {
        table.writer().put< 2, 1 >( key.data(), &value );
        model[ key ] = value;
    };
    const auto check = [ & ] {
        ASSERT_TRUE( table.validate() );
        ASSERT_EQ( table.table().occupied(), model.size() );
        for ( const auto& entry : model ) {
            U64 value = 0;
            ASSERT_TRUE( ( table.table().find< 2, 1 >( entry.first.data(), &value ) ) );
            ASSERT_EQ( value, entry.second );
        }
    };
    for ( U64 n = 0; n < colliding; ++n ) {
        put( collidingKey( n ), n );
    }
    U64 n = 0;
    for ( ; n < 3000 || !table.writer().growth().building(); ++n ) {
        put( { n, n }, n );
    }
    const U32 before = table.writer().growth().published();
    struct stat status {};
    ASSERT_EQ( ::stat( ( root / "sys/Krell/e/d/buckets" ).c_str(), &status ), 0 );
    refusedFile = status.st_ino;
    unsigned steps = 0;
    for ( ; table.writer().growth().building(); ++steps ) {
        ASSERT_LT( steps, 100U );
        const auto key = collidingKey( steps );
        ASSERT_TRUE( table.writer().del< 2 >( key.data() ) );
        model.erase( key );
    }
    EXPECT_GT( steps, 1U ) << "some slots were copied";
    ASSERT_EQ( table.writer().growth().published(), before );
    for ( U64 i = 0; i < steps; ++i ) { // places and slots that are free
        put( collidingKey( i ), i );
    }
    check();
    refusedFile = 0;
    for ( ; table.writer().growth().published() == before; ++n ) {
        ASSERT_LT( n, 20000U );
        put( { n, n }, n );
    }
    check();
}

TEST_F( GrowthFailureTest, WhatCannotBeGivenBackIsKept ) {
    holesAreRefused = true;
    holes = 0;
    writer.asWriter( 0 );
    for ( U64 key = 0; key < 60000; ++key ) {
        put( key, key * 3 );
    }
    EXPECT_GT( holes, 0U );
    EXPECT_LT( holes, 10U ) << "it is not tried again and again";
    check( 60000 );
}

} // namespace

// The library's calls come here.
extern "C" __attribute__( ( visibility( "default" ) ) ) int posix_fallocate64( int fd,
                                                                               off64_t offset,
                                                                               off64_t size ) {
    if ( allocationsLeft != 0 && --allocationsLeft == 0 ) {
        return ENOSPC;
    }
    struct stat status {};
    if ( refusedFile != 0 && ::fstat( fd, &status ) == 0 && status.st_ino == refusedFile ) {
        ++refusals;
        return ENOSPC;
    }
    using Function = int ( * )( int, off64_t, off64_t );
    return reinterpret_cast< Function >( ::dlsym( RTLD_NEXT, "posix_fallocate64" ) )( fd, offset,
                                                                                      size );
}

extern "C" __attribute__( ( visibility( "default" ) ) ) int fallocate64( int fd,
                                                                         int mode,
                                                                         off64_t offset,
                                                                         off64_t size ) {
    ++holes;
    if ( holesAreRefused ) {
        errno = EOPNOTSUPP;
        return -1;
    }
    using Function = int ( * )( int, int, off64_t, off64_t );
    return reinterpret_cast< Function >( ::dlsym( RTLD_NEXT, "fallocate64" ) )( fd, mode, offset,
                                                                                size );
}
