// No table: what the harness itself costs, its draws, keys and loops.

#include "bench.hpp"

using namespace bench;

struct Peer {
    static constexpr const char* name = "null";
    static constexpr Scope scope = Scope::single;
    static constexpr bool unchecked = true;

    static void keep( const void* p ) { asm volatile( "" : : "r"( p ) : "memory" ); }

    struct Writer {
        Value last {};
        explicit Writer( const Config& ) {}
        void begin() {}
        void commit() {}
        void insert( const Key&, const Value& v ) {
            last = v;
            keep( &last );
        }
        void update( const Key& k, const Value& v ) { insert( k, v ); }
    };
    struct Reader {
        static constexpr bool native_changes = false;
        uint64_t n;
        Value value {};
        explicit Reader( const Config& c ) : n( c.n ) {}
        [[gnu::always_inline]] bool get( const Key& k, Value& v ) {
            keep( &k );
            v = value;
            return true;
        }
        template < class F >
        void scan( F&& f ) {
            const Key k {};
            for ( uint64_t i = 0; i < n; ++i ) {
                f( k, value );
            }
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
