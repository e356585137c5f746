// Finds, inserts, updates and iteration through the public interface: keys of 16 bytes, values of
// 48, at the sizes given as arguments. The reader is a second attachment of the same files.

#include <benchmark/benchmark.h>

#include "bench/Store.h"

namespace Bench {
namespace {

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

void findMany( benchmark::State& state ) {
    const auto n = Qel::U64( state.range( 0 ) );
    const Filled filled( n );
    constexpr std::size_t batch = 32;
    std::vector< std::array< Qel::U64, 2 > > keys( batch );
    Qel::U64 at = 1;
    Qel::U64 misses = 0;
    Qel::U64 sum = 0;
    for ( auto _ : state ) {
        for ( auto& key : keys ) {
            at = at * 6364136223846793005u + 1442695040888963407u;
            key = entryOf( ( at >> 33 ) % n ).key;
        }
        filled.reader->entry.findMany( keys, [ & ]( const auto&, const Entry* e ) {
            misses += !e;
            sum += e ? e->value[ 5 ] : 0;
        } );
    }
    benchmark::DoNotOptimize( sum );
    state.counters[ "missed" ] = double( misses );
    state.SetItemsProcessed( Qel::S64( batch ) * state.iterations() );
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
BENCHMARK( findMany )->SIZES;
BENCHMARK( insert )->SIZES->Unit( benchmark::kMillisecond );
BENCHMARK( update )->SIZES;
BENCHMARK( iterate )->SIZES->Unit( benchmark::kMicrosecond );

} // namespace
} // namespace Bench

BENCHMARK_MAIN();
