// Mounting and unmounting many entities, each with one shared collection.

#include <benchmark/benchmark.h>

#include "bench/Boards.h"

namespace Bench {
namespace {

// Arguments: how many entities; whether the entity manager is local.
void mountAndUnmount( benchmark::State& state ) {
    raiseDescriptorLimit();
    const ScratchRoot root;
    const QelKrell::Mount& mount = mounts( state.range( 1 ) != 0 );
    QelKrell::MountInfo info( QelKrell::writer );
    info.collectionInfoIs( { "flag", 8 } );
    for ( auto _ : state ) {
        try {
            for ( Qel::S64 i = 0; i < state.range( 0 ); ++i ) {
                mount.doMount( pathOf( i ), "Bench::Board", info );
            }
        } catch ( const Qel::Exception& e ) {
            state.SkipWithError( e.what() );
        }
        mount.doUnmountAll();
    }
    state.SetItemsProcessed( state.range( 0 ) * state.iterations() );
}
BENCHMARK( mountAndUnmount )
    ->Args( { 100, 0 } )
    ->Args( { 10000, 0 } )
    ->Args( { 10000, 1 } )
    ->Unit( benchmark::kMillisecond )
    ->Iterations( 1 );

} // namespace
} // namespace Bench

BENCHMARK_MAIN();
