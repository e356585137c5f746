// Finding mounted entities, and cleaning up, from the files alone: what dead processes left, and
// trees that nobody of ours made.

#include <algorithm>
#include <fstream>
#include <thread>

#include <QelKrell/Exception>
#include <QelKrell/Generic>

#include <gmock/gmock.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "Raised.h"
#include "TraceLog.h"
#include "mount/Child.h"
#include "mount/Mounted.h"

namespace {

using namespace QelKrellTest;
using QelKrell::KrellEntities;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// A second type, which shares one of its collections' value types with the first.
class Tank : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    Qel::U32 level( Qel::U32 ) const { return 0; }
    std::vector< Qel::U32 > levels() const { return {}; }
    QelKrell::Collection< &MountBench::Limit::name > limit;
};
constexpr auto describe( const Tank* ) {
    return Qel::entityType< Tank >( "FindTest::Tank",
                                    Qel::indexed( "level", &Tank::level, &Tank::levels ),
                                    QelKrell::collection( "limit", &Tank::limit ) );
}
const Qel::Unit< Tank > tankUnit( "find test" );

class FindAndCleanup : public testing::Test {
protected:
    FindAndCleanup() { site.mount.handleInitialized(); }

    std::vector< std::string > found( const char* below = "" ) {
        const auto counts = Qel::ptrCast< KrellEntities >( site.mount.find( below ) );
        std::vector< std::string > names;
        for ( const Qel::String8& name : counts->names() ) {
            EXPECT_EQ( counts->count( name ), 1U ) << name;
            names.push_back( name.stdString() );
        }
        return names;
    }
    void file( const std::string& below, const std::string& bytes = "x" ) {
        const std::filesystem::path place = top() + "/" + below;
        std::filesystem::create_directories( place.parent_path() );
        std::ofstream( place ) << bytes;
    }
    std::string top() const { return root.path() + "/sys/Krell"; }
    static QelKrell::MountInfo tanks() {
        QelKrell::MountInfo info( QelKrell::writer );
        info.collectionInfoIs( { "limit", 4 } );
        return info;
    }
    // A slot table without slots, whose header records that entity type.
    void slotsOf( const char* below, const std::string& entityType ) {
        Krell::SlotTable< Krell::EmptyValue >::Header header;
        entityType.copy( header.entityType, sizeof header.entityType );
        header.checksum = header.doHash();
        file( below, std::string( reinterpret_cast< const char* >( &header ), sizeof header ) );
    }
    // Mounts plants as their writer in another process, which then dies by SIGKILL.
    void dieWith( const std::vector< std::string >& paths ) {
        Child child( [ & ]( const Channel& parent ) {
            for ( const std::string& p : paths ) {
                const auto plant = Qel::ptrCast< MountBench::Plant >(
                    site.mount.doMount( p, MountBench::plantType, asWriter( 4 ) ) );
                plant->reading.is( readingOf( 1, 1 ) );
            }
            parent.say( "mounted" );
            parent.hear();
        } );
        ASSERT_EQ( child.hear(), "mounted" );
        child.kill();
    }

    Root root;
    Site site { false };
};

TEST_F( FindAndCleanup, EveryEntityOfDeadProcessesIsFoundOnce ) {
    std::vector< std::string > paths;
    std::vector< std::string > wanted;
    for ( int i = 0; i < 200; ++i ) {
        paths.push_back( "row" + std::to_string( i % 7 ) + "/deep/plant" + std::to_string( i ) );
        wanted.push_back( "/sys/Krell/" + paths.back() );
    }
    dieWith( paths );
    EXPECT_THAT( found(), testing::UnorderedElementsAreArray( wanted ) );
    EXPECT_THAT( found( "/" ), testing::UnorderedElementsAreArray( wanted ) );
}

TEST_F( FindAndCleanup, PathsAreTakenWithSlashesAroundThem ) {
    file( "a/e/reading/slots" );
    file( "b/f/reading/slots" );
    for ( const char* path : { "a", "/a", "a/", "/a///", "a/e" } ) {
        KrellEntities::Ptr counts = QelKrell::krellEntitiesFactory( "" );
        counts->countDelAll();
        EXPECT_THAT( found( path ), ElementsAre( "/sys/Krell/a/e" ) ) << path;
    }
    QelKrell::krellEntitiesFactory( "" )->countDelAll();
    EXPECT_THAT( found( "nowhere" ), IsEmpty() );
}

TEST_F( FindAndCleanup, AnyFileButTheMarkerShowsACollection ) {
    for ( const char* name :
          { "slots", "conquer.1", "conquer.2", "buckets", "fenix", "last-owner", "whatever" } ) {
        file( std::string( "dir/of-" ) + name + "/c/" + name );
    }
    file( "dir/marked/c/corruption-detected" );
    file( "dir/both/c/corruption-detected" );
    file( "dir/both/c/slots" );
    std::filesystem::create_directories( top() + "/dir/empty/c" );
    EXPECT_THAT( found(),
                 UnorderedElementsAre( "/sys/Krell/dir/of-slots", "/sys/Krell/dir/of-conquer.1",
                                       "/sys/Krell/dir/of-conquer.2", "/sys/Krell/dir/of-buckets",
                                       "/sys/Krell/dir/of-fenix", "/sys/Krell/dir/of-last-owner",
                                       "/sys/Krell/dir/of-whatever", "/sys/Krell/dir/both" ) );
}

TEST_F( FindAndCleanup, ACountThatWasTwoIsOneAgainAndOthersStay ) {
    file( "a/e/reading/slots" );
    file( "a/e/limit/slots" );
    const auto counts = QelKrell::krellEntitiesFactory( "" );
    counts->countIs( "/sys/Krell/a/e", 2 );
    counts->countIs( "/sys/Krell/elsewhere", 5 );
    site.mount.find( "" );
    EXPECT_EQ( counts->count( "/sys/Krell/a/e" ), 1U );
    EXPECT_EQ( counts->count( "/sys/Krell/elsewhere" ), 5U );
}

TEST_F( FindAndCleanup, MountAndFindCountUnderOneKey ) {
    site.mount.doMount( "a/e", MountBench::plantType, asWriter( 4 ) );
    EXPECT_THAT( found(), ElementsAre( "/sys/Krell/a/e" ) );
    EXPECT_EQ( site.mount.getEntity( "a/e" )->fullName(), "/sys/Krell/a/e" );
}

TEST_F( FindAndCleanup, ACollectionAsTheSearchPathIsRefused ) {
    file( "a/e/reading/slots" );
    TraceLog log( "KrellMount/0", "KrellMount" );
    try {
        site.mount.find( "a/e/reading" );
        ADD_FAILURE() << "nothing was thrown";
    } catch ( const Qel::InternalException& e ) {
        EXPECT_STREQ( e.what(),
                      "Mount::find() detected that the search path is a collection directory" );
        EXPECT_TRUE( e.hasId( 11 ) );
    }
    EXPECT_THAT( log.take(), ElementsAre( "0 Mount::find() detected that the search path is a "
                                          "collection directory" ) );
}

TEST_F( FindAndCleanup, TracesWhatItFinds ) {
    file( "a/e/reading/slots" );
    TraceLog log( "KrellMount/0-5", "KrellMount" );
    site.mount.find( "/a/" );
    const auto lines = log.take();
    ASSERT_GE( lines.size(), 2U );
    EXPECT_EQ( lines.front(), "3 Mount::find() path: /a/" );
    EXPECT_THAT( lines, testing::Contains( "5 Mount::find() found entity '/sys/Krell/a/e'" ) );
}

TEST_F( FindAndCleanup, ForeignTreesEndInAResult ) {
    file( "a/e/reading/slots" );
    std::filesystem::create_directory_symlink( "..", top() + "/a/loop" );
    std::filesystem::create_symlink( "/etc/passwd", top() + "/a/link" );
    ASSERT_EQ( mkfifo( ( top() + "/a/fifo" ).c_str(), 0600 ), 0 );
    file( "odd \n' \xff name/e/c/slots" );
    std::string deep = "d";
    while ( top().size() + deep.size() < 3500 ) {
        deep += "/dddddddddddddddddddddddddddddd";
    }
    file( deep + "/e/c/slots" );
    const auto names = found();
    EXPECT_EQ( names.size(), 3U );
    EXPECT_THAT( names, testing::Contains( "/sys/Krell/odd \n' \xff name/e" ) );
    EXPECT_THAT( names, testing::Contains( "/sys/Krell/" + deep + "/e" ) );
}

TEST_F( FindAndCleanup, APathThatIsTooLongIsNamed ) {
    file( "a/e/reading/slots" );
    const std::string link = std::string( 200, 'd' );
    Child child( [ & ]( const Channel& parent ) { // its working directory goes down and down
        std::filesystem::current_path( top() + "/a" );
        for ( int i = 0; i < 25; ++i ) {
            if ( mkdir( link.c_str(), 0700 ) != 0 || chdir( link.c_str() ) != 0 ) {
                parent.say( "cannot go deeper" );
                return;
            }
        }
        parent.say( "made" );
    } );
    ASSERT_EQ( child.hear(), "made" );
    child.wait();
    EXPECT_THAT( raised< Qel::InternalException >( [ & ] { site.mount.find( "" ); } ),
                 testing::EndsWith( " errno: File name too long" ) );
}

TEST_F( FindAndCleanup, AnUnreadableDirectoryIsNamed ) {
    if ( geteuid() != 0 ) {
        GTEST_SKIP() << "needs to become another user";
    }
    file( "a/e/reading/slots" );
    std::filesystem::permissions( root.path(), std::filesystem::perms::all );
    for ( const char* dir : { "/sys", "/sys/Krell" } ) {
        std::filesystem::permissions( root.path() + dir, std::filesystem::perms::all );
    }
    std::filesystem::permissions( top() + "/a", std::filesystem::perms::owner_all );
    Child child( [ & ]( const Channel& parent ) {
        static_cast< void >( setuid( 65534 ) );
        parent.say( raised< Qel::InternalException >( [ & ] { site.mount.find( "" ); } ) );
    } );
    EXPECT_EQ( child.hear(),
               "DirNode::DirNode() failed to open " + top() + "/a errno: Permission denied" );
}

TEST_F( FindAndCleanup, DirectoriesMayVanishMeanwhile ) {
    for ( int i = 0; i < 300; ++i ) {
        file( "d" + std::to_string( i ) + "/e/c/slots" );
    }
    std::thread remover( [ & ] {
        for ( int i = 0; i < 300; ++i ) {
            std::error_code ignored;
            std::filesystem::remove_all( top() + "/d" + std::to_string( i ), ignored );
        }
    } );
    EXPECT_NO_THROW( site.mount.find( "" ) );
    remover.join();
    QelKrell::krellEntitiesFactory( "" )->countDelAll();
    EXPECT_THAT( found(), IsEmpty() );
}

TEST_F( FindAndCleanup, TenThousandCollectionsAreWalked ) {
    for ( int entity = 0; entity < 100; ++entity ) {
        const std::string place = top() + "/e" + std::to_string( entity );
        for ( int collection = 0; collection < 100; ++collection ) {
            const std::string dir = place + "/c" + std::to_string( collection );
            std::filesystem::create_directories( dir );
            std::ofstream( dir + "/slots" ) << "x";
        }
    }
    EXPECT_EQ( found().size(), 100U );
}

TEST_F( FindAndCleanup, EntitiesOfSeveralTypesAreFoundAndCleaned ) {
    for ( int process = 0; process < 3; ++process ) {
        Child child( [ & ]( const Channel& parent ) {
            for ( int i = process; i < 150; i += 3 ) {
                const std::string number = std::to_string( i );
                site.mount.doMount( "plants/" + number, MountBench::plantType, asWriter( 4 ) );
                site.mount.doMount( "tanks/" + number, "FindTest::Tank", tanks() );
            }
            parent.say( "mounted" );
            parent.hear();
        } );
        ASSERT_EQ( child.hear(), "mounted" );
        child.kill();
    }
    EXPECT_EQ( found().size(), 300U );
    for ( int i = 0; i < 150; ++i ) {
        site.mount.cleanup( "plants/" + std::to_string( i ) );
        site.mount.cleanup( "tanks/" + std::to_string( i ) );
    }
    for ( const auto& entry : std::filesystem::recursive_directory_iterator( root.path() ) ) {
        EXPECT_NE( entry.path().filename(), "slots" ) << entry.path();
    }
}

// --- What unmounting gives back

std::vector< std::string > openDescriptors() {
    std::vector< std::string > all;
    for ( const auto& entry : std::filesystem::directory_iterator( "/proc/self/fd" ) ) {
        std::error_code gone;
        all.push_back( std::filesystem::read_symlink( entry.path(), gone ) );
    }
    std::sort( all.begin(), all.end() );
    return all;
}

std::size_t mappingsBelow( const std::string& path ) {
    std::ifstream maps( "/proc/self/maps" );
    std::size_t n = 0;
    for ( std::string line; std::getline( maps, line ); ) {
        n += line.find( path ) != std::string::npos;
    }
    return n;
}

TEST_F( FindAndCleanup, AnUnmountedReaderLeavesNothingBehind ) {
    dieWith( { "a/e" } );
    const auto mountAndUnmount = [ & ] {
        site.mount.doMount( "a/e", MountBench::plantType, asReader );
        EXPECT_EQ( mappingsBelow( root.path() ), 4U ) << "two segments of two collections";
        site.mount.doUnmount( "a/e" );
    };
    mountAndUnmount(); // what the process makes once, like the loop's descriptors, is there now
    const auto before = openDescriptors();
    for ( int i = 0; i < 50; ++i ) {
        mountAndUnmount();
    }
    EXPECT_EQ( openDescriptors(), before );
    EXPECT_EQ( mappingsBelow( root.path() ), 0U );
}

TEST_F( FindAndCleanup, AnUnmountedWriterLetsTheNextOneIn ) {
    site.mount.doMount( "a/e", MountBench::plantType, asWriter( 4 ) );
    const auto tryToWrite = [ & ] {
        Child child( [ & ]( const Channel& parent ) {
            site.mount.doUnmountAll(); // the fork's copy, whose lock is the parent's
            try {
                site.mount.doMount( "a/e", MountBench::plantType, asWriter( 4 ) );
                parent.say( "mounted" );
            } catch ( const QelKrell::DuplicateWriterException& e ) {
                parent.say( "refused because of " + std::to_string( e.krellDetail() ) );
            }
        } );
        return child.hear();
    };
    EXPECT_EQ( tryToWrite(), "refused because of " + std::to_string( getpid() ) );
    site.mount.doUnmount( "a/e" );
    EXPECT_EQ( tryToWrite(), "mounted" );
    EXPECT_EQ( mappingsBelow( root.path() ), 0U );
}

// --- Cleaning up

TEST_F( FindAndCleanup, CollectionsOfADeadProcessAreReset ) {
    dieWith( { "a/e" } );
    ASSERT_TRUE( root.has( "sys/Krell/a/e/reading/fenix" ) );
    TraceLog log( "KrellMount/0-5", "KrellMount" );
    site.mount.cleanup( "a/e" );
    const auto lines = log.take();
    EXPECT_EQ( lines.front(), "3 Mount::cleanup() path: a/e" );
    for ( const char* wanted :
          { "5 Mount::cleanup() found collection reading", "3 Mount::cleanup() cleaning up reading",
            "5 Mount::cleanup() found collection limit",
            "3 Mount::cleanup() cleaning up limit" } ) {
        EXPECT_THAT( lines, testing::Contains( wanted ) );
    }
    for ( const char* collection : { "reading", "limit" } ) {
        for ( const char* name : { "fenix", "slots", "buckets" } ) {
            EXPECT_FALSE( root.has( std::string( "sys/Krell/a/e/" ) + collection + "/" + name ) );
        }
    }
    const auto plant = Qel::ptrCast< MountBench::Plant >(
        site.mount.doMount( "a/e", MountBench::plantType, asWriter( 4 ) ) );
    EXPECT_EQ( plant->reading.size(), 0U );
}

TEST_F( FindAndCleanup, AReaderSeesThatItsCollectionWasReset ) {
    dieWith( { "a/e" } );
    const auto plant = Qel::ptrCast< MountBench::Plant >(
        site.mount.doMount( "a/e", MountBench::plantType, asReader ) );
    ASSERT_EQ( plant->reading.size(), 1U );
    Child child( [ & ]( const Channel& parent ) {
        site.mount.cleanup( "a/e" );
        parent.say( "cleaned" );
    } );
    ASSERT_EQ( child.hear(), "cleaned" );
    child.wait();
    plant->reading.core().poll();
    EXPECT_EQ( plant->reading.size(), 0U );
    EXPECT_FALSE( plant->reading( 1 ) );
}

TEST_F( FindAndCleanup, AWriterAtWorkIsNotDisturbed ) {
    Child child( [ & ]( const Channel& parent ) {
        const auto plant = Qel::ptrCast< MountBench::Plant >(
            site.mount.doMount( "a/e", MountBench::plantType, asWriter( 4 ) ) );
        parent.say( "mounted" );
        parent.hear();
        parent.say( plant->reading.is( readingOf( 2, 2 ) ) ? "written" : "not written" );
    } );
    ASSERT_EQ( child.hear(), "mounted" );
    try {
        site.mount.cleanup( "a/e" );
        ADD_FAILURE() << "nothing was thrown";
    } catch ( const QelKrell::DuplicateWriterException& e ) {
        EXPECT_EQ( e.krellDetail(), Qel::U32( child.pid() ) );
    }
    EXPECT_TRUE( root.has( "sys/Krell/a/e/reading/fenix" ) );
    child.say( "go on" );
    EXPECT_EQ( child.hear(), "written" );
}

TEST_F( FindAndCleanup, AnEmptyPathDoesNothing ) {
    TraceLog log( "KrellMount/*", "KrellMount" );
    site.mount.cleanup( "" );
    EXPECT_THAT( log.take(),
                 ElementsAre( "3 Mount::cleanup() path: ",
                              "3 Mount::cleanup() nothing to do since path is empty" ) );
}

TEST_F( FindAndCleanup, WithoutAReadableTypeNothingIsCleaned ) {
    const std::string message = "Mount::cleanup() failed to find the entity type of a/e. All "
                                "underlying slots files may have been deleted or corrupted.";
    const auto cleanup = [ & ] {
        return raised< Qel::InternalException >( [ & ] { site.mount.cleanup( "a/e" ); } );
    };
    EXPECT_EQ( cleanup(), message );
    file( "a/e/short/slots", std::string( 199, 'x' ) );
    file( "a/e/foreign/slots", std::string( 4096, 'x' ) );
    file( "a/e/none/buckets" );
    TraceLog log( "KrellMount/3", "KrellMount" );
    EXPECT_EQ( cleanup(), message );
    EXPECT_THAT(
        log.take(),
        UnorderedElementsAre(
            "3 Mount::cleanup() path: a/e",
            "3 Mount::cleanup() failed to read entity type from " + top() + "/a/e/short",
            "3 Mount::cleanup() failed to read entity type from " + top() + "/a/e/foreign" ) );
    EXPECT_TRUE( root.has( "sys/Krell/a/e/foreign/slots" ) );
}

TEST_F( FindAndCleanup, AnEmptyTypeIsPassedOver ) {
    slotsOf( "a/e/limit/slots", "" );
    TraceLog log( "KrellMount/3", "KrellMount" );
    raised< Qel::InternalException >( [ & ] { site.mount.cleanup( "a/e" ); } );
    EXPECT_THAT( log.take(), ElementsAre( "3 Mount::cleanup() path: a/e",
                                          "3 Mount::cleanup() found an empty entity type for " +
                                              top() + "/a/e/limit" ) );
}

TEST_F( FindAndCleanup, ATypeThatNobodyMakesAborts ) {
    slotsOf( "a/e/limit/slots", "No::SuchType" );
    EXPECT_DEATH( site.mount.cleanup( "a/e" ),
                  "src-includes/QelKrell/KrellMount:449: void "
                  "QelKrell::Mount::cleanup\\(Qel::String\\) const: Assertion `entity' failed." );
}

TEST_F( FindAndCleanup, CollectionsThatAreNotSharedAreSkipped ) {
    site.mount.doMount( "t", "FindTest::Tank", tanks() );
    site.mount.doUnmount( "t" );
    TraceLog log( "KrellMount/5", "KrellMount" );
    site.mount.cleanup( "t" );
    EXPECT_THAT( log.take(), ElementsAre( "5 Mount::cleanup() found collection level",
                                          "5 getControl() level is not krelled, skipping",
                                          "5 Mount::cleanup() found collection limit",
                                          "5 getControl() found attribute limit" ) );
    EXPECT_FALSE( root.has( "sys/Krell/t/limit/slots" ) );
}

TEST_F( FindAndCleanup, TheProbeTracesUnderTheCollectionsName ) {
    slotsOf( "a/e/limit/slots", "" );
    TraceLog log( "Krell-*/5", "Krell" );
    raised< Qel::InternalException >( [ & ] { site.mount.cleanup( "a/e" ); } );
    const auto& records = log.records();
    const auto probe = std::find_if( records.begin(), records.end(), []( const auto& r ) {
        return r.text == "KrellMem::memSize() delegating to Dov::SharedMem";
    } );
    ASSERT_NE( probe, records.end() );
    EXPECT_EQ( probe->source, "/usr/include/Krell/KrellMem" );
    EXPECT_EQ( probe->line, 133U );
    EXPECT_EQ( probe->function, "memSize" );
}

TEST_F( FindAndCleanup, TheTypeOfAnyOneCollectionIsEnough ) {
    dieWith( { "a/e" } );
    file( "a/e/limit/slots", "cut" );
    TraceLog log( "KrellMount/3", "KrellMount" );
    site.mount.cleanup( "a/e" );
    EXPECT_THAT( log.take(), testing::Contains( "3 Mount::cleanup() successfully read entity type "
                                                "'MountBench::Plant' from " +
                                                top() + "/a/e/reading" ) );
    EXPECT_FALSE( root.has( "sys/Krell/a/e/limit/slots" ) );
}

TEST_F( FindAndCleanup, GenericCallsReachBoth ) {
    file( "a/e/reading/slots" );
    QelKrell::Mount::GenericIf_ generic( site.mount );
    const auto result = generic.call( "find", { { "path", Qel::genericValue( "a" ) } } );
    const auto entity = *result.as< Qel::Entity::Ptr >();
    EXPECT_THAT( entity->genericIf()->attributeIndices( "count" ),
                 ElementsAre( Qel::genericValue( "/sys/Krell/a/e" ) ) );
    EXPECT_EQ( raised< Qel::UnknownArgumentException >( [ & ] {
                   generic.call( "cleanup", { { "path", Qel::genericValue( "a" ) } } );
               } ),
               "operation 'cleanup' takes no argument 'path'" );
    EXPECT_EQ( raised< Qel::InternalException >( [ & ] {
                   generic.call( "cleanup", { { "entityPath", Qel::genericValue( "a/e" ) } } );
               } ),
               "Mount::cleanup() failed to find the entity type of a/e. All underlying slots files "
               "may have been deleted or corrupted." );
}

} // namespace
