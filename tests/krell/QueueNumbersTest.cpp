// The change queue with sequences, positions and generations near the ends of their numbers.

#include <atomic>
#include <numeric>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "Torture.h"
#include "krell/QueueSupport.h"

using namespace KrellTest;
using Krell::QueueReader;
using QelKrellTest::Torture;
using Drain = QueueReader::Drain;
using Keys = std::vector< U64 >;

namespace {

constexpr U64 lowHalf = U64( 1 ) << 32;

class QueueNumbersTest : public testing::Test {
protected:
    QueuePlace place;
};

// A random walk of changes, growth and drains, in which every reader has to know the version of
// every slot after each whole drain, and to find what was written.
class Walk {
public:
    using Values = std::map< U64, U64 >;

    Walk( QueueWriterSide& writer, QueuePlace& place, U64 seed, Values values = {} )
        : writer_( &writer ), random_( seed ), values_( std::move( values ) ) {
        for ( unsigned i = 0; i < 3; ++i ) {
            readers_.push_back( std::make_unique< Reader >( place ) );
        }
    }
    void steps( unsigned count, U64 keys ) {
        for ( unsigned i = 0; i < count; ++i ) {
            const U64 key = random_() % 4 ? random_() % 2 : random_() % keys;
            if ( random_() % 8 == 0 ) {
                writer_->del( key );
                values_.erase( key );
            } else {
                writer_->put( key, values_[ key ] = random_() );
            }
            for ( unsigned r = 0; r < readers_.size(); ++r ) {
                if ( random_() % ( r == 0 ? 3 : r == 1 ? 40 : 1500 ) == 0 ) {
                    drain( *readers_[ r ], random_() % 6 );
                    ASSERT_FALSE( testing::Test::HasFatalFailure() );
                }
            }
        }
        writer_->expectSound();
        for ( auto& reader : readers_ ) {
            drain( *reader, ~U64( 0 ) );
        }
    }
    // The next one.
    void writerIs( QueueWriterSide& writer ) { writer_ = &writer; }

    // What stands in the collection.
    const Values& values() const { return values_; }
    // Slots whose change a reader missed, and keys that it did not find; values that nobody wrote.
    U64 lost() const { return lost_; }
    U64 torn() const { return torn_; }
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
        for ( U32 slot = 0; slot < writer_->table.slotCount(); ++slot ) {
            const U64 version = reader.side.versionAt( slot );
            if ( version != 0 && version <= upTo ) {
                lost_ += reader.known[ slot ] != version;
                ASSERT_EQ( reader.known[ slot ], version ) << "slot " << slot;
            }
        }
        for ( const auto& [ key, wanted ] : values_ ) {
            U64 value = 0;
            const bool there = reader.side.table.find< 1, 1 >( &key, &value );
            lost_ += !there;
            torn_ += there && value != wanted;
            ASSERT_TRUE( there && value == wanted ) << "key " << key;
        }
    }

    QueueWriterSide* writer_;
    std::mt19937_64 random_;
    Values values_;
    std::vector< std::unique_ptr< Reader > > readers_;
    U64 lost_ = 0;
    U64 torn_ = 0;
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

// The next writer went on from whatever stood in the word of the last change: from a wild one, its
// sequences began anew at 0, and followers missed its changes for ever.
TEST_F( QueueNumbersTest, AWildSequenceIsNotGoneOnFrom ) {
    constexpr U64 end = U64( 1 ) << 61; // what a version has room for
    for ( const U64 wild : { end - 1000, end - 1, end, end + 5, U64( 1 ) << 62, ~U64( 0 ) } ) {
        for ( const bool ofSlot : { false, true } ) {
            SCOPED_TRACE( std::to_string( wild ) + ( ofSlot ? ", of a slot" : "" ) );
            QueuePlace here;
            QueueWriterSide( here, 7 ).put( 0, 1 );
            MappedFile slots( here / "slots" );
            if ( ofSlot ) {
                slots.word( Krell::Segments::slotsAt_ ) =
                    Krell::SlotVersion( wild, Krell::SlotVersion::occupied ).word();
            } else {
                slots.word( offsetof( Krell::Segments::SlotHeader, sequence ) ) = wild;
            }
            QueueReaderSide reader( here ); // it takes the word for what it is
            reader.keys();
            QueueWriterSide writer( here );
            EXPECT_EQ( writer.incarnation.isNew(), ofSlot && wild % end > 1000 );
            Walk( writer, here, wild ).steps( 500, 7 );
            EXPECT_LT( writer.table.sequence(), 1000U );
            writer.put( 5, 1 );
            writer.put( 6, 1 );
            if ( !writer.incarnation.isNew() ) {
                const auto times = reader.timesTold();
                EXPECT_TRUE( times.contains( 0 ) && times.contains( 5 ) && times.contains( 6 ) );
                EXPECT_EQ( reader.queue.sequence(), writer.table.sequence() );
            }
        }
    }
}

// --- All numbers at once, at random distances from their ends

constexpr U32 tableGenerations = U32( 1 ) << 24; // numbers that a table word has room for
constexpr U64 halves[] = { lowHalf / 2, lowHalf, lowHalf + lowHalf / 2, 9 * lowHalf };

// The numbers of a collection that has no writer at present, a little before their ends. Positions
// take sequences with them, so it is either those or these.
class Ends {
public:
    Ends( QueuePlace& place, std::mt19937_64& random )
        : ofPositions_( random() % 2 ),
          slotsVersion_( ~U32( 0 ) - U32( random() % 400 ) ),
          tableGeneration_( tableGenerations - 1 - U32( random() % 3 ) ),
          queueGeneration_( ~U32( 0 ) - U32( random() % 3 ) ),
          end_( halves[ random() % std::size( halves ) ] ),
          distance_( 1 + random() % 1500 ) {
        const auto incarnation = Krell::Incarnation::open( place.debug, place.directory,
                                                           place.layout, 0, Krell::Owner() );
        Krell::Segments& segments = *incarnation.segments();
        const Krell::TableWord table = segments.table();
        segments.header().numSlots.version = slotsVersion_;
        segments.queueGenerationIs( queueGeneration_ );
        segments.bucketsHeader().tableWord =
            Krell::TableWord( tableGeneration_, table.log2(), table.line() ).word();
        reinterpret_cast< Krell::ArrayHead& >( segments.lines()[ table.line() ] ).generation =
            tableGeneration_;
        if ( !ofPositions_ ) {
            *segments.sequenceWord() = end_ - distance_;
        }
    }
    // Of the writer that took over; a change of key 0 has to follow.
    void shift( QueueWriterSide& writer ) const {
        if ( ofPositions_ ) {
            writer.passes( end_ - distance_ - writer.head() );
        }
    }
    unsigned passed( QueueWriterSide& writer ) const {
        const Krell::Segments& segments = writer.segments();
        const bool isBehind = ofPositions_ ? writer.tail() > end_ : writer.table.sequence() >= end_;
        return isBehind + ( segments.header().numSlots.version < slotsVersion_ ) +
               ( segments.table().generation() < tableGeneration_ ) +
               ( segments.queueGeneration() < queueGeneration_ );
    }

    static constexpr unsigned all_ = 4;

private:
    const bool ofPositions_;
    const U32 slotsVersion_;
    const U32 tableGeneration_;
    const U32 queueGeneration_;
    const U64 end_;
    const U64 distance_;
};

TEST_F( QueueNumbersTest, AllPassTheirEndsAtRandomDistances ) {
    Torture torture( "wrap", 40 );
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + ", round " +
                      std::to_string( torture.rounds() ) );
        std::mt19937_64 random( torture.seed() + torture.rounds() );
        QueuePlace here;
        Walk::Values values;
        {
            QueueWriterSide first( here, 7 );
            Walk walk( first, here, random() );
            walk.steps( 100, 7 );
            values = walk.values();
        }
        const Ends ends( here, random );
        auto writer = std::make_unique< QueueWriterSide >( here );
        ends.shift( *writer );
        values[ 0 ] = random();
        writer->put( 0, values[ 0 ] );
        Walk walk( *writer, here, random(), values );
        walk.steps( 300, 7 );
        for ( unsigned i = 0; i < 20 && ends.passed( *writer ) < Ends::all_; ++i ) {
            writer.reset();
            writer = std::make_unique< QueueWriterSide >( here );
            walk.writerIs( *writer );
            walk.steps( 1500, 7 + 20 * ( i % 4 ) ); // more keys: the tables grow
        }
        EXPECT_EQ( ends.passed( *writer ), Ends::all_ );
        torture.count( "crossings", ends.passed( *writer ) );
        torture.count( "lost", walk.lost() );
        torture.count( "torn", walk.torn() );
    }
}

// --- Beside a reader

constexpr unsigned words = 6; // of a value

// Keys whose values go up by one, in a collection that was left with its sequence at `start`.
class Counting {
public:
    explicit Counting( U64 start ) {
        put( 0 );
        const std::string file = writer_.rootPath() + "/slots";
        writer_.detach();
        MappedFile slots( file );
        slots.word( offsetof( Krell::Segments::SlotHeader, sequence ) ) = start;
        writer_.asWriter();
    }
    void put( U64 seed ) {
        for ( U64 key = 0; key < keys_; ++key ) {
            writer_.asWriter( 16 ).writer().put< 1, words >( &key,
                                                             wholeValue< words >( seed ).data() );
        }
    }
    U64 sequence() { return writer_.sequence(); }

    static constexpr U64 keys_ = 3;

private:
    TestCollection writer_ { layoutOf( 1, words ) };
};

// What a reader found of them.
class Checking {
public:
    Checking() { reader_.asReader(); }

    void look() {
        for ( U64 key = 0; key < Counting::keys_; ++key ) {
            std::array< U64, words > value {};
            const bool there = reader_.table().find< 1, words >( &key, value.data() );
            lost += !there || value[ 0 ] < last_[ key ];
            torn += there && !isWhole( value );
            last_[ key ] = value[ 0 ];
        }
    }
    U64 last() const { return last_[ Counting::keys_ - 1 ]; }

    U64 lost = 0; // not there, or older than before
    U64 torn = 0;

private:
    TestCollection reader_ { layoutOf( 1, words ) };
    U64 last_[ Counting::keys_ ] = {};
};

TEST_F( QueueNumbersTest, AReaderFindsWholeValuesWhileVersionsPassTheirEnds ) {
    Torture torture( "wrap", 60 );
    std::mt19937_64 random( torture.seed() );
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + ", round " +
                      std::to_string( torture.rounds() ) );
        const TestRoot root;
        const U64 end = halves[ random() % std::size( halves ) ];
        const U64 changes = 1 + random() % 3000;
        Counting counting( end - changes );
        Checking checking;
        std::atomic< bool > over = false;
        std::thread reader( [ & ] {
            while ( !over.load() ) {
                checking.look();
            }
            checking.look();
        } );
        U64 seed = 0;
        while ( counting.sequence() < end + changes ) {
            counting.put( ++seed );
        }
        over = true;
        reader.join();
        EXPECT_EQ( checking.last(), seed );
        EXPECT_EQ( checking.lost, 0U );
        EXPECT_EQ( checking.torn, 0U );
        torture.count( "crossings" );
        torture.count( "lost", checking.lost );
        torture.count( "torn", checking.torn );
    }
}

} // namespace
