// The two ends of a change queue with no control between them, and a look at what stands in it.

#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Krell/Incarnation>
#include <Krell/QueueReader>
#include <Krell/WriterTable>

#include "krell/EngineSupport.h"

namespace KrellTest {

inline std::vector< U64 > range( U64 from, U64 to ) {
    std::vector< U64 > keys( std::size_t( to - from ) );
    std::iota( keys.begin(), keys.end(), from );
    return keys;
}

// A file that is changed where it stands, under whoever has it mapped.
class MappedFile {
public:
    explicit MappedFile( const std::string& path ) {
        const int fd = ::open( path.c_str(), O_RDWR | O_CLOEXEC );
        struct stat status {};
        if ( fd < 0 || ::fstat( fd, &status ) != 0 ) {
            throw std::runtime_error( "cannot open " + path );
        }
        size_ = std::size_t( status.st_size );
        bytes_ = static_cast< char* >(
            ::mmap( nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 ) );
        ::close( fd );
    }
    ~MappedFile() { ::munmap( bytes_, size_ ); }
    MappedFile( const MappedFile& ) = delete;
    MappedFile& operator=( const MappedFile& ) = delete;

    std::size_t size() const { return size_; }
    char& operator[]( std::size_t at ) { return bytes_[ at ]; }
    U64& word( std::size_t at ) { return *reinterpret_cast< U64* >( bytes_ + at ); }
    U32& half( std::size_t at ) { return *reinterpret_cast< U32* >( bytes_ + at ); }

private:
    char* bytes_;
    std::size_t size_;
};

// The private numbers of a writer, for tests that let it begin near their ends.
template < class Name, typename Name::Member member >
struct Reach {
    friend typename Name::Member reach( Name ) { return member; }
};
#define KRELL_TEST_REACH( NAME, CLASS, TYPE, MEMBER )                                              \
    struct NAME {                                                                                  \
        using Type = TYPE;                                                                         \
        using Member = TYPE Krell::CLASS::*;                                                       \
        friend Member reach( NAME );                                                               \
    };                                                                                             \
    template struct Reach< NAME, &Krell::CLASS::MEMBER >
KRELL_TEST_REACH( QueueHead, QueueWriter, U64, head_ );
KRELL_TEST_REACH( QueueTail, QueueWriter, U64, tail_ );
KRELL_TEST_REACH( QueueRound, QueueWriter, U64, round_ );
KRELL_TEST_REACH( QueueRoundBefore, QueueWriter, U64, roundBefore_ );
KRELL_TEST_REACH( QueuePause, QueueWriter, U64, pause_ );
KRELL_TEST_REACH( QueueOvertakenBits, QueueWriter, Krell::QueueOvertaken, overtaken_ );
KRELL_TEST_REACH( TableSequence, WriterTable, U64, sequence_ );
#undef KRELL_TEST_REACH

// A collection of keys and values of one word each, in a directory of its own.
class QueuePlace {
public:
    QueuePlace()
        : directory( std::make_shared< const Krell::Directory >(
              Krell::Directory::create( root / "c" ) ) ) {}
    std::string operator/( const char* file ) const {
        return root / ( std::string( "c/" ) + file );
    }

    TestRoot root;
    const Krell::Layout layout = layoutOf( 1, 1 );
    RecordingDebugHandler debug;
    Krell::Incarnation::DirectoryPtr directory;
};

class QueueWriterSide {
public:
    // Takes over what is there, or makes it.
    explicit QueueWriterSide( QueuePlace& place, U32 slots = 4 )
        : place_( place ),
          incarnation( Krell::Incarnation::open(
              place.debug, place.directory, place.layout, slots, Krell::Owner() ) ),
          table( *incarnation.segments() ) {}

    void put( U64 key, U64 value ) { table.put< 1, 1 >( &key, &value ); }
    void del( U64 key ) { table.del< 1 >( &key ); }

    const Krell::QueueWriter& queue() const { return *table.queue(); }
    std::string file() const {
        return place_ / Krell::QueueSegment::fileNameOf( segments().queueGeneration() );
    }
    Krell::Segments& segments() const { return *incarnation.segments(); }
    U64 head() { return number( QueueHead() ); }
    U64 tail() { return number( QueueTail() ); }
    // The positions in place 0, of this round and of the one before.
    U64 round() { return number( QueueRound() ); }
    U64 roundBefore() { return number( QueueRoundBefore() ); }
    // Where a valid position stands in the file, in bytes.
    std::size_t placeAt( U64 position );
    // The position that a slot names.
    U64& positionOf( U32 slot ) { return segments().slot( slot )->queuePosition; }
    // Slots that were ever used, in the order of their last changes.
    std::vector< U32 > slotsInOrder();

    // As if that many changes had been made, all to one slot, which is changed once more at least
    // before a reader looks.
    void passes( U64 changes );

    // Each slot that was ever used names exactly one entry, the writer notes all others as
    // overtaken, and there is room to move entries.
    void expectSound();

private:
    void expectSoundHeader( MappedFile& queue );
    QueuePlace& place_;
    Krell::QueueWriter& inside() { return const_cast< Krell::QueueWriter& >( queue() ); }
    template < class Name >
    typename Name::Type& number( Name name ) {
        return inside().*reach( name );
    }

public:
    Krell::Incarnation incarnation;
    Krell::WriterTable table;
};

inline std::size_t QueueWriterSide::placeAt( U64 position ) {
    return sizeof( Krell::QueueHeader ) +
           sizeof( U32 ) *
               std::size_t( position - ( position < round() ? roundBefore() : round() ) );
}

inline std::vector< U32 > QueueWriterSide::slotsInOrder() {
    std::map< U64, U32 > slots;
    for ( U32 slot = 0; slot < segments().slotCount(); ++slot ) {
        slots[ Krell::versionOf( segments().slot( slot ) ).sequence() ] = slot;
    }
    slots.erase( 0 );
    std::vector< U32 > inOrder;
    for ( const auto& [ sequence, slot ] : slots ) {
        inOrder.push_back( slot );
    }
    return inOrder;
}

inline void QueueWriterSide::passes( U64 changes ) {
    MappedFile queue( file() );
    Krell::QueueOvertaken overtaken;
    overtaken.growTo( inside().places(), 0, 0 );
    for ( U64 position = tail(); position != head(); ++position ) {
        if ( number( QueueOvertakenBits() ).has( position ) ) {
            overtaken.insert( position + changes );
        }
    }
    number( QueueOvertakenBits() ) = overtaken;
    for ( const U32 slot : slotsInOrder() ) {
        positionOf( slot ) += changes;
    }
    number( QueueHead() ) += changes;
    number( QueueTail() ) += changes;
    number( QueueRound() ) += changes;
    number( QueueRoundBefore() ) += changes;
    number( QueuePause() ) += changes;
    table.*reach( TableSequence() ) += changes;
    *segments().sequenceWord() += changes;
    queue.word( offsetof( Krell::QueueHeader, tail ) ) = tail();
    queue.word( offsetof( Krell::QueueHeader, round ) ) = round();
    queue.word( offsetof( Krell::QueueHeader, roundBefore ) ) = roundBefore();
    queue.word( offsetof( Krell::QueueHeader, mark ) ) =
        Krell::QueueMark( table.sequence(), head() ).word();
}

inline void QueueWriterSide::expectSoundHeader( MappedFile& queue ) {
    const U64 places = inside().places();
    ASSERT_EQ( queue.word( offsetof( Krell::QueueHeader, tail ) ), tail() );
    ASSERT_EQ( queue.word( offsetof( Krell::QueueHeader, round ) ), round() );
    ASSERT_EQ( queue.word( offsetof( Krell::QueueHeader, roundBefore ) ), roundBefore() );
    ASSERT_EQ( queue.word( offsetof( Krell::QueueHeader, mark ) ),
               Krell::QueueMark( table.sequence(), head() ).word() );
    ASSERT_EQ( queue.size(), sizeof( Krell::QueueHeader ) + sizeof( U32 ) * places );
    ASSERT_GE( places, Krell::QueueSegment::placesFor( segments().slotCount() ) );
    ASSERT_LE( roundBefore(), tail() );
    ASSERT_LE( round(), head() );
    ASSERT_LE( head() - round(), places );
    ASSERT_LE( head() - tail(), places );
    ASSERT_GE( inside().room(), U64( Krell::QueueSegment::run_ ) );
}

inline void QueueWriterSide::expectSound() {
    MappedFile queue( file() );
    expectSoundHeader( queue );
    ASSERT_FALSE( testing::Test::HasFatalFailure() );
    const Krell::QueueOvertaken& overtaken = number( QueueOvertakenBits() );
    std::map< U32, unsigned > live;
    std::set< std::size_t > met;
    for ( U64 position = tail(); position != head(); ++position ) {
        const std::size_t at = placeAt( position );
        ASSERT_TRUE( met.insert( at ).second ) << "two positions in one place";
        const U32 slot = queue.half( at );
        ASSERT_LT( slot, segments().slotCount() );
        const bool named = positionOf( slot ) == position;
        ASSERT_EQ( overtaken.has( position ), !named ) << "position " << position;
        live[ slot ] += named;
    }
    for ( U64 position = head(); position != tail() + inside().places(); ++position ) {
        ASSERT_FALSE( overtaken.has( position ) ) << "position " << position << " is not there yet";
    }
    for ( U32 index = 0; index < segments().slotCount(); ++index ) {
        const bool used = Krell::versionOf( segments().slot( index ) ).sequence() != 0;
        ASSERT_EQ( live[ index ], used ? 1U : 0U ) << "slot " << index;
        ASSERT_EQ( positionOf( index ) != 0, used ) << "slot " << index;
    }
}

class QueueReaderSide {
public:
    using Drain = Krell::QueueReader::Drain;

    explicit QueueReaderSide( QueuePlace& place )
        : incarnation( Krell::Incarnation::attach( place.debug, place.directory, place.layout ) ),
          table( incarnation.segments() ),
          queue( *incarnation.segments(), table ) {}

    // The keys of the slots that are told by one whole drain, in order.
    std::vector< U64 > keys() {
        std::vector< U64 > keys;
        last = queue.drain( [ & ]( U32 slot ) {
            keys.push_back( keyAt( slot ) );
            return true;
        } );
        return keys;
    }
    // Those told until `count` were.
    std::vector< U64 > some( std::size_t count ) {
        std::vector< U64 > keys;
        last = queue.drain( [ & ]( U32 slot ) {
            keys.push_back( keyAt( slot ) );
            return keys.size() < count;
        } );
        return keys;
    }
    U64 keyAt( U32 slot ) {
        U64 key = 0;
        table.look( slot, &key );
        return key;
    }
    U64 versionAt( U32 slot ) {
        return Krell::versionOf( incarnation.segments()->slot( slot ) ).sequence();
    }
    // Whole drains until nothing is new: how often each key was told.
    std::map< U64, unsigned > timesTold() {
        std::map< U64, unsigned > times;
        do {
            for ( const U64 key : keys() ) {
                ++times[ key ];
            }
        } while ( last == Drain::end );
        return times;
    }

    Krell::Incarnation incarnation;
    Krell::ReaderTable table;
    Krell::QueueReader queue;
    Drain last = Drain::absent;
};

} // namespace KrellTest
