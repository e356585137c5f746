// The hash map of counted nodes, against std::map, and its iterators under change.

#include <gmock/gmock.h>

#include <map>
#include <random>
#include <set>

#include <Qel/HashMap>

namespace {

class Node : public Qel::HashMapNode< Node > {
public:
    Node( Qel::String key, int value, int* deaths = nullptr )
        : key_( std::move( key ) ), value( value ), deaths_( deaths ) {}
    ~Node() override {
        if ( deaths_ ) {
            ++*deaths_;
        }
    }
    const Qel::String& key() const { return key_; }

private:
    Qel::String key_;

public:
    int value;

private:
    int* deaths_;
};

using Map = Qel::HashMap< Node >;
using Keys = std::multiset< std::string >;

Qel::String keyOf( unsigned i ) { return "key" + Qel::decimal( i ); }

Keys keysOf( const Map& map ) {
    Keys keys;
    for ( const Node& node : map ) {
        keys.insert( node.key().stdString() );
    }
    return keys;
}

unsigned seed() {
    static const unsigned value = std::random_device()();
    testing::Test::RecordProperty( "seed", std::to_string( value ) );
    std::cout << "seed " << value << "\n";
    return value;
}

TEST( HashMap, EmptyMapHasNothing ) {
    Map map;
    EXPECT_TRUE( map.empty() );
    EXPECT_EQ( nullptr, map.find( "a" ) );
    EXPECT_EQ( nullptr, map.remove( "a" ) );
    EXPECT_EQ( nullptr, map.first() );
    EXPECT_TRUE( keysOf( map ).empty() );
    Map::Iterator it;
    EXPECT_FALSE( it.next() );
}

TEST( HashMap, AgreesWithAModelThroughGrowth ) {
    std::mt19937 random( seed() );
    Map map;
    std::map< std::string, int > model;
    for ( int step = 0; step < 50000; ++step ) {
        const Qel::String key = keyOf( unsigned( random() % 3000 ) );
        if ( random() % 3 ) {
            if ( const Qel::Ptr< Node > node = map.find( key ) ) {
                ASSERT_EQ( model.at( key.stdString() ), node->value );
                node->value = step;
            } else {
                map.insert( new Node( key, step ) );
            }
            model[ key.stdString() ] = step;
        } else {
            const Qel::Ptr< Node > node = map.remove( key );
            ASSERT_EQ( model.count( key.stdString() ), node ? 1U : 0U );
            ASSERT_TRUE( !node || !node->linked() );
            model.erase( key.stdString() );
        }
        ASSERT_EQ( model.size(), map.size() );
    }
    EXPECT_GE( map.bucketCount(), 1024U );
    std::map< std::string, int > seen;
    for ( const Node& node : map ) {
        ASSERT_TRUE( seen.emplace( node.key().stdString(), node.value ).second );
    }
    EXPECT_EQ( model, seen );
}

TEST( HashMap, IterationVisitsEachNodeThatStaysExactlyOnce ) {
    std::mt19937 random( seed() );
    int removals = 0;
    int growths = 0;
    for ( int round = 0; round < 300; ++round ) {
        Map map;
        std::set< std::string > staying;
        for ( unsigned i = 0; i < 1 + random() % 60; ++i ) {
            if ( !map.find( keyOf( i ) ) ) {
                map.insert( new Node( keyOf( i ), 0 ) );
                staying.insert( keyOf( i ).stdString() );
            }
        }
        const std::size_t buckets = map.bucketCount();
        Keys visited;
        for ( Map::Iterator it( map ); it.next(); ) {
            visited.insert( it->key().stdString() );
            for ( unsigned change = random() % 4; change > 0; --change ) {
                const Qel::String key = keyOf( unsigned( random() % 120 ) );
                if ( const Qel::Ptr< Node > gone = map.remove( key ) ) {
                    staying.erase( key.stdString() );
                    ++removals;
                } else if ( visited.size() < 200 ) {
                    map.insert( new Node( key, 1 ) );
                }
            }
            if ( random() % 3 == 0 ) { // the one that the iterator stands on
                staying.erase( it->key().stdString() );
                map.remove( it->key() );
            }
        }
        for ( const std::string& key : staying ) {
            ASSERT_EQ( 1U, visited.count( key ) ) << key << " in round " << round;
        }
        growths += map.bucketCount() > buckets;
    }
    EXPECT_GT( removals, 300 );
    EXPECT_GT( growths, 30 );
}

TEST( HashMap, OrderDoesNotDependOnTheTableSize ) {
    Map map;
    std::vector< std::string > before;
    for ( unsigned i = 0; i < 50; ++i ) {
        map.insert( new Node( keyOf( i ), 0 ) );
    }
    for ( const Node& node : map ) {
        before.push_back( node.key().stdString() );
    }
    for ( unsigned i = 50; i < 5000; ++i ) {
        map.insert( new Node( keyOf( i ), 0 ) );
    }
    std::vector< std::string > after;
    for ( const Node& node : map ) {
        if ( std::find( before.begin(), before.end(), node.key().stdString() ) != before.end() ) {
            after.push_back( node.key().stdString() );
        }
    }
    EXPECT_EQ( before, after );
}

TEST( HashMap, ReplacedNodeIsNotVisitedAgain ) {
    Map map;
    map.insert( new Node( "only", 1 ) );
    Map::Iterator it( map );
    ASSERT_TRUE( it.next() );
    map.remove( "only" );
    map.insert( new Node( "only", 2 ) );
    EXPECT_FALSE( it.next() );
    EXPECT_EQ( 2, map.find( "only" )->value );
}

TEST( HashMap, ClearingEndsIteratorsAndReleasesNodes ) {
    int deaths = 0;
    Map map;
    for ( unsigned i = 0; i < 100; ++i ) {
        map.insert( new Node( keyOf( i ), 0, &deaths ) );
    }
    Map::Iterator it( map );
    ASSERT_TRUE( it.next() );
    map.clear();
    EXPECT_EQ( 99, deaths );
    EXPECT_FALSE( it->linked() );
    EXPECT_FALSE( it.next() );
    EXPECT_EQ( 100, deaths );
    EXPECT_TRUE( map.empty() );
    map.insert( new Node( "again", 0 ) );
    EXPECT_EQ( ( Keys { "again" } ), keysOf( map ) );
}

TEST( HashMap, NodesMayUseTheMapWhileItIsCleared ) {
    struct Busy : Qel::HashMapNode< Busy > {
        Busy( Qel::String k, Qel::HashMap< Busy >& m, bool r )
            : name( k ), map( m ), refills( r ) {}
        ~Busy() override {
            EXPECT_EQ( nullptr, map.remove( name ) );
            if ( refills ) {
                map.insert( new Busy( name, map, false ) );
            }
        }
        const Qel::String& key() const { return name; }
        Qel::String name;
        Qel::HashMap< Busy >& map;
        bool refills;
    };
    Qel::HashMap< Busy > map;
    for ( unsigned i = 0; i < 40; ++i ) {
        map.insert( new Busy( keyOf( i ), map, true ) );
    }
    map.clear();
    EXPECT_EQ( 40U, map.size() );
    map.clear();
    EXPECT_TRUE( map.empty() );
}

TEST( HashMapDeathTest, PresentKeyIsNotInsertedAgain ) {
    Map map;
    map.insert( new Node( "a", 1 ) );
    EXPECT_EXIT(
        map.insert( new Node( "a", 2 ) ), testing::KilledBySignal( SIGABRT ),
        testing::Eq(
            "libs/Qel/include/Qel/HashMap:41: insert: Assertion `the key is not in the map' "
            "failed.\n" ) );
}

} // namespace
