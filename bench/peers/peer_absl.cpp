// absl::flat_hash_map, which knows no second thread: the base line, what a lookup in one process
// costs.

#include "bench.hpp"

#include <absl/container/flat_hash_map.h>

using namespace bench;

namespace {

using Map = absl::flat_hash_map< Key, Value, Hash >;
std::unique_ptr< Map > map;

} // namespace

struct Peer {
    static constexpr const char* name = "absl_flat";
    static constexpr Scope scope = Scope::single;
    static constexpr bool grows = true;

    struct Writer {
        explicit Writer( const Config& c ) {
            map = std::make_unique< Map >();
            map->reserve( c.n );
        }
        ~Writer() { map.reset(); }
        void begin() {}
        void commit() {}
        void insert( const Key& k, const Value& v ) { map->emplace( k, v ); }
        void update( const Key& k, const Value& v ) { map->find( k )->second = v; }
    };
    struct Reader {
        static constexpr bool native_changes = false;
        explicit Reader( const Config& ) {}
        bool get( const Key& k, Value& v ) {
            const auto at = map->find( k );
            if ( at == map->end() ) {
                return false;
            }
            v = at->second;
            return true;
        }
        template < class F >
        void scan( F&& f ) {
            for ( const auto& [ k, v ] : *map ) {
                f( k, v );
            }
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
