// The mount manager: its value, its initialisation, the lookups and the directory walk.

#include <Qel/Describe>
#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include <sstream>

#include <gmock/gmock.h>

#include "Python.h"
#include "Raised.h"
#include "TraceLog.h"
#include "mount/Site.h"

namespace {

using Qel::Dir;
using Qel::RangeException;
using Qel::strepToValue;
using Qel::String;
using QelKrell::getDir;
using QelKrell::Mount;
using QelKrellTest::raised;
using QelKrellTest::Site;
using QelKrellTest::TraceLog;
using testing::ElementsAre;

class Thing : public Qel::Entity {
public:
    using Qel::Entity::Entity;
};
constexpr auto describe( const Thing* ) { return Qel::entityType< Thing >( "MountTest::Thing" ); }
const Qel::Unit< Thing > thingUnit( "mount test" );

constexpr const char* everything = "KrellMount/*";

class MountTest : public testing::Test {
protected:
    QelKrellTest::Root root;
    Site site { true };
};

class Initialized : public MountTest {
protected:
    Initialized() { site.mount.handleInitialized(); }

    Dir::Ptr krell() const { return site.krell(); }
    const Mount& mount() const { return site.mount; }
};

// --- The value

TEST_F( MountTest, IsEmptyAtFirst ) {
    const Mount mount;
    EXPECT_FALSE( mount.em() );
    EXPECT_FALSE( mount.krellDir() );
    EXPECT_EQ( mount.rootPath(), "" );
    EXPECT_FALSE( mount.initialized() );
    EXPECT_TRUE( !mount );
    EXPECT_EQ( valueToStrep( mount ), "Value('QelKrell::Mount', ** {'em': None, 'krellDir': None, "
                                      "'rootPath': '', 'initialized': False})" );
    EXPECT_EQ( strepToValue< Mount >( valueToStrep( mount ) ), mount );
}

TEST_F( MountTest, IsMadeFromItsAttributesInOrder ) {
    const Mount mount( site.em, Dir::globalDir(), "/r", true );
    EXPECT_EQ( mount.em(), site.em );
    EXPECT_EQ( mount.krellDir(), Dir::globalDir() );
    EXPECT_EQ( mount.rootPath(), "/r" );
    EXPECT_TRUE( mount.initialized() );
}

TEST_F( MountTest, IsEqualByIdentityOfItsObjects ) {
    const Mount mount( site.em, Dir::globalDir(), "/r", true );
    EXPECT_EQ( mount, Mount( site.em, Dir::globalDir(), "/r", true ) );
    EXPECT_NE( mount, Mount( nullptr, Dir::globalDir(), "/r", true ) );
    EXPECT_NE( mount, Mount( site.em, site.em->sysDir(), "/r", true ) );
    EXPECT_NE( mount, Mount( site.em, Dir::globalDir(), "/R", true ) );
    EXPECT_NE( mount, Mount( site.em, Dir::globalDir(), "/r", false ) );
    const Dir::Ptr one = new Dir( "d" );
    const Dir::Ptr other = new Dir( "d" );
    EXPECT_NE( Mount( nullptr, one ), Mount( nullptr, other ) );
    EXPECT_TRUE( !Mount( nullptr ) );
    EXPECT_FALSE( !Mount( site.em ) );
    EXPECT_FALSE( !Mount( nullptr, nullptr, "x" ) );
    EXPECT_FALSE( !Mount( nullptr, nullptr, "", true ) );
}

TEST_F( MountTest, CopiesReferToTheSameObjects ) {
    const Dir::Ptr dir = new Dir( "d" );
    const Mount mount( site.em, dir );
    const auto before = dir->references();
    {
        const Mount copy( mount );
        EXPECT_EQ( copy.krellDir(), dir );
        EXPECT_EQ( dir->references(), before + 1 );
        Mount assigned;
        assigned = mount;
        EXPECT_EQ( assigned, mount );
        EXPECT_EQ( dir->references(), before + 2 );
    }
    EXPECT_EQ( dir->references(), before );
}

TEST_F( Initialized, PrintsAndReadsBack ) {
    const String text =
        "Value('QelKrell::Mount', ** {'em': Entity('Norvo::EntityManager', '/sys'), "
        "'krellDir': Entity('Qel::Dir', '/sys/Krell'), 'rootPath': '" +
        String( root.path() ) + "', 'initialized': True})";
    EXPECT_EQ( valueToStrep( mount() ), text );
    EXPECT_EQ( strepToValue< Mount >( text ), mount() );
    std::ostringstream os;
    os << mount();
    EXPECT_EQ( String( os.str() ), text );
}

TEST_F( Initialized, BadTextIsRefused ) {
    const std::pair< const char*, const char* > table[] = {
        { "Value('QelKrell::Mount', ** {'rootPath': '/r'", "premature end of value type Mount" },
        { "Value('QelKrell::Mount', ** {'em': Entity('Norvo", "premature end of value type Mount" },
        { "Value('QelKrell::Mount', ** {'path': ''})", "Mount has no such attribute: path" },
        { "Value('QelKrell::Mount', ** {'handleInitialized': None})",
          "Mount has no such attribute: handleInitialized" },
        { "Value('QelKrell::Mount', ** {'krellDir': Entity('Qel::Dir', '/sys/Other')})",
          "there is no Qel::Dir at '/sys/Other' in attribute 'krellDir'" },
        { "Value('QelKrell::Mount', ** {'krellDir': Entity('Norvo::EntityManager', '/sys')})",
          "expected a Qel::Dir but '/sys' is a Norvo::EntityManager in attribute 'krellDir'" },
        { "Value('QelKrell::Mount', ** {'em': Entity('Qel::Dir', '/sys')})",
          "expected a Norvo::EntityManager but '/sys' is a Qel::Dir in attribute 'em'" },
        { "Value('QelKrell::Mount', ** {'initialized': 1})",
          "expected True or False but found '1})' in attribute 'initialized'" },
    };
    for ( const auto& [ text, error ] : table ) {
        EXPECT_EQ( raised< RangeException >( [ text = text ] { strepToValue< Mount >( text ); } ),
                   error );
    }
    const String whole = valueToStrep( mount() );
    for ( std::size_t n = 0; n < whole.size(); ++n ) {
        EXPECT_THROW( strepToValue< Mount >( whole.substr( 0, n ) ), RangeException ) << n;
    }
}

TEST_F( Initialized, TextFormsArePythonExpressions ) {
    if ( !QelKrellTest::havePython() ) {
        GTEST_SKIP() << "python3 is not installed: the expressions were not evaluated";
    }
    QelKrell::MountInfo info( QelKrell::QelKrellType( 9 ), true );
    info.collectionInfoIs( { "it's", 1 } );
    const std::vector< QelKrellTest::PythonCase > cases {
        { "any", valueToStrep( Mount() ), "" },
        { "any", valueToStrep( mount() ), "" },
        { "any", valueToStrep( info ), "" },
        { "any", valueToStrep( info.collectionInfo( "it's" ) ), "" },
    };
    EXPECT_EQ( QelKrellTest::askPython( cases ), std::to_string( cases.size() ) + "\n" );
}

// --- Initialisation

TEST_F( MountTest, InitialisationMakesTheDirectoryAndTakesTheRootPath ) {
    ASSERT_FALSE( site.em->sysDir()->subdir( "Krell" ) );
    site.mount.handleInitialized();
    EXPECT_EQ( site.krell(), site.em->sysDir()->subdir( "Krell" ) );
    EXPECT_EQ( site.krell()->fullName(), "/sys/Krell" );
    EXPECT_EQ( site.mount.rootPath(), root.path().c_str() );
    EXPECT_TRUE( site.mount.initialized() );
    EXPECT_EQ( root.entries(), 0u );
}

TEST_F( MountTest, InitialisationFindsADirectoryThatIsThere ) {
    const Dir::Ptr dir = site.em->sysDir()->subdirIs( "Krell" );
    dir->newEntity( "MountTest::Thing", "kept" );
    site.mount.handleInitialized();
    EXPECT_EQ( site.krell(), dir );
    EXPECT_EQ( dir->entrys(), 1u );
}

TEST_F( MountTest, InitialisingAgainLeavesAnEqualValue ) {
    site.mount.handleInitialized();
    const Mount first = site.mount;
    site.mount.handleInitialized();
    EXPECT_EQ( site.mount, first );
    Mount second( site.em );
    EXPECT_NE( second, first );
    second.handleInitialized();
    EXPECT_EQ( second, first );
}

TEST_F( MountTest, InitialisingAnewTakesAnotherRootAndManager ) {
    site.mount.handleInitialized();
    const auto other = Norvo::entityManagerFactory( "other", false );
    setenv( "KRELL_ROOT", ( root.path() + "/below/" ).c_str(), 1 );
    site.mount.emIs( other );
    site.mount.handleInitialized();
    EXPECT_EQ( site.krell()->fullName(), "/other/Krell" );
    EXPECT_EQ( site.mount.rootPath(), ( root.path() + "/below" ).c_str() );
    EXPECT_FALSE( root.has( "below" ) );
    Dir::globalDir()->subdirDel( "other" );
    Dir::globalDir()->entryDel( "other" );
}

TEST_F( MountTest, InitialisationTraces ) {
    TraceLog log( everything, "KrellMount" );
    site.mount.handleInitialized();
    for ( const Qel::TraceRecord& r : log.records() ) {
        EXPECT_EQ( r.source, "src-includes/QelKrell/Debug" );
        EXPECT_EQ( r.line, 43u );
        EXPECT_EQ( r.function, "dump" );
        EXPECT_EQ( r.context, "" );
    }
    EXPECT_THAT(
        log.take(),
        ElementsAre(
            "3 Mount::handleInitialized()", "5 getDir() entering directory 'sys'",
            "5 getDir() retrieved directory '/sys'",
            "3 Mount::handleInitialized() krellDir: Entity('Qel::Dir', '/sys/Krell') rootPath: " +
                root.path() ) );
}

TEST_F( MountTest, NothingIsTracedAtLevelsThatAreOff ) {
    TraceLog log( "KrellMount/0-2+4+6-9", "KrellMount" );
    site.mount.handleInitialized();
    site.mount.getEntity( "a/b" );
    EXPECT_TRUE( log.take().empty() );
}

TEST_F( MountTest, ARootThatCannotBeUsedIsRefused ) {
    for ( const char* bad : { "relative/path", "" } ) {
        setenv( "KRELL_ROOT", bad, 1 );
        const std::string why = raised< QelKrell::InvalidInitializeException >(
            [ & ] { site.mount.handleInitialized(); } );
        EXPECT_THAT( why, testing::HasSubstr( "KRELL_ROOT" ) );
        EXPECT_FALSE( site.mount.initialized() );
        EXPECT_EQ( site.mount.rootPath(), "" );
    }
}

using MountDeathTest = MountTest;

TEST_F( MountDeathTest, WithoutTheSystemsDirectoryItAborts ) {
    Dir::globalDir()->subdirDel( "sys" );
    EXPECT_DEATH(
        site.mount.handleInitialized(),
        testing::AllOf( testing::StartsWith( "src-includes/QelKrell/KrellMount:" ),
                        testing::EndsWith( ": void QelKrell::Mount::handleInitialized(): Assertion "
                                           "`sysDirPtr && \"error accessing sysname "
                                           "directory\"' failed.\n" ) ) );
}

using InitializedDeathTest = Initialized;

TEST_F( InitializedDeathTest, AnEmptyPathAborts ) {
    const auto aborts = []( const std::string& function ) {
        return testing::AllOf(
            testing::StartsWith( "src-includes/QelKrell/KrellMount:" ),
            testing::EndsWith( ": Qel::Entity::Ptr QelKrell::Mount::" + function +
                               " const: Assertion `!entityPath.empty() && \"path is "
                               "empty\"' failed.\n" ) );
    };
    EXPECT_DEATH( mount().getQelEntity( "" ), aborts( "getQelEntity(Qel::String)" ) );
    EXPECT_DEATH( mount().getEntity( "" ), aborts( "getQelEntity(Qel::String)" ) );
    EXPECT_DEATH( mount().doMount( "", "MountTest::Thing", QelKrell::MountInfo() ),
                  aborts( "doMount(Qel::String, Qel::String, const QelKrell::MountInfo&)" ) );
}

// --- The directory walk

TEST_F( Initialized, GetDirWalksDownSubDirectories ) {
    const Dir::Ptr b = krell()->subdirIs( "a" )->subdirIs( "b" );
    TraceLog log( everything, "KrellMount" );
    EXPECT_EQ( getDir( "a/b", krell() ), b );
    EXPECT_THAT( log.take(), ElementsAre( "5 getDir() entering directory 'a'",
                                          "5 getDir() entering directory 'b'",
                                          "5 getDir() retrieved directory '/sys/Krell/a/b'" ) );
    EXPECT_EQ( getDir( "a", krell() ), krell()->subdir( "a" ) );
    EXPECT_EQ( getDir( "sys/Krell/a/b", Dir::globalDir() ), b );
}

TEST_F( Initialized, GetDirFindsNothingBehindEmptyComponents ) {
    krell()->subdirIs( "a" )->subdirIs( "b" );
    for ( const char* path : { "", "/", "//", "/a", "a/", "a//b", "a/b/" } ) {
        EXPECT_FALSE( getDir( path, krell() ) ) << path;
    }
    TraceLog log( everything, "KrellMount" );
    EXPECT_FALSE( getDir( "", Dir::globalDir() ) );
    EXPECT_THAT( log.take(), ElementsAre( "5 getDir() entering directory ''",
                                          "5 getDir() unable to retrieve ''" ) );
    EXPECT_FALSE( getDir( "a", nullptr ) );
    EXPECT_THAT( log.take(), ElementsAre( "5 getDir() unable to retrieve 'a'" ) );
}

TEST_F( Initialized, GetDirPassesEntitiesOver ) {
    krell()->newEntity( "MountTest::Thing", "e" );
    EXPECT_FALSE( getDir( "e", krell() ) );
    EXPECT_FALSE( krell()->subdir( "e" ) );
    const Dir::Ptr dir = krell()->subdirIs( "e" );
    EXPECT_EQ( getDir( "e", krell() ), dir );
}

TEST_F( Initialized, GetDirNeverCreates ) {
    EXPECT_FALSE( getDir( "x/y", krell() ) );
    EXPECT_EQ( krell()->subdirs(), 0u );
}

// --- Entities

TEST_F( Initialized, AnEntityOfTheKrellDirectoryIsFoundWithoutAWalk ) {
    const auto e = krell()->newEntity( "MountTest::Thing", "e" );
    TraceLog log( everything, "KrellMount" );
    EXPECT_EQ( mount().getQelEntity( "e" ), e );
    const auto lines = log.take();
    EXPECT_THAT( lines, ElementsAre( "3 Mount::getEntity() path: e",
                                     "5 Mount::getEntity() getting entity 'e'",
                                     "3 Mount::getEntity() successfully retrieved "
                                     "Entity('MountTest::Thing', '/sys/Krell/e')" ) );
    EXPECT_EQ( mount().getEntity( "e" ), e );
    EXPECT_EQ( log.take(), lines );
}

TEST_F( Initialized, AnEntityIsFoundThroughItsDirectories ) {
    const auto e = krell()->subdirIs( "a" )->subdirIs( "b" )->newEntity( "MountTest::Thing", "e" );
    TraceLog log( everything, "KrellMount" );
    EXPECT_EQ( mount().getEntity( "a/b/e" ), e );
    EXPECT_THAT( log.take(), ElementsAre( "3 Mount::getEntity() path: a/b/e",
                                          "5 getDir() entering directory 'a'",
                                          "5 getDir() entering directory 'b'",
                                          "5 getDir() retrieved directory '/sys/Krell/a/b'",
                                          "5 Mount::getEntity() getting entity 'e'",
                                          "3 Mount::getEntity() successfully retrieved "
                                          "Entity('MountTest::Thing', '/sys/Krell/a/b/e')" ) );
}

TEST_F( Initialized, AMissingDirectoryOnTheWayGivesNull ) {
    krell()->subdirIs( "a" );
    TraceLog log( everything, "KrellMount" );
    EXPECT_FALSE( mount().getQelEntity( "a/b/e" ) );
    EXPECT_THAT(
        log.take(),
        ElementsAre( "3 Mount::getEntity() path: a/b/e", "5 getDir() entering directory 'a'",
                     "5 getDir() entering directory 'b'", "5 getDir() unable to retrieve 'a/b'",
                     "3 Mount::getEntity() unable to retrieve entity 'a/b/e'" ) );
}

TEST_F( Initialized, AMissingEntityGivesNull ) {
    krell()->subdirIs( "a" );
    TraceLog log( everything, "KrellMount" );
    EXPECT_FALSE( mount().getQelEntity( "a" ) ); // a directory is no entity
    EXPECT_THAT( log.take(), ElementsAre( "3 Mount::getEntity() path: a",
                                          "5 Mount::getEntity() getting entity 'a'",
                                          "3 Mount::getEntity() unable to retrieve entity 'a'" ) );
    for ( const char* path : { "/a", "a/", "/", "a//e", "x" } ) {
        EXPECT_FALSE( mount().getEntity( path ) ) << path;
    }
    EXPECT_EQ( krell()->subdirs(), 1u );
}

} // namespace
