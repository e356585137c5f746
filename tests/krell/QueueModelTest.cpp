// What followers are told, against a model: random and exhaustive histories of one collection, with
// growth, takeovers, reconciling and new incarnations.

#include <filesystem>
#include <optional>

#include <gtest/gtest.h>

#include "krell/EngineSupport.h"

using namespace KrellTest;
using QelKrell::QelKrellType;

namespace {

using Key = std::array< U64, 2 >;
using Value = std::array< U64, 2 >;
using Contents = std::map< Key, Value >;

// A follower, and all that it can conclude from what it was told.
class Listener : public TestCollection {
public:
    Listener( const Krell::Layout& layout, QelKrellType role )
        : TestCollection( layout ), role( role ) {
        init( role, false, 0 );
    }

    // One round of at most that time; whether it came to its end.
    bool round( double yieldTime ) {
        yieldTimeIs( yieldTime );
        poll();
        return takeIn();
    }
    void roundsToTheEnd() {
        for ( unsigned i = 0; i < 10000 && !round( 1000 ); ++i ) {
        }
    }
    const QelKrellType role;
    unsigned attachmentsChecked = 0;
    std::map< Key, U64 > toldAt;     // that it is there; the sequence then
    Contents mirror;                 // by what was told, and reading that alone
    std::map< Key, unsigned > times; // told, since they were forgotten
    Contents view() {
        Contents contents;
        const Krell::ShadowTable& copy = *shadow();
        const U64* key;
        const U64* value;
        for ( U32 index = 0; index < copy.capacityUsed(); ++index ) {
            if ( copy.entryAt( index, key, value ) ) {
                contents[ { key[ 0 ], key[ 1 ] } ] =
                    copy.valueWords() ? Value { value[ 0 ], value[ 1 ] } : Value {};
            }
        }
        return contents;
    }

private:
    bool takeIn() {
        for ( const Change& change : changes ) {
            const Key key = { change.key[ 0 ], change.key[ 1 ] };
            ++times[ key ];
            Value value {};
            const bool present = table().find< 2, 2 >( key.data(), value.data() );
            if ( change.present ) {
                EXPECT_TRUE( present ) << "nothing changed since";
                mirror[ key ] = value;
                toldAt[ key ] = sequence();
            } else { // a copy may not have met the key's new slot yet
                EXPECT_FALSE( present && role == QelKrell::reader );
                mirror.erase( key );
            }
        }
        changes.clear();
        const U32 yields = readerCounters().conquerYields;
        const bool ended = std::exchange( yields_, yields ) == yields;
        EXPECT_EQ( failures, std::vector< std::string >() );
        return ended;
    }

    U32 yields_ = 0;
};

struct Shape {
    U32 slots; // at the beginning
    U64 keys;  // to choose from
    bool colliding;
    bool grows; // by reserve and resize
};

class History {
public:
    History( const Shape& shape, U64 seed, const Krell::Layout& layout )
        : shape_( shape ), random_( seed ), layout_( layout ) {
        open( shape.slots );
        for ( const QelKrellType role :
              { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
            listeners_.push_back( std::make_unique< Listener >( layout, role ) );
            listeners_.push_back( std::make_unique< Listener >( layout, role ) );
        }
    }

    void run( unsigned steps ) {
        for ( unsigned i = 0; i < steps && !testing::Test::HasFailure(); ++i ) {
            step();
            // One of each depth is eager, the other drains seldom.
            for ( unsigned n = 0; n < listeners_.size(); ++n ) {
                if ( random_() % ( n % 2 ? 60 : 4 ) == 0 ) {
                    round( *listeners_[ n ] );
                }
            }
        }
        for ( auto& listener : listeners_ ) {
            drain( *listener );
        }
    }

    struct Met {
        U64 restarts = 0, resizes = 0, yields = 0, tombed = 0, mismatches = 0, attachments = 0;
    };
    Met met() {
        Met met;
        for ( auto& listener : listeners_ ) {
            const QelKrell::ReaderCounters counters = listener->readerCounters();
            met.restarts += counters.conquerRestarts;
            met.resizes += counters.conquerResizes;
            met.yields += counters.conquerYields;
            met.tombed += counters.conquerTombed;
            met.mismatches += counters.keyShadowMismatch;
            met.attachments += listener->attachments;
        }
        return met;
    }

private:
    Key keyOf( U64 n ) const { return shape_.colliding ? collidingKey( n ) : Key { n, n }; }

    void open( U32 slots ) {
        writer_ = std::make_unique< TestCollection >( layout_ );
        writer_->asWriter( slots );
    }
    void put( const Key& key, const Value& value ) {
        if ( writer_->writer().put< 2, 2 >( key.data(), value.data() ) !=
             Krell::PutResult::unchanged ) {
            changed( key );
        }
        model_[ key ] = value;
    }
    void changed( const Key& key ) {
        for ( auto& changes : changesSince_ ) {
            ++changes[ key ];
        }
    }

    void step() {
        const U64 choice = random_() % 1000;
        const Key key = keyOf( random_() % 3 ? random_() % shape_.keys
                                             : random_() % std::min< U64 >( 3, shape_.keys ) );
        if ( choice < 600 ) {
            put( key, { random_() % 4, random_() % 4 } );
        } else if ( choice < 960 ) {
            if ( writer_->writer().del< 2 >( key.data() ) ) {
                changed( key );
            }
            model_.erase( key );
        } else if ( choice < 970 && shape_.grows && writer_->capacity() < 2000 ) {
            random_() % 2 ? void( writer_->resize() )
                          : writer_->writer().reserve( writer_->capacity() + 40 );
        } else if ( choice < 980 ) {
            writer_.reset();
            open( 0 );
        } else if ( choice < 990 ) {
            reconcile();
        } else if ( choice < 993 ) {
            replace();
        } else if ( choice < 995 ) {
            forgetful();
        }
    }
    // A writer that starts again writes what still holds.
    void reconcile() {
        writer_.reset();
        open( 0 );
        writer_->writer().mark();
        Contents still;
        for ( const auto& [ key, value ] : model_ ) {
            const U64 fate = random_() % 4;
            if ( fate != 0 ) {
                still[ key ] = fate == 1 ? Value { random_() % 4, 9 } : value;
            }
        }
        const Contents before = std::move( model_ );
        for ( const auto& [ key, value ] : still ) {
            put( key, value );
        }
        writer_->writer().sweep< 2 >( [ & ]( const U64* key ) {
            EXPECT_TRUE( before.count( { key[ 0 ], key[ 1 ] } ) );
            changed( { key[ 0 ], key[ 1 ] } );
        } );
        model_ = std::move( still );
    }
    // Another incarnation, by the marker for unusable contents or by taking the collection away.
    void replace() {
        const std::string place = writer_->rootPath();
        if ( random_() % 2 ) {
            writer_.reset();
            bytesInto( place + "/corruption-detected", "" );
        } else {
            writer_->cleanup();
            if ( random_() % 2 ) {
                round( *listeners_[ random_() % listeners_.size() ], false );
            }
        }
        const Contents before = std::move( model_ );
        model_.clear();
        open( shape_.slots );
        for ( auto& since : changesSince_ ) {
            for ( const auto& [ key, value ] : before ) {
                ++since[ key ];
            }
        }
        ++incarnations_;
        for ( const auto& [ key, value ] : before ) {
            if ( random_() % 3 ) {
                put( key, random_() % 2 ? value : Value { 7, 7 } );
            }
        }
    }
    // A follower that begins anew.
    void forgetful() {
        const std::size_t n = std::size_t( random_() % listeners_.size() );
        const QelKrellType role = listeners_[ n ]->role;
        listeners_[ n ] = std::make_unique< Listener >( layout_, role );
        since( n ).clear();
    }

    std::map< Key, unsigned >& since( std::size_t n ) { return changesSince_[ n ]; }

    void round( Listener& listener, bool present = true ) {
        const double times[] = { 0, 0, 1e-9, 1000 };
        const bool ended = listener.round( times[ random_() % 4 ] );
        if ( ended && present ) {
            // What a round that follows a disturbed drain finds, ends with the present state.
            drain( listener );
        } else if ( !ended && listener.shadow() && listener.role == QelKrell::shadow ) {
            EXPECT_GT( listener.readerCounters().conquerYields, 0U );
        }
    }
    std::size_t indexOf( const Listener& listener ) const {
        std::size_t n = 0;
        while ( listeners_[ n ].get() != &listener ) {
            ++n;
        }
        return n;
    }
    void drain( Listener& listener ) {
        std::map< Key, unsigned >& changes = since( indexOf( listener ) );
        listener
            .roundsToTheEnd(); // of a drain during which there were changes: told early, and again
        for ( const auto& [ key, times ] : listener.times ) {
            ASSERT_LE( times, 2 * changes[ key ] + 1 ) << "key " << key[ 0 ];
        }
        listener.times.clear();
        listener.roundsToTheEnd();
        for ( const auto& [ key, times ] : listener.times ) {
            ASSERT_EQ( times, 1U ) << "key " << key[ 0 ];
        }
        check( listener );
        listener.times.clear();
        changes.clear();
        listener.roundsToTheEnd();
        ASSERT_TRUE( listener.times.empty() );
    }
    void check( Listener& listener ) {
        SCOPED_TRACE( "role " + std::to_string( int( listener.role ) ) );
        if ( listener.role == QelKrell::reader ) {
            // Keys whose slots were used again may linger.
            for ( const auto& [ key, value ] : model_ ) {
                const auto told = listener.mirror.find( key );
                ASSERT_NE( told, listener.mirror.end() ) << "key " << key[ 0 ];
                ASSERT_EQ( told->second, value ) << "key " << key[ 0 ];
            }
            checkLingering( listener );
        } else {
            ASSERT_EQ( listener.mirror, model_ );
            checkView( listener );
        }
    }
    // A key that a reader was not told to be gone stood in a slot that holds another one now, in
    // this incarnation or in the one before it.
    void checkLingering( Listener& listener ) {
        const bool here = std::exchange( listener.attachmentsChecked, listener.attachments ) ==
                          listener.attachments;
        for ( auto at = listener.mirror.begin(); at != listener.mirror.end(); ) {
            if ( model_.count( at->first ) ) {
                ++at;
                continue;
            }
            for ( U32 slot = 0; slot < listener.table().slotCount(); ++slot ) {
                Key key {};
                const Krell::SlotVersion version = listener.table().look( slot, key.data() );
                ASSERT_FALSE( here && version.state() == Krell::SlotVersion::dead &&
                              key == at->first && version.sequence() > listener.toldAt[ key ] )
                    << "key " << key[ 0 ] << " in slot " << slot;
            }
            at = listener.mirror.erase( at );
        }
    }
    void checkView( Listener& listener ) {
        const Contents view = listener.view();
        if ( listener.role == QelKrell::shadow ) {
            ASSERT_EQ( view, model_ );
            ASSERT_NE( listener.Control::view(), nullptr );
        } else {
            ASSERT_EQ( view.size(), model_.size() );
            for ( const auto& [ key, value ] : model_ ) {
                ASSERT_TRUE( view.count( key ) );
            }
            ASSERT_EQ( listener.Control::view(), nullptr );
        }
    }

    const Shape shape_;
    std::mt19937_64 random_;
    const Krell::Layout layout_;
    std::unique_ptr< TestCollection > writer_;
    std::vector< std::unique_ptr< Listener > > listeners_;
    Contents model_;
    std::array< std::map< Key, unsigned >, 6 > changesSince_; // by listener
    unsigned incarnations_ = 0;
};

class QueueModelTest : public testing::TestWithParam< Shape > {};

TEST_P( QueueModelTest, FollowersEndWithWhatTheWriterHas ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    History::Met sum;
    for ( unsigned i = 0; i < 4 && !HasFailure(); ++i ) {
        TestRoot root;
        History history( GetParam(), seed + i, layoutOf( 2, 2 ) );
        history.run( 1500 );
        const History::Met met = history.met();
        sum.restarts += met.restarts;
        sum.resizes += met.resizes;
        sum.yields += met.yields;
        sum.tombed += met.tombed;
        sum.attachments += met.attachments;
    }
    EXPECT_GT( sum.restarts, 24U );
    EXPECT_GT( sum.resizes, 0U );
    EXPECT_TRUE( sum.yields > 0 || GetParam().keys < 20 );
    EXPECT_GT( sum.tombed, 0U );
    EXPECT_GT( sum.attachments, 24U );
}

INSTANTIATE_TEST_SUITE_P( Shapes,
                          QueueModelTest,
                          testing::Values( Shape { 1, 1, false, false },
                                           Shape { 7, 9, false, false },
                                           Shape { 7, 12, true, true },
                                           Shape { 64, 90, false, true },
                                           Shape { 300, 280, false, false },
                                           Shape { 300, 400, true, true } ) );

// --- Every short history

// All histories of that length of { put A, put B, delete A, delete B, drain by a few } on a small
// table, each with one follower of a depth. A put always changes the value.
class Exhaustive {
public:
    explicit Exhaustive( U32 slots, QelKrellType role ) : layout_( layoutOf( 2, 2 ) ) {
        writer_.emplace( layout_ );
        writer_->asWriter( slots );
        listener_.emplace( layout_, role );
        listener_->roundsToTheEnd();
    }

    // Runs the history behind the one before it, which it ends: deleted and drained.
    void run( unsigned number, unsigned length ) {
        SCOPED_TRACE( "history " + std::to_string( number ) );
        for ( unsigned i = 0; i < length; ++i, number /= actions ) {
            act( number % actions );
        }
        finish();
        for ( const U64 key : { 0, 1 } ) {
            del( key );
        }
        finish();
    }

    static constexpr unsigned actions = 5;

private:
    void act( unsigned action ) {
        if ( action < 2 ) {
            put( action );
        } else if ( action < 4 ) {
            del( action - 2 );
        } else {
            listener_->round( 1000 );
        }
    }
    void put( U64 n ) {
        const Key key = collidingKey( n );
        const Value value = { ++lastValue_, n };
        writer_->writer().put< 2, 2 >( key.data(), value.data() );
        model_[ key ] = value;
    }
    void del( U64 n ) {
        const Key key = collidingKey( n );
        writer_->writer().del< 2 >( key.data() );
        model_.erase( key );
    }
    void finish() {
        listener_->times.clear();
        listener_->roundsToTheEnd();
        for ( const auto& [ key, times ] : listener_->times ) {
            ASSERT_EQ( times, 1U ) << "key " << key[ 0 ];
        }
        if ( listener_->role == QelKrell::reader ) {
            // What lingers has to be told by its slot as long as that was not used again.
            for ( const auto& [ key, value ] : model_ ) {
                ASSERT_EQ( listener_->mirror[ key ], value );
            }
        } else {
            ASSERT_EQ( listener_->mirror, model_ );
        }
    }

    const Krell::Layout layout_;
    std::optional< TestCollection > writer_;
    std::optional< Listener > listener_;
    Contents model_;
    U64 lastValue_ = 0;
};

TEST( QueueExhaustiveTest, EveryShortHistoryIsTold ) {
    for ( const U32 slots : { 1, 2 } ) {
        for ( const QelKrellType role :
              { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
            SCOPED_TRACE( "role " + std::to_string( int( role ) ) );
            TestRoot root;
            Exhaustive all( slots, role );
            for ( unsigned length = 1, histories = 5; length <= 6; ++length, histories *= 5 ) {
                for ( unsigned number = 0; number < histories; ++number ) {
                    all.run( number, length );
                    ASSERT_FALSE( testing::Test::HasFailure() );
                }
            }
        }
    }
}

} // namespace
