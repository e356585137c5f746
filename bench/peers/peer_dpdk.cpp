// DPDK's rte_hash with reads that take no lock, two threads. A key's position there is its place in
// an array of values, each under a sequence lock. Ordinary pages; BENCH_DPDK_HUGE set: huge ones,
// which have to be reserved.

#include "bench.hpp"

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_hash.h>
#include <rte_malloc.h>

using namespace bench;

namespace {

rte_hash* table;
SequenceLocked* values;
uint64_t capacity;

unsigned hashOf( const void* key, unsigned, unsigned ) {
    return unsigned( hash( *static_cast< const Key* >( key ) ) );
}
int placeOf( const Key& k ) {
    return rte_hash_lookup_with_hash( table, &k, unsigned( hash( k ) ) );
}

void startEal( uint64_t n ) {
    static std::string megabytes = std::to_string( 256 + n * ( 84 + sizeof( Key ) ) / 1000000 );
    static std::string core = std::to_string( sched_getcpu() );
    std::vector< const char* > words { "bench",       "--no-pci", "--no-telemetry",
                                       "--log-level", "3",        "-l",
                                       core.c_str(),  "-m",       megabytes.c_str() };
    if ( getenv( "BENCH_DPDK_HUGE" ) ) {
        words.push_back( "--in-memory" );
    } else {
        words.insert( words.end(), { "--no-huge", "--no-shconf" } );
    }
    if ( rte_eal_init( int( words.size() ), const_cast< char** >( words.data() ) ) < 0 ) {
        die( "rte_eal_init" );
    }
}

} // namespace

struct Peer {
    static constexpr const char* name = "dpdk_hash";
    static constexpr Scope scope = Scope::threads;

    struct Writer {
        explicit Writer( const Config& c ) {
            startEal( c.n );
            capacity = c.n + c.n / 4 + 64;
            rte_hash_parameters wanted {};
            wanted.name = "bench";
            wanted.entries = uint32_t( capacity );
            wanted.key_len = sizeof( Key );
            wanted.hash_func = hashOf;
            wanted.socket_id = -1;
            wanted.extra_flag = RTE_HASH_EXTRA_FLAGS_RW_CONCURRENCY_LF;
            table = rte_hash_create( &wanted );
            if ( !table ) {
                fprintf( stderr, "rte_hash_create: %s\n", rte_strerror( rte_errno ) );
                _exit( 2 );
            }
            values =
                static_cast< SequenceLocked* >( calloc( capacity + 1, sizeof( SequenceLocked ) ) );
            if ( !values ) {
                die( "calloc" );
            }
        }
        ~Writer() {
            rte_hash_free( table );
            free( values );
        }
        void begin() {}
        void commit() {}
        void insert( const Key& k, const Value& v ) {
            const int place = rte_hash_add_key( table, &k );
            if ( place < 0 ) {
                die( "rte_hash_add_key" );
            }
            values[ place ].store( v );
        }
        void update( const Key& k, const Value& v ) { values[ placeOf( k ) ].store( v ); }
        size_t memory() {
            rte_malloc_socket_stats heap;
            rte_malloc_get_socket_stats( 0, &heap );
            return heap.heap_allocsz_bytes + capacity * sizeof( SequenceLocked );
        }
    };
    struct Reader {
        static constexpr bool native_changes = false;
        explicit Reader( const Config& ) {}
        bool get( const Key& k, Value& v ) {
            const int place = placeOf( k );
            if ( place >= 0 ) {
                values[ place ].load( v );
            }
            return place >= 0;
        }
        void get_many( const Key* k, Value* v, bool* found, unsigned n ) {
            const void* keys[ kMany ];
            unsigned hashes[ kMany ];
            int places[ kMany ];
            for ( unsigned i = 0; i < n; ++i ) {
                keys[ i ] = &k[ i ];
                hashes[ i ] = unsigned( hash( k[ i ] ) );
            }
            rte_hash_lookup_with_hash_bulk( table, keys, hashes, n, places );
            for ( unsigned i = 0; i < n; ++i ) {
                if ( places[ i ] >= 0 ) {
                    values[ places[ i ] ].prefetch();
                }
            }
            for ( unsigned i = 0; i < n; ++i ) {
                found[ i ] = places[ i ] >= 0;
                if ( found[ i ] ) {
                    values[ places[ i ] ].load( v[ i ] );
                }
            }
        }
        template < class F >
        void scan( F&& f ) {
            uint32_t at = 0;
            const void* key = nullptr;
            void* data = nullptr;
            Value v;
            for ( int place = 0; ( place = rte_hash_iterate( table, &key, &data, &at ) ) >= 0; ) {
                values[ place ].load( v );
                f( *static_cast< const Key* >( key ), v );
            }
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
