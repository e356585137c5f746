// Whatever stands in the change queue: every call returns, with an answer or an exception.

#include <filesystem>
#include <set>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "krell/QueueSupport.h"

using namespace KrellTest;
using Krell::QueueEntry;
using Krell::QueueHeader;
using Krell::QueueMark;
using Drain = Krell::QueueReader::Drain;

namespace {

constexpr std::size_t entriesAt = sizeof( QueueHeader );
constexpr std::size_t markAt = offsetof( QueueHeader, mark );
constexpr std::size_t tailAt = offsetof( QueueHeader, tail );
constexpr std::size_t stampAt = offsetof( QueueHeader, fenix );
constexpr unsigned drainsAtMost = 8;
constexpr U32 slots = 60; // all of which were used

// What one reader made of the queue.
struct Outcome {
    std::string thrown; // the exception's name, and its message
    std::string message;
    Drain last = Drain::absent;
    U64 told = 0;
};

// A queue that went round several times; 30 keys, and 20 that came and went.
class QueueHostileTest : public testing::Test {
protected:
    QueueHostileTest() {
        QueueWriterSide writer( place, slots );
        for ( U64 n = 0; n < 400; ++n ) {
            writer.put( n % 30, n );
            writer.put( 30 + n % 20, n );
            writer.del( 30 + n % 20 );
        }
        writer.expectSound();
        head = writer.head();
        tail = writer.tail();
        round = writer.round();
        roundBefore = writer.roundBefore();
        places = writer.queue().places();
        file = writer.file();
        bytes = bytesOf( file );
        EXPECT_TRUE( roundBefore < tail && tail < round && round < head );
    }
    // Restores the queue, but for `changes`.
    template < class F >
    void store( F&& changes ) {
        std::string changed = bytes;
        changes( changed );
        bytesInto( file, changed );
    }
    template < class T >
    static void set( std::string& bytes, std::size_t at, T value ) {
        bytes.replace( at, sizeof value, reinterpret_cast< const char* >( &value ), sizeof value );
    }
    static U64 word( const std::string& bytes, std::size_t at ) {
        U64 value = 0;
        bytes.copy( reinterpret_cast< char* >( &value ), sizeof value, at );
        return value;
    }
    std::size_t placeAt( U64 position ) const {
        return entriesAt + 8 * ( position - ( position < round ? roundBefore : round ) );
    }
    // The checksum as it should be.
    static void seal( std::string& bytes ) {
        const std::size_t from = offsetof( QueueHeader, generation );
        set( bytes, offsetof( QueueHeader, checksum ),
             U32( Krell::Util::hash( bytes.data() + from, unsigned( markAt - from ) ) ) );
    }

    // Drains until nothing is new, or an exception. Each drain tells a bounded number of slots.
    Outcome drain( QueueReaderSide& reader ) const {
        Outcome outcome;
        try {
            for ( unsigned i = 0; i < drainsAtMost; ++i ) {
                U64 told = 0;
                outcome.last = reader.queue.drain( [ & ]( U32 slot ) {
                    reader.keyAt( slot );
                    return ++told <= 4 * places;
                } );
                EXPECT_LE( told, 4 * places );
                outcome.told += told;
                if ( outcome.last != Drain::end ) {
                    break;
                }
            }
        } catch ( const Krell::Exception& e ) {
            outcome.thrown = e.name();
            outcome.message = e.msg();
            EXPECT_FALSE( e.msg().empty() );
        }
        return outcome;
    }
    Outcome newcomer() {
        QueueReaderSide reader( place );
        return drain( reader );
    }
    void expectCorrupt( const std::string& what ) {
        const Outcome outcome = newcomer();
        EXPECT_EQ( outcome.thrown, "CorruptionDetectedException" ) << int( outcome.last );
        EXPECT_NE( outcome.message.find( what ), std::string::npos ) << outcome.message;
    }
    void expectAbsent() {
        const Outcome outcome = newcomer();
        EXPECT_EQ( outcome.thrown, "" ) << outcome.message;
        EXPECT_EQ( outcome.last, Drain::absent );
    }
    void expectHarmless( const Outcome& outcome ) {
        EXPECT_TRUE( outcome.thrown.empty() || outcome.thrown == "CorruptionDetectedException" )
            << outcome.thrown << ": " << outcome.message;
    }

    QueuePlace place;
    U64 head = 0;
    U64 tail = 0;
    U64 round = 0;
    U64 roundBefore = 0;
    U64 places = 0;
    std::string file;
    std::string bytes;
};

TEST_F( QueueHostileTest, EveryFlippedByteOfTheHeaderIsRefusedOrHarmless ) {
    ASSERT_EQ( newcomer().told, slots );
    for ( std::size_t at = 0; at < entriesAt; ++at ) {
        for ( const int flip : { 0xff, 1, 0x80 } ) {
            SCOPED_TRACE( "byte " + std::to_string( at ) );
            store( [ & ]( std::string& b ) { b[ at ] = char( b[ at ] ^ flip ); } );
            if ( at >= stampAt && at < stampAt + 4 ) {
                expectAbsent();
            } else if ( at < markAt ) {
                expectCorrupt( file );
            } else if ( at < offsetof( QueueHeader, rest ) ) {
                expectHarmless( newcomer() );
            } else {
                EXPECT_EQ( newcomer().told, slots );
            }
        }
    }
}

TEST_F( QueueHostileTest, AHeaderWithARightChecksumIsStillCheckedForItsSize ) {
    const std::size_t placesAt = offsetof( QueueHeader, places );
    for ( const U32 wrong : { U32( 0 ), U32( 1 ), U32( 63 ), U32( places + 1 ), 0x7fffffffU,
                              0x80000000U, 0xffffffffU } ) {
        SCOPED_TRACE( wrong );
        store( [ & ]( std::string& b ) {
            set( b, placesAt, wrong );
            seal( b );
        } );
        expectCorrupt( "number of places: " + std::to_string( wrong ) );
    }
}

TEST_F( QueueHostileTest, AnOrderThatIsNoneLosesNoneOrIsHarmless ) {
    QueueReaderSide reader( place );
    ASSERT_EQ( reader.keys().size(), slots );
    for ( const U64 sortedEnd : { U64( 0 ), U64( 1 ), tail + 7, head, head + 1, ~U64( 0 ) } ) {
        store( [ & ]( std::string& b ) {
            set( b, offsetof( QueueHeader, sortedEnd ), sortedEnd );
            seal( b );
        } );
        EXPECT_EQ( newcomer().told, slots );
        expectHarmless( drain( reader ) );
    }
}

TEST_F( QueueHostileTest, AStampOrAGenerationOfOthersAndAMissingFileAreNoCorruption ) {
    store( [ & ]( std::string& b ) { set( b, stampAt, U32( 4711 ) ); } );
    expectAbsent();
    std::filesystem::remove( file );
    expectAbsent();
    // Another generation's file under this one's name.
    store( [ & ]( std::string& b ) {
        set( b, offsetof( QueueHeader, generation ), U32( 77 ) );
        seal( b );
    } );
    expectAbsent();
    store( []( std::string& ) {} );
    EXPECT_EQ( newcomer().told, slots );
}

TEST_F( QueueHostileTest, AShortenedFileIsRefused ) {
    for ( const std::size_t size : { std::size_t( 1 ), std::size_t( 64 ), entriesAt - 1, entriesAt,
                                     entriesAt + 8, bytes.size() - 8, bytes.size() - 1 } ) {
        SCOPED_TRACE( size );
        store( [ & ]( std::string& b ) { b.resize( size ); } );
        expectCorrupt( size < entriesAt ? "bad size: " + std::to_string( size )
                                        : "bad number of places" );
    }
    store( []( std::string& b ) { b.clear(); } );
    const Outcome outcome = newcomer();
    EXPECT_NE( outcome.last, Drain::end );
    EXPECT_EQ( outcome.told, 0U );
}

TEST_F( QueueHostileTest, WhatIsNoRegularFileIsRefused ) {
    const std::string aside = place.root / "aside";
    std::filesystem::rename( file, aside );
    std::filesystem::create_symlink( aside, file );
    EXPECT_EQ( newcomer().thrown, "RuntimeException" );
    std::filesystem::remove( file );
    ASSERT_EQ( ::mkfifo( file.c_str(), 0600 ), 0 );
    EXPECT_EQ( newcomer().thrown, "RuntimeException" );
    std::filesystem::remove( file );
    std::filesystem::create_directory( file );
    EXPECT_EQ( newcomer().thrown, "RuntimeException" );
    std::filesystem::remove( file );
    std::filesystem::rename( aside, file );
    EXPECT_EQ( newcomer().told, slots );
}

TEST_F( QueueHostileTest, EntriesOfSlotsThatAreNoneAreCorruption ) {
    for ( const U32 slot : { slots, slots + 1, 1000U, QueueEntry::slotLimit_ } ) {
        SCOPED_TRACE( slot );
        store( [ & ]( std::string& b ) {
            set( b, placeAt( head - 1 ), QueueEntry( slot, word( b, markAt ) >> 32 ).word() );
        } );
        expectCorrupt( "an entry of slot " + std::to_string( slot ) );
        // A tombstone of the past is passed over, and one of the future is not.
        store( [ & ]( std::string& b ) {
            const U32 last = U32( word( b, markAt ) >> 32 );
            set( b, placeAt( head - 1 ), QueueEntry::tombstone( slot, last ).word() );
        } );
        EXPECT_EQ( newcomer().thrown, "" );
        store( [ & ]( std::string& b ) {
            const U32 last = U32( word( b, markAt ) >> 32 );
            set( b, placeAt( head - 1 ), QueueEntry::tombstone( slot, last + 1 ).word() );
        } );
        expectCorrupt( "an entry of slot " + std::to_string( slot ) );
    }
}

TEST_F( QueueHostileTest, AFollowingReaderMeetsAWildSlotAsCorruption ) {
    QueueWriterSide writer( place );
    QueueReaderSide reader( place );
    ASSERT_EQ( reader.keys().size(), slots );
    writer.put( 1, 7 );
    writer.put( 2, 7 );
    MappedFile mapped( writer.file() );
    U64& entry = mapped.word( writer.placeAt( writer.head() - 1 ) );
    const U64 whole = entry;
    entry = QueueEntry( 12345, writer.table.sequence() ).word();
    const Outcome outcome = drain( reader );
    EXPECT_EQ( outcome.thrown, "CorruptionDetectedException" );
    EXPECT_NE( outcome.message.find( "an entry of slot 12345" ), std::string::npos );
    // What is put right is told.
    entry = whole;
    EXPECT_EQ( reader.keys(), std::vector< U64 > { 2 } );
}

TEST_F( QueueHostileTest, AHeadFarAwayAndATailThatGoesBackAreCorruption ) {
    for ( const U64 far : { places + 1, places * 2, U64( 1 ) << 30, U64( 0xffffffff ) } ) {
        SCOPED_TRACE( far );
        store( [ & ]( std::string& b ) {
            set( b, markAt, QueueMark( word( b, markAt ) >> 32, tail + far ).word() );
        } );
        expectCorrupt( "a head at position" );
    }
    for ( const U64 wrong :
          { head + 1, head + places, U64( 1 ) << 31, U64( 1 ) << 40, U64( 1 ) << 63, ~U64( 0 ) } ) {
        SCOPED_TRACE( wrong );
        store( [ & ]( std::string& b ) { set( b, tailAt, wrong ); } );
        expectHarmless( newcomer() );
    }
    // Under a reader that knew better.
    store( []( std::string& ) {} );
    QueueReaderSide reader( place );
    reader.keys();
    MappedFile mapped( file );
    for ( const U64 back : { tail - 1, U64( 1 ), U64( 0 ) } ) {
        mapped.word( tailAt ) = back;
        mapped.word( markAt ) = QueueMark( 900, back + 3 ).word();
        const Outcome outcome = drain( reader );
        EXPECT_EQ( outcome.thrown, "CorruptionDetectedException" );
        EXPECT_NE( outcome.message.find( "a head that went back" ), std::string::npos );
    }
}

// A newcomer's drain and a follower's, with every pair of wrong starts: an exception that names
// what was wrong, or an end, in bounded time.
TEST_F( QueueHostileTest, RoundsOfNonsenseAreRefusedOrHarmless ) {
    const U64 starts[] = {
        0,         1,    tail,     roundBefore,   roundBefore + 1, round,          round - 1,
        round + 1, head, head + 1, head + places, U64( 1 ) << 31,  U64( 1 ) << 32, U64( 1 ) << 63,
        ~U64( 0 )
    };
    unsigned refused = 0;
    for ( const U64 first : starts ) {
        for ( const U64 second : starts ) {
            SCOPED_TRACE( std::to_string( first ) + ", " + std::to_string( second ) );
            store( []( std::string& ) {} );
            QueueReaderSide follower( place );
            follower.some( 7 );
            MappedFile mapped( file );
            mapped.word( offsetof( QueueHeader, round ) ) = first;
            mapped.word( offsetof( QueueHeader, roundBefore ) ) = second;
            const Outcome outcome = newcomer();
            expectHarmless( outcome );
            refused += !outcome.thrown.empty();
            expectHarmless( drain( follower ) );
            if ( first == round && second == roundBefore ) {
                EXPECT_EQ( outcome.told, slots );
            }
        }
    }
    EXPECT_GT( refused, 100U );
}

TEST_F( QueueHostileTest, PositionsOfNoRoundAndOfNoPlaceAreNamed ) {
    const auto with = [ & ]( U64 present, U64 before ) {
        store( [ & ]( std::string& b ) {
            set( b, offsetof( QueueHeader, round ), present );
            set( b, offsetof( QueueHeader, roundBefore ), before );
        } );
    };
    with( round, tail + 1 );
    expectCorrupt( "no round of position " + std::to_string( tail ) );
    with( head + 1, head + 1 );
    expectCorrupt( "no round of position " + std::to_string( tail ) );
    with( tail - places, roundBefore );
    expectCorrupt( "no place for position " + std::to_string( tail ) );
    with( 0, 0 );
    expectCorrupt( "no place for position " + std::to_string( tail ) );
    with( round, 0 );
    expectCorrupt( "no place for position " + std::to_string( tail ) );
    with( head + places, head - 1 - places );
    expectCorrupt( "no place for position " );
}

TEST_F( QueueHostileTest, SequencesOfNonsenseAreHarmless ) {
    for ( const U64 sequence :
          { U64( 0 ), U64( 1 ), U64( 0x7fffffff ), U64( 0x80000000 ), U64( 0xffffffff ) } ) {
        SCOPED_TRACE( sequence );
        store( [ & ]( std::string& b ) { set( b, markAt, QueueMark( sequence, head ).word() ); } );
        expectHarmless( newcomer() );
    }
    for ( const U64 sequence : { U64( 0 ), U64( 1 ) << 32, U64( 1 ) << 60, ~U64( 0 ) } ) {
        store( []( std::string& ) {} );
        QueueReaderSide reader( place );
        MappedFile slotsFile( place / "slots" );
        U64& last = slotsFile.word( offsetof( Krell::Segments::SlotHeader, sequence ) );
        const U64 whole = std::exchange( last, sequence );
        expectHarmless( drain( reader ) );
        last = whole;
    }
    EXPECT_EQ( newcomer().told, slots );
}

TEST_F( QueueHostileTest, GenerationWordsOfNonsenseAreHarmless ) {
    MappedFile buckets( place / "buckets" );
    U64& generation = buckets.word( offsetof( Krell::BucketsHeader, queueGeneration ) );
    const U64 whole = generation;
    QueueReaderSide follower( place );
    ASSERT_EQ( follower.keys().size(), slots );
    for ( const U64 wrong : { U64( 0 ), whole + 1, whole + 2, U64( 0x7fffffff ), U64( 0xffffffff ),
                              U64( 0x100000000 ), ~U64( 0 ) } ) {
        SCOPED_TRACE( wrong );
        generation = wrong;
        expectAbsent();
        const Outcome outcome = drain( follower );
        EXPECT_EQ( outcome.last, Drain::absent );
        EXPECT_EQ( outcome.thrown, "" );
        EXPECT_TRUE( follower.queue.isPending() );
    }
    generation = whole;
    EXPECT_EQ( drain( follower ).last, Drain::empty );
    EXPECT_EQ( newcomer().told, slots );
}

TEST_F( QueueHostileTest, RandomChangesUnderAReaderAreRefusedOrHarmless ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    unsigned refused = 0;
    for ( unsigned round = 0; round < 400; ++round ) {
        store( []( std::string& ) {} );
        QueueReaderSide reader( place );
        MappedFile mapped( file );
        if ( random() % 2 ) {
            reader.some( random() % 60 + 1 );
        }
        for ( unsigned i = 0; i < 6; ++i ) {
            for ( unsigned n = random() % 5 + 1; n > 0; --n ) {
                const bool header = random() % 3 == 0;
                const std::size_t at =
                    header ? markAt + 8 * ( random() % 4 )
                           : entriesAt + random() % ( mapped.size() - entriesAt ) / 8 * 8;
                switch ( random() % 4 ) {
                case 0:
                    mapped.word( at ) = random();
                    break;
                case 1:
                    mapped.word( at ) += random() % 300;
                    break;
                case 2:
                    mapped.half( at + 4 * ( random() % 2 ) ) = U32( random() % 1000 );
                    break;
                default:
                    mapped.word( at ) ^= U64( 1 ) << ( random() % 64 );
                }
            }
            const Outcome outcome = drain( reader );
            expectHarmless( outcome );
            refused += !outcome.thrown.empty();
            reader.queue.isPending();
        }
    }
    EXPECT_GT( refused, 0U );
}

// --- Through a control: what is corruption is marked for the next writer, and nothing else is.

class QueueHostileControlTest : public testing::Test {
protected:
    QueueHostileControlTest() {
        writer.asWriter( 20 );
        for ( U64 key = 0; key < 10; ++key ) {
            put( key, 1 );
        }
    }
    void put( U64 key, U64 value ) { writer.writer().put< 1, 1 >( &key, &value ); }
    std::string pathOf( const char* name ) const { return writerPath + "/" + name; }
    bool marked() const { return std::filesystem::exists( pathOf( "corruption-detected" ) ); }

    TestRoot root;
    const Krell::Layout layout = layoutOf( 1, 1 );
    TestCollection writer { layout };
    const std::string writerPath = writer.rootPath();
};

TEST_F( QueueHostileControlTest, AMissingOrForeignQueueLeavesNoMarker ) {
    const std::string queue = pathOf( "conquer.1" );
    const std::string whole = bytesOf( queue );
    for ( const QelKrell::QelKrellType role :
          { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
        TestCollection follower( layout );
        std::filesystem::remove( queue );
        follower.init( role, false, 0 );
        follower.poll();
        EXPECT_EQ( follower.mountStatus(), 1 );
        EXPECT_TRUE( follower.changes.empty() );
        std::string foreign = whole;
        foreign[ stampAt ] = char( ~foreign[ stampAt ] );
        bytesInto( queue, foreign );
        follower.poll();
        EXPECT_TRUE( follower.changes.empty() );
        EXPECT_TRUE( follower.failures.empty() );
        EXPECT_FALSE( marked() );
        EXPECT_GE( fireTimers(), 1U ) << "it looks again by itself";
        bytesInto( queue, whole );
        follower.poll();
        EXPECT_EQ( follower.changes.size(), 10U );
    }
}

TEST_F( QueueHostileControlTest, AnUnsoundQueueIsMarkedAndToldOnceAndTheNextWriterStartsAnew ) {
    const std::string queue = pathOf( "conquer.1" );
    std::string wrong = bytesOf( queue );
    wrong[ 0 ] = 'X';
    bytesInto( queue, wrong );
    TestCollection follower( layout );
    follower.init( QelKrell::keyshadow, false, 0 );
    for ( unsigned i = 0; i < 3; ++i ) {
        follower.poll();
    }
    ASSERT_EQ( follower.failures.size(), 1U );
    EXPECT_NE( follower.failures[ 0 ].find( queue + ": bad magic" ), std::string::npos )
        << follower.failures[ 0 ];
    EXPECT_TRUE( marked() );
    const U32 fenix = writer.fenixId();
    writer.detach();
    writer.asWriter( 20 );
    EXPECT_NE( writer.fenixId(), fenix );
    put( 3, 3 );
    for ( unsigned i = 0; i < 3; ++i ) {
        follower.poll();
    }
    EXPECT_EQ( follower.takeChanges(), ( std::map< U64, bool > { { 3, true } } ) );
    EXPECT_FALSE( marked() );
}

} // namespace
