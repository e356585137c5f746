// Userspace RCU's hash table in the flavour with the cheapest readers, two threads. An update puts
// a new node in the old one's place; old ones are used again after a grace period, many at a time.

#define _LGPL_SOURCE
#define URCU_INLINE_SMALL_FUNCTIONS
#include "bench.hpp"

#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

using namespace bench;

namespace {

struct Node {
    cds_lfht_node link;
    Key key;
    Value value;
};
cds_lfht* table;

Node* nodeOf( cds_lfht_node* link ) { return caa_container_of( link, Node, link ); }
int matches( cds_lfht_node* link, const void* key ) {
    return nodeOf( link )->key == *static_cast< const Key* >( key );
}

} // namespace

struct Peer {
    static constexpr const char* name = "urcu_lfht";
    static constexpr Scope scope = Scope::threads;
    static constexpr bool grows = true;

    struct Writer {
        static constexpr size_t batch = 4096; // nodes to a grace period
        std::vector< Node* > old;
        std::vector< Node* > spare;

        explicit Writer( const Config& c ) {
            urcu_qsbr_register_thread();
            const uint64_t buckets = std::bit_ceil( c.n ? c.n : 64 );
            table = cds_lfht_new( buckets, buckets, 0, c.n ? 0 : CDS_LFHT_AUTO_RESIZE, nullptr );
            if ( !table ) {
                die( "cds_lfht_new" );
            }
            old.reserve( batch );
            spare.reserve( batch );
        }
        ~Writer() { urcu_qsbr_unregister_thread(); }
        void begin() {}
        void commit() {}
        cds_lfht_node* made( const Key& k, const Value& v ) {
            Node* node = nullptr;
            if ( spare.empty() ) {
                node = static_cast< Node* >( malloc( sizeof( Node ) ) );
            } else {
                node = spare.back();
                spare.pop_back();
            }
            cds_lfht_node_init( &node->link );
            node->key = k;
            node->value = v;
            return &node->link;
        }
        void insert( const Key& k, const Value& v ) {
            cds_lfht_add( table, hash( k ), made( k, v ) );
            urcu_qsbr_quiescent_state();
        }
        void update( const Key& k, const Value& v ) {
            if ( cds_lfht_node* const replaced =
                     cds_lfht_add_replace( table, hash( k ), matches, &k, made( k, v ) ) ) {
                old.push_back( nodeOf( replaced ) );
            }
            urcu_qsbr_quiescent_state();
            if ( old.size() == batch ) {
                urcu_qsbr_synchronize_rcu();
                spare.insert( spare.end(), old.begin(), old.end() );
                old.clear();
            }
        }
    };
    // Online for 64 lookups at a time, so that the writer does not wait for a reader that does
    // something else.
    struct Reader {
        static constexpr bool native_changes = false;
        unsigned looked = 0;
        explicit Reader( const Config& ) {
            urcu_qsbr_register_thread();
            urcu_qsbr_thread_offline();
        }
        ~Reader() { urcu_qsbr_unregister_thread(); }
        static bool find( const Key& k, Value& v ) {
            cds_lfht_iter at;
            cds_lfht_lookup( table, hash( k ), matches, &k, &at );
            cds_lfht_node* const link = cds_lfht_iter_get_node( &at );
            if ( link ) {
                v = nodeOf( link )->value;
            }
            return link != nullptr;
        }
        bool get( const Key& k, Value& v ) {
            if ( looked++ == 0 ) {
                urcu_qsbr_thread_online();
            }
            const bool found = find( k, v );
            if ( looked == 64 ) {
                rest();
            }
            return found;
        }
        void rest() {
            if ( looked != 0 ) {
                urcu_qsbr_thread_offline();
                looked = 0;
            }
        }
        template < class F >
        void scan( F&& f ) {
            rest();
            urcu_qsbr_thread_online();
            cds_lfht_iter at;
            for ( cds_lfht_first( table, &at ); cds_lfht_iter_get_node( &at );
                  cds_lfht_next( table, &at ) ) {
                const Node* const node = nodeOf( cds_lfht_iter_get_node( &at ) );
                f( node->key, node->value );
            }
            urcu_qsbr_thread_offline();
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
