// What one drain tells, entry by entry: slots that were overtaken within it or changed after it
// began, entries in two places, and a queue that a next writer is about to make anew.

#include <set>

#include <gtest/gtest.h>

#include "krell/Allocations.h"
#include "krell/QueueSupport.h"

using namespace KrellTest;
using Drain = Krell::QueueReader::Drain;
using Keys = std::vector< U64 >;

namespace {

constexpr U32 slotsOfQueue = 300; // the queue has a page of places

class QueueDrainTest : public testing::Test {
protected:
    void SetUp() override { open(); }
    void open() {
        writer = std::make_unique< QueueWriterSide >( place, slotsOfQueue );
        reader = std::make_unique< QueueReaderSide >( place );
        reader->keys();
    }
    void change( U64 key ) { writer->put( key, ++value_ ); }
    void change( const Keys& keys ) {
        for ( const U64 key : keys ) {
            change( key );
        }
    }
    // A drain that was stopped after the key 9, and has key 1 still to tell by that many entries.
    void stopBefore( unsigned entries ) {
        change( 9 );
        for ( unsigned i = 0; i < entries; ++i ) {
            change( { 1, 2 + i } );
        }
        ASSERT_EQ( reader->some( 1 ), Keys { 9 } );
        ASSERT_EQ( reader->last, Drain::stopped );
    }
    U32 tombed() const { return reader->queue.counts().tombed; }
    U32 restarts() const { return reader->queue.counts().restarts; }

    QueuePlace place;
    std::unique_ptr< QueueWriterSide > writer;
    std::unique_ptr< QueueReaderSide > reader;

private:
    U64 value_ = 0;
};

TEST_F( QueueDrainTest, ASlotThatWasOvertakenWithinTheDrainIsToldByItsLastEntry ) {
    change( { 1, 2, 1 } );
    EXPECT_EQ( reader->keys(), ( Keys { 2, 1 } ) );
    EXPECT_EQ( tombed(), 1U );
    change( { 1, 2, 1, 3, 1 } );
    EXPECT_EQ( reader->keys(), ( Keys { 2, 3, 1 } ) );
    EXPECT_EQ( tombed(), 3U );
    EXPECT_EQ( reader->keys(), Keys() );
    EXPECT_EQ( restarts(), 1U );
}

TEST_F( QueueDrainTest, ASlotThatChangedAfterTheDrainBeganIsToldByItsFirstEntryAndAgain ) {
    for ( const unsigned entries : { 1, 2, 3 } ) {
        for ( const unsigned changes : { 1, 2, 3 } ) {
            SCOPED_TRACE( std::to_string( entries ) + ", " + std::to_string( changes ) );
            stopBefore( entries );
            const U32 before = tombed();
            change( Keys( changes, 1 ) );
            const U64 end = reader->queue.endSequence();
            EXPECT_EQ( reader->keys(), range( 1, 2 + entries ) ) << "1, and then the others";
            EXPECT_EQ( reader->last, Drain::end );
            EXPECT_EQ( tombed(), before + entries - 1 );
            EXPECT_EQ( reader->queue.sequence(), end );
            EXPECT_EQ( reader->keys(), Keys { 1 } );
            EXPECT_EQ( tombed(), before + entries - 1 + changes - 1 );
            EXPECT_EQ( reader->keys(), Keys() );
        }
    }
    EXPECT_EQ( restarts(), 1U );
}

// The reports of the entries at hand may change slots that were read already, and others.
TEST_F( QueueDrainTest, ASlotThatIsChangedByReportsIsToldOnceInEachDrain ) {
    for ( const U64 distance : { 1, 5, 62, 63, 64, 65, 130 } ) {
        for ( const std::size_t when : { 0, 1, 30, 64, 65, 100 } ) {
            SCOPED_TRACE( std::to_string( distance ) + ", " + std::to_string( when ) );
            const Keys between = range( 100, 100 + distance );
            change( 1 );
            change( between );
            change( 1 );
            change( between );
            change( { 1, 2 } );
            Keys told;
            reader->last = reader->queue.drain( [ & ]( U32 slot ) {
                if ( told.size() == when ) {
                    change( { 1, 100 } );
                }
                told.push_back( reader->keyAt( slot ) );
                return true;
            } );
            const bool changed = told.size() > when;
            std::set< U64 > wanted( between.begin(), between.end() );
            wanted.insert( { 1, 2 } );
            EXPECT_EQ( std::set< U64 >( told.begin(), told.end() ), wanted );
            EXPECT_EQ( told.size(), wanted.size() ) << "each once";
            EXPECT_EQ( reader->keys(), changed ? ( Keys { 1, 100 } ) : Keys() );
            EXPECT_EQ( reader->keys(), Keys() );
        }
    }
    EXPECT_EQ( restarts(), 1U );
}

TEST_F( QueueDrainTest, AReportThatThrowsIsMadeAgainAlsoOfASlotThatMayBeMetAgain ) {
    for ( const unsigned entries : { 1, 2, 3 } ) {
        SCOPED_TRACE( entries );
        stopBefore( entries );
        change( 1 );
        for ( unsigned i = 0; i < 3; ++i ) {
            Keys tried;
            EXPECT_THROW( reader->queue.drain( [ & ]( U32 slot ) -> bool {
                tried.push_back( reader->keyAt( slot ) );
                throw std::runtime_error( "the report" );
            } ),
                          std::runtime_error );
            EXPECT_EQ( tried, Keys { 1 } );
        }
        EXPECT_EQ( reader->keys(), range( 1, 2 + entries ) );
        EXPECT_EQ( reader->keys(), Keys { 1 } );
    }
}

TEST_F( QueueDrainTest, WhatADrainToldIsKeptWhenItIsStopped ) {
    stopBefore( 3 );
    change( 1 );
    EXPECT_EQ( reader->some( 1 ), Keys { 1 } );
    change( { 1, 3 } );
    EXPECT_EQ( reader->some( 1 ), Keys { 2 } );
    EXPECT_EQ( reader->some( 1 ), Keys { 3 } );
    change( 1 );
    EXPECT_EQ( reader->keys(), Keys { 4 } );
    EXPECT_EQ( reader->last, Drain::end );
    EXPECT_EQ( reader->keys(), ( Keys { 3, 1 } ) );
}

// Stops and changes in every order: after a whole drain the versions are known that there were when
// it began, and no drain told a slot twice.
TEST_F( QueueDrainTest, EveryShortHistoryOfChangesAndStopsIsTold ) {
    constexpr unsigned actions = 4; // change 0, change 1, one report, a whole drain
    constexpr unsigned length = 8;
    std::map< U32, U64 > known;
    std::map< U32, U64 > wanted; // of the drain under way
    std::set< U32 > told;
    bool draining = false;
    const auto versions = [ & ] {
        std::map< U32, U64 > all;
        for ( const U32 slot : writer->slotsInOrder() ) {
            all[ slot ] = reader->versionAt( slot );
        }
        return all;
    };
    const auto drain = [ & ]( std::size_t most ) {
        if ( !draining ) {
            told.clear();
            wanted = versions();
        }
        std::size_t count = 0;
        const Drain result = reader->queue.drain( [ & ]( U32 slot ) {
            EXPECT_TRUE( told.insert( slot ).second ) << "twice: slot " << slot;
            known[ slot ] = reader->versionAt( slot );
            return ++count < most;
        } );
        draining = result == Drain::stopped;
        for ( const auto& [ slot, version ] : wanted ) {
            ASSERT_TRUE( draining || known[ slot ] >= version ) << "slot " << slot;
        }
    };
    unsigned histories = 1;
    for ( unsigned i = 0; i < length; ++i ) {
        histories *= actions;
    }
    for ( unsigned number = 0; number < histories; ++number ) {
        unsigned rest = number;
        for ( unsigned i = 0; i < length; ++i, rest /= actions ) {
            rest % actions < 2 ? change( rest % actions ) : drain( rest % actions == 2 ? 1 : 100 );
        }
        drain( 100 );
        drain( 100 );
        ASSERT_FALSE( HasFailure() ) << "history " << number;
        ASSERT_EQ( known, versions() );
    }
}

// --- At the tail

TEST_F( QueueDrainTest, AReaderAtTheTailIsToldAllAndOneBehindItWalks ) {
    for ( const bool passed : { false, true } ) {
        QueuePlace here;
        QueueWriterSide side( here, slotsOfQueue );
        QueueReaderSide late( here );
        late.keys(); // stands at the first position
        const U64 first = side.tail();
        for ( const U64 key : range( 0, 40 ) ) {
            side.put( key, 1 );
        }
        U64 n = 1;
        while ( side.head() != first + side.queue().places() * 15 / 16 - 32 + 1 ) {
            side.put( 39, ++n );
        }
        ASSERT_EQ( side.tail(), first );
        if ( passed ) {
            side.put( 39, ++n );
            ASSERT_EQ( side.tail(), first + Krell::QueueSegment::run_ );
        }
        EXPECT_EQ( late.keys(), range( 0, 40 ) );
        EXPECT_EQ( late.last, Drain::end );
        EXPECT_EQ( late.queue.counts().restarts, passed ? 2U : 1U );
        EXPECT_EQ( late.queue.counts().probes >= slotsOfQueue, passed );
        EXPECT_EQ( late.queue.sequence(), side.table.sequence() );
        EXPECT_EQ( late.keys(), Keys() );
    }
}

// --- Memory

// No allocation above that size succeeds while it lives.
class SmallAllocations {
public:
    explicit SmallAllocations( std::size_t largest ) { largestAllocation = largest; }
    ~SmallAllocations() { largestAllocation = ~std::size_t( 0 ); }
    SmallAllocations( const SmallAllocations& ) = delete;
    SmallAllocations& operator=( const SmallAllocations& ) = delete;
};

// So many slots that what is allocated for them is large.
class QueueMemoryTest : public QueueDrainTest {
protected:
    static constexpr U32 many = 100000;
    static constexpr std::size_t small = 4096; // bytes
};

TEST_F( QueueMemoryTest, MemoryThatIsNotThereToNoteSlotsDelaysADrain ) {
    writer->table.reserve( many );
    change( Keys( 2 * Krell::QueueSegment::run_, 5 ) );
    reader = std::make_unique< QueueReaderSide >( place );
    EXPECT_EQ( reader->keys(), Keys { 5 } );
    stopBefore( 2 );
    change( 1 );
    for ( unsigned i = 0; i < 2; ++i ) {
        const SmallAllocations none( small );
        const std::string text =
            messageOf< Krell::MemoryResourceException >( [ & ] { reader->keys(); } );
        EXPECT_NE( text.find( "no memory to note the changed slots of " ), std::string::npos )
            << text;
    }
    EXPECT_EQ( reader->keys(), range( 1, 4 ) );
    EXPECT_EQ( reader->keys(), Keys { 1 } );
}

TEST_F( QueueMemoryTest, MemoryThatIsNotThereToPutChangesInOrderDelaysADrain ) {
    change( range( 0, 2000 ) );
    for ( U64 n = 0; n < 2 * writer->queue().places(); ++n ) {
        change( 2000 );
    }
    for ( unsigned i = 0; i < 2; ++i ) {
        const SmallAllocations none( small );
        const std::string text = messageOf< Krell::MemoryResourceException >(
            [ & ] { reader->queue.drain( []( U32 ) { return true; } ); } );
        EXPECT_NE( text.find( "no memory to put the changes in order of " ), std::string::npos )
            << text;
        EXPECT_TRUE( reader->queue.isPending() );
    }
    EXPECT_EQ( reader->keys(), range( 0, 2001 ) );
}

TEST_F( QueueMemoryTest, MemoryThatIsNotThereToNoteEntriesLeavesTheWriterAsItWas ) {
    change( range( 0, 20 ) );
    const std::string before = bytesOf( writer->file() );
    {
        const SmallAllocations none( small );
        const std::string text =
            messageOf< Krell::MemoryResourceException >( [ & ] { writer->table.reserve( many ); } );
        EXPECT_NE( text.find( "no memory to note " ), std::string::npos ) << text;
    }
    EXPECT_EQ( bytesOf( writer->file() ), before );
    EXPECT_EQ( writer->queue().resizes(), 0U );
    writer->expectSound();
    writer->table.reserve( many );
    EXPECT_EQ( writer->queue().resizes(), 1U );
    change( range( 10, 2000 ) );
    writer->expectSound();
    EXPECT_EQ( reader->timesTold().size(), 2000U );
}

// --- A next writer that died while it gave slots their positions, or is at it

class QueueSucceededTest : public testing::TestWithParam< int > {
protected:
    // Changes, of which the readers know some: none, some, some of a drain that was stopped, all.
    void prepare() {
        writer = std::make_unique< QueueWriterSide >( place, 20 );
        readers.push_back( std::make_unique< QueueReaderSide >( place ) );
        readers.back()->keys();
        for ( const U64 key : { 1, 2, 3, 4, 5, 6, 7, 2, 4 } ) {
            writer->put( key, ++value );
        }
        readers.push_back( std::make_unique< QueueReaderSide >( place ) );
        readers.back()->keys();
        readers.push_back( std::make_unique< QueueReaderSide >( place ) );
        readers.back()->some( 3 );
        for ( const U64 key : { 8, 1, 9, 10, 1, 3, 8 } ) {
            writer->put( key, ++value );
        }
        writer->del( 6 );
        readers.push_back( std::make_unique< QueueReaderSide >( place ) );
        readers.back()->some( 2 );
        readers.push_back( std::make_unique< QueueReaderSide >( place ) );
        readers.back()->keys();
        known.resize( readers.size() );
    }
    // The positions that a next writer gives, from the first of them on, to that many slots.
    void fill( std::size_t count ) {
        const std::vector< U32 > inOrder = writer->slotsInOrder();
        const U64 head = writer->head();
        filled = inOrder.size();
        writer.reset();
        MappedFile file( place / "slots" );
        for ( std::size_t i = 0; i < std::min( count, filled ); ++i ) {
            const std::size_t slot = inOrder[ i ];
            file.word( Krell::Segments::slotsAt_ + slot * slotBytes +
                       offsetof( Krell::SlotHead, queuePosition ) ) = head + 63 + i;
        }
    }
    void drain( std::size_t r ) {
        QueueReaderSide& reader = *readers[ r ];
        do {
            std::set< U32 > once;
            reader.last = reader.queue.drain( [ & ]( U32 slot ) {
                EXPECT_TRUE( once.insert( slot ).second ) << "twice: slot " << slot;
                known[ r ][ slot ] = reader.versionAt( slot );
                return true;
            } );
        } while ( reader.last == Drain::end );
        EXPECT_EQ( reader.last, Drain::empty );
    }
    // What it was told by `former` counts, besides.
    void expectAllKnown( std::size_t r, const std::set< U32 >& former ) {
        for ( U32 slot = 0; slot < 20; ++slot ) {
            const U64 version = readers[ r ]->versionAt( slot );
            if ( version != 0 && !former.count( slot ) ) {
                ASSERT_EQ( known[ r ][ slot ], version ) << "reader " << r << ", slot " << slot;
            }
        }
    }

    static constexpr std::size_t slotBytes = sizeof( Krell::SlotHead ) + 16;
    QueuePlace place;
    std::unique_ptr< QueueWriterSide > writer;
    std::vector< std::unique_ptr< QueueReaderSide > > readers;
    std::vector< std::map< U32, U64 > > known;
    U64 value = 0;
    std::size_t filled = 0;
};

// By the number of slots that were given one.
TEST_P( QueueSucceededTest, AFormerReaderLosesNothing ) {
    prepare();
    std::vector< std::set< U32 > > former; // whose last changes each reader knows
    for ( auto& reader : readers ) {
        former.emplace_back();
        for ( const U32 slot : writer->slotsInOrder() ) {
            if ( reader->versionAt( slot ) <= reader->queue.sequence() ) {
                former.back().insert( slot );
            }
        }
    }
    EXPECT_TRUE( former.front().empty() );
    EXPECT_EQ( former.back().size(), writer->slotsInOrder().size() );
    const U64 last = writer->table.sequence();
    fill( std::size_t( GetParam() ) );
    for ( std::size_t r = 0; r < readers.size(); ++r ) {
        drain( r );
        expectAllKnown( r, former[ r ] );
        EXPECT_EQ( readers[ r ]->queue.sequence(), last );
        EXPECT_EQ( readers[ r ]->queue.counts().restarts, 1U ) << "it still follows that one";
    }
    writer = std::make_unique< QueueWriterSide >( place );
    writer->expectSound();
    for ( const U64 key : { 3, 11, 3, 1 } ) {
        writer->put( key, ++value );
    }
    for ( std::size_t r = 0; r < readers.size(); ++r ) {
        EXPECT_EQ( readers[ r ]->keys(), ( Keys { 11, 3, 1 } ) );
        EXPECT_EQ( readers[ r ]->keys(), Keys() );
        EXPECT_LE( readers[ r ]->queue.counts().probes, 10U );
    }
    EXPECT_GE( filled, 10U );
    EXPECT_EQ( QueueReaderSide( place ).keys().size(), filled + 1 );
}

// Readers that look only when the next writer is there.
TEST_P( QueueSucceededTest, AReaderThatSleptMeanwhileLosesNothing ) {
    prepare();
    fill( std::size_t( GetParam() ) );
    for ( unsigned round = 0; round < 2; ++round ) { // two of them, one after the other
        writer.reset();
        writer = std::make_unique< QueueWriterSide >( place );
        writer->expectSound();
    }
    const auto all = writer->slotsInOrder();
    for ( std::size_t r = 0; r < readers.size(); ++r ) {
        std::set< U32 > former;
        for ( const U32 slot : all ) {
            if ( readers[ r ]->versionAt( slot ) <= readers[ r ]->queue.sequence() ) {
                former.insert( slot );
            }
        }
        drain( r );
        expectAllKnown( r, former );
        EXPECT_EQ( readers[ r ]->queue.sequence(), writer->table.sequence() );
    }
}

INSTANTIATE_TEST_SUITE_P( Slots, QueueSucceededTest, testing::Range( 0, 11 ) );

} // namespace
