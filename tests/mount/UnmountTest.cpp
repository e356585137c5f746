// Unmounting: counts, deletion, and which emptied directories go.

#include <Norvo/EntityManager>
#include <Qel/Describe>
#include <QelKrell/Generic>

#include <gmock/gmock.h>

#include "Raised.h"
#include "TraceLog.h"

namespace {

using QelKrell::KrellEntities;
using QelKrellTest::raised;
using QelKrellTest::TraceLog;
using testing::ElementsAre;
using testing::IsEmpty;

class Bare : public Qel::Entity {
public:
    using Qel::Entity::Entity;
};
constexpr auto describe( const Bare* ) { return Qel::entityType< Bare >( "UnmountTest::Bare" ); }
const Qel::Unit< Bare > bareUnit( "unmount test" );

class Unmount : public testing::Test {
protected:
    Unmount() { open( true ); }
    ~Unmount() override {
        counts->countDelAll();
        Qel::Dir::globalDir()->entryDelAll();
        Qel::Dir::globalDir()->subdirDelAll();
    }

    void open( bool local ) {
        Qel::Dir::globalDir()->entryDelAll();
        Qel::Dir::globalDir()->subdirDelAll();
        manager = Norvo::entityManagerFactory( "sys", local );
        mount = QelKrell::Mount( manager );
        mount.handleInitialized();
        krell = mount.krellDir();
    }
    Qel::Entity::Ptr put( const char* path ) {
        return mount.doMount( path, "UnmountTest::Bare", QelKrell::MountInfo( QelKrell::writer ) );
    }
    Qel::U32 count( const char* path ) {
        return counts->count( Qel::String( "/sys/Krell/" ) + path );
    }
    bool there( const char* path ) { return bool( mount.getEntity( path ) ); }
    bool dirThere( const char* path ) { return bool( QelKrell::getDir( path, krell ) ); }

    KrellEntities::Ptr counts = QelKrell::krellEntitiesFactory( "KrellEntities" );
    Norvo::EntityManager::Ptr manager;
    QelKrell::Mount mount;
    Qel::Dir::Ptr krell;
};

TEST_F( Unmount, SharedEntityGoesWithItsLastMount ) {
    put( "a/b/e" );
    put( "a/b/e" );
    put( "a/f" );
    EXPECT_EQ( count( "a/b/e" ), 2u );
    mount.doUnmount( "a/b/e" );
    EXPECT_EQ( count( "a/b/e" ), 1u );
    EXPECT_TRUE( there( "a/b/e" ) );
    mount.doUnmount( "a/b/e" );
    EXPECT_FALSE( there( "a/b/e" ) );
    EXPECT_EQ( counts->counts(), 1u );
    EXPECT_FALSE( dirThere( "a/b" ) );
    EXPECT_TRUE( dirThere( "a" ) ) << "it still holds f";
    mount.doUnmount( "a/f" );
    EXPECT_FALSE( dirThere( "a" ) );
    EXPECT_EQ( Qel::Dir::globalDir()->subdir( "sys" )->subdir( "Krell" ), krell );
}

TEST_F( Unmount, TracesEachStep ) {
    put( "a/e" );
    TraceLog lines( "KrellMount/*", "KrellMount" );
    mount.doUnmount( "a/e" );
    EXPECT_THAT(
        lines.take(),
        ElementsAre( "3 Mount::doUnmount() path: a/e local: 1", "3 Mount::getEntity() path: a/e",
                     "5 getDir() entering directory 'a'",
                     "5 getDir() retrieved directory '/sys/Krell/a'",
                     "5 Mount::getEntity() getting entity 'e'",
                     "3 Mount::getEntity() successfully retrieved Entity('UnmountTest::Bare', "
                     "'/sys/Krell/a/e')",
                     "5 unmountCohabEntity() decremented ref count of '/sys/Krell/a/e' to 0",
                     "3 unmountCohabEntity() unmounting '/sys/Krell/a/e'",
                     "5 unmountCohabEntity() deleted entry 'e' from directory '/sys/Krell/a'",
                     "5 cleanupEmptyDirs() deleting empty directory '/sys/Krell/a'" ) );
}

TEST_F( Unmount, DirectoryLosesOneReferenceOfEachEntityBelow ) {
    for ( const char* path : { "a/b/e", "a/b/e", "a/b/c/f", "a/g", "h" } ) {
        put( path );
    }
    mount.doUnmount( "a" );
    EXPECT_EQ( count( "a/b/e" ), 1u );
    EXPECT_FALSE( there( "a/b/c/f" ) );
    EXPECT_FALSE( there( "a/g" ) );
    EXPECT_FALSE( dirThere( "a/b/c" ) ) << "left empty below the named one";
    EXPECT_TRUE( dirThere( "a/b" ) );
    EXPECT_EQ( count( "h" ), 1u );
    mount.doUnmount( "a" );
    EXPECT_FALSE( there( "a/b/e" ) );
    EXPECT_FALSE( dirThere( "a/b" ) );
    EXPECT_TRUE( dirThere( "a" ) ) << "the named directory itself stays";
    EXPECT_EQ( counts->counts(), 1u );
}

TEST_F( Unmount, EmptyDirectoriesAboveTheNamedOneStayWhileItStays ) {
    put( "a/b/c/e" );
    mount.doUnmount( "a/b/c" );
    EXPECT_TRUE( dirThere( "a/b/c" ) );
    EXPECT_FALSE( there( "a/b/c/e" ) );
}

TEST_F( Unmount, AllLosesOneReferenceEach ) {
    put( "a/e" );
    put( "a/e" );
    put( "f" );
    mount.doUnmountAll();
    EXPECT_EQ( count( "a/e" ), 1u );
    EXPECT_FALSE( there( "f" ) );
    mount.doUnmountAll();
    EXPECT_FALSE( there( "a/e" ) );
    EXPECT_FALSE( dirThere( "a" ) );
    EXPECT_EQ( counts->counts(), 0u );
    EXPECT_EQ( Qel::Dir::globalDir()->subdir( "sys" )->subdir( "Krell" ), krell );
}

TEST_F( Unmount, NothingMountedIsNoError ) {
    put( "a/e" );
    mount.doUnmount( "b/c" );
    mount.doUnmount( "a//e" );
    EXPECT_TRUE( there( "a/e" ) );
    open( false );
    put( "a/e" );
    mount.doUnmount( "b" );
    EXPECT_TRUE( there( "a/e" ) );
}

TEST_F( Unmount, OtherManagersEntityGoesAtOnce ) {
    open( false );
    put( "a/b/e" );
    put( "a/b/e" );
    counts->countIs( "/sys/Krell/a/b/e", 7 );
    mount.doUnmount( "a/b/e" );
    EXPECT_FALSE( there( "a/b/e" ) );
    EXPECT_FALSE( dirThere( "a" ) );
    EXPECT_EQ( count( "a/b/e" ), 7u ) << "no count is touched";
}

TEST_F( Unmount, OtherManagersDirectoryGoesWhole ) {
    open( false );
    put( "a/b/e" );
    put( "a/b/c/f" );
    put( "a/g" );
    mount.doUnmount( "a/b" );
    EXPECT_FALSE( dirThere( "a/b" ) );
    EXPECT_TRUE( there( "a/g" ) );
    mount.doUnmount( "a" );
    EXPECT_EQ( krell->subdirs(), 0u );
}

TEST_F( Unmount, OtherManagersAllGo ) {
    open( false );
    for ( const char* path : { "a/b/e", "f", "g" } ) {
        put( path );
    }
    mount.doUnmountAll();
    EXPECT_EQ( krell->subdirs(), 0u );
    EXPECT_EQ( krell->entrys(), 0u );
    EXPECT_TRUE( krell->parent() );
}

TEST_F( Unmount, EmptyPathAborts ) {
    EXPECT_DEATH(
        mount.doUnmount( "" ),
        "src-includes/QelKrell/KrellMount:231: void QelKrell::Mount::doUnmount\\(Qel::String\\) "
        "const: Assertion `!path.empty\\(\\) && \"path is empty\"' failed." );
}

TEST_F( Unmount, EntityThatWasNeverCountedAborts ) {
    put( "e" );
    counts->countDelAll();
    EXPECT_DEATH(
        mount.doUnmount( "e" ),
        "void QelKrell::unmountCohabEntity\\(const Qel::Entity::Ptr&, const Qel::Dir::Ptr&, "
        "bool\\): Assertion `krellEntities->count\\( entityFullName \\)' failed." );
    EXPECT_DEATH( QelKrell::unmountCohabEntity( nullptr, krell, false ),
                  "Assertion `entity' failed." );
    EXPECT_DEATH(
        QelKrell::unmountCohabDir( nullptr, krell ),
        "void QelKrell::unmountCohabDir\\(const Qel::Dir::Ptr&, const Qel::Dir::Ptr&, bool\\): "
        "Assertion `dir' failed." );
}

TEST_F( Unmount, EmptyDirectoriesGoUpToTheTop ) {
    Qel::Dir::Ptr dir = krell->subdirIs( "a" )->subdirIs( "b" )->subdirIs( "c" );
    QelKrell::cleanupEmptyDirs( dir, krell );
    EXPECT_EQ( dir, krell );
    EXPECT_EQ( krell->subdirs(), 0u );
    QelKrell::cleanupEmptyDirs( dir, krell );
    EXPECT_EQ( Qel::Dir::globalDir()->subdir( "sys" )->subdir( "Krell" ), krell );

    dir = krell->subdirIs( "a" )->subdirIs( "b" );
    krell->subdir( "a" )->newEntity( "UnmountTest::Bare", "e" );
    QelKrell::cleanupEmptyDirs( dir, krell );
    EXPECT_EQ( dir->fullName(), "/sys/Krell/a" );
}

TEST_F( Unmount, EmptyRootStaysInPlace ) {
    Qel::Dir::Ptr root = Qel::Dir::globalDir();
    root->entryDelAll();
    root->subdirDelAll();
    QelKrell::cleanupEmptyDirs( root, new Qel::Dir( "elsewhere" ) );
    EXPECT_EQ( root, Qel::Dir::globalDir() );
    EXPECT_EQ( root->parent(), root );
}

TEST_F( Unmount, TreesOfAnyDepthAreWalked ) {
    constexpr int depth = 100000;
    Qel::Dir::Ptr dir = krell;
    for ( int i = 0; i < depth; ++i ) {
        dir = dir->subdirIs( "d" );
    }
    dir->newEntity( "UnmountTest::Bare", "e" );
    dir = nullptr;
    Qel::String path = "/sys/Krell";
    std::string below;
    for ( int i = 0; i < depth; ++i ) {
        below += "/d";
    }
    counts->countIs( path + below.c_str() + "/e", 1 );
    mount.doUnmountAll();
    EXPECT_EQ( krell->subdirs(), 0u );
    EXPECT_EQ( counts->counts(), 0u );
}

TEST_F( Unmount, GenericCallsCheckTheirArguments ) {
    put( "a/e" );
    QelKrell::Mount::GenericIf_ generic( mount );
    const QelKrell::Mount& constMount = mount;
    QelKrell::Mount::GenericIf_ constant( constMount );
    EXPECT_EQ( raised< Qel::UnknownArgumentException >( [ & ] {
                   generic.call( "doUnmount", { { "path", Qel::genericValue( "a/e" ) } } );
               } ),
               "operation 'doUnmount' takes no argument 'path'" );
    EXPECT_EQ( raised< Qel::TypeException >( [ & ] {
                   generic.call( "doUnmount", { { "entityPath", Qel::genericValue( 1u ) } } );
               } ),
               "argument 'entityPath' of operation 'doUnmount' takes a Qel::String8, not a U32" );
    EXPECT_EQ( raised< Qel::MissingArgumentException >( [ & ] { generic.call( "doUnmount" ); } ),
               "operation 'doUnmount' needs argument 'entityPath'" );
    EXPECT_TRUE( there( "a/e" ) );
    constant.call( "doUnmount", { { "entityPath", Qel::genericValue( "a/e" ) } } );
    EXPECT_FALSE( there( "a/e" ) );
    put( "b" );
    generic.call( "doUnmountAll" );
    EXPECT_FALSE( there( "b" ) );
}

} // namespace
