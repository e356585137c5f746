// Processes that share mounted entities: a writer and readers, duplicates, takeover.

#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include <set>

#include <gmock/gmock.h>

#include "Raised.h"
#include "mount/Child.h"
#include "mount/Mounted.h"

namespace MountBench {

// At the same place as a Plant, but its readings are not the same.
struct Level {
    Qel::U32 sensor = 0;
    Qel::U32 metres = 0;
};
constexpr auto describe( const Level* ) {
    return Qel::valueType< Level >( "MountBench::Level", Qel::attribute( "sensor", &Level::sensor ),
                                    Qel::attribute( "metres", &Level::metres ) );
}
class Tank : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Level::sensor > reading;
};
constexpr auto describe( const Tank* ) {
    return Qel::entityType< Tank >( "MountBench::Tank",
                                    QelKrell::collection( "reading", &Tank::reading ) );
}
const Qel::Unit< Level, Tank > tankUnit( "tank" );

} // namespace MountBench

namespace {

using MountBench::Plant;
using MountBench::plantType;
using MountBench::Reading;
using Qel::U32;
using QelKrell::MountInfo;
using QelKrellTest::asReader;
using QelKrellTest::asWriter;
using QelKrellTest::Channel;
using QelKrellTest::Child;
using QelKrellTest::loopUntil;
using QelKrellTest::Mounted;
using QelKrellTest::path;
using QelKrellTest::raised;
using QelKrellTest::readingOf;
using QelKrellTest::same;
using QelKrellTest::Site;

constexpr U32 count = 100;

void fill( Mounted& plant, U32 round ) {
    for ( U32 i = 0; i < count; ++i ) {
        plant->reading.is( readingOf( i, round ) );
    }
    plant->limit.is( { "low", -20 } );
    plant->limit.is( { "high", 100 } );
}

// Every entry of the round is there, and nothing else.
void holds( Mounted& plant, U32 round ) {
    EXPECT_EQ( plant->reading.size(), count );
    for ( U32 i = 0; i < count; ++i ) {
        const auto r = plant->reading( i );
        ASSERT_TRUE( r ) << i;
        EXPECT_TRUE( same( *r, readingOf( i, round ) ) ) << i;
    }
    std::set< U32 > seen;
    for ( const Reading& r : plant->reading ) {
        EXPECT_TRUE( seen.insert( r.sensor ).second );
        EXPECT_TRUE( same( r, readingOf( r.sensor, round ) ) );
    }
    EXPECT_EQ( seen.size(), count );
    ASSERT_TRUE( plant->limit( "low" ) );
    EXPECT_EQ( plant->limit( "low" )->value, -20 );
    EXPECT_FALSE( plant->limit( "middle" ) );
}

// Mounts as writer, fills, and then does as it is told until told nothing more.
void writes( const Channel& channel ) {
    Mounted plant( asWriter( 10 ) );
    fill( plant, 1 );
    channel.say( "ready" );
    for ( std::string order = channel.hear(); !order.empty(); order = channel.hear() ) {
        if ( order == "change" ) {
            plant->reading.is( readingOf( 7, 2 ) );
            plant->reading.del( 8 );
            plant->reading.is( readingOf( 1000, 2 ) );
        } else if ( order == "fill" ) {
            fill( plant, 2 );
        } else if ( order == "detach" ) {
            plant->reading.control().detach();
            plant->limit.control().detach();
        }
        channel.say( "done" );
    }
}

class SharedMount : public testing::Test {
protected:
    QelKrellTest::Root root;
};

TEST_F( SharedMount, AReaderSeesTheWritersEntries ) {
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    Mounted plant( asReader );
    EXPECT_EQ( plant->reading.control().mountStatus(), QelKrell::attached );
    holds( plant, 1 );
    EXPECT_TRUE( root.has( "sys/Krell/site/north/reading/slots" ) );
    EXPECT_TRUE( root.has( "sys/Krell/site/north/limit/slots" ) );
}

TEST_F( SharedMount, AReaderIsToldOfChanges ) {
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    Mounted plant( asReader );
    loopUntil( [ & ] { return plant->reading.size() == count; } );
    std::set< U32 > told;
    const auto watch = plant->reading.onEntry( [ & ]( U32 sensor ) { told.insert( sensor ); } );
    loopUntil( [ & ] { return told.size() >= count; } ); // what was there at attaching, if it comes
    told.clear();
    writer.say( "change" );
    ASSERT_EQ( writer.hear(), "done" );
    EXPECT_TRUE( loopUntil( [ & ] { return told.size() >= 3; } ) );
    EXPECT_EQ( told, ( std::set< U32 > { 7, 8, 1000 } ) );
    EXPECT_TRUE( same( *plant->reading( 7 ), readingOf( 7, 2 ) ) );
    EXPECT_FALSE( plant->reading( 8 ) );
    EXPECT_TRUE( same( *plant->reading( 1000 ), readingOf( 1000, 2 ) ) );
    EXPECT_TRUE( same( *plant->reading( 9 ), readingOf( 9, 1 ) ) );
    EXPECT_EQ( plant->reading.size(), count );
}

TEST_F( SharedMount, AReaderThatComesFirstAttachesWhenTheWriterCame ) {
    Child reader( []( const Channel& channel ) {
        Mounted plant( asReader );
        const bool early = plant->reading.control().mountStatus() == QelKrell::none &&
                           plant->reading.size() == 0 && !plant->reading( 7 ) &&
                           plant->reading.begin() == plant->reading.end();
        channel.say( early ? "empty" : "early" );
        const bool full = loopUntil(
            [ & ] { return plant->reading.size() == count && plant->limit.size() == 2; } );
        channel.say( full ? "full" : "missing" );
        channel.hear();
        holds( plant, 1 );
    } );
    EXPECT_EQ( reader.hear(), "empty" );
    EXPECT_EQ( root.entries(), 0u ); // a reader makes nothing
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    EXPECT_EQ( reader.hear(), "full" );
    reader.say( "check" );
    EXPECT_EQ( reader.wait(), 0 );
}

TEST_F( SharedMount, ASecondWriterIsRefusedWithTheFirstOnesPid ) {
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    Site site( false );
    site.mount.handleInitialized();
    for ( const bool cleanup : { false, true } ) {
        try {
            site.mount.doMount( path, plantType, asWriter( 0, cleanup ) );
            ADD_FAILURE() << "two writers";
        } catch ( const QelKrell::DuplicateWriterException& e ) {
            EXPECT_EQ( e.krellDetail(), U32( writer.pid() ) );
            EXPECT_EQ( e.krellExceptionName(), "DuplicateWriterException" );
            EXPECT_THAT( e.what(), testing::HasSubstr( std::to_string( writer.pid() ) ) );
            EXPECT_THAT( e.what(), testing::HasSubstr( root.path() + "/sys/Krell/site/north/" ) );
        }
    }
    // The first one goes on, with everything that it wrote.
    writer.say( "fill" );
    EXPECT_EQ( writer.hear(), "done" );
    site.mount.doMount( path, plantType, asReader );
    const auto plant = Qel::ptrCast< Plant >( site.mount.getEntity( path ) );
    EXPECT_EQ( plant->reading.size(), count );
    EXPECT_TRUE( same( *plant->reading( 5 ), readingOf( 5, 2 ) ) );
}

TEST_F( SharedMount, AKilledWritersEntriesAreTakenOver ) {
    Child reader( []( const Channel& channel ) {
        Mounted plant( asReader );
        const auto at = [ & ]( U32 round ) {
            return loopUntil( [ & ] {
                const auto r = plant->reading( count - 1 );
                // Each collection is attached by a look of its own.
                return r && same( *r, readingOf( count - 1, round ) ) && plant->limit( "high" );
            } );
        };
        channel.say( at( 1 ) ? "first" : "nothing" );
        channel.hear();
        holds( plant, 1 ); // nobody writes now
        channel.say( "kept" );
        channel.say( at( 2 ) ? "second" : "stale" );
        channel.hear();
        holds( plant, 2 );
    } );
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    EXPECT_EQ( reader.hear(), "first" );
    EXPECT_TRUE( WIFSIGNALED( writer.kill() ) );
    reader.say( "killed" );
    EXPECT_EQ( reader.hear(), "kept" );
    Mounted plant( asWriter() );
    EXPECT_EQ( plant->reading.control().mountStatus(), QelKrell::attached );
    holds( plant, 1 );
    fill( plant, 2 );
    EXPECT_EQ( reader.hear(), "second" );
    reader.say( "check" );
    EXPECT_EQ( reader.wait(), 0 );
}

TEST_F( SharedMount, AWriterThatDetachedLeavesItsEntries ) {
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    writer.say( "detach" );
    ASSERT_EQ( writer.hear(), "done" );
    Mounted plant( asWriter() );
    holds( plant, 1 );
}

TEST_F( SharedMount, CleanUpStartsAnew ) {
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    writer.kill();
    Mounted plant( asWriter( 0, true ) );
    EXPECT_EQ( plant->reading.size(), 0u );
    EXPECT_EQ( plant->limit.size(), 0u );
    fill( plant, 3 );
    holds( plant, 3 );
}

TEST_F( SharedMount, ANumberThatIsNoRoleOpensNothing ) {
    Site site( false );
    site.mount.handleInitialized();
    EXPECT_EQ( raised< QelKrell::InvalidInitializeException >( [ & ] {
                   site.mount.doMount( path, plantType, MountInfo( QelKrell::QelKrellType( 4 ) ) );
               } ),
               "Unrecognized QelKrellType4" );
    EXPECT_EQ( root.entries(), 0u );
}

TEST_F( SharedMount, MountingAgainKeepsTheCollectionsOpen ) {
    Mounted plant( asWriter( 10 ) );
    fill( plant, 1 );
    plant.remount( asWriter( 10 ) );
    holds( plant, 1 );
    fill( plant, 2 );
    holds( plant, 2 );
}

TEST_F( SharedMount, AWriterThatIsMountedAsReaderWritesNoMore ) {
    Child other( []( const Channel& channel ) {
        channel.hear();
        writes( channel );
    } );
    Mounted plant( asWriter() );
    fill( plant, 1 );
    plant.remount( asReader );
    holds( plant, 1 );
    EXPECT_THROW( plant->reading.is( readingOf( 1, 9 ) ), QelKrell::InvalidInitializeException );
    EXPECT_THROW( plant->reading.del( 1 ), QelKrell::InvalidInitializeException );
    holds( plant, 1 );
    other.say( "the lock is free" );
    EXPECT_EQ( other.hear(), "ready" );
}

TEST_F( SharedMount, OnlyTheListedCollectionsAreWritten ) {
    MountInfo info( QelKrell::writer );
    info.collectionInfoIs( { "limit", 4 } );
    Mounted plant( info );
    plant->limit.is( { "low", 1 } );
    EXPECT_EQ( plant->reading.control().mountStatus(), QelKrell::none );
    EXPECT_THROW( plant->reading.is( readingOf( 1, 1 ) ), QelKrell::InvalidInitializeException );
    EXPECT_FALSE( root.has( "sys/Krell/site/north/reading" ) );
}

TEST_F( SharedMount, AnotherLayoutAtTheSamePlaceIsRefusedWithBothNamed ) {
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    Site site( false );
    site.mount.handleInitialized();
    const std::string why = raised< QelKrell::InvalidInitializeException >(
        [ & ] { site.mount.doMount( path, "MountBench::Tank", asReader ); } );
    for ( const char* name : { "MountBench::Level", "MountBench::Reading", "MountBench::Tank",
                               "MountBench::Plant" } ) {
        EXPECT_THAT( why, testing::HasSubstr( name ) );
    }
}

TEST_F( SharedMount, ALocalMountSharesNothing ) {
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    const std::size_t before = root.entries();
    Mounted plant( asWriter(), true );
    EXPECT_EQ( plant->reading.size(), 0u );
    fill( plant, 5 );
    holds( plant, 5 );
    EXPECT_EQ( root.entries(), before );
    plant.remount( asWriter() );
    holds( plant, 5 );
    EXPECT_EQ( QelKrellTest::mounts( "/sys/Krell/site/north" ), 2u );
}

TEST_F( SharedMount, StatisticsComeInTheRoleThatKeepsThem ) {
    Child writer( writes );
    ASSERT_EQ( writer.hear(), "ready" );
    Mounted plant( asReader );
    EXPECT_EQ( plant->reading.control().readerCounters().occupiedSlots, count );
    EXPECT_THROW( plant->reading.control().writerCounters(), Qel::NoImplementationException );
    EXPECT_THAT( plant->reading.control().owner().stdString(),
                 testing::HasSubstr( "(pid " + std::to_string( writer.pid() ) + ")" ) );
    EXPECT_EQ( plant->reading.control().krellName(), "sys/Krell/site/north/reading" );
    EXPECT_EQ( plant->reading.control().rootPath(),
               ( root.path() + "/sys/Krell/site/north/reading" ).c_str() );
    EXPECT_GE( plant->reading.control().capacity(), count );
    EXPECT_NE( plant->reading.control().fenixId(), 0u );
    EXPECT_TRUE( plant->reading.control().validate() );
}

} // namespace
