// Where collection files stand: the root and its setting, names below it, removal and clean-up.

#include <Krell/RootPath>

#include <cstdlib>
#include <filesystem>

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include <Krell/Directory>
#include <Krell/WriterLock>

#include "Hooks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using testing::HasSubstr;
namespace fs = std::filesystem;

template < class Expected, class Action >
std::string messageOf( const Action& action ) {
    try {
        action();
    } catch ( const Expected& e ) {
        return e.msg();
    } catch ( const Exception& e ) {
        return "instead " + e.name() + ": " + e.msg();
    }
    return "nothing thrown";
}

class RootPathTest : public testing::Test {
protected:
    RootPath path( const std::string& name, bool create = false ) {
        return RootPath( handler, name, create );
    }

    TestRoot root;
    RecordingDebugHandler handler;
};

TEST_F( RootPathTest, TheRootIsTheEnvironmentsOrTheDefault ) {
    EXPECT_EQ( RootPath::root(), root.path() );
    ::setenv( "KRELL_ROOT", ( root.path() + "//" ).c_str(), 1 );
    EXPECT_EQ( RootPath::root(), root.path() );
    ::setenv( "KRELL_ROOT", "/", 1 );
    EXPECT_EQ( RootPath::root(), "/" );
    EXPECT_EQ( path( "nowhere" ).directory(), "/nowhere" );
    ::unsetenv( "KRELL_ROOT" );
    EXPECT_EQ( RootPath::root(), "/dev/shm/krell" );
}

TEST_F( RootPathTest, AnUnusableSettingIsToldByItsName ) {
    ::setenv( "KRELL_ROOT", "", 1 );
    EXPECT_EQ( messageOf< InvalidInitializeException >( [ & ] { path( "a" ); } ),
               "the environment variable KRELL_ROOT: the path '' is not absolute" );
    ::setenv( "KRELL_ROOT", "var/krell", 1 );
    EXPECT_EQ( messageOf< InvalidInitializeException >( [ & ] { path( "", true ); } ),
               "the environment variable KRELL_ROOT: the path 'var/krell' is not absolute" );
    ::setenv( "KRELL_ROOT", "/tmp/../x", 1 );
    EXPECT_EQ( messageOf< InvalidInitializeException >( [ & ] { path( "a" ); } ),
               "the environment variable KRELL_ROOT: the path '/tmp/../x' has a component '..'" );
    EXPECT_TRUE( path( root.path() ).ready() ); // an absolute name needs no root
}

TEST_F( RootPathTest, NamesStandBelowTheRoot ) {
    EXPECT_EQ( path( "" ).directory(), root.path() );
    EXPECT_EQ( path( "ar/Krell/plant" ).directory(), root / "ar/Krell/plant" );
    EXPECT_EQ( path( "plant/" ).directory(), root / "plant" );
}

TEST_F( RootPathTest, AnAbsoluteNameStandsAsItIs ) {
    TestRoot other;
    ::setenv( "KRELL_ROOT", root.path().c_str(), 1 );
    EXPECT_EQ( path( other / "x/" ).directory(), other / "x" );
    EXPECT_TRUE( path( other.path() ).ready() );
    EXPECT_EQ( path( "/" ).directory(), "/" );
    EXPECT_EQ( path( "/" ).fullPath( "slots" ), "/slots" );
    EXPECT_EQ( path( "/" ).fullPath( "" ), "/" );
}

TEST_F( RootPathTest, FullPathIsTheDirectoryAndTheName ) {
    const RootPath p = path( "coll" );
    EXPECT_EQ( p.fullPath( "slots" ), root / "coll/slots" );
    EXPECT_EQ( p.fullPath( "" ), root / "coll" );
    EXPECT_EQ( p.fullPath( "a/b" ), root / "coll/a/b" );
}

TEST_F( RootPathTest, NamesThatLeaveTheRootAreRefused ) {
    for ( const char* name : { "..", "../x", "a/../b", "a/.." } ) {
        EXPECT_THAT( messageOf< InvalidInitializeException >( [ & ] { path( name, true ); } ),
                     HasSubstr( "has a component '..'" ) );
    }
    EXPECT_THAT( messageOf< InvalidInitializeException >(
                     [ & ] { path( std::string( "a\0b", 3 ), true ); } ),
                 HasSubstr( "holds a NUL byte" ) );
    EXPECT_TRUE( fs::is_empty( root.path() ) );
}

TEST_F( RootPathTest, AMissingDirectoryIsNotReadyUnlessItIsMade ) {
    const RootPath looking = path( "coll" );
    EXPECT_FALSE( looking.ready() );
    EXPECT_FALSE( looking.exists() );
    EXPECT_EQ( modeOf( root / "coll" ), -1 );
    const RootPath making = path( "coll", true );
    EXPECT_TRUE( making.ready() );
    EXPECT_TRUE( making.exists() );
    EXPECT_EQ( modeOf( root / "coll" ), 0750 );
    EXPECT_TRUE( looking.exists() );
    EXPECT_FALSE( looking.ready() );
    fs::remove( root / "coll" );
    EXPECT_FALSE( making.exists() );
}

TEST_F( RootPathTest, SomethingElseOfThatNameIsAnError ) {
    bytesInto( root / "file", "x" );
    EXPECT_EQ( messageOf< RuntimeException >( [ & ] { path( "file" ); } ),
               "openat " + ( root / "file" ) + ": Not a directory" );
    const RootPath p = path( "coll", true );
    fs::remove( root / "coll" );
    fs::create_directory_symlink( root.path(), root / "coll" );
    EXPECT_EQ( messageOf< RuntimeException >( [ & ] { p.exists(); } ),
               "openat " + ( root / "coll" ) + ": Too many levels of symbolic links" );
}

TEST_F( RootPathTest, WhatMayNotBeSearchedIsAPermissionException ) {
    if ( ::getuid() != 0 ) {
        GTEST_SKIP() << "changing the user needs root";
    }
    fs::create_directory( root / "closed" );
    ::chmod( ( root / "closed" ).c_str(), 0700 );
    const int status = inChild( [ & ] {
        if ( ::setgid( 65534 ) != 0 || ::setuid( 65534 ) != 0 ) {
            return 77;
        }
        EXPECT_EQ( messageOf< PermissionException >( [ & ] { path( "closed/coll" ); } ),
                   "openat " + ( root / "closed/coll" ) + ": Permission denied" );
        EXPECT_EQ( messageOf< PermissionException >( [ & ] { path( "coll", true ); } ),
                   "mkdirat " + ( root / "coll" ) + ": Permission denied" );
        return testing::Test::HasFailure() ? 1 : 0;
    } );
    EXPECT_EQ( status, 0 );
}

TEST_F( RootPathTest, RemoveFileTakesOnePlainFile ) {
    RootPath p = path( "coll", true );
    bytesInto( root / "coll/slots", "x" );
    bytesInto( root / "outside", "x" );
    p.removeFile( "slots" );
    EXPECT_EQ( modeOf( root / "coll/slots" ), -1 );
    p.removeFile( "slots" );
    for ( const char* name : { "", ".", "..", "../outside", "a/b", "/etc/passwd" } ) {
        EXPECT_EQ( messageOf< InvalidInitializeException >( [ & ] { p.removeFile( name ); } ),
                   "'" + std::string( name ) + "' is not the name of a file in a directory" );
    }
    fs::create_directory( root / "coll/dir" );
    EXPECT_EQ( messageOf< RuntimeException >( [ & ] { p.removeFile( "dir" ); } ),
               "unlinkat " + ( root / "coll/dir" ) + ": Is a directory" );
    EXPECT_TRUE( fs::exists( root / "outside" ) && fs::exists( root / "coll/dir" ) );
}

TEST_F( RootPathTest, RemoveFileInAMissingDirectoryDoesNothing ) {
    RootPath p = path( "coll" );
    p.removeFile( "slots" );
    EXPECT_TRUE( fs::is_empty( root.path() ) );
}

TEST_F( RootPathTest, CleanupRemovesACollectionWithItsDirectory ) {
    RootPath p = path( "plant/coll", true );
    for ( const char* name :
          { "slots", "buckets", "conquer.1", "conquer.2", "fenix", "corruption-detected",
            "doorbell", "last-owner", "slots.tmp-12-3", "fenix.tmp-1-1" } ) {
        bytesInto( p.fullPath( name ), "x" );
    }
    p.cleanup();
    EXPECT_FALSE( p.exists() );
    EXPECT_TRUE( fs::is_directory( root / "plant" ) );
    p.cleanup();
}

TEST_F( RootPathTest, CleanupLeavesFilesOfOtherNames ) {
    RootPath p = path( "coll", true );
    for ( const char* name : { "slots", "slots2", "notes.txt", "other.tmp-1-1", "slots.tmp-x" } ) {
        bytesInto( p.fullPath( name ), "x" );
    }
    p.cleanup();
    EXPECT_THAT(
        Directory::open( p.directory() ).names(),
        testing::UnorderedElementsAre( "slots2", "notes.txt", "other.tmp-1-1", "slots.tmp-x" ) );
}

TEST_F( RootPathTest, CleanupOfAnEmptyDirectoryRemovesIt ) {
    RootPath p = path( "coll", true );
    p.cleanup();
    EXPECT_FALSE( p.exists() );
}

TEST_F( RootPathTest, CleanupOfAForeignDirectoryLeavesNoTrace ) {
    RootPath p = path( "plant", true );
    bytesInto( p.fullPath( "notes.txt" ), "x" );
    p.cleanup();
    EXPECT_THAT( Directory::open( p.directory() ).names(), testing::ElementsAre( "notes.txt" ) );
}

TEST_F( RootPathTest, CleanupRemovesAPlantedLinkAndNotItsTarget ) {
    RootPath p = path( "coll", true );
    bytesInto( root / "target", "precious" );
    fs::create_symlink( root / "target", p.fullPath( "slots" ) );
    p.cleanup();
    EXPECT_EQ( bytesOf( root / "target" ), "precious" );
    EXPECT_FALSE( p.exists() );
}

TEST_F( RootPathTest, CleanupIsRefusedWhileThereIsAWriter ) {
    RootPath p = path( "coll", true );
    bytesInto( p.fullPath( "slots" ), "x" );
    Child writer( [ & ] {
        static WriterLock lock;
        const bool locked = lock.tryLock( Directory::open( p.directory() ) );
        lock.writeOwner();
        return locked;
    } );
    ASSERT_TRUE( writer.result() );
    try {
        p.cleanup();
        FAIL();
    } catch ( const DuplicateWriterException& e ) {
        EXPECT_EQ( e.detail(), U32( writer.pid() ) );
        EXPECT_THAT( e.msg(), HasSubstr( p.directory() + " is written by " ) );
        EXPECT_THAT( e.msg(), HasSubstr( "(pid " + std::to_string( writer.pid() ) + ")" ) );
    }
    EXPECT_TRUE( fs::exists( p.fullPath( "slots" ) ) && fs::exists( p.fullPath( "last-owner" ) ) );
    writer.kill( SIGKILL );
    p.cleanup();
    EXPECT_FALSE( p.exists() );
}

TEST_F( RootPathTest, CleanupIsRefusedToTheWriterItselfToo ) {
    RootPath p = path( "coll", true );
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( Directory::open( p.directory() ) ) );
    bytesInto( p.fullPath( "slots" ), "x" );
    EXPECT_EQ( messageOf< DuplicateWriterException >( [ & ] { p.cleanup(); } ),
               p.directory() + " is written by pid " + std::to_string( ::getpid() ) );
    EXPECT_TRUE( lock.held() && fs::exists( p.fullPath( "slots" ) ) );
}

TEST_F( RootPathTest, StepsAreTracedAtLevelFive ) {
    handler.levels = { 5 };
    RootPath p = path( "coll", true );
    path( "none" );
    bytesInto( p.fullPath( "slots" ), "x" );
    bytesInto( p.fullPath( "fenix" ), "x" );
    p.removeFile( "slots" );
    p.cleanup();
    const std::vector< RecordingDebugHandler::Line > expected {
        { "RootPath::RootPath() directory: " + ( root / "coll" ) + " ready", 5 },
        { "RootPath::RootPath() directory: " + ( root / "none" ) + " is missing", 5 },
        { "RootPath::removeFile() removed " + ( root / "coll/slots" ), 5 },
        { "RootPath::cleanup() removed the collection files of " + ( root / "coll" ), 5 },
    };
    EXPECT_EQ( handler.lines, expected );
}

} // namespace
