// Whatever stands in the change queue: every call returns, with an answer or an exception.

#include <filesystem>

#include <sys/stat.h>

#include "krell/HostileQueue.h"

using namespace KrellTest;
using QelKrellTest::Torture;

namespace {

TEST_F( QueueHostileTest, EveryFlippedByteOfTheHeaderIsRefusedOrHarmless ) {
    ASSERT_EQ( newcomer().told, slots );
    Torture torture( "hostile-contents", 1 );
    std::mt19937_64 random( torture.seed() );
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) );
        for ( std::size_t at = 0; at < entriesAt; ++at ) {
            for ( const int flip : { 0xff, 1, 0x80, int( random() % 255 + 1 ) } ) {
                SCOPED_TRACE( "byte " + std::to_string( at ) );
                store( [ & ]( std::string& b ) { b[ at ] = char( b[ at ] ^ flip ); } );
                torture.count( "flips" );
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
        countInto( torture );
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

// Where the sorted part ends and what it began with: a newcomer knows nothing that it could miss,
// and a follower gets an answer.
TEST_F( QueueHostileTest, AnOrderThatIsNoneLosesNoneOrIsHarmless ) {
    const auto with = [ & ]( U64 sortedEnd, U64 firstPosition ) {
        SCOPED_TRACE( std::to_string( sortedEnd ) + ", " + std::to_string( firstPosition ) );
        const std::string now = bytesOf( file );
        std::string b = now;
        set( b, offsetof( QueueHeader, sortedEnd ), sortedEnd );
        set( b, offsetof( QueueHeader, firstPosition ), firstPosition );
        seal( b );
        bytesInto( file, b );
        EXPECT_EQ( newcomer().told, slots );
        QueueReaderSide halfway( place );
        halfway.some( 7 );
        expectHarmless( drain( halfway ) );
        bytesInto( file, now );
    };
    const auto withAll = [ & ] {
        for ( const U64 sortedEnd :
              { U64( 0 ), U64( 1 ), tail, tail + 7, head, head + 1, ~U64( 0 ) } ) {
            for ( const U64 firstPosition : { U64( 0 ), U64( 1 ), tail - 1, tail, tail + 1,
                                              head + 1, U64( 1 ) << 63, ~U64( 0 ) } ) {
                with( sortedEnd, firstPosition );
            }
        }
    };
    withAll();
    // In a generation of which nothing was moved.
    QueueReaderSide former( place );
    former.keys();
    QueueWriterSide writer( place );
    writer.put( 1, ++value );
    file = writer.file();
    head = writer.head();
    tail = writer.tail();
    withAll();
    EXPECT_EQ( former.keys(), std::vector< U64 > { 1 } );
}

// Also one that lost its place, and looks for it there.
TEST_F( QueueHostileTest, ASearchInAnOrderThatIsNoneIsHarmless ) {
    for ( const U64 sortedEnd : { U64( 0 ), U64( 1 ), U64( 1 ) << 32, ~U64( 0 ) } ) {
        for ( const U64 firstPosition : { U64( 0 ), U64( 1 ), U64( 1 ) << 63, ~U64( 0 ) } ) {
            SCOPED_TRACE( std::to_string( sortedEnd ) + ", " + std::to_string( firstPosition ) );
            QueueReaderSide former( place );
            ASSERT_EQ( former.keys().size(), slots );
            QueueWriterSide writer( place );
            writer.put( 1, ++value );
            writer.put( 2, ++value );
            std::string b = bytesOf( writer.file() );
            set( b, offsetof( QueueHeader, sortedEnd ), sortedEnd );
            set( b, offsetof( QueueHeader, firstPosition ), firstPosition );
            seal( b );
            bytesInto( writer.file(), b );
            const Outcome outcome = drain( former );
            expectHarmless( outcome );
            EXPECT_EQ( outcome.told, 2U ) << "entries that it does not know, or all slots";
        }
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
                                     entriesAt + 4, bytes.size() - 4, bytes.size() - 1 } ) {
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
    for ( const U32 slot : { slots, slots + 1, 1000U, 0x7fffffffU, 0x80000000U, 0xffffffffU } ) {
        for ( const U64 distance : { 1, 2, 70 } ) {
            SCOPED_TRACE( std::to_string( slot ) + ", " + std::to_string( distance ) );
            const auto reader = readerAt( head - 80 );
            store( [ & ]( std::string& b ) { set( b, placeAt( head - distance ), slot ); } );
            U64 told = expectCorruptTo( *reader, "an entry of slot " + std::to_string( slot ) );
            told += expectCorruptTo( *reader, "an entry of slot " + std::to_string( slot ) );
            EXPECT_EQ( newcomer().told, slots ) << "it looks through the slots";
            store( []( std::string& ) {} );
            const Outcome outcome = drain( *reader );
            EXPECT_EQ( outcome.thrown, "" );
            EXPECT_EQ( outcome.last, Drain::empty );
            EXPECT_EQ( told + outcome.told, behind( 80 ).size() ) << "what is put right is told";
        }
    }
}

// Whoever looks for its place there either meets it or walks; it is not told less.
TEST_F( QueueHostileTest, AWildSlotInTheSortedPartIsMetOrPassed ) {
    std::vector< std::unique_ptr< QueueReaderSide > > former;
    for ( U64 n = 0; n < slots; ++n ) {
        former.push_back( std::make_unique< QueueReaderSide >( place ) );
        ASSERT_EQ( former.back()->keys().size(), slots );
    }
    QueueWriterSide writer( place );
    ASSERT_EQ( writer.head() - writer.tail(), slots );
    writer.put( 1, ++value );
    MappedFile mapped( writer.file() );
    U64 met = 0;
    for ( U64 n = 0; n < slots; ++n ) {
        SCOPED_TRACE( n );
        U32& entry = mapped.half( writer.placeAt( writer.tail() + n ) );
        const U32 whole = std::exchange( entry, slots );
        const Outcome outcome = newcomer();
        expectHarmless( outcome );
        EXPECT_EQ( outcome.told, outcome.thrown.empty() ? slots : 0U );
        met += !outcome.thrown.empty();
        EXPECT_EQ( former[ n ]->keys(), std::vector< U64 > { 1 } );
        entry = whole;
        EXPECT_EQ( newcomer().told, slots );
    }
    EXPECT_GT( met, 0U );
    EXPECT_LT( met, slots );
}

TEST_F( QueueHostileTest, AFollowingReaderMeetsAWildSlotAsCorruption ) {
    QueueWriterSide writer( place );
    QueueReaderSide reader( place );
    ASSERT_EQ( reader.keys().size(), slots );
    writer.put( 1, 7 );
    writer.put( 2, 7 );
    MappedFile mapped( writer.file() );
    U32& entry = mapped.half( writer.placeAt( writer.head() - 1 ) );
    const U32 whole = std::exchange( entry, 12345 );
    expectCorruptTo( reader, "an entry of slot 12345" );
    // What is put right is told.
    entry = whole;
    EXPECT_EQ( reader.keys(), ( std::vector< U64 > { 1, 2 } ) );
}

// The position that a slot names stands in another file, of which nothing is checked by a sum.
constexpr U64 wildPositions[] = { 0,
                                  1,
                                  U64( 1 ) << 32,
                                  U64( 1 ) << 61,
                                  ( U64( 1 ) << 62 ) - 1,
                                  U64( 1 ) << 62,
                                  ( U64( 1 ) << 62 ) + 1,
                                  U64( 1 ) << 63,
                                  ~U64( 0 ) };

TEST_F( QueueHostileTest, WildPositionsInSlotsLoseNothingOfAFollower ) {
    for ( const U64 wild : wildPositions ) {
        for ( const bool all : { true, false } ) {
            SCOPED_TRACE( std::to_string( wild ) + ( all ? ", all" : ", one" ) );
            QueueWriterSide writer( place );
            QueueReaderSide reader( place );
            ASSERT_EQ( reader.keys().size(), slots );
            for ( const U64 key : { 1, 2, 3, 2, 1 } ) {
                writer.put( key, ++value );
            }
            std::map< U32, U64 > former;
            for ( const U32 slot : all ? writer.slotsInOrder()
                                       : std::vector< U32 > { writer.slotsInOrder().back() } ) {
                former[ slot ] = std::exchange( writer.positionOf( slot ), wild );
            }
            const auto times = reader.timesTold();
            EXPECT_EQ( times, ( std::map< U64, unsigned > { { 1, 1 }, { 2, 1 }, { 3, 1 } } ) );
            EXPECT_EQ( reader.queue.sequence(), writer.table.sequence() );
            EXPECT_EQ( newcomer().told, slots );
            for ( const auto& [ slot, position ] : former ) {
                writer.positionOf( slot ) = position;
            }
            writer.expectSound();
        }
    }
}

TEST_F( QueueHostileTest, WildPositionsInSlotsAreMendedByTheNextWriter ) {
    auto writer = std::make_unique< QueueWriterSide >( place );
    for ( const U64 wild : wildPositions ) {
        for ( const bool all : { true, false } ) {
            SCOPED_TRACE( std::to_string( wild ) + ( all ? ", all" : ", one" ) );
            QueueReaderSide reader( place );
            ASSERT_EQ( reader.keys().size(), slots );
            for ( const U64 key : { 1, 2, 3, 2, 1 } ) {
                writer->put( key, ++value );
            }
            const auto inOrder = writer->slotsInOrder();
            for ( const U32 slot : all ? inOrder : std::vector< U32 > { inOrder.front() } ) {
                writer->positionOf( slot ) = wild;
            }
            writer.reset();
            writer = std::make_unique< QueueWriterSide >( place );
            writer->expectSound();
            EXPECT_EQ( reader.timesTold(),
                       ( std::map< U64, unsigned > { { 1, 1 }, { 2, 1 }, { 3, 1 } } ) );
            for ( U64 n = 0; n < 2 * writer->queue().places(); ++n ) {
                writer->put( n % 30, ++value );
            }
            writer->expectSound();
            EXPECT_EQ( reader.timesTold().size(), 30U );
            EXPECT_EQ( newcomer().told, slots );
        }
    }
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

// A newcomer's drain and those of followers in both rounds, with every pair of wrong starts: an
// exception that names what was wrong, or an end, in bounded time.
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
            for ( const U64 position : { round - 5, head - 5 } ) {
                const auto reader = readerAt( position );
                MappedFile mapped( file );
                mapped.word( roundAt ) = first;
                mapped.word( roundBeforeAt ) = second;
                const Outcome outcome = drain( *reader );
                expectHarmless( outcome );
                refused += !outcome.thrown.empty();
                if ( first == round && second == roundBefore ) {
                    EXPECT_EQ( outcome.told, behind( head - position ).size() );
                }
                EXPECT_EQ( newcomer().told, slots );
            }
        }
    }
    EXPECT_GT( refused, 100U );
}

TEST_F( QueueHostileTest, PositionsOfNoRoundAndOfNoPlaceAreNamed ) {
    const U64 position = round - 5;
    const auto with = [ & ]( U64 present, U64 before, const std::string& what ) {
        const auto reader = readerAt( position );
        store( [ & ]( std::string& b ) {
            set( b, roundAt, present );
            set( b, roundBeforeAt, before );
        } );
        expectCorruptTo( *reader, what + std::to_string( position ) );
    };
    with( round, position + 1, "no round of position " );
    with( head + 1, head + 1, "no round of position " );
    with( position - places, roundBefore, "no place for position " );
    with( 0, 0, "no place for position " );
    with( round, 0, "no place for position " );
    with( head + places, position - places - 1, "no place for position " );
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

} // namespace
