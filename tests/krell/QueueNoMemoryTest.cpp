// A drain when memory fails, and when it moves.

#include <fstream>
#include <memory>
#include <sstream>

#include <gtest/gtest.h>

#include "FileLimit.h"
#include "krell/Allocations.h"
#include "krell/QueueSupport.h"

using namespace KrellTest;
using Drain = Krell::QueueReader::Drain;

namespace {

// What a drain told, in memory that is there before.
struct Told {
    std::array< U64, 64 > times {}; // by key
    Drain last = Drain::absent;
};

Drain drain( QueueReaderSide& reader, Told& told ) {
    told.last = reader.queue.drain( [ & ]( U32 slot ) {
        ++told.times[ reader.keyAt( slot ) % told.times.size() ];
        return true;
    } );
    return told.last;
}

class QueueNoMemoryTest : public testing::Test {
protected:
    static constexpr U64 keys = 64;

    // Drains while the first allocation fails, the second, and so on until none does. How many
    // drains failed.
    unsigned drainWithFewer( QueueReaderSide& reader, Told& told ) {
        for ( U64 few = 0; few < 200; ++few ) {
            const FewAllocations left( few );
            try {
                drain( reader, told );
                return unsigned( few );
            } catch ( const Krell::MemoryResourceException& e ) {
                const std::string message = e.msg();
                EXPECT_EQ( message.find( "no memory" ), 0U ) << message;
                EXPECT_TRUE( reader.queue.isPending() );
            }
        }
        ADD_FAILURE() << "it never has enough";
        return 0;
    }

    QueuePlace place;
    QueueWriterSide writer { place, 80 };
};

// With no memory at all, the message of a drain that found none could not be built either, and
// std::bad_alloc left the drain.
TEST_F( QueueNoMemoryTest, ADrainSaysSoWithoutAny ) {
    for ( U64 key = 0; key < keys; ++key ) {
        writer.put( key, 1 );
    }
    QueueReaderSide newcomer( place ); // it maps the queue, and puts what it finds in order
    Told told;
    EXPECT_GE( drainWithFewer( newcomer, told ), 2U );
    EXPECT_EQ( told.last, Drain::end );
    EXPECT_EQ( std::count( told.times.begin(), told.times.end(), 1U ), std::ptrdiff_t( keys ) );

    // One that notes which slots it told, as they may be met again.
    for ( U64 n = 0; n < 3 * writer.queue().places(); ++n ) {
        writer.put( 20, 2 + n );
    }
    QueueReaderSide follower( place );
    EXPECT_EQ( follower.keys().size(), keys );
    for ( U64 key = 0; key < 10; ++key ) {
        writer.put( key, 2 );
    }
    EXPECT_EQ( follower.some( 1 ), range( 0, 1 ) );
    writer.put( 5, 3 );
    Told rest;
    EXPECT_GE( drainWithFewer( follower, rest ), 1U );
    EXPECT_EQ( std::count( rest.times.begin(), rest.times.end(), 1U ), 9 );
    EXPECT_EQ( rest.times[ 0 ], 0U );
    EXPECT_EQ( follower.keys(), range( 5, 6 ) );
}

// Before more slots were refused than there can be, or than there is space for, memory was taken up
// for the entries of as many: two gigabytes.
TEST_F( QueueNoMemoryTest, SlotsThatCannotBeAreRefusedBeforeMemoryIsTakenUp ) {
    for ( U64 key = 0; key < keys; ++key ) {
        writer.put( key, 1 );
    }
    largestAllocation = std::size_t( 1 ) << 20;
    const std::string limit =
        messageOf< Krell::MemoryLimitException >( [ & ] { writer.table.reserve( ~U32( 0 ) ); } );
    std::string space;
    {
        const QelKrellTest::FileLimit few( 1 << 20 );
        space = messageOf< Krell::MemoryResourceException >(
            [ & ] { writer.table.reserve( 1 << 25 ); } );
    }
    largestAllocation = ~std::size_t( 0 );
    EXPECT_EQ( limit.find( "4294967295 slots are wanted in " ), 0U ) << limit;
    EXPECT_NE( space.find( "/slots: " ), std::string::npos ) << space;
    for ( U64 key = keys; key < 4 * keys; ++key ) {
        writer.put( key, 1 );
    }
    writer.expectSound();
    EXPECT_EQ( QueueReaderSide( place ).timesTold().size(), 4 * keys );
}

// Where the mapping ends in which that address lies.
std::uintptr_t endOfMapping( const void* address ) {
    std::ifstream maps( "/proc/self/maps" );
    for ( std::string line; std::getline( maps, line ); ) {
        std::uintptr_t from = 0;
        std::uintptr_t to = 0;
        char dash = 0;
        std::istringstream( line ) >> std::hex >> from >> dash >> to;
        const auto at = reinterpret_cast< std::uintptr_t >( address );
        if ( from <= at && at < to ) {
            return to;
        }
    }
    return 0;
}

// A page that nothing can be mapped over without being told to.
class Barrier {
public:
    explicit Barrier( std::uintptr_t at )
        : at_( ::mmap( reinterpret_cast< void* >( at ),
                       std::size_t( ::sysconf( _SC_PAGESIZE ) ),
                       PROT_NONE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE,
                       -1,
                       0 ) ) {}
    ~Barrier() {
        if ( at_ != MAP_FAILED ) { // else something else stands there
            ::munmap( at_, std::size_t( ::sysconf( _SC_PAGESIZE ) ) );
        }
    }
    Barrier( const Barrier& ) = delete;
    Barrier& operator=( const Barrier& ) = delete;

private:
    void* const at_;
};

// A drain kept pointers to slots while it mapped the slots that later entries of the same batch
// name, and looked through them at where the slots had stood.
TEST_F( QueueNoMemoryTest, SlotsThatMoveWhileEntriesAreReadAreLookedAtWhereTheyAre ) {
    constexpr U32 many = 800000; // more than a mapping has room to grow to where it is
    writer.put( 1, 1 );
    writer.put( 2, 1 );
    QueueReaderSide reader( place );
    ASSERT_EQ( reader.keys(), range( 1, 3 ) );
    const Krell::Segments& mapped = *reader.incarnation.segments();
    const char* const before = mapped.slots();
    const U32 slotsBefore = mapped.slotsMapped();
    const Barrier barrier( endOfMapping( before ) );
    writer.put( 2, 2 );
    writer.table.reserve( many );
    for ( U64 key = 3; key <= slotsBefore + 3; ++key ) {
        writer.put( key, 1 );
    }
    writer.put( 1, 2 );
    std::vector< U64 > wanted = range( 2, slotsBefore + 4 );
    wanted.push_back( 1 );
    EXPECT_EQ( reader.keys(), wanted );
    EXPECT_NE( mapped.slots(), before ) << "nothing moved";
    EXPECT_EQ( reader.queue.counts().restarts, 1U );
}

} // namespace
