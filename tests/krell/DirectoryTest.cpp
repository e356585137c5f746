// Directories of collection files: how paths are opened, and what may stand under a name.

#include <Krell/Directory>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "Descriptors.h"
#include "Hooks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

template < class Expected, class Action >
void expectThrow( const Action& action, const testing::Matcher< std::string >& message ) {
    try {
        action();
        ADD_FAILURE() << "nothing thrown";
    } catch ( const Expected& e ) {
        EXPECT_THAT( e.msg(), message );
    } catch ( const Exception& e ) {
        ADD_FAILURE() << e.name() << ": " << e.msg();
    }
}

class DirectoryTest : public testing::Test {
protected:
    Directory made( const std::string& name ) const { return Directory::create( root / name ); }

    TestRoot root;
};

TEST_F( DirectoryTest, AMissingDirectoryIsNotOpen ) {
    const Directory directory = Directory::open( root / "a" );
    EXPECT_FALSE( directory.isOpen() );
    EXPECT_FALSE( Directory().isOpen() );
    EXPECT_EQ( modeOf( root / "a" ), -1 );
}

TEST_F( DirectoryTest, CreateMakesEveryMissingComponent ) {
    const Directory directory = made( "ar/Krell/plant/reading" );
    EXPECT_TRUE( directory.isOpen() );
    EXPECT_EQ( directory.path(), root / "ar/Krell/plant/reading" );
    EXPECT_EQ( directory.pathOf( "slots" ), root / "ar/Krell/plant/reading/slots" );
    for ( const char* name : { "ar", "ar/Krell", "ar/Krell/plant", "ar/Krell/plant/reading" } ) {
        EXPECT_EQ( modeOf( root / name ), 0750 ) << name;
    }
    EXPECT_TRUE( Directory::open( root / "ar/Krell/plant/reading" ).isOpen() );
    EXPECT_TRUE( made( "ar/Krell/plant/reading" ).isOpen() );
}

TEST_F( DirectoryTest, ModesDoNotDependOnTheUmask ) {
    for ( mode_t mask : { 000, 022, 077, 0777 } ) {
        const mode_t old = ::umask( mask );
        const std::string name = "mask" + std::to_string( mask );
        const Directory directory = made( name + "/below" );
        const bool file = bool( directory.createFile( "slots" ) );
        directory.writeWhole( "fenix", "1234" );
        ::umask( old );
        EXPECT_TRUE( file );
        EXPECT_EQ( modeOf( root / name ), 0750 ) << mask;
        EXPECT_EQ( modeOf( root / name + "/below" ), 0750 ) << mask;
        EXPECT_EQ( modeOf( root / name + "/below/slots" ), 0640 ) << mask;
        EXPECT_EQ( modeOf( root / name + "/below/fenix" ), 0640 ) << mask;
    }
}

TEST_F( DirectoryTest, WhereGroupsAreInheritedTheyAreAllTheWay ) {
    for ( mode_t mask : { 022, 077 } ) {
        const std::string top = root / ( "group" + std::to_string( mask ) );
        ASSERT_EQ( ::mkdir( top.c_str(), 0750 ), 0 );
        ASSERT_EQ( ::chmod( top.c_str(), 02750 ), 0 );
        const mode_t old = ::umask( mask );
        const Directory directory = Directory::create( top + "/a/b/c" );
        ::umask( old );
        EXPECT_TRUE( directory.isOpen() );
        EXPECT_EQ( modeOf( top + "/a" ), 02750 ) << mask;
        EXPECT_EQ( modeOf( top + "/a/b/c" ), 02750 ) << mask;
    }
}

TEST_F( DirectoryTest, ModesOfWhatExistsStay ) {
    ASSERT_EQ( ::mkdir( ( root / "a" ).c_str(), 0700 ), 0 );
    EXPECT_TRUE( made( "a" ).isOpen() );
    EXPECT_EQ( modeOf( root / "a" ), 0700 );
}

TEST_F( DirectoryTest, TheRootIsMadeTooWithWhatIsAboveIt ) {
    ::setenv( "KRELL_ROOT", ( root / "x/y/root" ).c_str(), 1 );
    EXPECT_TRUE( Directory::create( root / "x/y/root/coll" ).isOpen() );
    EXPECT_EQ( modeOf( root / "x" ), 0750 );
}

TEST_F( DirectoryTest, SuperfluousSlashesAndDotsAreDropped ) {
    EXPECT_EQ( made( "a//b/./c//" ).path(), root / "a/b/c" );
    EXPECT_EQ( Directory::open( "/" ).path(), "/" );
    EXPECT_EQ( Directory::open( "/" ).pathOf( "x" ), "/x" );
}

TEST_F( DirectoryTest, PathsThatCannotBeMeantAreRefused ) {
    for ( const std::string& path :
          { std::string(), std::string( "a/b" ), std::string( "./a" ) } ) {
        const auto text = testing::Eq( "the path '" + path + "' is not absolute" );
        expectThrow< InvalidInitializeException >( [ & ] { Directory::open( path ); }, text );
        expectThrow< InvalidInitializeException >( [ & ] { Directory::create( path ); }, text );
    }
    for ( const char* name : { "..", "a/..", "../a", "a/../b" } ) {
        expectThrow< InvalidInitializeException >( [ & ] { made( name ); },
                                                   HasSubstr( "has a component '..'" ) );
    }
    expectThrow< InvalidInitializeException >(
        [ & ] { Directory::create( root.path() + std::string( "/a\0b", 4 ) ); },
        HasSubstr( "holds a NUL byte" ) );
    EXPECT_TRUE( fs::is_empty( root.path() ) );
    EXPECT_TRUE( made( "..a" ).isOpen() );
}

TEST_F( DirectoryTest, NoComponentBelowTheRootMayBeALink ) {
    made( "real/below" );
    fs::create_directory_symlink( root / "real", root / "link" );
    for ( const char* name : { "link", "link/below", "link/fresh" } ) {
        const auto text =
            testing::Eq( "openat " + ( root / "link" ) + ": Too many levels of symbolic links" );
        expectThrow< RuntimeException >( [ & ] { Directory::open( root / name ); }, text );
        expectThrow< RuntimeException >( [ & ] { made( name ); }, text );
    }
    EXPECT_FALSE( fs::exists( root / "real/fresh" ) );
}

TEST_F( DirectoryTest, TheRootItselfMayBeALink ) {
    made( "real" );
    fs::create_directory_symlink( root / "real", root / "link" );
    ::setenv( "KRELL_ROOT", ( root / "link" ).c_str(), 1 );
    EXPECT_TRUE( Directory::create( root / "link/coll" ).isOpen() );
    EXPECT_TRUE( fs::is_directory( root / "real/coll" ) );
    fs::create_directory_symlink( root / "real/coll", root / "real/planted" );
    expectThrow< RuntimeException >( [ & ] { Directory::open( root / "link/planted" ); },
                                     HasSubstr( "symbolic links" ) );
}

TEST_F( DirectoryTest, OutsideTheRootNoComponentMayBeALink ) {
    made( "outside/real" );
    fs::create_directory_symlink( root / "outside/real", root / "outside/link" );
    ::setenv( "KRELL_ROOT", ( root / "root" ).c_str(), 1 );
    EXPECT_TRUE( Directory::open( root / "outside/real" ).isOpen() );
    expectThrow< RuntimeException >( [ & ] { Directory::open( root / "outside/link" ); },
                                     HasSubstr( "symbolic links" ) );
    ::setenv( "KRELL_ROOT", "unusable", 1 );
    EXPECT_TRUE( Directory::open( root / "outside/real" ).isOpen() );
}

TEST_F( DirectoryTest, ARegularFileOnTheWayIsNoDirectory ) {
    bytesInto( root / "file", "x" );
    for ( const char* name : { "file", "file/below" } ) {
        const auto text = testing::Eq( "openat " + ( root / "file" ) + ": Not a directory" );
        expectThrow< RuntimeException >( [ & ] { Directory::open( root / name ); }, text );
        expectThrow< RuntimeException >( [ & ] { made( name ); }, text );
    }
}

TEST_F( DirectoryTest, ANameThatIsTooLongIsTold ) {
    expectThrow< RuntimeException >( [ & ] { made( std::string( 300, 'x' ) ); },
                                     HasSubstr( "File name too long" ) );
}

TEST_F( DirectoryTest, AnOpenDirectoryStaysTheSameWhenItsNamesChange ) {
    const Directory directory = made( "a" );
    directory.writeWhole( "f", "old" );
    fs::rename( root / "a", root / "b" );
    made( "a" );
    EXPECT_EQ( directory.readSmall( "f", 10 ), "old" );
}

TEST_F( DirectoryTest, FileNamesThatAreNoneAreRefused ) {
    const Directory directory = made( "a" );
    for ( const std::string& name :
          { std::string(), std::string( "." ), std::string( ".." ), std::string( "a/b" ),
            std::string( "/etc/passwd" ), std::string( "a\0b", 3 ) } ) {
        const auto text = testing::Eq( "'" + name + "' is not the name of a file in a directory" );
        using Bad = InvalidInitializeException;
        expectThrow< Bad >( [ & ] { directory.openFile( name, O_RDONLY ); }, text );
        expectThrow< Bad >( [ & ] { directory.createFile( name ); }, text );
        expectThrow< Bad >( [ & ] { directory.createIfAbsent( name ); }, text );
        expectThrow< Bad >( [ & ] { directory.rename( name, "x" ); }, text );
        expectThrow< Bad >( [ & ] { directory.rename( "x", name ); }, text );
        expectThrow< Bad >( [ & ] { directory.remove( name ); }, text );
        expectThrow< Bad >( [ & ] { directory.exists( name ); }, text );
        expectThrow< Bad >( [ & ] { directory.readSmall( name, 1 ); }, text );
        expectThrow< Bad >( [ & ] { directory.writeWhole( name, "x" ); }, text );
    }
    EXPECT_TRUE( directory.names().empty() );
}

TEST_F( DirectoryTest, MissingFilesAreNoError ) {
    const Directory directory = made( "a" );
    EXPECT_FALSE( directory.openFile( "slots", O_RDONLY ) );
    EXPECT_FALSE( directory.openFile( "slots", O_RDWR ) );
    EXPECT_FALSE( directory.exists( "slots" ) );
    EXPECT_FALSE( directory.remove( "slots" ) );
    EXPECT_EQ( directory.readSmall( "slots", 10 ), std::nullopt );
    expectThrow< RuntimeException >(
        [ & ] { directory.rename( "slots", "x" ); },
        testing::Eq( "renameat " + ( root / "a/slots to x" ) + ": No such file or directory" ) );
}

TEST_F( DirectoryTest, FilesAreCreatedOnce ) {
    const Directory directory = made( "a" );
    const Fd file = directory.createFile( "slots" );
    ASSERT_TRUE( file );
    EXPECT_EQ( ::fcntl( file.get(), F_GETFD ) & FD_CLOEXEC, FD_CLOEXEC );
    EXPECT_EQ( ::write( file.get(), "abc", 3 ), 3 );
    expectThrow< RuntimeException >(
        [ & ] { directory.createFile( "slots" ); },
        testing::Eq( "openat " + ( root / "a/slots" ) + ": File exists" ) );
    EXPECT_FALSE( directory.createIfAbsent( "slots" ) );
    EXPECT_EQ( directory.readSmall( "slots", 10 ), "abc" );
}

TEST_F( DirectoryTest, OpenedFilesCloseOnExecAndKeepTheirAccess ) {
    const Directory directory = made( "a" );
    directory.writeWhole( "f", "abc" );
    const Fd file = directory.openFile( "f", O_RDONLY );
    EXPECT_EQ( ::fcntl( file.get(), F_GETFD ) & FD_CLOEXEC, FD_CLOEXEC );
    EXPECT_EQ( ::write( file.get(), "x", 1 ), -1 );
    EXPECT_EQ( ::write( directory.openFile( "f", O_RDWR ).get(), "X", 1 ), 1 );
    EXPECT_EQ( directory.readSmall( "f", 10 ), "Xbc" );
}

TEST_F( DirectoryTest, OnlyRegularFilesAreOpened ) {
    const Directory directory = made( "a" );
    bytesInto( root / "target", "precious" );
    fs::create_symlink( root / "target", root / "a/link" );
    fs::create_symlink( root / "nothing", root / "a/dangling" );
    fs::create_directory( root / "a/dir" );
    ASSERT_EQ( ::mkfifo( ( root / "a/fifo" ).c_str(), 0600 ), 0 );
    for ( const char* name : { "link", "dangling", "dir", "fifo" } ) {
        for ( int flags : { O_RDONLY, O_RDWR } ) {
            expectThrow< RuntimeException >(
                [ & ] { directory.openFile( name, flags ); },
                StartsWith( "openat " + ( root / "a/" ) + name + ": " ) );
        }
        expectThrow< RuntimeException >( [ & ] { directory.readSmall( name, 10 ); },
                                         HasSubstr( name ) );
        EXPECT_FALSE( directory.createIfAbsent( name ) );
        EXPECT_TRUE( directory.exists( name ) );
    }
    EXPECT_FALSE( fs::exists( root / "nothing" ) );
    expectThrow< RuntimeException >(
        [ & ] { directory.openFile( "fifo", O_RDONLY ); },
        testing::Eq( "openat " + ( root / "a/fifo" ) + ": not a regular file" ) );
}

TEST_F( DirectoryTest, RemoveTakesLinksButNotDirectories ) {
    const Directory directory = made( "a" );
    bytesInto( root / "target", "precious" );
    fs::create_symlink( root / "target", root / "a/link" );
    fs::create_directory( root / "a/dir" );
    EXPECT_TRUE( directory.remove( "link" ) );
    EXPECT_EQ( bytesOf( root / "target" ), "precious" );
    expectThrow< RuntimeException >(
        [ & ] { directory.remove( "dir" ); },
        testing::Eq( "unlinkat " + ( root / "a/dir" ) + ": Is a directory" ) );
    EXPECT_TRUE( fs::is_directory( root / "a/dir" ) );
}

TEST_F( DirectoryTest, RenameReplaces ) {
    const Directory directory = made( "a" );
    directory.writeWhole( "old", "1" );
    directory.writeWhole( "new", "2" );
    directory.rename( "new", "old" );
    EXPECT_EQ( directory.readSmall( "old", 10 ), "2" );
    EXPECT_THAT( directory.names(), ElementsAre( "old" ) );
}

TEST_F( DirectoryTest, ReadSmallStopsAtItsLimit ) {
    const Directory directory = made( "a" );
    directory.writeWhole( "f", "0123456789" );
    EXPECT_EQ( directory.readSmall( "f", 4 ), "0123" );
    EXPECT_EQ( directory.readSmall( "f", 10 ), "0123456789" );
    EXPECT_EQ( directory.readSmall( "f", 11 ), "0123456789" );
    EXPECT_EQ( directory.readSmall( "f", 0 ), "" );
    directory.writeWhole( "f", "" );
    EXPECT_EQ( directory.readSmall( "f", 10 ), "" );
}

TEST_F( DirectoryTest, WriteWholeReplacesAtOnce ) {
    const Directory directory = made( "a" );
    directory.writeWhole( "f", "old" );
    const Fd before = directory.openFile( "f", O_RDONLY );
    directory.writeWhole( "f", std::string( "n\0w", 3 ) );
    char bytes[ 4 ] = {};
    EXPECT_EQ( ::read( before.get(), bytes, 3 ), 3 );
    EXPECT_STREQ( bytes, "old" );
    EXPECT_EQ( directory.readSmall( "f", 10 ), std::string( "n\0w", 3 ) );
    EXPECT_THAT( directory.names(), ElementsAre( "f" ) );
}

TEST_F( DirectoryTest, WriteWholeReplacesALinkAndNotItsTarget ) {
    const Directory directory = made( "a" );
    bytesInto( root / "target", "precious" );
    fs::create_symlink( root / "target", root / "a/f" );
    directory.writeWhole( "f", "x" );
    EXPECT_EQ( bytesOf( root / "target" ), "precious" );
    EXPECT_EQ( directory.readSmall( "f", 10 ), "x" );
}

TEST_F( DirectoryTest, AFailedWriteWholeLeavesTheOldBytesAndNothingElse ) {
    const Directory directory = made( "a" );
    directory.writeWhole( "f", "old" );
    const int status = inChild( [ & ] {
        ::signal( SIGXFSZ, SIG_IGN );
        const rlimit limit = { 100, 100 };
        ::setrlimit( RLIMIT_FSIZE, &limit );
        try {
            directory.writeWhole( "f", std::string( 1000, 'x' ) );
        } catch ( const MemoryResourceException& e ) {
            return e.msg().ends_with( ": File too large" ) ? 0 : 1;
        }
        return 2;
    } );
    EXPECT_EQ( status, 0 );
    EXPECT_EQ( directory.readSmall( "f", 10 ), "old" );
    EXPECT_THAT( directory.names(), ElementsAre( "f" ) );
    fs::create_directory( root / "a/dir" );
    expectThrow< RuntimeException >( [ & ] { directory.writeWhole( "dir", "x" ); },
                                     HasSubstr( "renameat" ) );
    EXPECT_THAT( directory.names(), UnorderedElementsAre( "f", "dir" ) );
}

TEST_F( DirectoryTest, NamesListsEverythingEachTime ) {
    const Directory directory = made( "a" );
    EXPECT_THAT( directory.names(), ElementsAre() );
    directory.writeWhole( "slots", "" );
    directory.writeWhole( ".hidden", "" );
    fs::create_directory( root / "a/sub" );
    EXPECT_THAT( directory.names(), UnorderedElementsAre( "slots", ".hidden", "sub" ) );
    EXPECT_THAT( directory.names(), UnorderedElementsAre( "slots", ".hidden", "sub" ) );
}

TEST_F( DirectoryTest, TemporaryNamesAreFreshAndRecognised ) {
    const std::string first = Directory::temporaryName( "slots" );
    const std::string second = Directory::temporaryName( "slots" );
    EXPECT_NE( first, second );
    EXPECT_TRUE( Directory::isTemporary( first, "slots" ) );
    EXPECT_FALSE( Directory::isTemporary( first, "buckets" ) );
    for ( const char* name :
          { "slots", "slots.tmp-", "slots.tmp-1", "slots.tmp-1-", "slots.tmp--1", "slots.tmp-1-2-3",
            "slots.tmp-1-2x", "slots.tmp-x-2", "xslots.tmp-1-2" } ) {
        EXPECT_FALSE( Directory::isTemporary( name, "slots" ) ) << name;
    }
    EXPECT_TRUE( Directory::isTemporary( "slots.tmp-4711-23", "slots" ) );
}

TEST_F( DirectoryTest, OnlyEmptyDirectoriesAreRemoved ) {
    made( "a/b" );
    EXPECT_FALSE( Directory::removeEmpty( root / "a" ) );
    EXPECT_FALSE( Directory::removeEmpty( root / "c" ) );
    EXPECT_FALSE( Directory::removeEmpty( root / "c/d" ) );
    EXPECT_TRUE( Directory::removeEmpty( root / "a/b" ) );
    EXPECT_TRUE( Directory::removeEmpty( root / "a/" ) );
    EXPECT_FALSE( Directory::removeEmpty( "/" ) );
    bytesInto( root / "file", "x" );
    expectThrow< RuntimeException >(
        [ & ] { Directory::removeEmpty( root / "file" ); },
        testing::Eq( "unlinkat " + ( root / "file" ) + ": Not a directory" ) );
}

TEST_F( DirectoryTest, AnotherUserIsRefusedByName ) {
    if ( ::getuid() != 0 ) {
        GTEST_SKIP() << "changing the user needs root";
    }
    const Directory directory = made( "a" );
    directory.writeWhole( "f", "secret" );
    const int status = inChild( [ & ] {
        if ( ::setgid( 65534 ) != 0 || ::setuid( 65534 ) != 0 ) {
            return 77;
        }
        expectThrow< PermissionException >(
            [ & ] { Directory::open( root / "a" ); },
            testing::Eq( "openat " + ( root / "a" ) + ": Permission denied" ) );
        expectThrow< PermissionException >(
            [ & ] { Directory::open( root / "a/b" ); },
            testing::Eq( "openat " + ( root / "a/b" ) + ": Permission denied" ) );
        expectThrow< PermissionException >(
            [ & ] { Directory::create( root / "b" ); },
            testing::Eq( "mkdirat " + ( root / "b" ) + ": Permission denied" ) );
        expectThrow< PermissionException >( [ & ] { directory.openFile( "f", O_RDONLY ); },
                                            StartsWith( "openat" ) );
        expectThrow< PermissionException >( [ & ] { directory.writeWhole( "f", "x" ); },
                                            StartsWith( "openat" ) );
        expectThrow< PermissionException >( [ & ] { directory.remove( "f" ); },
                                            StartsWith( "unlinkat" ) );
        expectThrow< PermissionException >( [ & ] { directory.names(); }, StartsWith( "opendir" ) );
        return testing::Test::HasFailure() ? 1 : 0;
    } );
    EXPECT_EQ( status, 0 );
    EXPECT_EQ( directory.readSmall( "f", 10 ), "secret" );
}

TEST_F( DirectoryTest, DirectoriesOnTheWayNeedNotBeReadable ) {
    if ( ::getuid() != 0 ) {
        GTEST_SKIP() << "changing the user needs root";
    }
    made( "a/b" );
    ::chmod( ( root / "a" ).c_str(), 0711 );
    ::chmod( ( root / "a/b" ).c_str(), 0755 );
    const int status = inChild( [ & ] {
        return ::setgid( 65534 ) == 0 && ::setuid( 65534 ) == 0 &&
                       Directory::open( root / "a/b" ).isOpen()
                   ? 0
                   : 1;
    } );
    EXPECT_EQ( status, 0 );
}

TEST_F( DirectoryTest, DescriptorsThatRanOutAreAMemoryResource ) {
    SKIP_IF_DESCRIPTORS_ARE_NEEDED();
    const Directory directory = made( "a" );
    const int status = inChild( [ & ] {
        const rlimit limit = { 3, 3 };
        ::setrlimit( RLIMIT_NOFILE, &limit );
        expectThrow< MemoryResourceException >( [ & ] { Directory::open( root / "a" ); },
                                                testing::Eq( "open /: Too many open files" ) );
        expectThrow< MemoryResourceException >( [ & ] { directory.createFile( "f" ); },
                                                HasSubstr( "Too many open files" ) );
        return testing::Test::HasFailure() ? 1 : 0;
    } );
    EXPECT_EQ( status, 0 );
    EXPECT_FALSE( directory.exists( "f" ) );
}

TEST_F( DirectoryTest, DescriptorsMoveAndKeepErrno ) {
    const Directory directory = made( "a" );
    Fd one = directory.createFile( "f" );
    const int number = one.get();
    Fd two = std::move( one );
    EXPECT_EQ( one.get(), -1 );
    EXPECT_EQ( two.get(), number );
    errno = 12345;
    two.reset();
    EXPECT_EQ( errno, 12345 );
    EXPECT_FALSE( two );
    EXPECT_EQ( ::fcntl( number, F_GETFD ), -1 );
    Fd three( directory.createFile( "g" ) );
    const int kept = three.release();
    EXPECT_FALSE( three );
    EXPECT_EQ( ::close( kept ), 0 );
}

} // namespace
