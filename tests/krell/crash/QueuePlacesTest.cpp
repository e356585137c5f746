// The changes that are killed in the change queue meet what they are named for.

#include <set>

#include <gtest/gtest.h>

#include <Krell/CrashPoint>

#include "krell/QueueSupport.h"
#include "krell/crash/KillFixture.h"

using namespace KrellTest;

namespace {

std::set< std::string > passed;

std::set< std::string > placesOf( const char* name ) {
    for ( const Change& change : allChanges() ) {
        if ( change.name == std::string( name ) ) {
            TestRoot root;
            TestCollection writer( layoutOf( 2, valueWords ) );
            writer.asWriter( change.size );
            Both both( &writer );
            change.prepare( both );
            passed.clear();
            Krell::crashPointHandler = []( const char* place ) { passed.insert( place ); };
            change.change( both );
            Krell::crashPointHandler = nullptr;
            return passed;
        }
    }
    return {};
}

TEST( QueuePlacesTest, MovesRoundsAndGrowthAreMet ) {
    for ( const char* name : { "UpdateThatMovesEntries", "DeleteThatMovesEntries" } ) {
        const auto places = placesOf( name );
        EXPECT_TRUE( places.count( "queue: entry moved" ) ) << name;
        EXPECT_TRUE( places.count( "queue: moved entries marked" ) ) << name;
        EXPECT_TRUE( places.count( "queue: tail stored" ) ) << name;
        EXPECT_TRUE( places.count( "queue: moved position stored" ) ) << name;
        EXPECT_TRUE( places.count( "queue: position stored" ) ) << name;
    }
    const auto round = placesOf( "UpdateThatBeginsARound" );
    EXPECT_TRUE( round.count( "queue: former round stored" ) );
    EXPECT_TRUE( round.count( "queue: round stored" ) );
    EXPECT_TRUE( placesOf( "InsertThatGrowsTheQueue" ).count( "queue: file grown" ) );
    const auto update = placesOf( "Update" );
    EXPECT_TRUE( update.count( "queue: position stored" ) );
    EXPECT_FALSE( update.count( "queue: tail stored" ) );
}

// --- Followers that look when the writer stands at a place, and after its death there

std::function< void() > looksAt; // called at one place
unsigned placesLeft = 0;
std::string placeMet;

void countDown( const char* place ) {
    if ( placesLeft != 0 && --placesLeft == 0 ) {
        placeMet = place;
        looksAt();
    }
}

// What the writer's death would leave, put back into the files that others have mapped.
class Left {
public:
    explicit Left( QueuePlace& place, const std::string& queue )
        : paths_ { place / "slots", place / "buckets", queue } {
        for ( const std::string& path : paths_ ) {
            bytes_.push_back( bytesOf( path ) );
        }
    }
    void putBack() const {
        for ( std::size_t i = 0; i < paths_.size(); ++i ) {
            MappedFile file( paths_[ i ] );
            ASSERT_EQ( file.size(), bytes_[ i ].size() );
            bytes_[ i ].copy( &file[ 0 ], bytes_[ i ].size() );
        }
    }

private:
    std::vector< std::string > paths_;
    std::vector< std::string > bytes_;
};

// A reader, and the versions that it was told.
class Watcher {
public:
    explicit Watcher( QueuePlace& place ) : side( place ) {}
    // At most that many reports. No slot is told twice in a drain; one that lost its place begins
    // anew.
    Krell::QueueReader::Drain drain( std::size_t most ) {
        std::size_t count = 0;
        const auto result = side.queue.drain( [ & ]( U32 slot ) {
            if ( restarts_ != side.queue.counts().restarts ) {
                restarts_ = side.queue.counts().restarts;
                told_.clear();
            }
            EXPECT_TRUE( told_.insert( slot ).second ) << "twice: slot " << slot;
            known[ slot ] = side.versionAt( slot );
            return ++count < most;
        } );
        if ( result != Krell::QueueReader::Drain::stopped ) {
            told_.clear();
        }
        return result;
    }
    void drainAll() {
        for ( unsigned i = 0; i < 4; ++i ) {
            drain( ~std::size_t( 0 ) );
        }
        EXPECT_EQ( drain( 1 ), Krell::QueueReader::Drain::empty );
    }
    void expectAllKnown() {
        for ( U32 slot = 0; slot < side.table.slotCount(); ++slot ) {
            ASSERT_EQ( known[ slot ], side.versionAt( slot ) ) << "slot " << slot;
        }
    }

    QueueReaderSide side;
    std::map< U32, U64 > known;

private:
    std::set< U32 > told_;
    U32 restarts_ = 0;
};

constexpr U32 slots = 20; // all used; the queue has a page of places
constexpr U64 changes = 3;

// Changes that move all entries of a run, and begin a round or not.
class QueueLookTest : public testing::TestWithParam< bool > {
protected:
    // Readers that stand at the tail, in the middle, in the middle of a drain, and at the head.
    void prepare() {
        place = std::make_unique< QueuePlace >();
        writer = std::make_unique< QueueWriterSide >( *place, slots );
        watchers.clear();
        watch( ~std::size_t( 0 ) );
        const U64 first = writer->tail();
        for ( U64 key = 0; key < slots; ++key ) {
            writer->put( key, 1 );
        }
        watch( ~std::size_t( 0 ) );
        watch( 7 );
        const U64 places = writer->queue().places();
        const U64 until = GetParam() ? first + places - 1 : first + places * 15 / 16 - 31;
        for ( U64 n = 2; writer->head() < until; ++n ) {
            writer->put( slots - 1, n );
        }
        ASSERT_EQ( writer->head(), until );
        watch( ~std::size_t( 0 ) );
    }
    void watch( std::size_t reports ) {
        watchers.push_back( std::make_unique< Watcher >( *place ) );
        watchers.back()->drain( reports );
    }
    void change() {
        for ( U64 n = 0; n < changes; ++n ) {
            writer->put( 2 * n + 1, 100000 + n );
        }
    }
    // Whether there is such a place. `look` is called there.
    bool changeLookingAt( unsigned n, const std::function< void() >& look ) {
        placesLeft = n;
        looksAt = look;
        Krell::crashPointHandler = countDown;
        change();
        Krell::crashPointHandler = nullptr;
        return std::exchange( placesLeft, 0U ) == 0;
    }
    void lookFromAll( std::size_t reports ) {
        for ( auto& watcher : watchers ) {
            watcher->drain( reports );
        }
    }
    void expectAllKnown() {
        for ( auto& watcher : watchers ) {
            watcher->drainAll();
            watcher->expectAllKnown();
            EXPECT_EQ( watcher->side.queue.sequence(), writer->table.sequence() );
        }
    }

    std::unique_ptr< QueuePlace > place;
    std::unique_ptr< QueueWriterSide > writer;
    std::vector< std::unique_ptr< Watcher > > watchers;
};

TEST_P( QueueLookTest, AReaderThatLooksAtAnyPlaceIsToldEachChange ) {
    std::set< std::string > met;
    for ( const std::size_t reports : { std::size_t( 1 ), std::size_t( 5 ), ~std::size_t( 0 ) } ) {
        for ( unsigned n = 1;; ++n ) {
            prepare();
            if ( !changeLookingAt( n, [ & ] { lookFromAll( reports ); } ) ) {
                break;
            }
            met.insert( placeMet );
            SCOPED_TRACE( placeMet + ", place " + std::to_string( n ) );
            expectAllKnown();
            writer->expectSound();
            ASSERT_FALSE( HasFailure() );
        }
    }
    for ( const char* name :
          { "queue: entry written", "queue: position stored", "queue: mark stored",
            "queue: entry moved", "queue: moved entries marked", "queue: tail stored",
            "queue: moved position stored" } ) {
        // A round begins when all live entries were moved.
        EXPECT_TRUE( met.count( name ) || GetParam() ) << name;
    }
    EXPECT_EQ( met.count( "queue: round stored" ), GetParam() ? 1U : 0U );
    EXPECT_EQ( met.count( "queue: former round stored" ), GetParam() ? 1U : 0U );
}

// The readers are there before, and may look between the death and the next writer.
TEST_P( QueueLookTest, AReaderOfAWriterThatDiedAtAnyPlaceLosesNothing ) {
    for ( const std::size_t reports :
          { std::size_t( 0 ), std::size_t( 1 ), std::size_t( 5 ), ~std::size_t( 0 ) } ) {
        for ( unsigned n = 1;; ++n ) {
            prepare();
            std::unique_ptr< Left > left;
            if ( !changeLookingAt(
                     n, [ & ] { left = std::make_unique< Left >( *place, writer->file() ); } ) ) {
                break;
            }
            SCOPED_TRACE( placeMet + ", place " + std::to_string( n ) );
            writer.reset();
            left->putBack();
            if ( reports != 0 ) {
                lookFromAll( reports );
            }
            writer = std::make_unique< QueueWriterSide >( *place );
            writer->expectSound();
            expectAllKnown();
            for ( U64 key = 0; key < slots; key += 3 ) {
                writer->put( key, 200000 );
            }
            expectAllKnown();
            ASSERT_FALSE( HasFailure() );
        }
    }
}

// Readers of the former generation, while the next one is made from the slots alone.
TEST_P( QueueLookTest, AReaderThatLooksDuringATakeoverLosesNothing ) {
    std::set< std::string > met;
    for ( const std::size_t reports : { std::size_t( 1 ), std::size_t( 5 ), ~std::size_t( 0 ) } ) {
        for ( unsigned n = 1;; ++n ) {
            prepare();
            change();
            writer.reset();
            placesLeft = n;
            looksAt = [ & ] { lookFromAll( reports ); };
            Krell::crashPointHandler = countDown;
            writer = std::make_unique< QueueWriterSide >( *place );
            Krell::crashPointHandler = nullptr;
            if ( std::exchange( placesLeft, 0U ) != 0 ) {
                break;
            }
            met.insert( placeMet );
            SCOPED_TRACE( placeMet + ", place " + std::to_string( n ) );
            expectAllKnown();
            writer->expectSound();
            ASSERT_FALSE( HasFailure() );
        }
    }
    for ( const char* name :
          { "queue: generation made", "queue: generation filled", "queue: generation named",
            "queue: generation published", "queue: former generation removed" } ) {
        EXPECT_TRUE( met.count( name ) ) << name;
    }
}

INSTANTIATE_TEST_SUITE_P( MovesAndRounds, QueueLookTest, testing::Bool() );

} // namespace
