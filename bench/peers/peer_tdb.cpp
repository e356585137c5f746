// TDB, chained hashing in one mapped file with a robust mutex for each chain, two processes.

#include "bench.hpp"

#include <fcntl.h>

#include <csignal>

extern "C" {
#include <tdb.h>
}

using namespace bench;

namespace {

// Also called for short keys of TDB's own, when it opens a file.
unsigned hashOf( TDB_DATA* data ) {
    Key key {};
    memcpy( static_cast< void* >( &key ), data->dptr, std::min( data->dsize, sizeof key ) );
    return unsigned( hash( key ) );
}
template < class T >
TDB_DATA bytes( const T& x ) {
    return { reinterpret_cast< unsigned char* >( const_cast< T* >( &x ) ), sizeof x };
}

std::string fileOf( const Config& c ) { return c.dir + "/tdb"; }
tdb_context* open( const Config& c, int flags ) {
    tdb_context* const table =
        tdb_open_ex( fileOf( c ).c_str(), int( std::max< uint64_t >( c.n, 131 ) ),
                     TDB_NOSYNC | TDB_INCOMPATIBLE_HASH | TDB_MUTEX_LOCKING | TDB_CLEAR_IF_FIRST,
                     O_RDWR | flags, 0600, nullptr, hashOf );
    if ( !table ) {
        die( "tdb_open" );
    }
    return table;
}

} // namespace

struct Peer {
    static constexpr const char* name = "tdb";
    static constexpr Scope scope = Scope::processes;

    struct Writer {
        tdb_context* table;
        std::string dir;
        explicit Writer( const Config& c ) : table( open( c, O_CREAT ) ), dir( c.dir ) {}
        ~Writer() { tdb_close( table ); }
        void begin() {}
        void commit() {}
        void store( const Key& k, const Value& v, int flags ) {
            if ( tdb_store( table, bytes( k ), bytes( v ), flags ) != 0 ) {
                die( "tdb_store" );
            }
        }
        void insert( const Key& k, const Value& v ) { store( k, v, 0 ); }
        void update( const Key& k, const Value& v ) { store( k, v, TDB_MODIFY ); }
        size_t memory() { return dir_bytes( dir ); }
    };
    struct Reader {
        static constexpr bool native_changes = false;
        tdb_context* table;
        explicit Reader( const Config& c ) : table( open( c, 0 ) ) {}
        ~Reader() { tdb_close( table ); }
        bool get( const Key& k, Value& v ) {
            const auto copy = []( TDB_DATA, TDB_DATA found, void* to ) {
                memcpy( to, found.dptr, sizeof( Value ) );
                return 0;
            };
            return tdb_parse_record( table, bytes( k ), copy, &v ) == 0;
        }
        template < class F >
        void scan( F&& f ) {
            using Function = std::remove_reference_t< F >;
            const auto visit = []( tdb_context*, TDB_DATA key, TDB_DATA value, void* function ) {
                Key k;
                Value v;
                memcpy( static_cast< void* >( &k ), key.dptr, sizeof k );
                memcpy( &v, value.dptr, sizeof v );
                ( *static_cast< Function* >( function ) )( k, v );
                return 0;
            };
            tdb_traverse_read( table, visit, &f );
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
