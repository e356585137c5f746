// A change queue that is changed by hand, and what readers make of it.

#pragma once

#include <memory>
#include <random>
#include <set>
#include <utility>

#include <gtest/gtest.h>

#include "Torture.h"
#include "krell/QueueSupport.h"

namespace KrellTest {

using Krell::QueueHeader;
using Krell::QueueMark;
using Drain = Krell::QueueReader::Drain;

inline constexpr std::size_t entriesAt = sizeof( QueueHeader );
inline constexpr std::size_t markAt = offsetof( QueueHeader, mark );
inline constexpr std::size_t tailAt = offsetof( QueueHeader, tail );
inline constexpr std::size_t roundAt = offsetof( QueueHeader, round );
inline constexpr std::size_t roundBeforeAt = offsetof( QueueHeader, roundBefore );
inline constexpr std::size_t stampAt = offsetof( QueueHeader, fenix );
inline constexpr unsigned drainsAtMost = 8;
inline constexpr U32 slots = 60; // all of which were used

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
        for ( U64 n = 0; n < 750; ++n ) {
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
        return entriesAt +
               sizeof( U32 ) * ( position - ( position < round ? roundBefore : round ) );
    }
    // The checksum as it should be.
    static void seal( std::string& bytes ) {
        const std::size_t from = offsetof( QueueHeader, generation );
        set( bytes, offsetof( QueueHeader, checksum ),
             U32( Krell::Util::hash( bytes.data() + from, unsigned( markAt - from ) ) ) );
    }

    // Drains until nothing is new, or an exception. Each drain tells a bounded number of slots.
    Outcome drain( QueueReaderSide& reader ) {
        Outcome outcome;
        ++calls;
        try {
            for ( unsigned i = 0; i < drainsAtMost; ++i ) {
                U64 told = 0;
                outcome.last = reader.queue.drain( [ & ]( U32 slot ) {
                    reader.keyAt( slot );
                    ++outcome.told;
                    return ++told <= 4 * places;
                } );
                EXPECT_LE( told, 4 * places );
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
    // A reader that stands at that position, and does not know the changes that were made since: as
    // many as there are slots, at the least.
    std::unique_ptr< QueueReaderSide > readerAt( U64 position ) {
        store( [ & ]( std::string& b ) {
            const U64 sequence = ( word( b, markAt ) >> 32 ) - ( head - position ) - slots;
            set( b, markAt, QueueMark( sequence, position ).word() );
        } );
        auto reader = std::make_unique< QueueReaderSide >( place );
        reader->keys();
        EXPECT_EQ( reader->last, Drain::end );
        store( []( std::string& ) {} );
        return reader;
    }
    // How many slots it was told before.
    U64 expectCorruptTo( QueueReaderSide& reader, const std::string& what ) {
        const Outcome outcome = drain( reader );
        EXPECT_EQ( outcome.thrown, "CorruptionDetectedException" ) << int( outcome.last );
        EXPECT_NE( outcome.message.find( what ), std::string::npos ) << outcome.message;
        return outcome.told;
    }
    Outcome newcomer() {
        QueueReaderSide reader( place );
        return drain( reader );
    }
    void expectCorrupt( const std::string& what ) {
        QueueReaderSide reader( place );
        expectCorruptTo( reader, what );
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

    // Drains since it was asked last. One that died or did not come back ends the test.
    void countInto( QelKrellTest::Torture& torture ) {
        torture.count( "calls", std::exchange( calls, 0 ) );
        torture.count( "crashes", 0 );
        torture.count( "hangs", 0 );
    }

    QueuePlace place;
    // The slots of the last entries.
    std::set< U32 > behind( U64 distance ) const {
        std::set< U32 > met;
        for ( U64 position = head - distance; position != head; ++position ) {
            U32 slot = 0;
            bytes.copy( reinterpret_cast< char* >( &slot ), sizeof slot, placeAt( position ) );
            met.insert( slot );
        }
        return met;
    }

    U64 value = 100000;
    U64 calls = 0;
    U64 head = 0;
    U64 tail = 0;
    U64 round = 0;
    U64 roundBefore = 0;
    U64 places = 0;
    std::string file;
    std::string bytes;
};

} // namespace KrellTest
