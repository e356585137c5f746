// A file held mapped for writing, against all agreements, and changed at random.

#pragma once

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Dov/Atomics>

namespace TrustTest {

using Qel::U32;
using Qel::U64;

class Scribbler {
public:
    explicit Scribbler( const std::string& path ) {
        const int fd = open( path.c_str(), O_RDWR | O_CLOEXEC );
        struct stat status {};
        EXPECT_EQ( fstat( fd, &status ), 0 );
        words_ = std::size_t( status.st_size ) / sizeof( U64 );
        void* const at =
            mmap( nullptr, words_ * sizeof( U64 ), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
        EXPECT_NE( at, MAP_FAILED );
        at_ = static_cast< U64* >( at );
        close( fd );
        good_.assign( at_, at_ + words_ );
    }
    ~Scribbler() { munmap( at_, words_ * sizeof( U64 ) ); }
    Scribbler( const Scribbler& ) = delete;
    Scribbler& operator=( const Scribbler& ) = delete;

    // As it was found.
    void restore() {
        for ( std::size_t i = 0; i < words_; ++i ) {
            put( i, good_[ i ] );
        }
    }
    // Changes many words; how many.
    U64 burst( std::mt19937_64& random ) {
        const U64 number = 1 + random() % ( U64( 1 ) << random() % 12 );
        const bool headOnly = random() % 32 == 0; // what all depends on
        for ( U64 i = 0; i < number; ++i ) {
            const std::size_t within = headOnly ? std::min( words_, headWords ) : words_;
            const std::size_t at = random() % within;
            put( at, changed( at_[ at ], random ) );
        }
        return number + lines( random );
    }

private:
    static constexpr std::size_t headWords = 64;
    static constexpr std::size_t lineWords = 8;

    void put( std::size_t at, U64 word ) { Dov::Atomics::storeRelease( at_ + at, word ); }

    // Another word in the place of this one: what is near it, what wraps, what is nothing, what is
    // right elsewhere.
    U64 changed( U64 word, std::mt19937_64& random ) const {
        switch ( random() % 10 ) {
        case 0:
            return word ^ ( U64( 1 ) << random() % 64 );
        case 1:
            return word + random() % 17 - 8;
        case 2:
            return 0;
        case 3:
            return ~U64( 0 ) - random() % 3;
        case 4:
            return U64( 1 ) << random() % 64;
        case 5:
            return at_[ random() % words_ ];
        case 6:
            return good_[ random() % words_ ];
        case 7: // one half: an index, a link, a count
            return ( word & 0xffffffffu ) | U64( random() % ( words_ * 2 ) ) << 32;
        case 8:
            return ( word & ~U64( 0xffffffffu ) ) | random() % ( words_ * 2 );
        default:
            return random();
        }
    }
    // Copies whole lines to other places, and links lines to each other and to themselves.
    U64 lines( std::mt19937_64& random ) {
        const std::size_t all = words_ / lineWords;
        if ( all < 2 || random() % 4 ) {
            return 0;
        }
        const std::size_t from = random() % all * lineWords;
        const std::size_t to = random() % all * lineWords;
        for ( std::size_t i = 0; i < lineWords; ++i ) {
            put( to + i, at_[ from + i ] );
        }
        const std::size_t link = to + lineWords - 1;
        const U64 line = random() % 2 ? to / lineWords : random() % all;
        put( link, ( at_[ link ] & 0xffffffffu ) | line << 32 );
        return lineWords + 1;
    }

    U64* at_ = nullptr;
    std::size_t words_ = 0;
    std::vector< U64 > good_;
};

} // namespace TrustTest
