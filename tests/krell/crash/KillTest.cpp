// A writer is killed, or stopped, at every place of every kind of change: readers go on, and the
// next writer finds the state before the change or the one after it, and never takes back what a
// reader saw.

#include <gtest/gtest.h>

#include "krell/crash/Crash.h"
#include "krell/crash/KillFixture.h"

using namespace KrellTest;

namespace {

TEST_P( KillTest, TheNextWriterFindsTheStateBeforeOrAfter ) {
    repeat( [ & ] {
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
            ASSERT_TRUE( isOneOfBoth( seen ) );
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
        torture.count( "kills", kills );
        ASSERT_GE( kills, stride == 1 ? 2U : 1U );
    } );
}

TEST_P( KillTest, ReadersAreNotBlockedByAStoppedWriter ) {
    repeat( [ & ] {
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
            ASSERT_TRUE( isOneOfBoth( seen ) );
            ASSERT_EQ( listedBy( reader ), seen );
            ASSERT_TRUE( reader.validate() );
            TestCollection second( layout );
            ASSERT_THROW( second.asWriter(), Krell::DuplicateWriterException );
            fromLookaside += reader.readerCounters().usedLookaside;
        }
        torture.count( "stops", stops );
        ASSERT_GE( stops, stride == 1 ? 2U : 1U );
        const bool updates = std::string( change.name ).find( "Update" ) == 0 ||
                             std::string( change.name ).find( "SecondUpdate" ) == 0;
        if ( stride == 1 ) {
            ASSERT_EQ( fromLookaside > 0, updates );
        }
    } );
}

// One that came after the kill, and one that the recovery's own death disturbs in its midst.
TEST_P( KillTest, FollowersEndWithWhatTheNextWriterHas ) {
    repeat( [ & ] {
        unsigned kills = 0;
        for ( unsigned n = 1;; n += stride ) {
            TestRoot root;
            if ( !killedAt(
                      n, [ & ] { prepare(); }, [ & ] { apply(); } )
                      .died ) {
                break;
            }
            TestCollection shadow( layout );
            shadow.init( QelKrell::shadow, false, 0 );
            shadow.poll();
            // The change in flight need not be in the queue yet.
            ASSERT_TRUE( isOneOfBoth( viewOf( shadow ) ) );
            for ( unsigned m = 1;; m += 3 ) {
                SCOPED_TRACE( "kill " + std::to_string( n ) + ", then " + std::to_string( m ) );
                const bool died = killedAt(
                                      m, [] {}, [ & ] { TestCollection( layout ).asWriter(); } )
                                      .died;
                ++kills;
                shadow.poll();
                ASSERT_TRUE( isOneOfBoth( viewOf( shadow ) ) );
                if ( !died ) {
                    break;
                }
            }
            TestCollection next( layout );
            next.asWriter();
            shadow.poll();
            ASSERT_TRUE( viewOf( shadow ) == listedBy( next ) );
            goOn( next );
            shadow.poll();
            ASSERT_TRUE( viewOf( shadow ) == listedBy( next ) );
            ASSERT_EQ( shadow.failures, std::vector< std::string >() );
        }
        torture.count( "kills", kills );
        ASSERT_GE( kills, 2U );
    } );
}

// Kills at every place of the change, and each time at every place of the recovery after it.
TEST_P( KillTest, ARecoveryThatIsKilledIsFollowedByAnother ) {
    repeat( [ & ] {
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
                ASSERT_TRUE( isOneOfBoth( second ) );
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
        torture.count( "kills", kills );
        ASSERT_GE( kills, stride == 1 ? 10U : 1U );
    } );
}

// The changes above reach what they are named after.
TEST( KillPlacesTest, TheNextArrayIsFilledChangedAndPublished ) {
    const std::map< std::string, std::vector< const char* > > places {
        { "InsertThatGrowsTheBuckets", { "array: before it is allocated", "array: allocated" } },
        { "InsertWhileTheNextArrayIsBuilt", { "growth: slots copied", "growth: entered" } },
        { "DeleteWhileTheNextArrayIsBuilt", { "growth: left", "growth: slots copied" } },
        { "InsertThatPublishesTheNextArray", { "growth: slots copied", "array: published" } },
        { "InsertThatLengthensTheChains", { "array: reserve grown", "array: overflow linked" } }
    };
    unsigned reached = 0;
    for ( const Change& change : allChanges() ) {
        const auto wanted = places.find( change.name );
        if ( wanted == places.end() ) {
            continue;
        }
        for ( const char* place : wanted->second ) {
            TestRoot root;
            std::unique_ptr< TestCollection > writer;
            const auto prepare = [ & ] {
                writer = std::make_unique< TestCollection >( layoutOf( 2, valueWords ) );
                writer->asWriter( change.size );
                Both both( writer.get() );
                change.prepare( both );
            };
            const auto apply = [ & ] {
                Both both( writer.get() );
                change.change( both );
            };
            EXPECT_TRUE( killedAt( place, prepare, apply ).died ) << change.name << ": " << place;
            ++reached;
        }
    }
    EXPECT_EQ( reached, 10U );
}

TEST( KillPlacesTest, AWriterThatDiesWhileItGivesSpaceBackIsFollowedByAnother ) {
    constexpr U64 keys = 1300;
    TestRoot root;
    std::unique_ptr< TestCollection > writer;
    const auto prepare = [ & ] {
        writer = std::make_unique< TestCollection >( layoutOf( 2, valueWords ) );
        writer->asWriter( 0 );
        Both both( writer.get() );
        for ( U64 n = 0; n < keys; ++n ) {
            both.put( key( n ), n );
        }
    };
    const auto change = [ & ] {
        Both both( writer.get() );
        for ( U64 n = 0; n < Krell::BucketGrowth::leastKept_; ++n ) {
            both.del( key( n % keys ) );
            both.put( key( n % keys ), n % keys );
        }
    };
    ASSERT_TRUE( killedAt( "growth: lines given back", prepare, change ).died );
    TestCollection reader( layoutOf( 2, valueWords ) );
    reader.asReader();
    TestCollection next( layoutOf( 2, valueWords ) );
    next.asWriter();
    for ( TestCollection* collection : { &reader, &next } ) {
        EXPECT_TRUE( collection->validate() );
        for ( U64 n = 0; n < keys; ++n ) {
            Value value {};
            const bool found =
                collection->table().find< 2, valueWords >( key( n ).data(), value.data() );
            ASSERT_TRUE( found || collection->table().occupied() == keys - 1 ) << n;
            ASSERT_TRUE( !found || value == wholeValue< valueWords >( n ) );
        }
    }
    Both both( &next );
    for ( U64 n = 0; n < 3 * keys; ++n ) {
        both.put( key( n ), n );
    }
    EXPECT_TRUE( reader.validate() );
    EXPECT_EQ( reader.table().occupied(), 3 * keys );
}

INSTANTIATE_TEST_SUITE_P( Changes,
                          KillTest,
                          testing::ValuesIn( allChanges() ),
                          []( const auto& info ) { return std::string( info.param.name ); } );

} // namespace
