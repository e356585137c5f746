// Mounting: the entity and its directories, and how its collections are opened. The collections
// here are control objects of the test's own.

#include <Qel/Describe>
#include <QelKrell/CollectionControl>
#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include <stdexcept>

#include <Krell/Exception>
#include <gmock/gmock.h>

#include "Raised.h"
#include "TraceLog.h"
#include "mount/Site.h"
#include "values/ControlMock.h"

namespace {

using Qel::Entity;
using Qel::String;
using QelKrell::MountException;
using QelKrell::MountInfo;
using QelKrell::QelKrellType;
using QelKrellTest::ControlMock;
using QelKrellTest::mounts;
using QelKrellTest::raised;
using QelKrellTest::TraceLog;
using testing::ElementsAre;
using testing::InSequence;
using testing::Return;
using testing::StrictMock;
using testing::Throw;

StrictMock< ControlMock >* first = nullptr;
StrictMock< ControlMock >* second = nullptr;

// Two collections, and attributes that look like collections and are none.
class Engine : public Entity {
public:
    using Entity::Entity;

    Qel::U32 number( String ) const { return 0; }
    std::vector< String > keys() const { return {}; }
    Qel::U32 scalar() const { return 1; }
    String scalarControl() const { return "not a control"; }
    QelKrell::CollectionControl firstControl() const {
        return QelKrell::CollectionControl( first );
    }
    QelKrell::CollectionControl secondControl() const {
        return QelKrell::CollectionControl( second );
    }
    QelKrell::CollectionControl calledControl() { return QelKrell::CollectionControl( first ); }
};
constexpr auto describe( const Engine* ) {
    using E = Engine;
    return Qel::entityType< E >( "DoMountTest::Engine", Qel::property( "scalar", &E::scalar ),
                                 Qel::property( "scalarControl", &E::scalarControl ),
                                 Qel::indexed( "first", &E::number, &E::keys ),
                                 Qel::property( "firstControl", &E::firstControl ),
                                 Qel::indexed( "second", &E::number, &E::keys ),
                                 Qel::property( "secondControl", &E::secondControl ),
                                 Qel::property( "called", &E::scalar ),
                                 Qel::operation( "calledControl", &E::calledControl ) );
}
class Other : public Entity {
public:
    using Entity::Entity;
};
constexpr auto describe( const Other* ) { return Qel::entityType< Other >( "DoMountTest::Other" ); }
const Qel::Unit< Engine, Other > engineUnit( "do mount test" );

constexpr const char* engine = "DoMountTest::Engine";
constexpr const char* other = "DoMountTest::Other";
const MountInfo nothing( QelKrell::writer );

MountInfo firstAs( QelKrellType mode, Qel::U32 size = 0, bool cleanup = false ) {
    MountInfo info( mode, cleanup );
    info.collectionInfoIs( { "first", size } );
    return info;
}

class DoMount : public testing::Test {
protected:
    explicit DoMount( bool local = true ) : site( local ) {
        site.mount.handleInitialized();
        first = &firstMock;
        second = &secondMock;
    }
    ~DoMount() override { first = second = nullptr; }

    Qel::Dir::Ptr krell() const { return site.krell(); }
    Entity::Ptr mount( const String& path, const char* type, const MountInfo& info ) {
        return site.mount.doMount( path, type, info );
    }
    template < class E >
    std::string refusal( const String& path, const char* type, const MountInfo& info ) {
        return raised< E >( [ & ] { mount( path, type, info ); } );
    }

    QelKrellTest::Root root;
    QelKrellTest::Site site;
    StrictMock< ControlMock > firstMock;
    StrictMock< ControlMock > secondMock;
};

class DoMountNonLocal : public DoMount {
protected:
    DoMountNonLocal() : DoMount( false ) {}

    // Opening throws a From; doMount throws a To with the same text.
    template < class From, class To >
    void failsWith() {
        EXPECT_CALL( firstMock, init ).WillOnce( Throw( From( "from the library" ) ) );
        EXPECT_EQ( refusal< To >( "e", engine, firstAs( QelKrell::writer ) ), "from the library" );
    }
};

// --- The entity and its directories

TEST_F( DoMount, APlainNameNeedsNoDirectory ) {
    const auto e = mount( "e", other, nothing );
    ASSERT_TRUE( e );
    EXPECT_EQ( e->fullName(), "/sys/Krell/e" );
    EXPECT_EQ( e->fwkType()->fullName(), other );
    EXPECT_EQ( krell()->subdirs(), 0u );
    EXPECT_EQ( krell()->entityRef( "e" ), e );
    EXPECT_EQ( mounts( "/sys/Krell/e" ), 1u );
}

TEST_F( DoMount, DirectoriesAreMadeAndReused ) {
    const auto e = mount( "a/b/e", other, nothing );
    EXPECT_EQ( e->fullName(), "/sys/Krell/a/b/e" );
    const auto f = mount( "a/f", other, nothing );
    EXPECT_EQ( f->parent(), e->parent()->parent() );
    EXPECT_EQ( krell()->subdirs(), 1u );
    EXPECT_EQ( krell()->entrys(), 0u );
}

TEST_F( DoMount, CreationTraces ) {
    krell()->subdirIs( "a" );
    TraceLog log( "KrellMount/*", "KrellMount" );
    mount( "a/b/e", other, nothing );
    EXPECT_THAT(
        log.take(),
        ElementsAre(
            "3 Mount::doMount() path: a/b/e type: DoMountTest::Other mode: writer local: 1",
            "3 Mount::getEntity() path: a/b/e", "5 getDir() entering directory 'a'",
            "5 getDir() entering directory 'b'", "5 getDir() unable to retrieve 'a/b'",
            "3 Mount::getEntity() unable to retrieve entity 'a/b/e'",
            "5 Mount::doMount() entering directory 'a'",
            "5 Mount::doMount() creating directory 'b'", "5 Mount::doMount() creating entity 'e'",
            "3 Mount::doMount() created Entity('DoMountTest::Other', '/sys/Krell/a/b/e')",
            "5 Mount::doMount() incremented ref count of '/sys/Krell/a/b/e' to 1" ) );
}

TEST_F( DoMount, TheSamePathTwiceIsOneEntityCountedTwice ) {
    const auto e = mount( "a/e", other, nothing );
    TraceLog log( "KrellMount/*", "KrellMount" );
    EXPECT_EQ( mount( "a/e", other, nothing ), e );
    EXPECT_THAT(
        log.take(),
        ElementsAre( "3 Mount::doMount() path: a/e type: DoMountTest::Other mode: writer local: 1",
                     "3 Mount::getEntity() path: a/e", "5 getDir() entering directory 'a'",
                     "5 getDir() retrieved directory '/sys/Krell/a'",
                     "5 Mount::getEntity() getting entity 'e'",
                     "3 Mount::getEntity() successfully retrieved Entity('DoMountTest::Other', "
                     "'/sys/Krell/a/e')",
                     "5 Mount::doMount() found existing entity at 'a/e'",
                     "5 Mount::doMount() incremented ref count of '/sys/Krell/a/e' to 2" ) );
    EXPECT_EQ( mounts( "/sys/Krell/a/e" ), 2u );
    EXPECT_EQ( krell()->subdir( "a" )->entrys(), 1u );
}

TEST_F( DoMount, AnotherTypeIsRefusedAndNothingChanged ) {
    const auto e = mount( "e", other, nothing );
    TraceLog log( "KrellMount/0", "KrellMount" );
    const char* text = "Mount::doMount() path: e already exists with type: DoMountTest::Other";
    EXPECT_EQ( refusal< MountException >( "e", engine, nothing ), text );
    EXPECT_THAT( log.take(), ElementsAre( std::string( "0 " ) + text ) );
    EXPECT_EQ( krell()->entityRef( "e" ), e );
    EXPECT_EQ( mounts( "/sys/Krell/e" ), 1u );
    try {
        mount( "e", engine, nothing );
    } catch ( const MountException& refused ) {
        EXPECT_TRUE( refused.hasId( 11 ) );
    }
}

constexpr const char* nested = "Mount::doMount() nested entities are not supported";

TEST_F( DoMount, AComponentThatIsAnEntityIsRefused ) {
    mount( "a/b", other, nothing );
    TraceLog log( "KrellMount/0", "KrellMount" );
    EXPECT_EQ( refusal< MountException >( "a/b/e", other, nothing ), nested );
    EXPECT_THAT( log.take(), ElementsAre( std::string( "0 " ) + nested ) );
    EXPECT_EQ( mounts( "/sys/Krell/a/b/e" ), 0u );
    EXPECT_EQ( krell()->subdir( "a" )->subdirs(), 0u );
    EXPECT_EQ( krell()->subdir( "a" )->entrys(), 1u );
}

TEST_F( DoMount, DirectoriesMadeBeforeARefusalStay ) {
    krell()->subdirIs( "a" )->newEntity( other, "b" );
    EXPECT_EQ( refusal< MountException >( "a/b/c/e", other, nothing ), nested );
    EXPECT_TRUE( krell()->subdir( "a" ) );
    EXPECT_EQ( refusal< MountException >( "x/y/e", "No::Such", nothing ),
               "Mount::doMount() unable to create entity" );
    EXPECT_TRUE( krell()->subdir( "x" )->subdir( "y" ) );
}

TEST_F( DoMount, ANameThatIsADirectoryIsRefused ) {
    mount( "a/e", other, nothing );
    TraceLog log( "KrellMount/0", "KrellMount" );
    EXPECT_EQ( refusal< MountException >( "a", other, nothing ), nested );
    EXPECT_THAT( log.take(), ElementsAre( std::string( "0 " ) + nested ) );
    EXPECT_FALSE( krell()->entityRef( "a" ) );
    EXPECT_EQ( mounts( "/sys/Krell/a" ), 0u );
}

TEST_F( DoMount, ATypeThatMakesNoEntitiesIsRefused ) {
    TraceLog log( "KrellMount/0", "KrellMount" );
    for ( const char* type :
          { "No::Such", "", "U32", "QelKrell::MountInfo", "Norvo::EntityManager" } ) {
        EXPECT_EQ( refusal< MountException >( "e", type, nothing ),
                   "Mount::doMount() unable to create entity" )
            << type;
        EXPECT_THAT( log.take(), ElementsAre( "0 Mount::doMount() unable to create entity" ) );
    }
    EXPECT_EQ( krell()->entrys(), 0u );
    EXPECT_EQ( mounts( "/sys/Krell/e" ), 0u );
}

TEST_F( DoMount, ComponentsThatAreNoNamesCreateNothing ) {
    const std::pair< const char*, const char* > table[] = {
        { "/e", "" },     { "a//e", "" },   { "a/", "" },   { "/", "" },
        { "a/./e", "." }, { "../e", ".." }, { "..", ".." },
    };
    for ( const auto& [ path, component ] : table ) {
        EXPECT_EQ( refusal< MountException >( path, other, nothing ),
                   std::string( "Mount::doMount() path: " ) + path +
                       " has a component that is no name: '" + component + "'" );
    }
    EXPECT_EQ( krell()->subdirs(), 0u );
    EXPECT_EQ( krell()->entrys(), 0u );
}

// --- Which collections are opened

TEST_F( DoMount, AWriterOpensWhatIsListed ) {
    EXPECT_CALL( firstMock, init( QelKrell::writer, true, 77 ) );
    mount( "e", engine, firstAs( QelKrell::writer, 77 ) );
    EXPECT_EQ( mounts( "/sys/Krell/e" ), 1u );
}

TEST_F( DoMount, AWriterWithoutAListOpensNothingAndCounts ) {
    mount( "e", engine, nothing );
    EXPECT_EQ( mounts( "/sys/Krell/e" ), 1u );
}

TEST_F( DoMount, WhatIsNoCollectionIsSkipped ) {
    for ( const char* name : { "scalar", "firstControl", "called", "absent", "name", "" } ) {
        MountInfo info( QelKrell::writer, true );
        info.collectionInfoIs( { name, 1 } );
        TraceLog log( "KrellMount/5", "KrellMount" );
        mount( "e", engine, info );
        EXPECT_THAT( log.take(), testing::Contains( "5 getControl() " + std::string( name ) +
                                                    " is not krelled, skipping" ) );
    }
}

TEST_F( DoMount, AReaderInALocalManagerOpensNothing ) {
    for ( const int mode : { 1, 2, 3, 9 } ) {
        mount( "e", engine, firstAs( QelKrellType( mode ), 5, true ) );
    }
    EXPECT_EQ( mounts( "/sys/Krell/e" ), 4u );
}

TEST_F( DoMountNonLocal, AReaderOpensEveryCollectionWithSizeZero ) {
    {
        InSequence order;
        EXPECT_CALL( firstMock, init( QelKrell::reader, false, 0 ) );
        EXPECT_CALL( secondMock, init( QelKrell::reader, false, 0 ) );
    }
    TraceLog log( "KrellMount/*", "KrellMount" );
    mount( "e", engine, firstAs( QelKrell::reader, 77 ) );
    const auto lines = log.take();
    const auto from =
        std::find( lines.begin(), lines.end(), "5 Mount::doMount() found collection name" );
    EXPECT_THAT( std::vector< std::string >( from, lines.end() ),
                 ElementsAre( "5 Mount::doMount() found collection name",
                              "5 getControl() name is not krelled, skipping",
                              "5 Mount::doMount() found collection scalar",
                              "5 getControl() scalar is not krelled, skipping",
                              "5 Mount::doMount() found collection scalarControl",
                              "5 getControl() scalarControl is not krelled, skipping",
                              "5 Mount::doMount() found collection first",
                              "5 getControl() found attribute first",
                              "3 Mount::doMount() initializing first",
                              "5 Mount::doMount() found collection firstControl",
                              "5 getControl() firstControl is not krelled, skipping",
                              "5 Mount::doMount() found collection second",
                              "5 getControl() found attribute second",
                              "3 Mount::doMount() initializing second",
                              "5 Mount::doMount() found collection secondControl",
                              "5 getControl() secondControl is not krelled, skipping",
                              "5 Mount::doMount() found collection called",
                              "5 getControl() called is not krelled, skipping",
                              "5 Mount::doMount() found collection calledControl",
                              "5 getControl() calledControl is not krelled, skipping" ) );
    EXPECT_EQ( lines[ 0 ],
               "3 Mount::doMount() path: e type: DoMountTest::Engine mode: reader local: 0" );
    EXPECT_FALSE( Entity::singleton< QelKrell::KrellEntities >() && mounts( "/sys/Krell/e" ) );
}

TEST_F( DoMountNonLocal, EveryRoleReachesTheControl ) {
    for ( const QelKrellType mode : { QelKrell::shadow, QelKrell::reader, QelKrell::keyshadow } ) {
        EXPECT_CALL( firstMock, init( mode, false, 0 ) );
        EXPECT_CALL( secondMock, init( mode, false, 0 ) );
        mount( "e", engine, MountInfo( mode ) );
    }
}

TEST_F( DoMountNonLocal, CleanUpComesBeforeOpening ) {
    {
        InSequence order;
        EXPECT_CALL( firstMock, cleanup() );
        EXPECT_CALL( firstMock, init( QelKrell::writer, false, 4 ) );
        EXPECT_CALL( firstMock, mountStatus() ).WillOnce( Return( 1 ) );
    }
    TraceLog log( "KrellMount/3", "KrellMount" );
    mount( "e", engine, firstAs( QelKrell::writer, 4, true ) );
    EXPECT_THAT( log.take(), testing::IsSupersetOf(
                                 { std::string( "3 Mount::doMount() cleaning up first" ),
                                   std::string( "3 Mount::doMount() initializing first" ) } ) );
}

TEST_F( DoMountNonLocal, AReaderCleansUpTooWhenAsked ) {
    EXPECT_CALL( firstMock, cleanup() );
    EXPECT_CALL( firstMock, init( QelKrell::reader, false, 0 ) );
    EXPECT_CALL( secondMock, cleanup() );
    EXPECT_CALL( secondMock, init( QelKrell::reader, false, 0 ) );
    mount( "e", engine, MountInfo( QelKrell::reader, true ) );
}

TEST_F( DoMountNonLocal, OpensTheCollectionsOfAnEntityThatIsThere ) {
    const auto e = krell()->newEntity( engine, "e" );
    EXPECT_CALL( firstMock, init( QelKrell::writer, false, 1 ) ).Times( 2 );
    EXPECT_CALL( firstMock, mountStatus() ).Times( 2 ).WillRepeatedly( Return( 1 ) );
    EXPECT_EQ( mount( "e", engine, firstAs( QelKrell::writer, 1 ) ), e );
    EXPECT_EQ( mount( "e", engine, firstAs( QelKrell::writer, 1 ) ), e );
}

// --- Failures of collections

TEST_F( DoMountNonLocal, AWriterMustBeAttachedAfterwards ) {
    for ( const int status : { 0, 2 } ) {
        EXPECT_CALL( firstMock, init( QelKrell::writer, false, 0 ) );
        EXPECT_CALL( firstMock, mountStatus() ).WillOnce( Return( status ) );
        TraceLog log( "KrellMount/0-2", "KrellMount" );
        EXPECT_EQ( refusal< QelKrell::InvalidMountStatusException >( "e", engine,
                                                                     firstAs( QelKrell::writer ) ),
                   "Mount::doMount() writer not attached" );
        EXPECT_TRUE( log.take().empty() );
    }
    EXPECT_CALL( firstMock, init( QelKrell::writer, false, 0 ) );
    EXPECT_CALL( firstMock, mountStatus() ).WillOnce( Return( 3 ) );
    EXPECT_EQ( refusal< QelKrell::InvalidMountStatusException >( "e", engine,
                                                                 firstAs( QelKrell::writer ) ),
               "Unrecognized Krell::MountStatus3" );
}

TEST_F( DoMountNonLocal, ANumberThatIsNoRoleIsRefused ) {
    for ( const int mode : { 4, 9, -1 } ) {
        EXPECT_EQ( refusal< QelKrell::InvalidInitializeException >(
                       "e", engine, MountInfo( QelKrellType( mode ) ) ),
                   "Unrecognized QelKrellType" + std::to_string( mode ) );
    }
    // An entity without collections has nothing to open.
    EXPECT_TRUE( mount( "o", other, MountInfo( QelKrellType( 9 ) ) ) );
}

TEST_F( DoMountNonLocal, FailuresOfTheLibraryComeAsFrameworkExceptions ) {
    failsWith< Krell::MemoryResourceException, QelKrell::MemoryResourceException >();
    failsWith< Krell::CorruptionDetectedException, QelKrell::CorruptionDetectedException >();
    failsWith< Krell::MemoryLimitException, Qel::MemoryLimitExceededException >();
    failsWith< Krell::PermissionException, Qel::PermissionException >();
    failsWith< Krell::UnimplementedException, QelKrell::UnimplementedException >();
    failsWith< Krell::InvalidInitializeException, QelKrell::InvalidInitializeException >();
    failsWith< Krell::TimeoutException, Qel::TimeoutException >();
    failsWith< Krell::RuntimeException, Qel::InternalException >();
    EXPECT_CALL( firstMock, init )
        .WillOnce( Throw( Krell::DuplicateWriterException( "held", 4711 ) ) );
    try {
        mount( "e", engine, firstAs( QelKrell::writer ) );
        ADD_FAILURE() << "nothing was thrown";
    } catch ( const QelKrell::DuplicateWriterException& e ) {
        EXPECT_STREQ( e.what(), "held" );
        EXPECT_EQ( e.krellDetail(), 4711u );
    }
}

TEST_F( DoMountNonLocal, FailuresOfCleanUpAreTranslatedTooAndStopTheMount ) {
    EXPECT_CALL( firstMock, cleanup() )
        .WillOnce( Throw( Krell::PermissionException( "not yours" ) ) );
    EXPECT_EQ(
        refusal< Qel::PermissionException >( "e", engine, firstAs( QelKrell::writer, 0, true ) ),
        "not yours" );
}

TEST_F( DoMountNonLocal, OtherExceptionsPass ) {
    EXPECT_CALL( firstMock, init )
        .WillOnce( Throw( std::runtime_error( "what" ) ) )
        .WillOnce( Throw( Qel::TimeoutException( "late" ) ) );
    EXPECT_EQ( refusal< std::runtime_error >( "e", engine, firstAs( QelKrell::writer ) ), "what" );
    EXPECT_EQ( refusal< Qel::TimeoutException >( "e", engine, firstAs( QelKrell::writer ) ),
               "late" );
}

TEST_F( DoMount, AFailureLeavesTheCountAndKeepsWhatWasMade ) {
    EXPECT_CALL( firstMock, init ).WillOnce( Throw( Krell::RuntimeException( "no" ) ) );
    EXPECT_EQ( refusal< Qel::InternalException >( "a/e", engine, firstAs( QelKrell::writer ) ),
               "no" );
    EXPECT_EQ( mounts( "/sys/Krell/a/e" ), 0u );
    EXPECT_TRUE( krell()->subdir( "a" )->entityRef( "e" ) );
    EXPECT_CALL( firstMock, init );
    mount( "a/e", engine, firstAs( QelKrell::writer ) );
    EXPECT_EQ( mounts( "/sys/Krell/a/e" ), 1u );
}

TEST_F( DoMountNonLocal, TheFirstFailureKeepsTheNextCollectionClosed ) {
    EXPECT_CALL( firstMock, init ).WillOnce( Throw( Krell::RuntimeException( "no" ) ) );
    EXPECT_EQ( refusal< Qel::InternalException >( "e", engine, MountInfo( QelKrell::reader ) ),
               "no" );
}

TEST_F( DoMountNonLocal, NothingIsCounted ) {
    mount( "e", other, nothing );
    EXPECT_EQ( mounts( "/sys/Krell/e" ), 0u );
}

} // namespace
