// Boost.Interprocess: an unordered map in a mapped file, under an upgradable mutex that stands
// there too, two processes.

#include "bench.hpp"

#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_mapped_file.hpp>
#include <boost/interprocess/sync/interprocess_upgradable_mutex.hpp>
#include <boost/unordered_map.hpp>

using namespace bench;
namespace ipc = boost::interprocess;

namespace {

using Segment = ipc::managed_mapped_file;
using Allocator = ipc::allocator< std::pair< const Key, Value >, Segment::segment_manager >;
using Map = boost::unordered_map< Key, Value, Hash, std::equal_to< Key >, Allocator >;
using Mutex = ipc::interprocess_upgradable_mutex;

std::string fileOf( const Config& c ) { return c.dir + "/boost"; }

} // namespace

struct Peer {
    static constexpr const char* name = "boost_ipc";
    static constexpr Scope scope = Scope::processes;

    struct Writer {
        Segment segment;
        Mutex* mutex;
        Map* map;
        explicit Writer( const Config& c )
            : segment( ipc::create_only,
                       fileOf( c ).c_str(),
                       c.n * ( 184 + sizeof( Key ) ) + ( 1 << 20 ) ),
              mutex( segment.construct< Mutex >( "mutex" )() ),
              map( segment.construct< Map >( "map" )(
                  c.n,
                  Hash(),
                  std::equal_to< Key >(),
                  Allocator( segment.get_segment_manager() ) ) ) {}
        void begin() { mutex->lock(); }
        void commit() { mutex->unlock(); }
        void insert( const Key& k, const Value& v ) { map->emplace( k, v ); }
        void update( const Key& k, const Value& v ) { map->find( k )->second = v; }
        size_t memory() { return segment.get_size() - segment.get_free_memory(); }
    };
    struct Reader {
        static constexpr bool native_changes = false;
        Segment segment;
        Mutex* mutex;
        Map* map;
        explicit Reader( const Config& c )
            : segment( ipc::open_only, fileOf( c ).c_str() ),
              mutex( segment.find< Mutex >( "mutex" ).first ),
              map( segment.find< Map >( "map" ).first ) {}
        bool find( const Key& k, Value& v ) {
            const auto at = map->find( k );
            if ( at == map->end() ) {
                return false;
            }
            v = at->second;
            return true;
        }
        bool get( const Key& k, Value& v ) {
            mutex->lock_sharable();
            const bool found = find( k, v );
            mutex->unlock_sharable();
            return found;
        }
        void get_many( const Key* k, Value* v, bool* found, unsigned n ) {
            mutex->lock_sharable();
            for ( unsigned i = 0; i < n; ++i ) {
                found[ i ] = find( k[ i ], v[ i ] );
            }
            mutex->unlock_sharable();
        }
        template < class F >
        void scan( F&& f ) {
            mutex->lock_sharable();
            for ( const auto& [ k, v ] : *map ) {
                f( k, v );
            }
            mutex->unlock_sharable();
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
