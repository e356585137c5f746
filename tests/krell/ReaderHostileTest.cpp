// Whatever stands in the files: every call returns, with an answer or an exception.

#include <filesystem>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/stat.h>

#include "Torture.h"
#include "krell/QueueSupport.h"

using namespace KrellTest;
using QelKrellTest::Torture;

namespace {

constexpr std::size_t bucketsMutable = 64; // offset of the table word
constexpr std::size_t lookasideAt = 4096;
constexpr std::size_t arraysAt = 4096 + 64;

// A collection of 40 keys, two of them in one overflow chain, whose files are then changed.
class ReaderHostileTest : public testing::Test {
protected:
    ReaderHostileTest() {
        TestCollection writer( layout );
        writer.asWriter( 64 );
        for ( U64 n = 0; n < 20; ++n ) {
            put( writer, collidingKey( n ), n );
            put( writer, { n, n }, n );
        }
        put( writer, { 3, 3 }, 1 ); // leaves a lookaside record
        writer.writer().del< 2 >( collidingKey( 4 ).data() );
        writer.detach();
        slots = bytesOf( pathOf( "slots" ) );
        buckets = bytesOf( pathOf( "buckets" ) );
    }
    static void put( TestCollection& writer, const std::array< U64, 2 >& key, U64 seed ) {
        const auto value = wholeValue< 2 >( seed );
        writer.writer().put< 2, 2 >( key.data(), value.data() );
    }
    std::string pathOf( const char* file ) const {
        return root / ( std::string( "sys/Krell/e/c/" ) + file );
    }
    void store( const std::string& s, const std::string& b ) {
        bytesInto( pathOf( "slots" ), s );
        bytesInto( pathOf( "buckets" ), b );
        std::filesystem::remove( pathOf( "corruption-detected" ) );
    }
    template < class T >
    static void set( std::string& bytes, std::size_t at, T value ) {
        bytes.replace( at, sizeof value, reinterpret_cast< const char* >( &value ), sizeof value );
    }
    template < class T >
    static T get( const std::string& bytes, std::size_t at ) {
        T value;
        bytes.copy( reinterpret_cast< char* >( &value ), sizeof value, at );
        return value;
    }

    // Attaches and does everything that a reader can do. What each step threw, by name.
    std::set< std::string > readAll() {
        std::set< std::string > thrown;
        const auto guarded = [ & ]( const std::function< void() >& f ) {
            ++calls;
            try {
                f();
            } catch ( const Krell::Exception& e ) {
                EXPECT_FALSE( e.msg().empty() );
                thrown.insert( e.name() );
            }
        };
        TestCollection reader( layout );
        guarded( [ & ] { reader.asReader(); } );
        for ( U64 n = 0; n < 24; ++n ) {
            for ( const auto& key : { collidingKey( n ), std::array< U64, 2 > { n, n } } ) {
                U64 value[ 2 ];
                guarded( [ & ] { reader.table().find< 2, 2 >( key.data(), value ); } );
                guarded( [ & ] { reader.table().contains( key.data() ); } );
            }
        }
        guarded( [ & ] { reader.table().forEach< 2, 2 >( []( const U64*, const U64* ) {} ); } );
        guarded( [ & ] { reader.capacity(); } );
        guarded( [ & ] { reader.validate(); } );
        guarded( [ & ] { reader.resize(); } );
        if ( reader.mountStatus() ) {
            guarded( [ & ] { reader.readerCounters(); } );
        }
        reader.timeout();
        return thrown;
    }
    void expectRefusedOrHarmless() {
        for ( const std::string& name : readAll() ) {
            EXPECT_TRUE( name == "CorruptionDetectedException" ||
                         name == "InvalidInitializeException" )
                << name;
        }
    }
    // Those since it was asked last. One that died or did not come back ends the test.
    void countInto( Torture& torture ) {
        torture.count( "calls", std::exchange( calls, 0 ) );
        torture.count( "crashes", 0 );
        torture.count( "hangs", 0 );
    }
    // The next writer keeps what is there, and makes room for more than the files have.
    void expectGrowth() {
        constexpr U64 more = 2500;
        TestCollection writer( layout );
        writer.asWriter();
        EXPECT_EQ( writer.fenixId(), get< U32 >( slots, 12 ) );
        for ( U64 n = 0; n < more; ++n ) {
            put( writer, { 1000 + n, n }, n );
        }
        EXPECT_TRUE( writer.validate() );
        TestCollection reader( layout );
        reader.asReader();
        EXPECT_EQ( ( contentsOf< 2, 2 >( reader.table() ).size() ), 39 + more );
        std::array< U64, 2 > value {};
        for ( U64 n = 0; n < more; ++n ) {
            const U64 key[] = { 1000 + n, n };
            ASSERT_TRUE( ( reader.table().find< 2, 2 >( key, value.data() ) ) );
            ASSERT_EQ( value, wholeValue< 2 >( n ) );
        }
        EXPECT_TRUE( reader.validate() );
    }
    // The next writer is at work whatever it found.
    void expectWriterWorks() {
        TestCollection writer( layout );
        writer.asWriter();
        put( writer, { 77, 77 }, 5 );
        EXPECT_TRUE( writer.validate() );
        writer.detach();
        std::filesystem::remove( pathOf( "corruption-detected" ) );
    }

    TestRoot root;
    const Krell::Layout layout = layoutOf( 2, 2 );
    U64 calls = 0;
    std::string slots;
    std::string buckets;
};

TEST_F( ReaderHostileTest, EveryFlippedByteOfTheHeadersIsRefusedOrHarmless ) {
    ASSERT_EQ( readAll(), std::set< std::string >() );
    Torture torture( "hostile-contents", 1 );
    std::mt19937_64 random( torture.seed() );
    const auto flip = [ & ]( const std::string& file, std::size_t at ) {
        const int mask = torture.rounds() == 1 ? 0xff : int( random() % 255 + 1 );
        std::string changed = file;
        changed[ at ] = char( changed[ at ] ^ mask );
        torture.count( "flips" );
        return changed;
    };
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) );
        for ( std::size_t at = 0; at < 200; ++at ) {
            SCOPED_TRACE( "slots " + std::to_string( at ) );
            store( flip( slots, at ), buckets );
            expectRefusedOrHarmless();
            const bool fixed = at < 8 || ( at >= 16 && at < 160 );
            if ( fixed ) {
                EXPECT_EQ( readAll(),
                           ( std::set< std::string > { "CorruptionDetectedException" } ) );
            }
        }
        for ( std::size_t at = 0; at < 256; ++at ) {
            SCOPED_TRACE( "buckets " + std::to_string( at ) );
            store( slots, flip( buckets, at ) );
            expectRefusedOrHarmless();
        }
        countInto( torture );
    }
    const U32 fenix = get< U32 >( slots, 12 );
    store( slots, buckets );
    TestCollection reader( layout );
    reader.asReader();
    EXPECT_EQ( reader.fenixId(), fenix );
}

TEST_F( ReaderHostileTest, RandomChangesAreRefusedOrHarmless ) {
    Torture torture( "hostile-contents", 1200 );
    std::mt19937_64 random( torture.seed() );
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + ", round " +
                      std::to_string( torture.rounds() ) );
        std::string s = slots;
        std::string b = buckets;
        for ( unsigned i = random() % 8 + 1; i > 0; --i ) {
            std::string& file = random() % 2 ? s : b;
            const std::size_t at =
                random() % 4 ? random() % file.size() / 8 * 8 : random() % file.size();
            const std::size_t size =
                std::min< std::size_t >( random() % 4 ? 4 : 1, file.size() - at );
            for ( std::size_t j = 0; j < size; ++j ) {
                const char before = file[ at + j ];
                file[ at + j ] = char( random() % 2 ? random() : random() % 40 );
                torture.count( "flips", file[ at + j ] != before );
            }
        }
        store( s, b );
        expectRefusedOrHarmless();
        if ( torture.rounds() % 4 == 0 ) {
            expectWriterWorks();
            bytesInto( pathOf( "fenix" ), std::string( slots, 12, 4 ) );
        }
        countInto( torture );
    }
}

// What foreign bytes stood behind the slots that a collection has, or behind its buckets, made the
// first growth of the next writer throw, and of every one after that.
TEST_F( ReaderHostileTest, BytesBehindSlotsAndBucketsAreClearedWhenTheyAreUsed ) {
    for ( const std::size_t size : { 1, 7, 8, 24, 55, 56, 57, 63, 1000, 4096, 100001 } ) {
        for ( const char filler : { '\x02', '\x03', '\x7f', '\xff' } ) {
            SCOPED_TRACE( std::to_string( size ) + " bytes of " + std::to_string( int( filler ) ) );
            store( slots + std::string( size, filler ), buckets + std::string( size, filler ) );
            bytesInto( pathOf( "fenix" ), std::string( slots, 12, 4 ) );
            expectRefusedOrHarmless();
            expectGrowth();
        }
    }
}

// The same for what somebody wrote through a mapping, behind the end of the file.
TEST_F( ReaderHostileTest, BytesInTheRestOfThePageAreClearedWhenTheyAreUsed ) {
    store( slots, buckets );
    MappedFile slotsFile( pathOf( "slots" ) );
    MappedFile bucketsFile( pathOf( "buckets" ) );
    for ( MappedFile* file : { &slotsFile, &bucketsFile } ) {
        for ( std::size_t at = file->size(); at % 4096 != 0; ++at ) {
            ( *file )[ at ] = '\x03';
        }
    }
    expectGrowth();
}

TEST_F( ReaderHostileTest, ShortenedFilesAreRefusedOrHarmless ) {
    for ( const std::size_t size : { 0, 1, 8, 199, 200, 201, 300, 1000 } ) {
        store( slots.substr( 0, size ), buckets );
        expectRefusedOrHarmless();
    }
    for ( const std::size_t size : { 0, 1, 127, 4095, 4096, 4160, 4161, 4224, 5000 } ) {
        store( slots, buckets.substr( 0, size ) );
        expectRefusedOrHarmless();
    }
}

TEST_F( ReaderHostileTest, WildIndicesAndLinksAndCyclesAreCorruption ) {
    const U64 table = get< U64 >( buckets, bucketsMutable );
    const Krell::TableWord word( table );
    const U32 hash = Krell::hashWords( collidingKey( 0 ).data(), 2 );
    const std::size_t head = arraysAt + word.line() * 64;
    const std::size_t bucket = head + 64 * ( 1 + ( hash & ( word.primaries() - 1 ) ) );
    ASSERT_NE( get< U32 >( buckets, bucket + 60 ), 0U ) << "no overflow chain";
    struct {
        const char* what;
        std::size_t at;
        U32 value;
    } const faults[] = {
        { "a link out of the file", bucket + 60, 0x7fffffff },
        { "a link to itself", bucket + 60, U32( ( bucket - head ) / 64 ) },
        { "the link of an overflow bucket back",
          head + 64 * get< U32 >( buckets, bucket + 60 ) + 60, U32( ( bucket - head ) / 64 ) },
        { "a slot out of the file", bucket + 12, 0xffffffff },
        { "a slot just out of the file", bucket + 12, 64 },
    };
    for ( const auto& fault : faults ) {
        SCOPED_TRACE( fault.what );
        std::string changed = buckets;
        set( changed, fault.at, fault.value );
        store( slots, changed );
        EXPECT_EQ( readAll(), ( std::set< std::string > { "CorruptionDetectedException" } ) );
        TestCollection reader( layout );
        reader.asReader();
        EXPECT_FALSE( reader.validate() );
        EXPECT_TRUE( std::filesystem::exists( pathOf( "corruption-detected" ) ) );
    }
}

TEST_F( ReaderHostileTest, EveryTableWordIsRefusedOrHarmless ) {
    for ( unsigned log2 = 0; log2 < 64; ++log2 ) {
        for ( const U64 line : { 0ULL, 1ULL, 12ULL, 1000ULL, 0x3ffffffffULL } ) {
            std::string changed = buckets;
            set( changed, bucketsMutable, ( U64( 1 ) << 40 ) | ( line << 6 ) | log2 );
            store( slots, changed );
            expectRefusedOrHarmless();
        }
    }
}

TEST_F( ReaderHostileTest, ASlotBeingWrittenWithoutItsRecordIsCorruption ) {
    for ( U32 slot = 0; slot < 40; ++slot ) {
        std::string changed = slots;
        const std::size_t at = 200 + slot * 56;
        const Krell::SlotVersion version( get< U64 >( slots, at ) );
        if ( !version.isOccupied() ) {
            continue;
        }
        set( changed, at, version.whileWriting().word() );
        store( changed, buckets );
        EXPECT_EQ( readAll(), ( std::set< std::string > { "CorruptionDetectedException" } ) );
    }
    // With a record that is its own the value is the record's.
    std::string changedSlots = slots;
    std::string changedBuckets = buckets;
    const U32 slot = get< U32 >( buckets, lookasideAt + 8 );
    const U64 version = get< U64 >( slots, 200 + slot * 56 );
    set( changedSlots, 200 + slot * 56, version | 1 );
    set( changedBuckets, lookasideAt, version + 8 );
    set( changedBuckets, lookasideAt + 16, U64( 4711 ) );
    store( changedSlots, changedBuckets );
    TestCollection reader( layout );
    reader.asReader();
    U64 key[ 2 ] = { 3, 3 };
    U64 value[ 2 ] = {};
    ASSERT_TRUE( ( reader.table().find< 2, 2 >( key, value ) ) );
    EXPECT_EQ( value[ 0 ], 4711U );
    EXPECT_EQ( reader.readerCounters().usedLookaside, 1U );
}

TEST_F( ReaderHostileTest, CountsBeyondTheFileAreRefused ) {
    for ( const U32 count : { 65U, 1000U, 0x7fffffffU, 0xffffffffU } ) {
        std::string changed = slots;
        set( changed, 172, count );
        store( changed, buckets );
        EXPECT_EQ( readAll(), ( std::set< std::string > { "CorruptionDetectedException" } ) );
    }
}

TEST_F( ReaderHostileTest, FilesThatAreNoRegularFilesAreRefused ) {
    const std::string aside = root / "aside";
    for ( const char* file : { "slots", "buckets", "fenix" } ) {
        SCOPED_TRACE( file );
        std::filesystem::rename( pathOf( file ), aside );
        std::filesystem::create_symlink( aside, pathOf( file ) );
        TestCollection reader( layout );
        EXPECT_THROW( reader.asReader(), Krell::RuntimeException );
        EXPECT_EQ( reader.mountStatus(), 0 );
        std::filesystem::remove( pathOf( file ) );
        ASSERT_EQ( ::mkfifo( pathOf( file ).c_str(), 0600 ), 0 );
        EXPECT_THROW( reader.asReader(), Krell::RuntimeException );
        std::filesystem::remove( pathOf( file ) );
        std::filesystem::create_directory( pathOf( file ) );
        EXPECT_THROW( reader.asReader(), Krell::RuntimeException );
        std::filesystem::remove( pathOf( file ) );
        std::filesystem::rename( aside, pathOf( file ) );
        reader.asReader();
        EXPECT_EQ( reader.mountStatus(), 1 );
    }
}

} // namespace
