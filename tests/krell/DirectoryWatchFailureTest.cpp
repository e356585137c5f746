// A directory's watch that is refused, cannot look, or is stopped and destroyed while it is told.

#include <fcntl.h>
#include <sys/resource.h>

#include "Descriptors.h"
#include "krell/EngineSupport.h"
#include "krell/WatchedDirectory.h"

using namespace KrellTest;
using Krell::DirectoryWatch;
namespace fs = std::filesystem;

namespace {

class DirectoryWatchFailureTest : public WatchedDirectory {};

// --- Failures

TEST_F( DirectoryWatchFailureTest, ARefusedWatchIsToldByItsReasonAndTriedAgain ) {
    make( "a" );
    RealWatch::refusal = "the limit is reached";
    watch->start( root / "a" );
    const std::string reason = "cannot watch '" + ( root / "a" ) + "': the limit is reached";
    const RecordingDebugHandler::Line line { "Krell::DirectoryWatch " + reason, 1 };
    for ( int again = 0; again < 3; ++again ) {
        EXPECT_FALSE( watch->watching() );
        EXPECT_EQ( watch->reason(), reason );
        EXPECT_EQ( debug.lines, std::vector { line } );
        watch->look();
    }
    EXPECT_EQ( told(), 0U );
    remove( "a" ); // found by looking, without any watch
    watch->look();
    EXPECT_EQ( told(), 1U );
    RealWatch::refusal.clear();
    watch->look();
    EXPECT_TRUE( watch->watching() );
    EXPECT_EQ( watch->reason(), "" );
    make( "a" );
    EXPECT_EQ( told(), 1U );
    RealWatch::refusal = "the limit is reached";
    watch->watchGone();
    EXPECT_FALSE( watch->watching() );
    EXPECT_EQ( debug.lines, ( std::vector { line, line } ) );
}

TEST_F( DirectoryWatchFailureTest, ADirectoryThatComesIsToldEvenIfItCannotBeWatched ) {
    watch->start( root / "a" );
    RealWatch::refusal = "no";
    make( "a" );
    EXPECT_EQ( told(), 1U );
    EXPECT_FALSE( watch->watching() );
    RealWatch::refusal.clear();
    watch->look();
    EXPECT_EQ( told(), 0U );
    make( "a/x" );
    EXPECT_EQ( told(), 1U );
}

TEST_F( DirectoryWatchFailureTest, APathThatCannotBeLookedAtIsAReason ) {
    SKIP_IF_DESCRIPTORS_ARE_NEEDED();
    make( "a" );
    watch->start( root / "a" );
    rlimit limit {};
    ASSERT_EQ( ::getrlimit( RLIMIT_NOFILE, &limit ), 0 );
    const Krell::Fd next( ::open( "/", O_RDONLY | O_CLOEXEC ) );
    const rlimit none { rlim_t( next.get() ), limit.rlim_max };
    ASSERT_EQ( ::setrlimit( RLIMIT_NOFILE, &none ), 0 );
    watch->look();
    watch->look();
    ASSERT_EQ( ::setrlimit( RLIMIT_NOFILE, &limit ), 0 );
    EXPECT_FALSE( watch->watching() );
    EXPECT_EQ( watch->reason(),
               "cannot watch '" + ( root / "a" ) + "': open /: Too many open files" );
    EXPECT_EQ( debug.lines.size(), 1U );
    EXPECT_EQ( told(), 1U ); // it may have gone
    watch->look();
    EXPECT_TRUE( watch->watching() );
    EXPECT_EQ( told(), 1U ); // and have come again
    watch->look();
    EXPECT_EQ( told(), 0U );
}

TEST_F( DirectoryWatchFailureTest, DirectoriesThatKeepChangingAreNotFollowedForEver ) {
    RealWatch::afterSetting = [ & ] { fs::exists( root / "a" ) ? remove( "a" ) : make( "a" ); };
    watch->start( root / "a" );
    EXPECT_FALSE( watch->watching() );
    EXPECT_EQ( watch->reason(),
               "cannot watch '" + ( root / "a" ) + "': the directories on its way keep changing" );
    EXPECT_LE( RealWatch::settings, 100U );
    EXPECT_EQ( place(), "" );
    RealWatch::afterSetting = nullptr;
    make( "a" );
    watch->look();
    EXPECT_TRUE( watch->watching() );
}

TEST_F( DirectoryWatchFailureTest, AnUnusablePathIsRefusedAndTheOldOneKept ) {
    const std::pair< std::string, std::string > bad[] = {
        { "", "the path '' is not absolute" },
        { "a/b", "the path 'a/b' is not absolute" },
        { "/a/../b", "the path '/a/../b' has a component '..'" },
        { std::string( "/a\0b", 4 ), std::string( "the path '/a\0b' holds a NUL byte", 32 ) },
    };
    make( "a" );
    watch->start( root / "a" );
    for ( const auto& [ path, message ] : bad ) {
        EXPECT_EQ( messageOf< Krell::InvalidInitializeException >(
                       [ &, &p = path ] { watch->start( p ); } ),
                   message );
    }
    make( "a/x" );
    EXPECT_EQ( told(), 1U );
}

// --- The handler, and the watch's own life

TEST_F( DirectoryWatchFailureTest, StopEndsEverythingAndStartBeginsAnew ) {
    make( "a" );
    make( "b" );
    watch->start( root / "a" );
    Krell::Platform::InotifyHandler* const handler = RealWatch::only->handler;
    watch->stop();
    EXPECT_FALSE( watch->watching() );
    EXPECT_EQ( place(), "" );
    handler->watchEvent( "late" );
    handler->watchGone();
    handler->watchError( "late" );
    watch->look();
    EXPECT_EQ( told(), 0U );
    EXPECT_EQ( RealWatch::settings, 1U );
    watch->start( root / "a" );
    watch->start( root / "b" );
    make( "a/x" );
    EXPECT_EQ( told(), 0U );
    make( "b/x" );
    EXPECT_EQ( told(), 1U );
}

TEST_F( DirectoryWatchFailureTest, TheHandlerMayStopRestartAndDestroyTheWatch ) {
    make( "a" );
    make( "b" );
    watch->start( root / "a" );
    onTold = [ & ] { watch->start( root / "b" ); };
    make( "a/x" );
    make( "a/y" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( place(), "b" );
    onTold = [ & ] { watch->stop(); };
    make( "b/x" );
    make( "b/y" );
    EXPECT_EQ( told(), 1U );
    watch->start( root / "c" );
    onTold = [ & ] { watch.reset(); };
    make( "c/x" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( RealWatch::only, nullptr );
}

TEST_F( DirectoryWatchFailureTest, AnEventWhileTheWatchIsSetIsToldAfterwards ) {
    watch->start( root / "a" );
    RealWatch::afterSetting = [ &, first = true ]() mutable {
        if ( std::exchange( first, false ) ) {
            RealWatch::only->handler->watchError( "lost" );
            EXPECT_EQ( told(), 0U );
        }
    };
    make( "a" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( RealWatch::settings, 3U );
    EXPECT_EQ( place(), "a" );
}

TEST_F( DirectoryWatchFailureTest, NothingIsToldOfWhatHappensWhileItStarts ) {
    make( "a" );
    RealWatch::afterSetting = [ &, first = true ]() mutable {
        if ( std::exchange( first, false ) ) {
            RealWatch::only->handler->watchError( "lost" );
        }
    };
    watch->start( root / "a" );
    EXPECT_EQ( RealWatch::settings, 2U );
    watch->look();
    EXPECT_EQ( told(), 0U );
    EXPECT_EQ( place(), "a" );
}

TEST_F( DirectoryWatchFailureTest, WatchesWithTheControlOfTheEmbeddingProgram ) {
    const std::size_t before = watches().size();
    DirectoryWatch plain( debug, *this );
    EXPECT_EQ( watches().size(), before );
    plain.start( root / "a" );
    ASSERT_EQ( watches().size(), before + 1 );
    TestWatch& control = *watches().back();
    EXPECT_EQ( control.watched, root.path() );
    make( "a" );
    control.handler->watchEvent( "a" );
    EXPECT_EQ( control.watched, root / "a" );
    EXPECT_EQ( told(), 1U );
    control.handler->watchEvent( "x" );
    EXPECT_EQ( told(), 1U );
    plain.stop();
    EXPECT_EQ( control.watched, "" );
}

} // namespace
