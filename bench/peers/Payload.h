// What the tables hold: keys of BENCH_KEY_SIZE bytes (8, 16 or 64), values of 48 that know whose
// they are, so that a torn or foreign one is recognised.

#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#ifndef BENCH_KEY_SIZE
#define BENCH_KEY_SIZE 16
#endif

namespace bench {

template < unsigned Size >
struct KeyOfSize;
template <>
struct KeyOfSize< 8 > {
    uint64_t a;
    friend bool operator==( const KeyOfSize&, const KeyOfSize& ) = default;
};
template <>
struct KeyOfSize< 16 > {
    uint64_t a, b;
    friend bool operator==( const KeyOfSize&, const KeyOfSize& ) = default;
};
template <>
struct KeyOfSize< 64 > {
    uint64_t a, b, more[ 6 ];
    friend bool operator==( const KeyOfSize&, const KeyOfSize& ) = default;
};
using Key = KeyOfSize< BENCH_KEY_SIZE >;
static_assert( sizeof( Key ) == BENCH_KEY_SIZE );

// version, stamp, two words of the key, two words that depend on all of those.
struct Value {
    uint64_t w[ 6 ];
};
static_assert( sizeof( Value ) == 48 );

// A bijection without visible order.
inline uint64_t mixed( uint64_t x ) {
    x = ( x ^ ( x >> 30 ) ) * 0xbf58476d1ce4e5b9u;
    x = ( x ^ ( x >> 27 ) ) * 0x94d049bb133111ebu;
    return x ^ ( x >> 31 );
}

constexpr uint64_t keyStep = 0xd1342543de82ef95u;

// The key of entry i; keys of different entries differ in their first word.
inline Key keyOf( uint64_t i ) {
    std::array< uint64_t, sizeof( Key ) / 8 > words;
    words[ 0 ] = mixed( i + 1 );
    for ( size_t at = 1; at < words.size(); ++at ) {
        words[ at ] = words[ 0 ] * ( keyStep + 2 * ( at - 1 ) ) + i;
    }
    return std::bit_cast< Key >( words );
}

inline uint64_t folded( uint64_t x, uint64_t y ) {
#ifdef __SIZEOF_INT128__
    __extension__ using Wide = unsigned __int128;
    const Wide product = Wide( x ) * y;
    return uint64_t( product ) ^ uint64_t( product >> 64 );
#else
    return mixed( x + mixed( y ) );
#endif
}

// The hash for every peer that takes one from its user: one multiplication for two words.
inline uint64_t hash( const Key& key ) {
    const auto words = std::bit_cast< std::array< uint64_t, sizeof( Key ) / 8 > >( key );
    uint64_t h = 0x2d358dccaa6c78a5u;
    for ( size_t at = 0; at < words.size(); at += 2 ) {
        const uint64_t second = at + 1 < words.size() ? words[ at + 1 ] : 0;
        h = folded( words[ at ] ^ h, second ^ 0x8bb84b93962eacc9u );
    }
    return h;
}
struct Hash {
    size_t operator()( const Key& key ) const { return hash( key ); }
};

inline uint64_t secondWord( const Key& key ) {
    const auto words = std::bit_cast< std::array< uint64_t, sizeof( Key ) / 8 > >( key );
    return words.size() > 1 ? words[ words.size() - 1 ] : ~key.a;
}

inline Value valueOf( const Key& key, uint64_t version, uint64_t stamp ) {
    const uint64_t second = secondWord( key );
    return { { version, stamp, key.a, second, version + stamp,
               ( version ^ stamp ) * 41 + second } };
}

// Whether it is one value, whole, and that key's.
inline bool intact( const Key& key, const Value& v ) {
    return v.w[ 2 ] == key.a && v.w[ 3 ] == secondWord( key ) && v.w[ 4 ] == v.w[ 0 ] + v.w[ 1 ] &&
           v.w[ 5 ] == ( v.w[ 0 ] ^ v.w[ 1 ] ) * 41 + v.w[ 3 ];
}

// Uses every word, so that no copy is left out.
inline uint64_t used( const Value& v ) {
    uint64_t sum = 0;
    for ( const uint64_t word : v.w ) {
        sum ^= word;
    }
    return sum;
}

} // namespace bench
