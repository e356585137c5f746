// A writer is killed, or stopped, at every place of every kind of change: readers go on, and the
// next writer finds the state before the change or the one after it, and never takes back what a
// reader saw.

#include <memory>

#include <gtest/gtest.h>

#include "krell/EngineSupport.h"
#include "krell/crash/Crash.h"

using namespace KrellTest;

namespace {

constexpr unsigned valueWords = 5;
using Key = std::array< U64, 2 >;
using Value = std::array< U64, valueWords >;
using Contents = std::map< Key, Value >;

// Puts and deletes on a collection and, alike, on a model.
class Both {
public:
    explicit Both( TestCollection* collection ) : collection( collection ) {}

    void put( const Key& key, U64 seed ) {
        const Value value = wholeValue< valueWords >( seed );
        if ( collection ) {
            collection->writer().put< 2, valueWords >( key.data(), value.data() );
        }
        model[ key ] = value;
    }
    void del( const Key& key ) {
        if ( collection ) {
            collection->writer().del< 2 >( key.data() );
        }
        model.erase( key );
    }
    void grow() {
        if ( collection ) {
            collection->writer().grow();
        }
    }

    TestCollection* const collection;
    Contents model;
};

Key key( U64 n ) { return { n, n ^ 0x5555 }; }

struct Change {
    const char* name;
    U32 size;
    void ( *prepare )( Both& );
    void ( *change )( Both& );
};

void PrintTo( const Change& change, std::ostream* os ) { *os << change.name; }

void fill( Both& both, U64 count ) {
    for ( U64 n = 0; n < count; ++n ) {
        both.put( key( n ), 10 * n );
    }
}

void fillColliding( Both& both, U64 count ) {
    for ( U64 n = 0; n < count; ++n ) {
        both.put( collidingKey( n ), 10 * n );
    }
}

const Change changes[] = {
    { "Update", 8, []( Both& b ) { fill( b, 4 ); }, []( Both& b ) { b.put( key( 2 ), 77 ); } },
    { "SecondUpdate", 8,
      []( Both& b ) {
          fill( b, 4 );
          b.put( key( 2 ), 76 );
      },
      []( Both& b ) { b.put( key( 2 ), 77 ); } },
    { "UpdateOfAnotherKey", 8,
      []( Both& b ) {
          fill( b, 4 );
          b.put( key( 3 ), 76 );
      },
      []( Both& b ) { b.put( key( 1 ), 77 ); } },
    { "Insert", 8, []( Both& b ) { fill( b, 4 ); }, []( Both& b ) { b.put( key( 9 ), 77 ); } },
    { "FirstInsert", 8, []( Both& ) {}, []( Both& b ) { b.put( key( 9 ), 77 ); } },
    { "Delete", 8, []( Both& b ) { fill( b, 4 ); }, []( Both& b ) { b.del( key( 1 ) ); } },
    { "DeleteOfTheUpdatedKey", 8,
      []( Both& b ) {
          fill( b, 4 );
          b.put( key( 1 ), 76 );
      },
      []( Both& b ) { b.del( key( 1 ) ); } },
    { "InsertIntoARetiredSlot", 4,
      []( Both& b ) {
          fill( b, 4 );
          b.put( key( 1 ), 76 );
          b.del( key( 1 ) );
      },
      []( Both& b ) { b.put( key( 9 ), 77 ); } },
    { "InsertOfTheDeletedKey", 4,
      []( Both& b ) {
          fill( b, 4 );
          b.del( key( 1 ) );
      },
      []( Both& b ) { b.put( key( 1 ), 77 ); } },
    { "InsertThatGrowsTheSlots", 4, []( Both& b ) { fill( b, 4 ); },
      []( Both& b ) { b.put( key( 9 ), 77 ); } },
    { "InsertThatGrowsTheBuckets", 64, []( Both& b ) { fill( b, 64 ); },
      []( Both& b ) { b.put( key( 99 ), 77 ); } },
    { "InsertThatLinksAnOverflowBucket", 64, []( Both& b ) { fillColliding( b, 12 ); },
      []( Both& b ) { b.put( collidingKey( 99 ), 77 ); } },
    // One primary bucket and the four overflow buckets of the smallest array are full.
    { "InsertThatLengthensTheChains", 256, []( Both& b ) { fillColliding( b, 60 ); },
      []( Both& b ) { b.put( collidingKey( 99 ), 77 ); } },
    { "Growth", 4, []( Both& b ) { fill( b, 4 ); }, []( Both& b ) { b.grow(); } },
};

class KillTest : public testing::TestWithParam< Change > {
protected:
    KillTest() {
        Both model( nullptr );
        change.prepare( model );
        before = model.model;
        change.change( model );
        after = model.model;
    }

    // In a child: the state before, made by a writer that stays open.
    void prepare() {
        writer = std::make_unique< TestCollection >( layout );
        writer->asWriter( change.size );
        Both both( writer.get() );
        change.prepare( both );
    }
    void apply() {
        Both both( writer.get() );
        change.change( both );
    }

    // What a reader sees, key by key and by iteration; both must be alike and whole.
    Contents seenBy( TestCollection& reader ) {
        Contents seen;
        for ( const Contents* contents : { &before, &after } ) {
            for ( const auto& entry : *contents ) {
                Value value {};
                if ( reader.table().find< 2, valueWords >( entry.first.data(), value.data() ) ) {
                    EXPECT_TRUE( isWhole( value ) );
                    seen[ entry.first ] = value;
                }
            }
        }
        return seen;
    }
    static Contents listedBy( TestCollection& collection ) {
        Contents listed;
        collection.table().forEach< 2, valueWords >( [ & ]( const U64* k, const U64* v ) {
            Value value;
            std::copy( v, v + valueWords, value.begin() );
            EXPECT_TRUE( listed.emplace( Key { k[ 0 ], k[ 1 ] }, value ).second ) << "twice";
        } );
        return listed;
    }

    // After a kill: takes over and checks; `seen` is what a reader saw before that.
    void takeOverAndCheck( const Contents& seen ) {
        TestCollection next( layout );
        next.asWriter();
        const Contents kept = listedBy( next );
        ASSERT_TRUE( kept == before || kept == after );
        if ( seen == after ) {
            ASSERT_EQ( kept, after ) << "a change that a reader saw was undone";
        }
        ASSERT_EQ( seenBy( next ), kept );
        ASSERT_TRUE( next.validate() );
        goOn( next );
    }

    // The next writer is a whole one: it can change everything.
    void goOn( TestCollection& next ) {
        Both both( &next );
        for ( U64 n = 0; n < 40; ++n ) {
            both.put( key( 1000 + n ), n );
        }
        for ( const auto& entry : after ) {
            both.put( entry.first, 5 );
        }
        for ( const auto& entry : before ) {
            both.del( entry.first );
        }
        for ( const auto& entry : after ) {
            both.del( entry.first );
        }
        for ( U64 n = 0; n < 80; ++n ) {
            both.put( key( 2000 + n ), n );
        }
        ASSERT_EQ( listedBy( next ), both.model );
        ASSERT_TRUE( next.validate() );
    }

    const Change& change = GetParam();
    const Krell::Layout layout = layoutOf( 2, valueWords );
    Contents before;
    Contents after;
    std::unique_ptr< TestCollection > writer;
};

TEST_P( KillTest, TheNextWriterFindsTheStateBeforeOrAfter ) {
    unsigned kills = 0;
    for ( unsigned n = 1;; n += stride ) {
        TestRoot root;
        const Crash crash = killedAt(
            n, [ & ] { prepare(); }, [ & ] { apply(); } );
        if ( !crash.died ) {
            break;
        }
        ++kills;
        SCOPED_TRACE( "killed at " + crash.place );
        TestCollection reader( layout );
        reader.asReader();
        ASSERT_EQ( reader.mountStatus(), 1 );
        const U32 fenix = reader.fenixId();
        const Contents seen = seenBy( reader );
        ASSERT_TRUE( seen == before || seen == after );
        ASSERT_EQ( listedBy( reader ), seen );
        ASSERT_TRUE( reader.validate() );
        takeOverAndCheck( seen );
        if ( HasFatalFailure() ) {
            return;
        }
        // The reader that was there before stays attached and sees what came later.
        fireTimers();
        ASSERT_EQ( reader.fenixId(), fenix );
        ASSERT_EQ( listedBy( reader ).size(), 120U );
        ASSERT_EQ( seenBy( reader ), Contents() );
    }
    ASSERT_GE( kills, stride == 1 ? 2U : 1U );
}

TEST_P( KillTest, ReadersAreNotBlockedByAStoppedWriter ) {
    U32 fromLookaside = 0;
    unsigned stops = 0;
    for ( unsigned n = 1;; n += stride ) {
        TestRoot root;
        const Stopped stopped(
            n, [ & ] { prepare(); }, [ & ] { apply(); } );
        if ( !stopped.stopped() ) {
            break;
        }
        ++stops;
        SCOPED_TRACE( "stopped at " + stopped.place() );
        TestCollection reader( layout );
        reader.asReader();
        const Contents seen = seenBy( reader );
        ASSERT_TRUE( seen == before || seen == after );
        ASSERT_EQ( listedBy( reader ), seen );
        ASSERT_TRUE( reader.validate() );
        TestCollection second( layout );
        ASSERT_THROW( second.asWriter(), Krell::DuplicateWriterException );
        fromLookaside += reader.readerCounters().usedLookaside;
    }
    ASSERT_GE( stops, stride == 1 ? 2U : 1U );
    const bool updates = std::string( change.name ).find( "Update" ) == 0 ||
                         std::string( change.name ).find( "SecondUpdate" ) == 0;
    if ( stride == 1 ) {
        ASSERT_EQ( fromLookaside > 0, updates );
    }
}

// Kills at every place of the change, and each time at every place of the recovery after it.
TEST_P( KillTest, ARecoveryThatIsKilledIsFollowedByAnother ) {
    unsigned kills = 0;
    for ( unsigned n = 1;; n += stride ) {
        bool changed = false;
        for ( unsigned m = 1;; m += stride * ( before.size() > 30 ? 9 : 1 ) ) {
            TestRoot root;
            changed = killedAt(
                          n, [ & ] { prepare(); }, [ & ] { apply(); } )
                          .died;
            if ( !changed ) {
                break;
            }
            TestCollection reader( layout );
            reader.asReader();
            const Contents first = seenBy( reader );
            const Crash crash = killedAt(
                m, [] {}, [ & ] { TestCollection( layout ).asWriter(); } );
            SCOPED_TRACE( "second kill at " + crash.place );
            const Contents second = seenBy( reader );
            ASSERT_TRUE( second == before || second == after );
            ASSERT_TRUE( first == before || second == after )
                << "a change that a reader saw was undone";
            ASSERT_EQ( listedBy( reader ), second );
            takeOverAndCheck( second );
            if ( HasFatalFailure() ) {
                return;
            }
            if ( !crash.died ) {
                break;
            }
            ++kills;
        }
        if ( !changed ) {
            break;
        }
    }
    ASSERT_GE( kills, stride == 1 ? 10U : 1U );
}

INSTANTIATE_TEST_SUITE_P( Changes, KillTest, testing::ValuesIn( changes ), []( const auto& info ) {
    return std::string( info.param.name );
} );

} // namespace
