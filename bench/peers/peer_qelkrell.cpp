// This library: an entity with one collection, its writer in one process and a reader in another,
// through the typed interface. Change queue, lookaside record and recovery are always on.
//
// QELKRELL_GROW set: the collection starts small and grows by itself.

#include "bench.hpp"

#include <Qel/System>
#include <QelKrell/Collection>

#include <bit>

using namespace bench;

namespace Peers {

using EntryKey = std::array< Qel::U64, sizeof( Key ) / 8 >;

struct Entry {
    EntryKey key {};
    std::array< Qel::U64, 6 > value {};
};
constexpr auto describe( const Entry* ) {
    return Qel::valueType< Entry >( "Peers::Entry", Qel::attribute( "key", &Entry::key ),
                                    Qel::attribute( "value", &Entry::value ) );
}

class Store : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Entry::key > entry;
};
constexpr auto describe( const Store* ) {
    return Qel::entityType< Store >( "Peers::Store",
                                     QelKrell::collection( "entry", &Store::entry ) );
}

const Qel::Unit< Entry, Store > unit( "peers" );

} // namespace Peers

namespace {

using Peers::Entry;
using Peers::EntryKey;
using Store = Qel::Ptr< Peers::Store >;

static_assert( sizeof( Key ) == sizeof( EntryKey ) && sizeof( Value ) == sizeof( Entry::value ) );

Store open( const Config& config, QelKrell::QelKrellType role, uint64_t size ) {
    setenv( "KRELL_ROOT", config.dir.c_str(), 1 );
    Store store = Qel::newEntity< Peers::Store >( "store" );
    store->entry.control().init( role, false, unsigned( size ) );
    return store;
}

void toValue( const Entry& entry, Value& value ) {
    memcpy( &value, entry.value.data(), sizeof value );
}

} // namespace

struct Peer {
    static constexpr const char* name = "qelkrell";
    static constexpr Scope scope = Scope::processes;
    static constexpr bool grows = true;

    struct Writer {
        Store store;
        std::string dir;
        unsigned quiet = 0; // changes since the last look at the event loop

        explicit Writer( const Config& config )
            : store( open( config, QelKrell::writer, getenv( "QELKRELL_GROW" ) ? 0 : config.n ) ),
              dir( config.dir ) {}
        // Between begin and commit a reader may see none, some or all of the changes; so those that
        // follow the first are put together, and handed over by and by.
        std::vector< Entry > more;
        bool isFirst = true;
        void begin() { isFirst = true; }
        void commit() {
            if ( !more.empty() ) {
                store->entry.isMany( more );
                more.clear();
            }
        }
        void insert( const Key& k, const Value& v ) {
            Entry entry;
            entry.key = std::bit_cast< EntryKey >( k );
            memcpy( entry.value.data(), &v, sizeof v );
            if ( isFirst ) {
                isFirst = false;
                store->entry.is( entry );
                return;
            }
            more.push_back( entry );
            if ( more.size() == 64 ) {
                commit();
            }
        }
        void update( const Key& k, const Value& v ) { insert( k, v ); }
        // Readers that call are let in by the writer's event loop, which a process turns now and
        // then.
        void update_notify( const Key& k, const Value& v ) {
            if ( ++quiet % 4096 == 0 || store->entry.core().doorbell()->connections() == 0 ) {
                Qel::System::runOnce( 0 );
            }
            insert( k, v );
        }
        size_t memory() { return dir_bytes( dir ); }
    };

    struct Reader {
        static constexpr bool native_changes = true;
        Store store;
        std::function< void( const Key&, const Value& ) > changed;
        Qel::Ptr< Qel::Counted > watch;

        explicit Reader( const Config& config ) : store( open( config, QelKrell::reader, 0 ) ) {}
        bool get( const Key& k, Value& v ) {
            Entry entry;
            if ( !store->entry.find( std::bit_cast< EntryKey >( k ), entry ) ) {
                return false;
            }
            toValue( entry, v );
            return true;
        }
        void get_many( const Key* keys, Value* values, bool* found, unsigned n ) {
            const auto* first = reinterpret_cast< const EntryKey* >( keys );
            unsigned i = 0;
            store->entry.findMany( std::span( first, n ), [ & ]( const EntryKey&, const Entry* e ) {
                found[ i ] = e != nullptr;
                if ( e ) {
                    toValue( *e, values[ i ] );
                }
                ++i;
            } );
        }
        template < class F >
        void scan( F&& f ) {
            Value v;
            for ( const Entry& e : store->entry ) {
                toValue( e, v );
                f( std::bit_cast< Key >( e.key ), v );
            }
        }
        void subscribe() {
            if ( !watch ) {
                watch = store->entry.onEntry( [ this ]( const EntryKey& key ) {
                    Entry entry;
                    if ( changed && store->entry.find( key, entry ) ) {
                        Value v;
                        toValue( entry, v );
                        changed( std::bit_cast< Key >( key ), v );
                    }
                } );
            }
            for ( int turns = 0; turns < 1000; ++turns ) { // what stands there, and the call
                Qel::System::runOnce( 0 );
            }
        }
        template < class F >
        void wait_changes( F&& f, int ms ) {
            changed = std::forward< F >( f );
            Qel::System::runOnce( ms / 1e3 );
            changed = nullptr;
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
