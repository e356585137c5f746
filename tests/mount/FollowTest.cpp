// Roles that follow, as their user sees them: beside a writer in another process that runs its
// event loop.

#include <QelKrell/KrellMount>

#include <map>
#include <set>

#include <gmock/gmock.h>

#include "mount/Child.h"
#include "mount/Mounted.h"

namespace {

using MountBench::Reading;
using Qel::U32;
using QelKrellTest::asReader;
using QelKrellTest::asWriter;
using QelKrellTest::Channel;
using QelKrellTest::Child;
using QelKrellTest::loopUntil;
using QelKrellTest::Mounted;
using QelKrellTest::readingOf;
using QelKrellTest::same;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr U32 count = 4; // as many slots as entries: a deleted one's slot is used again at once

void obey( Mounted& plant, const std::string& order ) {
    auto& reading = plant->reading;
    if ( order == "update" ) {
        reading.is( readingOf( 1, 2 ) );
    } else if ( order == "replace" ) { // another key takes the deleted one's slot
        reading.del( 2 );
        reading.is( readingOf( 20, 1 ) );
    } else if ( order == "reinsert" ) {
        reading.del( 3 );
        reading.is( readingOf( 3, 5 ) );
    } else if ( order == "reconcile" ) {
        reading.mark();
        reading.is( readingOf( 0, 1 ) ); // as it was
        reading.is( readingOf( 1, 9 ) );
        reading.is( readingOf( 30, 1 ) );
        reading.sweep();
    } else if ( order == "detach" ) {
        reading.control().detach();
    }
}

// Turns its event loop, and does as it is told until nothing more is.
void writes( const Channel& channel ) {
    Mounted plant( asWriter( count ) );
    for ( U32 i = 0; i < count; ++i ) {
        plant->reading.is( readingOf( i, 1 ) );
    }
    channel.say( "ready" );
    for ( ;; ) {
        while ( !channel.hasSaid() ) {
            Qel::System::runOnce( 0.002 );
        }
        const std::string order = channel.hear();
        if ( order.empty() ) {
            return;
        }
        obey( plant, order );
        channel.say( "done" );
    }
}

// A plant in some role, which has seen what was there, and is told of what comes.
class FollowTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ( writer.hear(), "ready" ); }

    void follow( QelKrell::QelKrellType role ) {
        plant = std::make_unique< Mounted >( QelKrell::MountInfo( role ) );
        watch = reading().onEntry( [ this ]( U32 sensor ) {
            told.push_back( sensor );
            if ( const auto old = reading().previous( sensor ) ) {
                previous[ sensor ] = old->celsius;
            }
            now[ sensor ] = bool( reading()( sensor ) );
        } );
        ASSERT_TRUE( loopUntil( [ & ] { return told.size() == count && connected(); } ) );
        EXPECT_THAT( told, ElementsAre( 0, 1, 2, 3 ) ) << "in the order of last changes";
        EXPECT_TRUE( previous.empty() );
        forget();
    }
    QelKrell::Collection< &Reading::sensor >& reading() { return ( *plant )->reading; }
    bool connected() { return reading().control().mountStatus() == QelKrell::connected; }
    void forget() {
        told.clear();
        previous.clear();
        now.clear();
    }
    // Nothing of it is seen here before the loop is turned.
    void order( const std::string& what ) {
        writer.say( what );
        ASSERT_EQ( writer.hear(), "done" );
    }
    bool hears( std::size_t keys ) {
        return loopUntil( [ & ] { return told.size() >= keys; } );
    }

    QelKrellTest::Root root;
    Child writer { writes };
    std::unique_ptr< Mounted > plant;
    Qel::Ptr< QelKrell::Collection< &Reading::sensor >::Notifiee > watch;
    std::vector< U32 > told;
    std::map< U32, double > previous; // celsius
    std::map< U32, bool > now;        // whether it was there when it was told
};

TEST_F( FollowTest, AShadowStandsStillUntilTheLoopTurns ) {
    follow( QelKrell::shadow );
    order( "update" );
    order( "replace" );
    EXPECT_TRUE( same( *reading()( 1 ), readingOf( 1, 1 ) ) );
    EXPECT_TRUE( reading()( 2 ) );
    EXPECT_FALSE( reading()( 20 ) );
    EXPECT_EQ( reading().size(), count );
    std::set< U32 > seen;
    for ( const Reading& r : reading() ) {
        EXPECT_TRUE( same( r, readingOf( r.sensor, 1 ) ) );
        seen.insert( r.sensor );
    }
    EXPECT_EQ( seen, ( std::set< U32 > { 0, 1, 2, 3 } ) );
    ASSERT_TRUE( hears( 3 ) );
    EXPECT_TRUE( same( *reading()( 1 ), readingOf( 1, 2 ) ) );
    EXPECT_FALSE( reading()( 2 ) );
    EXPECT_TRUE( same( *reading()( 20 ), readingOf( 20, 1 ) ) );
    EXPECT_EQ( reading().size(), count );
}

TEST_F( FollowTest, AShadowHasTheOldValueAtHand ) {
    follow( QelKrell::shadow );
    order( "update" );
    order( "replace" );
    order( "reinsert" );
    ASSERT_TRUE( hears( 4 ) );
    EXPECT_THAT( told, UnorderedElementsAre( 1, 2, 3, 20 ) ) << "each key once";
    EXPECT_EQ( previous, ( std::map< U32, double > { { 1, readingOf( 1, 1 ).celsius },
                                                     { 2, readingOf( 2, 1 ).celsius },
                                                     { 3, readingOf( 3, 1 ).celsius } } ) );
    EXPECT_EQ( now,
               ( std::map< U32, bool > { { 1, true }, { 2, false }, { 3, true }, { 20, true } } ) );
    EXPECT_FALSE( reading().previous( 1 ) ) << "the change is over";
}

TEST_F( FollowTest, AKeyShadowNamesADeletedKeyWhoseSlotIsUsedAgain ) {
    follow( QelKrell::keyshadow );
    order( "replace" );
    EXPECT_TRUE( reading()( 20 ) ) << "values are read where the writer writes them";
    EXPECT_FALSE( reading()( 2 ) );
    ASSERT_TRUE( hears( 2 ) );
    EXPECT_THAT( told, UnorderedElementsAre( 2, 20 ) );
    EXPECT_TRUE( previous.empty() );
}

TEST_F( FollowTest, AReaderLooksAtWhatIsWritten ) {
    follow( QelKrell::reader );
    order( "update" );
    EXPECT_TRUE( same( *reading()( 1 ), readingOf( 1, 2 ) ) );
    ASSERT_TRUE( hears( 1 ) );
    order( "reinsert" );
    ASSERT_TRUE( hears( 2 ) );
    EXPECT_THAT( told, ElementsAre( 1, 3 ) ) << "a key that came back is told once";
}

TEST_F( FollowTest, AWriterThatReconcilesTellsTheDifferencesOnly ) {
    follow( QelKrell::shadow );
    order( "reconcile" );
    ASSERT_TRUE( hears( 4 ) );
    EXPECT_THAT( told, UnorderedElementsAre( 1, 2, 3, 30 ) );
    EXPECT_EQ(
        now, ( std::map< U32, bool > { { 1, true }, { 2, false }, { 3, false }, { 30, true } } ) );
    EXPECT_EQ( reading().size(), 3u );
}

TEST_F( FollowTest, ManyKeysAreFoundAtOnce ) {
    const std::vector< U32 > keys { 3, 99, 0, 1, 2, 1, 7 };
    for ( const auto role : { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
        follow( role );
        std::vector< U32 > asked;
        std::vector< U32 > found;
        reading().findMany( keys, [ & ]( U32 key, const Reading* r ) {
            asked.push_back( key );
            if ( r ) {
                EXPECT_TRUE( same( *r, readingOf( key, 1 ) ) );
                found.push_back( key );
            }
        } );
        EXPECT_EQ( asked, keys );
        EXPECT_THAT( found, ElementsAre( 3, 0, 1, 2, 1 ) );
        watch = nullptr;
        plant.reset();
        forget();
    }
}

TEST_F( FollowTest, AConnectedReaderSleepsUntilItIsCalled ) {
    follow( QelKrell::reader );
    const auto before = reading().control().readerCounters();
    EXPECT_EQ( before.conquerConnections, 1u );
    ASSERT_TRUE( loopUntil( [] { return !Qel::System::runOnce( 0 ); } ) ) << "nothing to do";
    order( "update" );
    ASSERT_TRUE( hears( 1 ) );
    const auto spent = reading().control().readerCounters() - before;
    EXPECT_EQ( spent.conquerKicks, 1u );
    EXPECT_EQ( spent.conquerNotified, 1u );
}

TEST_F( FollowTest, TheWritersEndIsNoticedAndTheNextOneIsFollowed ) {
    Child next( []( const Channel& channel ) {
        channel.hear();
        writes( channel );
    } );
    follow( QelKrell::shadow );
    writer.kill();
    EXPECT_TRUE( loopUntil( [ & ] { return !connected(); } ) );
    EXPECT_EQ( reading().control().mountStatus(), QelKrell::attached );
    EXPECT_EQ( reading().size(), count ) << "what it wrote stays";
    next.say( "begin" );
    ASSERT_EQ( next.hear(), "ready" );
    next.say( "update" );
    ASSERT_EQ( next.hear(), "done" );
    EXPECT_TRUE( hears( 1 ) );
    EXPECT_THAT( told, ElementsAre( 1 ) );
    EXPECT_TRUE( loopUntil( [ & ] { return connected(); } ) );
}

TEST_F( FollowTest, ADetachedWriterLeavesItsEntries ) {
    follow( QelKrell::keyshadow );
    order( "detach" );
    EXPECT_TRUE( loopUntil( [ & ] { return !connected(); } ) );
    EXPECT_EQ( reading().size(), count );
    EXPECT_TRUE( told.empty() );
}

} // namespace
