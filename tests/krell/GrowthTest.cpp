// Tables that grow while they are changed: what they hold is right at each moment, no change does
// much of the work, and little space is taken up.

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "krell/EngineSupport.h"

using namespace KrellTest;

namespace {

constexpr unsigned payload = 6;
constexpr U32 atOnce = Krell::BucketGrowth::slotsAtOnce_;

void put( TestCollection& writer, const std::array< U64, 2 >& key, U64 seed ) {
    writer.writer().put< 2, payload >( key.data(), wholeValue< payload >( seed ).data() );
}

bool del( TestCollection& writer, const std::array< U64, 2 >& key ) {
    return writer.writer().del< 2 >( key.data() );
}

std::array< U64, 2 > keyOf( U64 n ) { return { n * 0x9e3779b97f4a7c15u, n }; }

U64 valueOf( TestCollection& collection, const std::array< U64, 2 >& key ) {
    std::array< U64, payload > value {};
    const bool found = collection.table().find< 2, payload >( key.data(), value.data() );
    return found && isWhole( value ) ? value[ 0 ] : ~U64( 0 );
}

U64 spaceOf( const std::string& path ) {
    struct stat status {};
    return ::stat( path.c_str(), &status ) == 0 ? U64( status.st_blocks ) * 512 : 0;
}

U64 sizeOf( const std::string& path ) {
    struct stat status {};
    return ::stat( path.c_str(), &status ) == 0 ? U64( status.st_size ) : 0;
}

// Puts and deletes, and the same on a map.
class Table {
public:
    explicit Table( bool local ) { collection.init( QelKrell::writer, local, 0 ); }

    void put( U64 n, U64 seed ) {
        ::put( collection, keyOf( n ), seed );
        model[ n ] = seed;
    }
    void del( U64 n ) { ASSERT_EQ( ::del( collection, keyOf( n ) ), model.erase( n ) == 1 ); }
    void check() {
        ASSERT_TRUE( collection.validate() );
        ASSERT_EQ( collection.table().occupied(), model.size() );
        for ( const auto& entry : model ) {
            ASSERT_EQ( valueOf( collection, keyOf( entry.first ) ), entry.second );
        }
    }
    const Krell::BucketGrowth& growth() { return collection.writer().growth(); }

    TestRoot root;
    TestCollection collection { layoutOf( 2, payload ) };
    std::map< U64, U64 > model;
};

class GrowthTest : public testing::TestWithParam< bool > {
protected:
    Table table { GetParam() };
};

TEST_P( GrowthTest, ChangesInRandomOrderAreKeptOverManyDoublings ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( seed );
    std::mt19937_64 random( seed );
    U32 published = 0;
    unsigned checkedWhileBuilding = 0;
    for ( U64 i = 0; i < 40000; ++i ) {
        const U64 n = random() % ( i + 8 );
        if ( random() % 4 == 0 ) {
            table.del( n );
        } else {
            table.put( n, i );
        }
        const Krell::BucketGrowth& growth = table.growth();
        if ( published != growth.published() || ( growth.building() && i % 64 == 0 ) ) {
            checkedWhileBuilding += growth.building();
            published = growth.published();
            table.check();
            ASSERT_FALSE( HasFatalFailure() );
        }
    }
    table.check();
    EXPECT_GE( published, 8U );
    EXPECT_GE( checkedWhileBuilding, 8U );
    EXPECT_LE( table.growth().longest(), 1024U ) << "what is small may be full early";
}

// Slots before and behind the copying's place, freed and taken again.
TEST_P( GrowthTest, EntriesThatComeAndGoWhileTheNextArrayIsBuiltAreInIt ) {
    U64 n = 0;
    while ( !table.growth().building() || n < 4000 ) {
        table.put( n, n );
        ++n;
    }
    const U32 before = table.growth().published();
    for ( U64 i = 0; table.growth().published() == before; ++i ) {
        ASSERT_LT( i, 4000U );
        table.del( i );
        table.put( n + i, i );
        table.del( n - 1 - i );
        table.put( i, i + 1 );
        table.put( n - 1 - i, i + 2 );
    }
    table.check();
    EXPECT_LE( table.growth().longest(), atOnce );
}

TEST_P( GrowthTest, ATableThatShrinksWhileItsNextArrayIsBuiltGetsItNevertheless ) {
    U64 n = 0;
    while ( !table.growth().building() || n < 4000 ) {
        table.put( n, n );
        ++n;
    }
    const U32 before = table.growth().published();
    while ( n > 0 ) {
        table.del( --n );
    }
    EXPECT_EQ( table.growth().published(), before + 1 );
    table.check();
    for ( ; n < 6000; ++n ) {
        table.put( n, n );
    }
    table.check();
}

// Each bucket that is used is full, and more comes than there are overflow buckets, while the next
// array stands behind the present one.
TEST_P( GrowthTest, AnArrayThatIsFullBeforeTheNextOneIsBuiltIsCopiedAtOnce ) {
    constexpr U64 primaries = 64;
    constexpr U64 used = 42;
    constexpr U64 places = 12;
    std::vector< std::vector< U64 > > keys( primaries );
    for ( U64 n = 0, found = 0; found < used * ( places + 1 ); ++n ) {
        auto& ofBucket = keys[ Krell::hashWords( keyOf( n ).data(), 2 ) % primaries ];
        found += &ofBucket < &keys[ used ] && ofBucket.size() < places + 1;
        ofBucket.push_back( n );
    }
    for ( U64 place = 0; place < places; ++place ) {
        for ( U64 bucket = 0; bucket < used; ++bucket ) {
            table.put( keys[ bucket ][ place ], place );
        }
    }
    for ( U64 i = 0; !table.growth().building(); ++i ) {
        ASSERT_LT( i, 12U );
        table.put( keys[ primaries - 1 ][ i ], i );
    }
    const U32 before = table.growth().published();
    U64 bucket = 0;
    while ( table.growth().published() == before ) {
        ASSERT_LT( bucket, used );
        table.put( keys[ bucket ][ places ], bucket );
        ++bucket;
        table.check();
    }
    EXPECT_LT( bucket * atOnce, table.collection.capacity() ) << "not bit by bit";
    for ( ; bucket < used; ++bucket ) {
        table.put( keys[ bucket ][ places ], bucket );
    }
    table.check();
}

TEST_P( GrowthTest, KeysOfOneHashAloneGrowAChainOnly ) {
    constexpr U64 colliding = 2000;
    for ( U64 i = 0; i < colliding; ++i ) {
        put( table.collection, collidingKey( i ), i );
    }
    for ( U64 i = 0; i < colliding; ++i ) {
        ASSERT_EQ( valueOf( table.collection, collidingKey( i ) ), i );
    }
    ASSERT_TRUE( table.collection.validate() );
    EXPECT_LE( table.growth().longest(), atOnce );
}

INSTANTIATE_TEST_SUITE_P( Memory, GrowthTest, testing::Bool(), []( const auto& info ) {
    return std::string( info.param ? "Local" : "Shared" );
} );

TEST( GrowthSpaceTest, LittleSpaceIsTakenUpBesideTheEntries ) {
    const std::string place = "/sys/Krell/e/c/";
    for ( const U64 entries : { 100000, 1000000 } ) {
        Table table( false );
        for ( U64 n = 0; n < entries; ++n ) {
            put( table.collection, keyOf( n ), n );
        }
        EXPECT_LE( table.growth().longest(), atOnce );
        // 88 bytes a slot, 64 a bucket with 4 to 8 entries.
        const double slots = double( spaceOf( table.root.path() + place + "slots" ) );
        const double buckets = double( spaceOf( table.root.path() + place + "buckets" ) );
        EXPECT_LT( slots / double( entries ), 88 * 1.04 );
        EXPECT_LT( buckets / double( entries ), 12 );
    }
}

TEST( GrowthSpaceTest, FormerArraysAreGivenBackAndTheirSpaceIsUsedAgain ) {
    Table table( false );
    const std::string buckets = table.root.path() + "/sys/Krell/e/c/buckets";
    U64 n = 0;
    for ( ; n < 80000; ++n ) {
        put( table.collection, keyOf( n ), n );
    }
    for ( U64 i = 0; i < 20000; ++i ) { // changes enough
        ASSERT_TRUE( del( table.collection, keyOf( i ) ) );
        put( table.collection, keyOf( i ), i );
    }
    ASSERT_FALSE( table.growth().building() );
    EXPECT_LT( spaceOf( buckets ), sizeOf( buckets ) * 6 / 10 );
    TestCollection reader( layoutOf( 2, payload ) );
    reader.asReader();
    for ( unsigned takeover = 0; takeover < 4; ++takeover ) { // arrays of one size take turns
        table.collection.detach();
        table.collection.asWriter();
        ASSERT_TRUE( table.collection.validate() );
        EXPECT_LT( sizeOf( buckets ), 64U * 3 * 20000 );
        for ( U64 i = 0; i < 20000; ++i ) {
            put( table.collection, keyOf( i ), i + takeover );
            ASSERT_TRUE( del( table.collection, keyOf( n - 1 ) ) );
            put( table.collection, keyOf( n - 1 ), n - 1 );
        }
        EXPECT_LT( spaceOf( buckets ), 64U * 5 * 20000 / 4 );
    }
    for ( U64 i = 20000; i < n; ++i ) {
        ASSERT_EQ( valueOf( reader, keyOf( i ) ), i );
    }
    for ( ; n < 200000; ++n ) {
        put( table.collection, keyOf( n ), n );
    }
    for ( U64 i = 20000; i < n; ++i ) {
        ASSERT_EQ( valueOf( reader, keyOf( i ) ), i );
    }
    EXPECT_TRUE( reader.validate() );
}

TEST( GrowthSpaceTest, ATableOfAConstantSizeDoesNotGrow ) {
    for ( const U64 entries : { 100, 5000, 20000 } ) {
        Table table( false );
        for ( U64 n = 0; n < entries; ++n ) {
            put( table.collection, keyOf( n ), n );
        }
        for ( U64 n = 0; n < 10 * entries; ++n ) {
            ASSERT_TRUE( del( table.collection, keyOf( n ) ) );
            put( table.collection, keyOf( n + entries ), n );
        }
        EXPECT_LE( table.collection.capacity(), entries * 113 / 100 + 64 );
        EXPECT_TRUE( table.collection.validate() );
    }
}

TEST( GrowthSpaceTest, ReaderProcessesMissNothingWhileATableGrows ) {
    constexpr U64 pinned = 64;
    Table table( false );
    for ( U64 n = 0; n < pinned; ++n ) {
        put( table.collection, keyOf( n ), n );
    }
    int stop[ 2 ];
    int ready[ 2 ];
    ASSERT_EQ( ::pipe( stop ), 0 );
    ASSERT_EQ( ::pipe( ready ), 0 );
    std::vector< pid_t > readers;
    for ( unsigned i = 0; i < 2; ++i ) {
        readers.push_back( ::fork() );
        if ( readers.back() == 0 ) {
            ::close( stop[ 1 ] );
            int status = 2;
            try {
                TestCollection reader( layoutOf( 2, payload ) );
                reader.asReader();
                status = ::write( ready[ 1 ], "r", 1 ) == 1 ? 0 : 3;
                pollfd ended { stop[ 0 ], POLLIN | POLLHUP, 0 };
                for ( U64 n = 0; n % pinned || ::poll( &ended, 1, 0 ) == 0; ++n ) {
                    if ( valueOf( reader, keyOf( n % pinned ) ) != n % pinned ) {
                        status = 1;
                    }
                }
            } catch ( ... ) {
                status = 4;
            }
            ::_exit( status );
        }
    }
    char byte;
    ::close( stop[ 0 ] );
    ASSERT_EQ( ::read( ready[ 0 ], &byte, 1 ), 1 );
    ASSERT_EQ( ::read( ready[ 0 ], &byte, 1 ), 1 );
    for ( U64 n = pinned; n < 150000; ++n ) {
        put( table.collection, keyOf( n ), n );
        if ( n % 3 == 0 && n > pinned + 1000 ) {
            ASSERT_TRUE( del( table.collection, keyOf( n - 1000 ) ) );
        }
    }
    ::close( stop[ 1 ] );
    for ( const pid_t pid : readers ) {
        int status = 0;
        ASSERT_EQ( ::waitpid( pid, &status, 0 ), pid );
        EXPECT_TRUE( WIFEXITED( status ) );
        EXPECT_EQ( WEXITSTATUS( status ), 0 ) << "1: missed a key; 4: failed";
    }
    EXPECT_GE( table.growth().published(), 10U );
    EXPECT_LE( table.growth().longest(), atOnce );
}

} // namespace
