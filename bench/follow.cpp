// Following a writer: what a drain costs in each role, what followers cost the writer, what a
// stopped one costs, and how long a sleeping one takes to wake. Keys of 16 bytes, values of 48.

#include <benchmark/benchmark.h>

#include "bench/Follower.h"

namespace Bench {
namespace {

using Qel::S64;
using Qel::U64;

QelKrell::QelKrellType roleOf( const benchmark::State& state ) {
    return QelKrell::QelKrellType( state.range( 1 ) );
}

U64 next( U64& at ) {
    at = at * 6364136223846793005u + 1442695040888963407u;
    return at >> 33;
}

// Each entry changes once, and is told and copied once.
void drain( benchmark::State& state ) {
    const auto n = U64( state.range( 0 ) );
    Filled filled( n );
    filled.reader = nullptr;
    const StorePtr follower = open( roleOf( state ), 0 );
    follower->entry.control().yieldTimeIs( 1000 );
    U64 told = 0;
    const auto watch = follower->entry.onEntry( [ & ]( const auto& ) { ++told; } );
    follower->entry.core().poll();
    U64 salt = 1;
    for ( auto _ : state ) {
        state.PauseTiming();
        for ( U64 i = 0; i < n; ++i ) {
            filled.writer->entry.is( entryOf( i, salt ) );
        }
        ++salt;
        state.ResumeTiming();
        follower->entry.core().poll();
    }
    state.SetItemsProcessed( S64( n ) * state.iterations() );
    state.counters[ "told" ] = double( told ) / double( n ) / double( state.iterations() + 1 );
}

// Random updates with that many processes that follow as fast as they can.
void updateFollowed( benchmark::State& state ) {
    const auto n = U64( state.range( 0 ) );
    const auto followers = std::size_t( state.range( 2 ) );
    Filled filled( n );
    filled.reader = nullptr;
    std::vector< std::unique_ptr< FollowerProcess > > processes;
    for ( std::size_t i = 0; i < followers; ++i ) {
        processes.push_back( std::make_unique< FollowerProcess >( roleOf( state ) ) );
    }
    turnUntil(
        [ & ] { return filled.writer->entry.core().doorbell()->connections() >= followers; } );
    const auto before = filled.writer->entry.control().writerCounters();
    U64 at = 1;
    for ( auto _ : state ) {
        filled.writer->entry.is( entryOf( next( at ) % n, at ) );
    }
    const auto spent = filled.writer->entry.control().writerCounters() - before;
    const double changes = double( state.iterations() );
    state.counters[ "kicks" ] = double( spent.kicksIssued ) / changes;
    state.counters[ "moved" ] = double( spent.conquerCompactions ) / changes;
    state.counters[ "told" ] = double( processes[ 0 ]->news().notified.load() ) / changes;
}

// A follower that is stopped while everything changes many times.
void stoppedFollower( benchmark::State& state ) {
    const auto n = U64( state.range( 0 ) );
    const auto changes = U64( state.range( 2 ) );
    Filled filled( n );
    filled.reader = nullptr;
    FollowerProcess process( roleOf( state ) );
    turnUntil( [ & ] { return process.news().notified.load() >= n; } );
    process.stop();
    const auto queueBytes = [ & ] {
        return filled.writer->entry.core().writer().queue()->places() * 8 + 128;
    };
    U64 peak = 0;
    for ( auto _ : state ) {
        U64 at = 1;
        for ( U64 i = 0; i < changes; ++i ) {
            filled.writer->entry.is( entryOf( next( at ) % n, i ) );
            if ( i % 4096 == 0 ) {
                peak = std::max( peak, queueBytes() );
            }
        }
    }
    const U64 before = process.news().notified.load();
    process.go();
    const U64 start = now();
    turnUntil( [ & ] {
        const auto peers = filled.writer->entry.core().doorbell()->peers();
        return peers.size() == 1 &&
               peers[ 0 ].consumed == filled.writer->entry.control().sequence();
    } );
    state.counters[ "catchUpMs" ] = double( now() - start ) / 1e6;
    state.counters[ "caughtUpWith" ] = double( process.news().notified.load() - before );
    state.counters[ "queueBytes" ] = double( peak );
    state.SetItemsProcessed( S64( changes ) * state.iterations() );
}

// From the change to the notification in a process that sleeps.
void wake( benchmark::State& state ) {
    Filled filled( 1000 );
    filled.reader = nullptr;
    FollowerProcess process( roleOf( state ) );
    const auto& entry = filled.writer->entry;
    std::vector< U64 > times;
    U64 i = 0;
    for ( auto _ : state ) {
        turnUntil( [ & ] {
            const auto peers = entry.core().doorbell()->peers();
            return peers.size() == 1 && peers[ 0 ].asleep;
        } );
        for ( const U64 until = now() + 30000; now() < until; ) { // let it get to its sleep
        }
        const U64 start = now();
        ++i;
        filled.writer->entry.is( entryOf( i % 1000, i ) );
        while ( process.news().toldAt.load() < start ) {
        }
        times.push_back( process.news().toldAt.load() - start );
        state.SetIterationTime( double( times.back() ) / 1e9 );
    }
    std::sort( times.begin(), times.end() );
    state.counters[ "p50us" ] = double( times[ times.size() / 2 ] ) / 1e3;
    state.counters[ "p99us" ] = double( times[ times.size() * 99 / 100 ] ) / 1e3;
}

constexpr S64 reader = QelKrell::reader;
constexpr S64 keyshadow = QelKrell::keyshadow;
constexpr S64 shadow = QelKrell::shadow;

BENCHMARK( drain )
    ->ArgNames( { "n", "role" } )
    ->ArgsProduct( { { 1000, 100000, 1000000 }, { reader, keyshadow, shadow } } )
    ->Unit( benchmark::kMicrosecond );
BENCHMARK( updateFollowed )
    ->ArgNames( { "n", "role", "followers" } )
    ->ArgsProduct( { { 1000, 100000, 1000000 }, { reader }, { 1, 8 } } );
BENCHMARK( stoppedFollower )
    ->ArgNames( { "n", "role", "changes" } )
    ->Args( { 100000, shadow, 100000000 } )
    ->Iterations( 1 )
    ->Unit( benchmark::kSecond );
BENCHMARK( wake )
    ->ArgNames( { "", "role" } )
    ->Args( { 0, reader } )
    ->UseManualTime()
    ->Iterations( 2000 );

} // namespace
} // namespace Bench

BENCHMARK_MAIN();
