// std::unordered_map behind a std::shared_mutex, two threads: what is written first within a
// process.

#include "bench.hpp"

#include <mutex>
#include <shared_mutex>
#include <unordered_map>

using namespace bench;

namespace {

using Map = std::unordered_map< Key, Value, Hash >;
std::unique_ptr< Map > map;
std::shared_mutex mutex;

} // namespace

struct Peer {
    static constexpr const char* name = "std_rwlock";
    static constexpr Scope scope = Scope::threads;
    static constexpr bool grows = true;

    struct Writer {
        explicit Writer( const Config& c ) {
            map = std::make_unique< Map >();
            map->reserve( c.n );
        }
        ~Writer() { map.reset(); }
        void begin() { mutex.lock(); }
        void commit() { mutex.unlock(); }
        void insert( const Key& k, const Value& v ) { map->emplace( k, v ); }
        void update( const Key& k, const Value& v ) { map->find( k )->second = v; }
    };
    struct Reader {
        static constexpr bool native_changes = false;
        explicit Reader( const Config& ) {}
        static bool find( const Key& k, Value& v ) {
            const auto at = map->find( k );
            if ( at == map->end() ) {
                return false;
            }
            v = at->second;
            return true;
        }
        bool get( const Key& k, Value& v ) {
            const std::shared_lock lock( mutex );
            return find( k, v );
        }
        void get_many( const Key* k, Value* v, bool* found, unsigned n ) {
            const std::shared_lock lock( mutex );
            for ( unsigned i = 0; i < n; ++i ) {
                found[ i ] = find( k[ i ], v[ i ] );
            }
        }
        template < class F >
        void scan( F&& f ) {
            const std::shared_lock lock( mutex );
            for ( const auto& [ k, v ] : *map ) {
                f( k, v );
            }
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
