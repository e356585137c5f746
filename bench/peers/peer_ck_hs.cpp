// Concurrency Kit's hash set for one writer and many readers, two threads. Records are changed
// where they stand, each under a sequence lock.

#include "bench.hpp"

#include "Records.h"

extern "C" {
#include <ck_hs.h>
}

using namespace bench;

namespace {

ck_hs_t set;
std::unique_ptr< Records > records;

unsigned long hashOf( const void* key, unsigned long ) {
    return hash( *static_cast< const Key* >( key ) );
}
bool same( const void* a, const void* b ) {
    return *static_cast< const Key* >( a ) == *static_cast< const Key* >( b );
}
void* allocate( size_t size ) { return malloc( size ); }
void release( void* p, size_t, bool ) { free( p ); }
ck_malloc memory { allocate, nullptr, release };

Record* recordOf( const Key& k ) {
    return static_cast< Record* >( ck_hs_get( &set, hash( k ), &k ) );
}

} // namespace

struct Peer {
    static constexpr const char* name = "ck_hs";
    static constexpr Scope scope = Scope::threads;
    static constexpr bool grows = true;

    struct Writer {
        explicit Writer( const Config& c ) {
            records = std::make_unique< Records >( c.n );
            if ( !ck_hs_init( &set, CK_HS_MODE_SPMC | CK_HS_MODE_OBJECT, hashOf, same, &memory,
                              c.n ? c.n * 2 : 64, 1 ) ) {
                die( "ck_hs_init" );
            }
        }
        ~Writer() {
            ck_hs_destroy( &set );
            records.reset();
        }
        void begin() {}
        void commit() {}
        void insert( const Key& k, const Value& v ) {
            Record& record = records->add( k, v );
            if ( !ck_hs_put( &set, hash( k ), &record ) ) {
                die( "ck_hs_put" );
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
            ck_hs_iterator_t at = CK_HS_ITERATOR_INITIALIZER;
            Value v;
            for ( void* found = nullptr; ck_hs_next_spmc( &set, &at, &found ); ) {
                const Record& record = *static_cast< Record* >( found );
                record.value.load( v );
                f( record.key, v );
            }
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
