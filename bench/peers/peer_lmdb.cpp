// LMDB, a tree in a shared mapping, two processes. Nothing is asked of the disk, and each lookup
// takes a snapshot of its own, so that it sees the newest commit.

#include "bench.hpp"

#include <lmdb.h>

using namespace bench;

namespace {

void must( int status, const char* what ) {
    if ( status != 0 ) {
        fprintf( stderr, "%s: %s\n", what, mdb_strerror( status ) );
        _exit( 2 );
    }
}
MDB_val bytes( const void* p, size_t size ) { return { size, const_cast< void* >( p ) }; }

MDB_env* open( const Config& c, unsigned flags ) {
    MDB_env* env = nullptr;
    must( mdb_env_create( &env ), "mdb_env_create" );
    const size_t room =
        ( c.n * ( 368 + 2 * sizeof( Key ) ) + ( size_t( 64 ) << 20 ) ) & ~size_t( 4095 );
    must( mdb_env_set_mapsize( env, room ), "mdb_env_set_mapsize" );
    must( mdb_env_open( env, ( c.dir + "/lmdb" ).c_str(),
                        MDB_NOSUBDIR | MDB_NOSYNC | MDB_NORDAHEAD | flags, 0600 ),
          "mdb_env_open" );
    return env;
}

} // namespace

struct Peer {
    static constexpr const char* name = "lmdb";
    static constexpr Scope scope = Scope::processes;

    struct Writer {
        MDB_env* env;
        MDB_dbi table = 0;
        MDB_txn* change = nullptr;
        explicit Writer( const Config& c ) : env( open( c, MDB_WRITEMAP ) ) {
            begin();
            must( mdb_dbi_open( change, nullptr, MDB_CREATE, &table ), "mdb_dbi_open" );
            commit();
        }
        ~Writer() { mdb_env_close( env ); }
        void begin() { must( mdb_txn_begin( env, nullptr, 0, &change ), "mdb_txn_begin" ); }
        void commit() { must( mdb_txn_commit( change ), "mdb_txn_commit" ); }
        void insert( const Key& k, const Value& v ) {
            MDB_val key = bytes( &k, sizeof k );
            MDB_val value = bytes( &v, sizeof v );
            must( mdb_put( change, table, &key, &value, 0 ), "mdb_put" );
        }
        void update( const Key& k, const Value& v ) { insert( k, v ); }
        size_t memory() {
            MDB_envinfo info;
            mdb_env_info( env, &info );
            return ( info.me_last_pgno + 1 ) * 4096;
        }
    };
    struct Reader {
        static constexpr bool native_changes = false;
        MDB_env* env;
        MDB_dbi table = 0;
        MDB_txn* view = nullptr;
        explicit Reader( const Config& c ) : env( open( c, MDB_RDONLY ) ) {
            must( mdb_txn_begin( env, nullptr, MDB_RDONLY, &view ), "mdb_txn_begin" );
            must( mdb_dbi_open( view, nullptr, 0, &table ), "mdb_dbi_open" );
            must( mdb_txn_commit( view ), "mdb_txn_commit" );
            must( mdb_txn_begin( env, nullptr, MDB_RDONLY, &view ), "mdb_txn_begin" );
            mdb_txn_reset( view );
        }
        ~Reader() {
            mdb_txn_abort( view );
            mdb_env_close( env );
        }
        bool find( const Key& k, Value& v ) {
            MDB_val key = bytes( &k, sizeof k );
            MDB_val value;
            if ( mdb_get( view, table, &key, &value ) != 0 ) {
                return false;
            }
            memcpy( &v, value.mv_data, sizeof v );
            return true;
        }
        bool get( const Key& k, Value& v ) {
            mdb_txn_renew( view );
            const bool found = find( k, v );
            mdb_txn_reset( view );
            return found;
        }
        void get_many( const Key* k, Value* v, bool* found, unsigned n ) {
            mdb_txn_renew( view );
            for ( unsigned i = 0; i < n; ++i ) {
                found[ i ] = find( k[ i ], v[ i ] );
            }
            mdb_txn_reset( view );
        }
        template < class F >
        void scan( F&& f ) {
            mdb_txn_renew( view );
            MDB_cursor* at = nullptr;
            must( mdb_cursor_open( view, table, &at ), "mdb_cursor_open" );
            MDB_val key;
            MDB_val value;
            while ( mdb_cursor_get( at, &key, &value, MDB_NEXT ) == 0 ) {
                Key k;
                Value v;
                memcpy( &k, key.mv_data, sizeof k );
                memcpy( &v, value.mv_data, sizeof v );
                f( k, v );
            }
            mdb_cursor_close( at );
            mdb_txn_reset( view );
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
