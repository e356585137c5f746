// The change queue with sequences, positions and generations near the ends of their numbers.

#include <numeric>
#include <random>

#include <gtest/gtest.h>

#include "krell/QueueSupport.h"

using namespace KrellTest;
using Krell::QueueReader;
using Drain = QueueReader::Drain;
using Keys = std::vector< U64 >;

namespace {

constexpr U64 lowHalf = U64( 1 ) << 32;

class QueueNumbersTest : public testing::Test {
protected:
    QueuePlace place;
};

// A random walk of changes, growth and drains, in which every reader has to know the version of
// every slot after each whole drain.
class Walk {
public:
    Walk( QueueWriterSide& writer, QueuePlace& place, U64 seed )
        : writer_( writer ), random_( seed ) {
        for ( unsigned i = 0; i < 3; ++i ) {
            readers_.push_back( std::make_unique< Reader >( place ) );
        }
    }
    void steps( unsigned count, U64 keys ) {
        for ( unsigned i = 0; i < count; ++i ) {
            const U64 key = random_() % 4 ? random_() % 2 : random_() % keys;
            if ( random_() % 8 == 0 ) {
                writer_.del( key );
            } else {
                writer_.put( key, random_() );
            }
            for ( unsigned r = 0; r < readers_.size(); ++r ) {
                if ( random_() % ( r == 0 ? 3 : r == 1 ? 40 : 1500 ) == 0 ) {
                    drain( *readers_[ r ], random_() % 6 );
                    ASSERT_FALSE( testing::Test::HasFatalFailure() );
                }
            }
        }
        writer_.expectSound();
        for ( auto& reader : readers_ ) {
            drain( *reader, ~U64( 0 ) );
        }
    }
    U32 restarts() const {
        U32 sum = 0;
        for ( const auto& reader : readers_ ) {
            sum += reader->side.queue.counts().restarts;
        }
        return sum;
    }

private:
    struct Reader {
        explicit Reader( QueuePlace& place ) : side( place ) {}
        QueueReaderSide side;
        std::map< U32, U64 > known; // versions when they were told last
    };

    void drain( Reader& reader, U64 most ) {
        U64 told = 0;
        const auto report = [ & ]( U32 slot ) {
            reader.known[ slot ] = reader.side.versionAt( slot );
            return ++told < most;
        };
        Drain drain = reader.side.queue.drain( report );
        while ( most == ~U64( 0 ) && drain == Drain::end ) {
            drain = reader.side.queue.drain( report );
        }
        if ( drain == Drain::empty || ( drain == Drain::end && most > 0 ) ) {
            check( reader );
        }
    }
    // No change is made during a drain's last call, so everything is known behind it.
    void check( Reader& reader ) {
        const U64 upTo = reader.side.queue.sequence();
        for ( U32 slot = 0; slot < writer_.table.slotCount(); ++slot ) {
            const U64 version = reader.side.versionAt( slot );
            if ( version != 0 && version <= upTo ) {
                ASSERT_EQ( reader.known[ slot ], version ) << "slot " << slot;
            }
        }
    }

    QueueWriterSide& writer_;
    std::mt19937_64 random_;
    std::vector< std::unique_ptr< Reader > > readers_;
};

TEST_F( QueueNumbersTest, SequencesPassTheEndsOfTheirLowHalves ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    for ( const U64 start :
          { lowHalf / 2, lowHalf, lowHalf + lowHalf / 2, 5 * lowHalf, U64( 1 ) << 60, U64( 0 ) } ) {
        SCOPED_TRACE( start );
        QueuePlace here;
        {
            QueueWriterSide first( here, 7 );
            first.put( 0, 1 );
            first.put( 6, 1 );
            *first.segments().sequenceWord() = start ? start - 700 : 2;
        }
        QueueWriterSide writer( here );
        if ( start ) {
            ASSERT_EQ( writer.table.sequence(), start - 700 );
        }
        Walk walk( writer, here, seed );
        do { // until a reader was lapped, too
            walk.steps( 12000, 7 );
        } while ( walk.restarts() <= 3 && !HasFatalFailure() );
        EXPECT_GT( writer.table.sequence(), start + 700 );
    }
}

TEST_F( QueueNumbersTest, PositionsPassTheEndsOfTheirLowHalves ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    for ( const U64 start : { lowHalf / 2, lowHalf, 3 * lowHalf } ) {
        SCOPED_TRACE( start );
        QueuePlace here;
        QueueWriterSide writer( here, 7 );
        writer.put( 0, 1 );
        writer.put( 6, 1 );
        writer.passes( start - 1000 );
        writer.put( 0, 2 );
        Walk walk( writer, here, seed );
        do { // until a reader was lapped, too
            walk.steps( 12000, 7 );
        } while ( walk.restarts() <= 3 && !HasFatalFailure() );
        EXPECT_GT( writer.tail(), start );
    }
}

TEST_F( QueueNumbersTest, AReaderSleepsThroughMoreChangesThanALowHalfCounts ) {
    for ( const U64 sleep : { lowHalf / 2, lowHalf - 64, lowHalf, lowHalf + 64, 7 * lowHalf } ) {
        for ( const bool walks : { false, true } ) {
            SCOPED_TRACE( std::to_string( sleep ) + ( walks ? ", by a walk" : "" ) );
            QueuePlace here;
            QueueWriterSide writer( here, 8 );
            for ( const U64 key : range( 0, 5 ) ) {
                writer.put( key, 1 );
            }
            for ( U64 n = walks ? writer.queue().places() : 0; n > 0; --n ) {
                writer.put( 4, 1 + n );
            }
            QueueReaderSide awake( here );
            awake.keys();
            QueueReaderSide halfway( here );
            EXPECT_EQ( halfway.some( 2 ), range( 0, 2 ) );
            EXPECT_EQ( halfway.queue.counts().probes > 0, walks );
            writer.put( 1, 2 );
            writer.passes( sleep );
            writer.put( 3, 2 );
            EXPECT_TRUE( awake.queue.isPending() );
            EXPECT_EQ( awake.keys(), ( Keys { 1, 3 } ) );
            EXPECT_EQ( awake.queue.sequence(), writer.table.sequence() );
            EXPECT_EQ( awake.queue.counts().restarts, 2U );
            // What it found is told; from entries that are gone it starts again.
            EXPECT_EQ( halfway.keys(), walks ? range( 2, 5 ) : ( Keys { 2, 4, 1, 3 } ) );
            EXPECT_EQ( halfway.keys(), walks ? ( Keys { 1, 3 } ) : Keys() );
            EXPECT_EQ( halfway.keys(), Keys() );
            EXPECT_EQ( QueueReaderSide( here ).keys(), ( Keys { 0, 2, 4, 1, 3 } ) );
            writer.expectSound();
        }
    }
}

TEST_F( QueueNumbersTest, TheLastGenerationNumberIsFollowedByOneThatIs ) {
    auto writer = std::make_unique< QueueWriterSide >( place );
    writer->put( 1, 1 );
    QueueReaderSide reader( place );
    reader.keys();
    writer->segments().queueGenerationIs( 0xffffffffu );
    writer.reset();
    writer = std::make_unique< QueueWriterSide >( place );
    EXPECT_NE( writer->segments().queueGeneration(), 0U );
    writer->put( 1, 2 );
    writer->table.reserve( 100 );
    writer->put( 2, 2 );
    EXPECT_EQ( reader.keys(), range( 1, 3 ) );
    EXPECT_EQ( QueueReaderSide( place ).keys(), range( 1, 3 ) );
}

} // namespace
