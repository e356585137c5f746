// Where a directory's watch stands, and what it tells, whatever happens to the path.

#include <random>

#include <sys/stat.h>

#include <Krell/Directory>

#include "krell/EngineSupport.h"
#include "krell/WatchedDirectory.h"

using namespace KrellTest;
namespace fs = std::filesystem;

namespace {

class DirectoryWatchTest : public WatchedDirectory {};

// --- Coming into being

TEST_F( DirectoryWatchTest, EveryEventInTheDirectoryIsTold ) {
    make( "a/b" );
    watch->start( root / "a/b" );
    EXPECT_TRUE( watch->watching() );
    EXPECT_EQ( watch->reason(), "" );
    EXPECT_EQ( place(), "a/b" );
    EXPECT_EQ( told(), 0U );
    make( "a/b/x" );
    EXPECT_EQ( told(), 1U );
    move( "a/b/x", "a/b/y" );
    EXPECT_EQ( told(), 2U );
    remove( "a/b/y" );
    EXPECT_EQ( told(), 1U );
    bytesInto( root / "a/b/file", "x" );
    EXPECT_EQ( told(), 2U ); // made, and written
    make( "a/other" );
    make( "other" );
    EXPECT_EQ( told(), 0U );
    EXPECT_EQ( RealWatch::settings, 1U );
}

TEST_F( DirectoryWatchTest, ADirectoryIsToldWhenItComesLevelByLevel ) {
    watch->start( root / "a//b/./c/" );
    EXPECT_EQ( place(), "." );
    EXPECT_TRUE( watch->watching() );
    make( "x" );
    EXPECT_EQ( told(), 0U );
    make( "a" );
    EXPECT_EQ( told(), 0U );
    EXPECT_EQ( place(), "a" );
    make( "a/b" );
    make( "a/x" );
    EXPECT_EQ( told(), 0U );
    EXPECT_EQ( place(), "a/b" );
    make( "a/b/c" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( place(), "a/b/c" );
    make( "a/b/c/x" );
    EXPECT_EQ( told(), 1U );
}

TEST_F( DirectoryWatchTest, ADirectoryIsToldWhenAllLevelsComeAtOnce ) {
    watch->start( root / "a/b/c" );
    make( "a/b/c/x" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( place(), "a/b/c" );
}

TEST_F( DirectoryWatchTest, LevelsThatComeWhileTheWatchIsSetAreNotMissed ) {
    for ( const bool before : { false, true } ) {
        auto& hook = before ? RealWatch::beforeSetting : RealWatch::afterSetting;
        const std::string top = before ? "q" : "p";
        hook = [ &, next = 0 ]() mutable {
            const char* const all[] = { "", "/a", "/a/b", "/a/b/c" };
            if ( ++next < 4 ) {
                make( top + all[ next ] );
            }
        };
        make( top );
        watch->start( root / ( top + "/a/b/c" ) );
        EXPECT_EQ( place(), top + "/a/b/c" );
        told();
        make( top + "/a/b/c/x" );
        EXPECT_EQ( told(), 1U );
        hook = nullptr;
    }
}

TEST_F( DirectoryWatchTest, ALevelThatComesWhileAnEventIsHandledIsTold ) {
    watch->start( root / "a/b" );
    RealWatch::afterSetting = [ & ] { make( "a/b" ); };
    make( "a" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( place(), "a/b" );
}

TEST_F( DirectoryWatchTest, ADirectoryThatGoesWhileTheWatchIsSetIsWaitedForAgain ) {
    make( "a/b" );
    RealWatch::beforeSetting = [ & ] { remove( "a" ); };
    watch->start( root / "a/b" );
    EXPECT_TRUE( watch->watching() );
    EXPECT_EQ( place(), "." );
    EXPECT_TRUE( debug.lines.empty() );
    RealWatch::beforeSetting = nullptr;
    make( "a/b" );
    EXPECT_EQ( told(), 1U );
}

// --- Going, and being replaced

TEST_F( DirectoryWatchTest, ADirectoryThatGoesAndComesAgainIsTold ) {
    make( "a/b" );
    watch->start( root / "a/b" );
    remove( "a/b" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( place(), "a" );
    remove( "a" );
    EXPECT_EQ( told(), 0U );
    EXPECT_EQ( place(), "." );
    make( "a/b" );
    EXPECT_EQ( told(), 1U );
    make( "a/b/x" );
    EXPECT_EQ( told(), 1U );
}

TEST_F( DirectoryWatchTest, ADirectoryMovedAwayIsTold ) {
    make( "a/b" );
    watch->start( root / "a/b" );
    move( "a/b", "away" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( place(), "a" );
    make( "away/x" );
    EXPECT_EQ( told(), 0U );
    move( "away", "a/b" );
    EXPECT_EQ( told(), 1U );
    make( "a/b/y" );
    EXPECT_EQ( told(), 1U );
}

TEST_F( DirectoryWatchTest, AnotherDirectoryOfTheSameNameIsToldAndWatched ) {
    make( "a/b" );
    watch->start( root / "a/b" );
    move( "a/b", "away" );
    make( "a/b" );
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( place(), "a/b" );
    make( "away/x" );
    EXPECT_EQ( told(), 0U );
    make( "a/b/x" );
    EXPECT_EQ( told(), 1U );
    remove( "a" );
    make( "a/b" );
    EXPECT_GE( told(), 1U );
    make( "a/b/x" );
    EXPECT_EQ( told(), 1U );
}

// The system gives the watch on the new directory to one that believes to have it already.
TEST_F( DirectoryWatchTest, AWatchThatEndedIsSetAnewOnTheSamePath ) {
    make( "a" );
    watch->start( root / "a" );
    RealWatch::only->handler->watchGone();
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( RealWatch::settings, 2U );
    make( "a/x" );
    EXPECT_EQ( told(), 1U );
}

TEST_F( DirectoryWatchTest, ALinkOrAFileInItsPlaceIsNoDirectory ) {
    make( "a" );
    make( "target" );
    for ( const bool link : { false, true } ) {
        make( "a/b" );
        watch->start( root / "a/b" );
        remove( "a/b" );
        if ( link ) {
            fs::create_directory_symlink( root / "target", root / "a/b" );
        } else {
            bytesInto( root / "a/b", "x" );
        }
        EXPECT_EQ( told(), 1U );
        EXPECT_EQ( place(), "a" );
        make( link ? "target/x" : "target/y" );
        EXPECT_EQ( told(), 0U );
        EXPECT_TRUE( watch->watching() );
        remove( "a/b" );
        EXPECT_EQ( told(), 0U );
        make( "a/b" );
        EXPECT_EQ( told(), 1U );
    }
}

TEST_F( DirectoryWatchTest, ALinkOnTheWayIsNotFollowed ) {
    make( "target/b" );
    fs::create_directory_symlink( root / "target", root / "a" );
    watch->start( root / "a/b" );
    EXPECT_EQ( place(), "." );
    make( "target/b/x" );
    EXPECT_EQ( told(), 0U );
}

TEST_F( DirectoryWatchTest, TheRootIsFollowedAsItIsNamed ) {
    make( "real" );
    fs::create_directory_symlink( root / "real", root / "link" );
    ::setenv( "KRELL_ROOT", ( root / "link/files" ).c_str(), 1 );
    watch->start( root / "link/files/a" );
    EXPECT_EQ( place(), "link" );
    make( "real/files" );
    EXPECT_EQ( told(), 0U );
    EXPECT_EQ( place(), "link/files" );
    make( "real/files/a" );
    EXPECT_EQ( told(), 1U );
    ::setenv( "KRELL_ROOT", "not absolute", 1 ); // is no concern of a watch
    make( "real/files/a/x" );
    EXPECT_GE( told(), 1U );
}

// --- What the system does not tell

TEST_F( DirectoryWatchTest, LookFindsThatAnAncestorMoved ) {
    make( "a/b/c" );
    watch->start( root / "a/b/c" );
    move( "a", "away" );
    EXPECT_EQ( told(), 0U );
    watch->look();
    EXPECT_EQ( told(), 1U );
    EXPECT_EQ( place(), "." );
    make( "a/b/c" );
    EXPECT_EQ( told(), 1U );
    watch->look();
    EXPECT_EQ( told(), 0U );
}

TEST_F( DirectoryWatchTest, LookFindsThatADirectoryHeldOpenWasReplaced ) {
    make( "a/b" );
    const Krell::Directory held = Krell::Directory::open( root / "a/b" );
    watch->start( root / "a/b" );
    remove( "a/b" );
    make( "a/b" );
    unsigned times = told(); // not by every system
    watch->look();
    times += told();
    EXPECT_EQ( times, 1U );
    make( "a/b/x" );
    EXPECT_EQ( told(), 1U );
}

TEST_F( DirectoryWatchTest, LostEventsAreToldAndTheWatchIsSetAnew ) {
    for ( const char* name : { "a", "b/c" } ) {
        make( "a" );
        watch->start( root / name );
        const unsigned settings = RealWatch::settings;
        RealWatch::only->handler->watchError( "overflow" );
        EXPECT_EQ( told(), 1U );
        EXPECT_GT( RealWatch::settings, settings );
        make( std::string( name ) + "/x" );
        EXPECT_EQ( told(), 1U );
    }
}

// --- Anything at all

TEST_F( DirectoryWatchTest, WhateverHappensTheWatchIsWhereItBelongs ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    const std::string levels[] = { "a", "a/b", "a/b/c" };
    const auto isDirectory = [ & ]( const std::string& name ) {
        return fs::symlink_status( root / name ).type() == fs::file_type::directory;
    };
    const auto change = [ & ] {
        const std::string& level = levels[ random() % 3 ];
        std::error_code ignored;
        switch ( random() % 4 ) {
        case 0:
            fs::create_directories( root / level, ignored );
            break;
        case 1:
            fs::remove_all( root / level, ignored );
            break;
        case 2:
            fs::rename( root / level, root / ( "away" + std::to_string( random() % 2 ) ), ignored );
            break;
        default:
            fs::rename( root / ( "away" + std::to_string( random() % 2 ) ), root / level, ignored );
        }
    };
    unsigned comings = 0;
    watch->start( root / "a/b/c" );
    for ( unsigned step = 0; step < 2000; ++step ) {
        struct stat before {};
        struct stat after {};
        ::stat( ( root / "a/b/c" ).c_str(), &before );
        for ( U64 n = random() % 3; n > 0; --n ) {
            change();
        }
        RealWatch::tellAll();
        watch->look(); // ancestors move too
        ::stat( ( root / "a/b/c" ).c_str(), &after );
        const unsigned times = told();
        if ( before.st_ino != after.st_ino ) {
            ++comings;
            ASSERT_GE( times, 1U ) << "step " << step;
        }
        ASSERT_EQ( place(), isDirectory( "a/b/c" ) ? "a/b/c"
                            : isDirectory( "a/b" ) ? "a/b"
                            : isDirectory( "a" )   ? "a"
                                                   : "." );
        if ( isDirectory( "a/b/c" ) ) {
            make( "a/b/c/x" + std::to_string( step ) );
            ASSERT_EQ( told(), 1U ) << "step " << step;
        }
    }
    EXPECT_GT( comings, 50U );
}

} // namespace
