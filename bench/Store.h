// What the benchmarks of collections share: keys of 16 bytes, values of 48.

#pragma once

#include <QelKrell/Collection>

#include "bench/ScratchRoot.h"

namespace Bench {

struct Entry {
    std::array< Qel::U64, 2 > key {};
    std::array< Qel::U64, 6 > value {};
};
constexpr auto describe( const Entry* ) {
    return Qel::valueType< Entry >( "Bench::Entry", Qel::attribute( "key", &Entry::key ),
                                    Qel::attribute( "value", &Entry::value ) );
}

class Store : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Entry::key > entry;
};
constexpr auto describe( const Store* ) {
    return Qel::entityType< Store >( "Bench::Store",
                                     QelKrell::collection( "entry", &Store::entry ) );
}

inline const Qel::Unit< Entry, Store > unit( "bench store" );

inline Qel::U64 mixed( Qel::U64 i ) {
    i = ( i ^ ( i >> 30 ) ) * 0xbf58476d1ce4e5b9u;
    i = ( i ^ ( i >> 27 ) ) * 0x94d049bb133111ebu;
    return i ^ ( i >> 31 );
}

inline Entry entryOf( Qel::U64 i, Qel::U64 salt = 0 ) {
    Entry e;
    e.key = { mixed( i ), i };
    e.value = { i, salt, i + salt, i ^ salt, ~i, ~salt };
    return e;
}

using StorePtr = Qel::Ptr< Store >;

inline StorePtr open( QelKrell::QelKrellType mode, Qel::U32 size ) {
    StorePtr store = Qel::newEntity< Store >( "store" );
    store->entry.control().init( mode, false, size );
    return store;
}

// A filled collection, its writer and a reader of it; new files every time.
struct Filled {
    ScratchRoot root;
    StorePtr writer;
    StorePtr reader;

    explicit Filled( Qel::U64 n ) : writer( open( QelKrell::writer, Qel::U32( n ) ) ) {
        for ( Qel::U64 i = 0; i < n; ++i ) {
            writer->entry.is( entryOf( i ) );
        }
        reader = open( QelKrell::reader, 0 );
    }
};

} // namespace Bench
