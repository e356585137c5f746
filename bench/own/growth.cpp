// The longest pauses while a collection grows by itself, of its writer and of a reader in another
// process that looks up what is there already; beside them the same with all room made at the
// start, which shows the pauses that the machine makes. Then deleting and inserting at full size.

#include "bench/own/Own.h"

namespace Bench {
namespace {

struct Shared {
    std::atomic< U64 > inserted { 0 };
    std::atomic< bool > done { false };
    U64 missing = 0;
    bench::Histogram finds;
};

// Looks up random entries until the writer is done, and times each.
[[noreturn]] void read( Shared& shared ) {
    prctl( PR_SET_PDEATHSIG, SIGKILL );
    bench::pin( 1 );
    const StorePtr store = open( QelKrell::reader, 0 );
    bench::Random random( 7 );
    Entry e;
    for ( U64 from = now(); !shared.done.load( std::memory_order_relaxed ); ) {
        const U64 there = shared.inserted.load( std::memory_order_acquire );
        shared.missing += !store->entry.find( entryOf( random.below( there ) ).key, e );
        const U64 to = now();
        shared.finds.record( to - from );
        from = to;
    }
    _exit( 0 );
}

void grow( U64 n, U64 room, const std::string& name ) {
    const ScratchRoot root;
    Shared& shared = *bench::shared< Shared >();
    const StorePtr store = open( QelKrell::writer, U32( room ) );
    store->entry.is( entryOf( 0 ) );
    shared.inserted = 1;
    const pid_t reader = fork();
    if ( reader == 0 ) {
        read( shared );
    }
    bench::Histogram inserts;
    const U64 start = now();
    for ( U64 i = 1, from = start; i < n; ++i ) {
        store->entry.is( entryOf( i ) );
        shared.inserted.store( i + 1, std::memory_order_release );
        const U64 to = now();
        inserts.record( to - from );
        from = to;
    }
    row( n, name + "_insert", "ns/op", double( now() - start ) / double( n ) );
    shared.done = true;
    int status = 0;
    waitpid( reader, &status, 0 );
    need( status == 0 && shared.missing == 0, "the reader finds what was inserted" );
    rowsOf( n, name + "_insert", inserts );
    rowsOf( n, name + "_find", shared.finds );
}

// A random entry goes and another one comes, so that every slot is used again several times.
void churn( U64 n ) {
    const ScratchRoot root;
    const StorePtr store = open( QelKrell::writer, U32( n ) );
    std::vector< U64 > present( n );
    for ( U64 i = 0; i < n; ++i ) {
        present[ i ] = i;
        store->entry.is( entryOf( i ) );
    }
    const std::string directory = getenv( "KRELL_ROOT" );
    row( n, "churn_memory_before", "B/entry",
         double( bench::dir_bytes( directory ) ) / double( n ) );
    bench::Random random( 3 );
    bench::Histogram pairs;
    const U64 rounds = 4 * n;
    const U64 start = now();
    for ( U64 i = 0, from = start; i < rounds; ++i ) {
        U64& one = present[ random.below( n ) ];
        need( store->entry.del( entryOf( one ).key ), "what is deleted was there" );
        one = n + i;
        store->entry.is( entryOf( one ) );
        const U64 to = now();
        pairs.record( to - from );
        from = to;
    }
    row( n, "churn_pair", "ns/op", double( now() - start ) / double( rounds ) );
    rowsOf( n, "churn_pair", pairs );
    row( n, "churn_memory_after", "B/entry",
         double( bench::dir_bytes( directory ) ) / double( n ) );
    need( store->entry.size() == n, "as many came as went" );
}

} // namespace
} // namespace Bench

int main( int argc, char** argv ) {
    const Bench::Limits limits = Bench::limitsOf( argc, argv );
    bench::pin( 0 );
    Bench::grow( limits.most, 0, "grown" );
    Bench::grow( limits.most, limits.most, "sized" );
    Bench::churn( std::min< Qel::U64 >( limits.most, 100000 ) );
    return 0;
}
