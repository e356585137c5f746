// The collections that the counted operations work on: wide entries (a key of 16 bytes, 48 of
// value) and narrow ones (8 and 8).

#pragma once

#include <algorithm>
#include <array>
#include <random>
#include <vector>

#include <QelKrell/Collection>

#include "bench/ScratchRoot.h"

namespace Instructions {

using Qel::U32;
using Qel::U64;

struct Wide {
    std::array< U64, 2 > key {};
    std::array< U64, 6 > value {};
};
constexpr auto describe( const Wide* ) {
    return Qel::valueType< Wide >( "Instructions::Wide", Qel::attribute( "key", &Wide::key ),
                                   Qel::attribute( "value", &Wide::value ) );
}

struct Narrow {
    U64 key = 0;
    U64 value = 0;
};
constexpr auto describe( const Narrow* ) {
    return Qel::valueType< Narrow >( "Instructions::Narrow", Qel::attribute( "key", &Narrow::key ),
                                     Qel::attribute( "value", &Narrow::value ) );
}

class WideStore : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    using Entry = Wide;
    QelKrell::Collection< &Wide::key > entry;
};
constexpr auto describe( const WideStore* ) {
    return Qel::entityType< WideStore >( "Instructions::WideStore",
                                         QelKrell::collection( "entry", &WideStore::entry ) );
}

class NarrowStore : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    using Entry = Narrow;
    QelKrell::Collection< &Narrow::key > entry;
};
constexpr auto describe( const NarrowStore* ) {
    return Qel::entityType< NarrowStore >( "Instructions::NarrowStore",
                                           QelKrell::collection( "entry", &NarrowStore::entry ) );
}

inline const Qel::Unit< Wide, Narrow, WideStore, NarrowStore > unit( "instruction counts" );

inline U64 mixed( U64 i ) {
    i = ( i ^ ( i >> 30 ) ) * 0xbf58476d1ce4e5b9u;
    i = ( i ^ ( i >> 27 ) ) * 0x94d049bb133111ebu;
    return i ^ ( i >> 31 );
}

// The entry of number i; another salt is another value.
inline void fill( Wide& e, U64 i, U64 salt ) {
    e.key = { mixed( i ), i };
    e.value = { i, salt, i + salt, i ^ salt, ~i, ~salt };
}
inline void fill( Narrow& e, U64 i, U64 salt ) {
    e.key = mixed( i );
    e.value = i + salt;
}

// The entries of the numbers from `first` on, in an order that is not that of their insertion.
template < class Entry >
std::vector< Entry > entries( U64 first, U64 n, U64 salt ) {
    std::vector< Entry > result( n );
    for ( Entry& e : result ) {
        fill( e, first++, salt );
    }
    std::mt19937 random( 1 );
    for ( U64 i = n; i > 1; --i ) {
        std::swap( result[ i - 1 ], result[ random() % i ] );
    }
    return result;
}

template < class Store >
Qel::Ptr< Store > open( QelKrell::QelKrellType role, U64 size ) {
    Qel::Ptr< Store > store = Qel::newEntity< Store >( "store" );
    store->entry.control().yieldTimeIs( 1000 ); // one round takes all changes
    store->entry.control().init( role, false, U32( size ) );
    return store;
}

// A collection of n entries with room for `room`, in new files, and its writer.
template < class Store >
struct Filled {
    Bench::ScratchRoot root;
    Qel::Ptr< Store > writer;

    explicit Filled( U64 n ) : Filled( n, n ) {}
    Filled( U64 n, U64 room ) : writer( open< Store >( QelKrell::writer, room ) ) {
        write( 0, n, 0 );
    }
    // Inserts or changes the entries from `first` on.
    void write( U64 first, U64 n, U64 salt ) {
        for ( const auto& e : entries< typename Store::Entry >( first, n, salt ) ) {
            writer->entry.is( e );
        }
    }
};

} // namespace Instructions
