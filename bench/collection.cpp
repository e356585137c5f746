// Finds, inserts, updates and iteration through the public interface: keys of 16 bytes, values of
// 48, at the sizes given as arguments. The reader is a second attachment of the same files.

#include <benchmark/benchmark.h>

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

const Qel::Unit< Entry, Store > unit( "bench store" );

Qel::U64 mixed( Qel::U64 i ) {
    i = ( i ^ ( i >> 30 ) ) * 0xbf58476d1ce4e5b9u;
    i = ( i ^ ( i >> 27 ) ) * 0x94d049bb133111ebu;
    return i ^ ( i >> 31 );
}

Entry entryOf( Qel::U64 i, Qel::U64 salt = 0 ) {
    Entry e;
    e.key = { mixed( i ), i };
    e.value = { i, salt, i + salt, i ^ salt, ~i, ~salt };
    return e;
}

using StorePtr = Qel::Ptr< Store >;

StorePtr open( QelKrell::QelKrellType mode, Qel::U32 size ) {
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

void findHit( benchmark::State& state ) {
    const auto n = Qel::U64( state.range( 0 ) );
    const Filled filled( n );
    Entry e;
    Qel::U64 at = 1;
    Qel::U64 misses = 0;
    for ( auto _ : state ) {
        at = at * 6364136223846793005u + 1442695040888963407u;
        misses += !filled.reader->entry.find( entryOf( ( at >> 33 ) % n ).key, e );
        benchmark::DoNotOptimize( e );
    }
    state.counters[ "missed" ] = double( misses );
}

void findMiss( benchmark::State& state ) {
    const auto n = Qel::U64( state.range( 0 ) );
    const Filled filled( n );
    Entry e;
    Qel::U64 at = 1;
    Qel::U64 found = 0;
    for ( auto _ : state ) {
        at = at * 6364136223846793005u + 1442695040888963407u;
        found += filled.reader->entry.find( entryOf( n + ( at >> 33 ) ).key, e );
    }
    state.counters[ "found" ] = double( found );
}

void insert( benchmark::State& state ) {
    const auto n = Qel::U64( state.range( 0 ) );
    for ( auto _ : state ) {
        state.PauseTiming();
        {
            const ScratchRoot root;
            const StorePtr store = open( QelKrell::writer, Qel::U32( n ) );
            state.ResumeTiming();
            for ( Qel::U64 i = 0; i < n; ++i ) {
                store->entry.is( entryOf( i ) );
            }
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed( Qel::S64( n ) * state.iterations() );
}

void update( benchmark::State& state ) {
    const auto n = Qel::U64( state.range( 0 ) );
    const Filled filled( n );
    Qel::U64 at = 1;
    for ( auto _ : state ) {
        at = at * 6364136223846793005u + 1442695040888963407u;
        filled.writer->entry.is( entryOf( ( at >> 33 ) % n, at ) );
    }
}

void iterate( benchmark::State& state ) {
    const auto n = Qel::U64( state.range( 0 ) );
    const Filled filled( n );
    Qel::U64 sum = 0;
    for ( auto _ : state ) {
        for ( const Entry& e : filled.reader->entry ) {
            sum += e.value[ 0 ];
        }
    }
    benchmark::DoNotOptimize( sum );
    state.SetItemsProcessed( Qel::S64( n ) * state.iterations() );
}

#define SIZES Arg( 1000 )->Arg( 100000 )->Arg( 1000000 )
BENCHMARK( findHit )->SIZES;
BENCHMARK( findMiss )->SIZES;
BENCHMARK( insert )->SIZES->Unit( benchmark::kMillisecond );
BENCHMARK( update )->SIZES;
BENCHMARK( iterate )->SIZES->Unit( benchmark::kMicrosecond );

} // namespace Bench

BENCHMARK_MAIN();
