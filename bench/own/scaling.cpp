// Whole times against n, which should be straight lines, and times of one operation, which should
// be level but for the caches: building, iterating, attaching, draining in each role, deleting and
// inserting again, taking over from a writer that was killed, mounting.

#include "bench/Boards.h"

#include "bench/own/Own.h"

namespace Bench {
namespace {

// A writer's process that is killed with a full collection in its hands.
class KilledWriter {
public:
    explicit KilledWriter( U64 n ) {
        int ready[ 2 ];
        need( pipe( ready ) == 0, "there is a pipe" );
        const pid_t pid = fork();
        if ( pid == 0 ) {
            prctl( PR_SET_PDEATHSIG, SIGKILL );
            const StorePtr store = open( QelKrell::writer, U32( n ) );
            for ( U64 i = 0; i < n; ++i ) {
                store->entry.is( entryOf( i ) );
            }
            need( write( ready[ 1 ], "", 1 ) == 1, "the writer tells that it wrote" );
            for ( ;; ) {
                pause();
            }
        }
        close( ready[ 1 ] );
        char byte = 0;
        need( read( ready[ 0 ], &byte, 1 ) == 1, "the writer that is to be killed wrote" );
        close( ready[ 0 ] );
        kill( pid, SIGKILL );
        waitpid( pid, nullptr, 0 );
    }
};

void takeover( U64 n ) {
    const ScratchRoot root;
    const KilledWriter killed( n );
    StorePtr store;
    rowOfWhole( n, "takeover", [ & ] { store = open( QelKrell::writer, U32( n ) ); } );
    need( store->entry.size() == n, "all is there after the takeover" );
}

constexpr U64 newSalt = U64( 1 ) << 40; // values that no other measurement writes

// Each entry changes once and is told once; what stands there at the start comes first.
void drain( Filled& filled, U64 n, QelKrell::QelKrellType role, const std::string& name ) {
    const StorePtr follower = open( role, 0 );
    follower->entry.control().yieldTimeIs( 1000 );
    U64 told = 0;
    const auto watch = follower->entry.onEntry( [ & ]( const auto& ) { ++told; } );
    rowOfWhole( n, "snapshot_" + name, [ & ] { follower->entry.core().poll(); } );
    for ( U64 i = 0; i < n; ++i ) {
        filled.writer->entry.is( entryOf( i, newSalt + U64( role ) ) );
    }
    told = 0;
    rowOfWhole( n, "drain_" + name, [ & ] { follower->entry.core().poll(); } );
    need( told == n, "a drain tells every change" );
}

void wholes( U64 n ) {
    const ScratchRoot root;
    const StorePtr empty = open( QelKrell::writer, U32( n ) );
    rowOfWhole( n, "build", [ & ] {
        for ( U64 i = 0; i < n; ++i ) {
            empty->entry.is( entryOf( i ) );
        }
    } );
    StorePtr reader;
    rowOfWhole( n, "attach_reader", [ & ] { reader = open( QelKrell::reader, 0 ); } );
    const auto iterate = [ & ] {
        U64 sum = 0;
        U64 count = 0;
        for ( const Entry& e : reader->entry ) {
            sum += e.value[ 0 ];
            ++count;
        }
        need( count == n && sum == n * ( n - 1 ) / 2, "an iteration sees every entry" );
    };
    rowOfWhole( n, "iterate_first", iterate ); // with the page faults of a new mapping
    rowOfWhole( n, "iterate", iterate );
    rowOfWhole( n, "delete", [ & ] {
        for ( U64 i = 0; i < n; ++i ) {
            empty->entry.del( entryOf( i ).key );
        }
    } );
    rowOfWhole( n, "insert_again", [ & ] {
        for ( U64 i = 0; i < n; ++i ) {
            empty->entry.is( entryOf( i, 1 ) );
        }
    } );
    need( empty->entry.size() == n, "all is there again" );
}

void ones( U64 n, double seconds ) {
    Filled filled( n );
    bench::Random random( 1 );
    Entry e;
    U64 found = 0;
    for ( U64 i = 0; i < n; ++i ) { // with this, everything is mapped
        found += filled.reader->entry.find( entryOf( i ).key, e );
    }
    need( found == n, "every key is found" );
    rowOfOne( n, "find", seconds,
              [ & ]( U64 ) { filled.reader->entry.find( entryOf( random.below( n ) ).key, e ); } );
    rowOfOne( n, "find_absent", seconds, [ & ]( U64 ) {
        filled.reader->entry.find( entryOf( n + random.below( n ) ).key, e );
    } );
    rowOfOne( n, "change", seconds,
              [ & ]( U64 i ) { filled.writer->entry.is( entryOf( random.below( n ), i ) ); } );
    filled.reader = nullptr;
    drain( filled, n, QelKrell::reader, "reader" );
    drain( filled, n, QelKrell::keyshadow, "keyshadow" );
    drain( filled, n, QelKrell::shadow, "shadow" );
}

// In a process of its own: nothing is left of what another one mounted.
void mount( U64 n, bool local ) {
    const ScratchRoot root;
    const pid_t pid = fork();
    if ( pid == 0 ) {
        const QelKrell::Mount& all = mounts( local );
        QelKrell::MountInfo info( QelKrell::writer );
        info.collectionInfoIs( { "flag", 8 } );
        const std::string suffix = local ? "_local" : "";
        rowOfWhole( n, "mount" + suffix, [ & ] {
            for ( U64 i = 0; i < n; ++i ) {
                all.doMount( pathOf( Qel::S64( i ) ), "Bench::Board", info );
            }
        } );
        rowOfWhole( n, "unmount" + suffix, [ & ] { all.doUnmountAll(); } );
        _exit( 0 );
    }
    int status = 0;
    waitpid( pid, &status, 0 );
    need( status == 0, "all entities are mounted" );
}

} // namespace
} // namespace Bench

int main( int argc, char** argv ) {
    const Bench::Limits limits = Bench::limitsOf( argc, argv );
    bench::pin( 0 );
    for ( const Qel::U64 n : Bench::sizesTo( limits.most ) ) {
        Bench::wholes( n );
        Bench::takeover( n );
        Bench::ones( n, limits.seconds / 3 );
    }
    const Qel::U64 descriptors = Bench::raiseDescriptorLimit();
    for ( const Qel::U64 n : Bench::sizesTo( std::min< Qel::U64 >( limits.most, 10000 ) ) ) {
        Bench::mount( n, true );
        // Where the machine does not allow that many open files, as many as it does.
        Bench::mount( std::min( n, descriptors / 4 ), false );
    }
    return 0;
}
