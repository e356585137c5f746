// Concurrency Kit's hash table of byte strings, for one writer and many readers, two threads.
// Records are changed where they stand, each under a sequence lock.

#include "bench.hpp"

#include "Records.h"

extern "C" {
#include <ck_ht.h>
}

using namespace bench;

namespace {

ck_ht_t table;
std::unique_ptr< Records > records;

void hashOf( ck_ht_hash_t* h, const void* key, size_t, uint64_t ) {
    h->value = hash( *static_cast< const Key* >( key ) );
}
void* allocate( size_t size ) { return malloc( size ); }
void release( void* p, size_t, bool ) { free( p ); }
ck_malloc memory { allocate, nullptr, release };

Record* recordOf( const Key& k ) {
    ck_ht_entry_t entry;
    ck_ht_hash_t h;
    ck_ht_hash( &h, &table, &k, sizeof k );
    ck_ht_entry_key_set( &entry, &k, sizeof k );
    return ck_ht_get_spmc( &table, h, &entry )
               ? static_cast< Record* >( ck_ht_entry_value( &entry ) )
               : nullptr;
}

} // namespace

struct Peer {
    static constexpr const char* name = "ck_ht";
    static constexpr Scope scope = Scope::threads;
    static constexpr bool grows = true;

    struct Writer {
        explicit Writer( const Config& c ) {
            records = std::make_unique< Records >( c.n );
            if ( !ck_ht_init( &table, CK_HT_MODE_BYTESTRING, hashOf, &memory, c.n ? c.n * 2 : 64,
                              1 ) ) {
                die( "ck_ht_init" );
            }
        }
        ~Writer() {
            ck_ht_destroy( &table );
            records.reset();
        }
        void begin() {}
        void commit() {}
        void insert( const Key& k, const Value& v ) {
            Record& record = records->add( k, v );
            ck_ht_entry_t entry;
            ck_ht_hash_t h;
            ck_ht_hash( &h, &table, &record.key, sizeof k );
            ck_ht_entry_set( &entry, h, &record.key, sizeof k, &record );
            if ( !ck_ht_put_spmc( &table, h, &entry ) ) {
                die( "ck_ht_put" );
            }
        }
        void update( const Key& k, const Value& v ) { recordOf( k )->value.store( v ); }
    };
    struct Reader {
        static constexpr bool native_changes = false;
        explicit Reader( const Config& ) {}
        bool get( const Key& k, Value& v ) {
            const Record* const record = recordOf( k );
            if ( record ) {
                record->value.load( v );
            }
            return record != nullptr;
        }
        template < class F >
        void scan( F&& f ) {
            ck_ht_iterator_t at = CK_HT_ITERATOR_INITIALIZER;
            Value v;
            for ( ck_ht_entry_t* entry = nullptr; ck_ht_next( &table, &at, &entry ); ) {
                const Record& record = *static_cast< Record* >( ck_ht_entry_value( entry ) );
                record.value.load( v );
                f( record.key, v );
            }
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
