// Shared memory over files: creation, attachment, growth, refusals, and what failures leave.

#include <Dov/SharedMem>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Descriptors.h"

namespace {

using Dov::SharedMem;
using QelKrellTest::openDescriptors;
using testing::HasSubstr;

// What the library's next allocations of file space answer, one by one; then the system's own.
std::deque< int > allocationResults;

class SharedMemTest : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/dev/shm/dovtest.XXXXXX";
        ASSERT_NE( ::mkdtemp( name ), nullptr );
        directory = name;
        descriptors = openDescriptors();
        mappings = mappingsHere();
    }
    void TearDown() override {
        EXPECT_EQ( openDescriptors(), descriptors ) << "a descriptor leaked";
        EXPECT_EQ( mappingsHere(), mappings ) << "a mapping leaked";
        std::filesystem::remove_all( directory );
    }

    // Mappings of files in this test's directory.
    std::size_t mappingsHere() const {
        std::ifstream maps( "/proc/self/maps" );
        std::size_t count = 0;
        for ( std::string line; std::getline( maps, line ); ) {
            count += line.find( directory + "/" ) != std::string::npos;
        }
        return count;
    }

    std::string at( const std::string& name ) const { return directory + "/" + name; }
    bool exists( const std::string& name ) const {
        return std::filesystem::exists( std::filesystem::symlink_status( at( name ) ) );
    }
    std::uintmax_t fileSize( const std::string& name ) const {
        return std::filesystem::file_size( at( name ) );
    }
    void file( const std::string& name, const std::string& bytes ) const {
        std::ofstream( at( name ), std::ios::binary ) << bytes;
    }
    unsigned filesHere() const {
        unsigned count = 0;
        for ( const auto& entry : std::filesystem::directory_iterator( directory ) ) {
            count += !entry.path().empty();
        }
        return count;
    }

    // An attachment that must fail, with its reason.
    void expectRefused( SharedMem& mem,
                        std::size_t size,
                        SharedMem::Mode mode,
                        const std::string& text,
                        int number ) {
        EXPECT_EQ( mem.attach( size, mode ), nullptr );
        EXPECT_EQ( mem.errorText(), text );
        EXPECT_EQ( mem.errorNumber(), number );
        EXPECT_FALSE( mem.attached() );
    }

    std::string directory;
    std::size_t descriptors = 0;
    std::size_t mappings = 0;
};

char* bytes( const SharedMem& mem ) { return static_cast< char* >( mem.address() ); }

int inChild( int ( *body )( const std::string& ), const std::string& argument ) {
    const pid_t pid = ::fork();
    if ( pid == 0 ) {
        ::_exit( body( argument ) );
    }
    int status = 0;
    ::waitpid( pid, &status, 0 );
    return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
}

TEST_F( SharedMemTest, ModesHaveTheirNumbers ) {
    EXPECT_EQ( int( SharedMem::create ), 0 );
    EXPECT_EQ( int( SharedMem::readOnly ), 1 );
    EXPECT_EQ( int( SharedMem::readWrite ), 2 );
}

TEST_F( SharedMemTest, ANewObjectIsNotAttached ) {
    const SharedMem mem( directory, "slots", false, false );
    EXPECT_EQ( mem.address(), nullptr );
    EXPECT_FALSE( mem.attached() );
    EXPECT_EQ( mem.memSize(), 0U );
    EXPECT_EQ( mem.path(), at( "slots" ) );
    EXPECT_EQ( mem.name(), "slots" );
    EXPECT_EQ( mem.directory(), directory );
    EXPECT_EQ( filesHere(), 0U );
}

TEST_F( SharedMemTest, CreateMakesAFileOfZerosWithItsSpaceAllocated ) {
    SharedMem mem( directory, "slots", false, false );
    ASSERT_NE( mem.attach( 100000, SharedMem::create ), nullptr ) << mem.errorText();
    EXPECT_EQ( mem.memSize(), 100000U );
    EXPECT_EQ( mem.mode(), SharedMem::create );
    EXPECT_EQ( fileSize( "slots" ), 100000U );
    EXPECT_EQ( std::string( bytes( mem ), 100000 ), std::string( 100000, '\0' ) );
    struct stat status;
    ASSERT_EQ( ::stat( at( "slots" ).c_str(), &status ), 0 );
    EXPECT_GE( status.st_blocks * 512, 100000 );
}

TEST_F( SharedMemTest, WhatOneWritesAnotherReads ) {
    SharedMem writer( directory, "slots", false, false );
    SharedMem reader( directory, "slots", false, false );
    SharedMem second( directory, "slots", false, false );
    ASSERT_TRUE( writer.attach( 4096, SharedMem::create ) );
    ASSERT_TRUE( reader.attach( 4096, SharedMem::readOnly ) );
    ASSERT_TRUE( second.attach( 0, SharedMem::readWrite ) );
    std::strcpy( bytes( writer ), "hello" );
    EXPECT_STREQ( bytes( reader ), "hello" );
    std::strcpy( bytes( second ), "again" );
    EXPECT_STREQ( bytes( reader ), "again" );
}

TEST_F( SharedMemTest, FilesStayAfterDetachAndDestruction ) {
    {
        SharedMem mem( directory, "slots", false, false );
        ASSERT_TRUE( mem.attach( 5000, SharedMem::create ) );
        bytes( mem )[ 4999 ] = 'x';
        mem.detach();
        EXPECT_EQ( mem.address(), nullptr );
        EXPECT_EQ( mem.memSize(), 5000U );
        mem.detach();
        ASSERT_TRUE( mem.attach( 5000, SharedMem::readOnly ) );
        EXPECT_EQ( bytes( mem )[ 4999 ], 'x' );
    }
    EXPECT_TRUE( exists( "slots" ) );
}

TEST_F( SharedMemTest, ModeOfTheFileDoesNotDependOnTheUmask ) {
    for ( mode_t mask : { 000, 022, 077, 0777 } ) {
        const mode_t old = ::umask( mask );
        SharedMem mem( directory, "mask" + std::to_string( mask ), false, false );
        EXPECT_TRUE( mem.attach( 1, SharedMem::create ) ) << mem.errorText();
        ::umask( old );
        struct stat status;
        ASSERT_EQ( ::stat( mem.path().c_str(), &status ), 0 );
        EXPECT_EQ( status.st_mode & 07777, 0640U ) << "umask " << mask;
    }
}

TEST_F( SharedMemTest, CreateRefusesAnExistingFileAndLeavesIt ) {
    file( "slots", "precious" );
    SharedMem mem( directory, "slots", true, false );
    expectRefused( mem, 10, SharedMem::create, "create " + at( "slots" ) + ": File exists",
                   EEXIST );
    EXPECT_EQ( fileSize( "slots" ), 8U );
}

TEST_F( SharedMemTest, CreateRefusesASizeOfNothingAndOneBeyondTheAddressSpace ) {
    SharedMem mem( directory, "slots", false, false );
    expectRefused( mem, 0, SharedMem::create,
                   "create " + at( "slots" ) + ": no size for a mapping: 0", EINVAL );
    EXPECT_EQ( mem.attach( SIZE_MAX, SharedMem::create ), nullptr );
    EXPECT_EQ( mem.errorNumber(), ENOMEM );
    EXPECT_EQ( filesHere(), 0U );
}

TEST_F( SharedMemTest, AttachRefusesWhatIsMissingEmptyOrTooShort ) {
    SharedMem mem( directory, "slots", false, false );
    expectRefused( mem, 10, SharedMem::readOnly,
                   "open " + at( "slots" ) + ": No such file or directory", ENOENT );
    file( "slots", "" );
    expectRefused( mem, 0, SharedMem::readOnly, "open " + at( "slots" ) + ": the file is empty",
                   ENODATA );
    file( "slots", "123456789" );
    expectRefused( mem, 10, SharedMem::readWrite,
                   "open " + at( "slots" ) + ": the file holds 9 bytes, fewer than 10", ENODATA );
    EXPECT_TRUE( mem.attach( 9, SharedMem::readOnly ) );
}

TEST_F( SharedMemTest, SizeZeroMapsTheWholeFileAndASmallerOneItsBeginning ) {
    file( "slots", std::string( 10000, 'a' ) );
    SharedMem whole( directory, "slots", false, false );
    SharedMem part( directory, "slots", false, false );
    ASSERT_TRUE( whole.attach( 0, SharedMem::readOnly ) );
    ASSERT_TRUE( part.attach( 200, SharedMem::readOnly ) );
    EXPECT_EQ( whole.memSize(), 10000U );
    EXPECT_EQ( part.memSize(), 200U );
    EXPECT_EQ( bytes( whole )[ 9999 ], 'a' );
}

TEST_F( SharedMemTest, AnAttachedObjectRefusesToAttachAgain ) {
    SharedMem mem( directory, "slots", false, false );
    void* address = mem.attach( 10, SharedMem::create );
    ASSERT_TRUE( address );
    EXPECT_EQ( mem.attach( 10, SharedMem::readOnly ), nullptr );
    EXPECT_EQ( mem.errorText(), "attach " + at( "slots" ) + ": is attached already" );
    EXPECT_EQ( mem.errorNumber(), EBUSY );
    EXPECT_EQ( mem.address(), address );
    EXPECT_EQ( mem.mode(), SharedMem::create );
}

TEST_F( SharedMemTest, AnUnknownModeIsRefused ) {
    SharedMem mem( directory, "slots", false, false );
    expectRefused( mem, 10, SharedMem::Mode( 3 ), "attach " + at( "slots" ) + ": unknown mode 3",
                   EINVAL );
}

TEST_F( SharedMemTest, LinksPipesSocketsDevicesAndDirectoriesAreRefused ) {
    file( "target", "precious" );
    std::filesystem::create_symlink( at( "target" ), at( "link" ) );
    std::filesystem::create_symlink( at( "nothing" ), at( "dangling" ) );
    ASSERT_EQ( ::mkfifo( at( "fifo" ).c_str(), 0600 ), 0 );
    std::filesystem::create_directory( at( "dir" ) );
    const int fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy( address.sun_path, at( "socket" ).c_str() );
    ASSERT_EQ( ::bind( fd, reinterpret_cast< sockaddr* >( &address ), sizeof address ), 0 );
    ::close( fd );
    for ( const char* name : { "link", "dangling", "fifo", "dir", "socket" } ) {
        for ( SharedMem::Mode mode :
              { SharedMem::create, SharedMem::readOnly, SharedMem::readWrite } ) {
            SharedMem mem( directory, name, true, false );
            EXPECT_EQ( mem.attach( 4, mode ), nullptr ) << name << mode;
            EXPECT_THAT( mem.errorText(), HasSubstr( at( name ) + ": " ) );
            EXPECT_NE( mem.errorNumber(), 0 );
            EXPECT_EQ( mem.memSize(), 0U ) << name;
        }
        EXPECT_TRUE( exists( name ) );
    }
    EXPECT_EQ( fileSize( "target" ), 8U );
    EXPECT_FALSE( exists( "nothing" ) );
}

TEST_F( SharedMemTest, ALinkIsNamedAsOne ) {
    std::filesystem::create_symlink( "/etc/passwd", at( "slots" ) );
    SharedMem mem( directory, "slots", false, false );
    expectRefused( mem, 4, SharedMem::readOnly,
                   "open " + at( "slots" ) + ": Too many levels of symbolic links", ELOOP );
}

TEST_F( SharedMemTest, NamesThatAreNoPlainFileNamesAreRefused ) {
    std::filesystem::create_directory( at( "sub" ) );
    file( "sub/slots", "x" );
    for ( const std::string& name :
          { std::string(), std::string( "." ), std::string( ".." ), std::string( "sub/slots" ),
            std::string( "/etc/passwd" ), std::string( "a\0b", 3 ) } ) {
        SharedMem mem( directory, name, false, false );
        for ( SharedMem::Mode mode : { SharedMem::create, SharedMem::readOnly } ) {
            EXPECT_EQ( mem.attach( 1, mode ), nullptr ) << name;
            EXPECT_THAT( mem.errorText(), HasSubstr( "not a plain file name" ) );
            EXPECT_EQ( mem.errorNumber(), EINVAL );
        }
    }
}

TEST_F( SharedMemTest, AMissingDirectoryIsAnErrorThatNamesThePath ) {
    SharedMem mem( at( "none" ), "slots", false, false );
    expectRefused( mem, 1, SharedMem::create,
                   "create " + at( "none/slots" ) + ": No such file or directory", ENOENT );
}

TEST_F( SharedMemTest, FilesAreFoundThroughADirectoryDescriptor ) {
    const int fd = ::open( directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC );
    ASSERT_GE( fd, 0 );
    {
        SharedMem mem( "/nowhere", "slots", true, false );
        mem.directoryFdIs( fd );
        EXPECT_EQ( mem.memSize(), 0U );
        ASSERT_TRUE( mem.attach( 300, SharedMem::create ) ) << mem.errorText();
        EXPECT_EQ( fileSize( "slots" ), 300U );
        SharedMem reader( "/nowhere", "slots", false, false );
        reader.directoryFdIs( fd );
        EXPECT_EQ( reader.memSize(), 300U );
        EXPECT_TRUE( reader.attach( 0, SharedMem::readOnly ) );
        ASSERT_TRUE( mem.resize( 9000 ) );
        EXPECT_TRUE( reader.remap() ) << reader.errorText();
        EXPECT_EQ( reader.memSize(), 9000U );
    }
    EXPECT_FALSE( exists( "slots" ) );
    ::close( fd );
}

TEST_F( SharedMemTest, TheFileGoesWithItsCreatorWhenAskedFor ) {
    {
        SharedMem mem( directory, "slots", true, false );
        ASSERT_TRUE( mem.attach( 10, SharedMem::create ) );
        mem.detach();
        EXPECT_TRUE( exists( "slots" ) );
    }
    EXPECT_FALSE( exists( "slots" ) );
}

TEST_F( SharedMemTest, OnlyTheCreatorsOwnFileGoes ) {
    file( "theirs", "x" );
    { // attached only
        SharedMem mem( directory, "theirs", true, false );
        ASSERT_TRUE( mem.attach( 0, SharedMem::readWrite ) );
    }
    EXPECT_TRUE( exists( "theirs" ) );
    { // the name means another file since
        SharedMem mem( directory, "ours", true, false );
        ASSERT_TRUE( mem.attach( 10, SharedMem::create ) );
        std::filesystem::rename( at( "theirs" ), at( "ours" ) );
    }
    EXPECT_TRUE( exists( "ours" ) );
}

TEST_F( SharedMemTest, ResizeGrowsFileAndMappingWithZeros ) {
    SharedMem mem( directory, "slots", false, false );
    ASSERT_TRUE( mem.attach( 100, SharedMem::create ) );
    std::memset( mem.address(), 'x', 100 );
    for ( std::size_t size : { 101UL, 5000UL, 1000000UL, 5000000UL } ) {
        ASSERT_TRUE( mem.resize( size ) ) << mem.errorText();
        EXPECT_EQ( mem.memSize(), size );
        EXPECT_EQ( fileSize( "slots" ), size );
    }
    EXPECT_EQ( std::string( bytes( mem ), 100 ), std::string( 100, 'x' ) );
    EXPECT_EQ( std::count( bytes( mem ) + 100, bytes( mem ) + 5000000, '\0' ), 4999900 );
}

TEST_F( SharedMemTest, ResizeNeverShrinks ) {
    SharedMem mem( directory, "slots", false, false );
    ASSERT_TRUE( mem.attach( 9000, SharedMem::create ) );
    EXPECT_TRUE( mem.resize( 10 ) );
    EXPECT_TRUE( mem.resize( 0 ) );
    EXPECT_EQ( mem.memSize(), 9000U );
    EXPECT_EQ( fileSize( "slots" ), 9000U );
}

TEST_F( SharedMemTest, ResizeIsForAttachedWriters ) {
    SharedMem mem( directory, "slots", false, false );
    EXPECT_FALSE( mem.resize( 10 ) );
    EXPECT_EQ( mem.errorText(), "resize " + at( "slots" ) + ": is not attached" );
    file( "slots", "abc" );
    ASSERT_TRUE( mem.attach( 0, SharedMem::readOnly ) );
    EXPECT_FALSE( mem.resize( 10 ) );
    EXPECT_EQ( mem.errorText(), "resize " + at( "slots" ) + ": is attached for reading only" );
    EXPECT_EQ( mem.memSize(), 3U );
    EXPECT_EQ( fileSize( "slots" ), 3U );
}

TEST_F( SharedMemTest, AReaderFollowsGrowthByRemap ) {
    SharedMem writer( directory, "slots", false, false );
    SharedMem reader( directory, "slots", false, false );
    ASSERT_TRUE( writer.attach( 4096, SharedMem::create ) );
    ASSERT_TRUE( reader.attach( 0, SharedMem::readOnly ) );
    EXPECT_TRUE( reader.remap() );
    EXPECT_EQ( reader.memSize(), 4096U );
    ASSERT_TRUE( writer.resize( 3000000 ) );
    bytes( writer )[ 2999999 ] = 'z';
    EXPECT_EQ( reader.memSize(), 4096U );
    ASSERT_TRUE( reader.remap() ) << reader.errorText();
    EXPECT_EQ( reader.memSize(), 3000000U );
    EXPECT_EQ( bytes( reader )[ 2999999 ], 'z' );
}

TEST_F( SharedMemTest, RemapRefusesAReplacedFileAndKeepsItsOwn ) {
    file( "slots", std::string( 100, 'a' ) );
    file( "other", std::string( 9000, 'b' ) );
    SharedMem mem( directory, "slots", false, false );
    ASSERT_TRUE( mem.attach( 0, SharedMem::readOnly ) );
    std::filesystem::rename( at( "other" ), at( "slots" ) );
    EXPECT_FALSE( mem.remap() );
    EXPECT_EQ( mem.errorText(), "remap " + at( "slots" ) + ": now names another file" );
    EXPECT_EQ( mem.errorNumber(), ESTALE );
    EXPECT_EQ( mem.memSize(), 100U );
    EXPECT_EQ( bytes( mem )[ 99 ], 'a' );
    std::filesystem::remove( at( "slots" ) );
    EXPECT_FALSE( mem.remap() );
    EXPECT_EQ( mem.errorNumber(), ENOENT );
    EXPECT_EQ( bytes( mem )[ 0 ], 'a' );
    mem.detach();
    EXPECT_FALSE( mem.remap() );
    EXPECT_EQ( mem.errorText(), "remap " + at( "slots" ) + ": is not attached" );
}

TEST_F( SharedMemTest, ErrorTextsLeaveErrnoAtTheReason ) {
    SharedMem mem( directory, "slots", false, false );
    errno = 0;
    EXPECT_EQ( mem.attach( 1, SharedMem::readOnly ), nullptr );
    EXPECT_EQ( errno, ENOENT );
    errno = 12345;
    EXPECT_EQ( mem.memSize(), 0U );
    mem.detach();
    EXPECT_EQ( errno, 12345 );
}

// No space, by the limit on file sizes: the file of a creation is gone, and a growth leaves all.
int exhaust( const std::string& directory ) {
    ::signal( SIGXFSZ, SIG_IGN );
    const rlimit limit = { 1 << 20, 1 << 20 };
    ::setrlimit( RLIMIT_FSIZE, &limit );
    SharedMem large( directory, "large", false, false );
    if ( large.attach( 2 << 20, SharedMem::create ) || large.errorNumber() != EFBIG ||
         large.errorText() != "posix_fallocate " + directory + "/large: File too large" ) {
        return 1;
    }
    SharedMem mem( directory, "slots", false, false );
    if ( !mem.attach( 1000, SharedMem::create ) ) {
        return 2;
    }
    std::memset( mem.address(), 'x', 1000 );
    void* address = mem.address();
    if ( mem.resize( 2 << 20 ) || mem.errorNumber() != EFBIG ) {
        return 3;
    }
    if ( mem.address() != address || mem.memSize() != 1000 || bytes( mem )[ 999 ] != 'x' ) {
        return 4;
    }
    return mem.resize( 2000 ) && mem.memSize() == 2000 && bytes( mem )[ 999 ] == 'x' ? 0 : 5;
}

TEST_F( SharedMemTest, WithoutSpaceNothingIsLeftOrChanged ) {
    EXPECT_EQ( inChild( exhaust, directory ), 0 );
    EXPECT_FALSE( exists( "large" ) );
    EXPECT_EQ( fileSize( "slots" ), 2000U );
}

// Bytes of addresses that the process takes up.
rlim_t addressesTaken() {
    rlim_t pages = 0;
    std::ifstream( "/proc/self/statm" ) >> pages;
    return pages * rlim_t( ::sysconf( _SC_PAGESIZE ) );
}

// Hardly any address space (a sanitizer may need some): the mapping of a creation fails, and its
// file goes too.
int exhaustAddresses( const std::string& directory ) {
    SharedMem mem( directory, "slots", false, false );
    if ( !mem.attach( 4096, SharedMem::create ) ) {
        return 1;
    }
    bytes( mem )[ 0 ] = 'x';
    const rlim_t most = addressesTaken() + ( rlim_t( 16 ) << 20 );
    const rlimit limit = { most, most };
    ::setrlimit( RLIMIT_AS, &limit );
    SharedMem large( directory, "large", false, false );
    if ( large.attach( 64 << 20, SharedMem::create ) || large.errorNumber() != ENOMEM ||
         large.errorText() != "mmap " + directory + "/large: Cannot allocate memory" ) {
        return 2;
    }
    if ( mem.resize( 64 << 20 ) || mem.errorNumber() != ENOMEM || mem.memSize() != 4096 ) {
        return 3;
    }
    return bytes( mem )[ 0 ] == 'x' ? 0 : 4;
}

TEST_F( SharedMemTest, WithoutAddressSpaceNothingIsLeftOrMapped ) {
    EXPECT_EQ( inChild( exhaustAddresses, directory ), 0 );
    EXPECT_FALSE( exists( "large" ) );
}

int withoutDescriptors( const std::string& directory ) {
    const rlimit limit = { 3, 3 };
    ::setrlimit( RLIMIT_NOFILE, &limit );
    SharedMem mem( directory, "slots", false, false );
    return !mem.attach( 1, SharedMem::create ) && mem.errorNumber() == EMFILE &&
                   mem.errorText() == "create " + directory + "/slots: Too many open files"
               ? 0
               : 1;
}

TEST_F( SharedMemTest, WithoutDescriptorsTheReasonIsTold ) {
    SKIP_IF_DESCRIPTORS_ARE_NEEDED();
    EXPECT_EQ( inChild( withoutDescriptors, directory ), 0 );
    EXPECT_FALSE( exists( "slots" ) );
}

TEST_F( SharedMemTest, OnAFullDiskACreationLeavesNothing ) {
    allocationResults = { ENOSPC };
    SharedMem mem( directory, "slots", false, false );
    expectRefused( mem, 4096, SharedMem::create,
                   "posix_fallocate " + at( "slots" ) + ": No space left on device", ENOSPC );
    EXPECT_EQ( filesHere(), 0U );
    EXPECT_TRUE( mem.attach( 4096, SharedMem::create ) ) << mem.errorText();
}

TEST_F( SharedMemTest, OnAFullDiskAGrowthChangesNothing ) {
    SharedMem mem( directory, "slots", false, false );
    ASSERT_TRUE( mem.attach( 4096, SharedMem::create ) );
    std::memset( mem.address(), 'x', 4096 );
    void* address = mem.address();
    allocationResults = { ENOSPC };
    EXPECT_FALSE( mem.resize( 8192 ) );
    EXPECT_EQ( mem.errorText(), "posix_fallocate " + at( "slots" ) + ": No space left on device" );
    EXPECT_EQ( mem.errorNumber(), ENOSPC );
    EXPECT_EQ( mem.address(), address );
    EXPECT_EQ( mem.memSize(), 4096U );
    EXPECT_EQ( fileSize( "slots" ), 4096U );
    EXPECT_EQ( std::string( bytes( mem ), 4096 ), std::string( 4096, 'x' ) );
    EXPECT_TRUE( mem.resize( 8192 ) );
}

TEST_F( SharedMemTest, AnInterruptedAllocationGoesOn ) {
    allocationResults = { EINTR, EINTR };
    SharedMem mem( directory, "slots", false, false );
    EXPECT_TRUE( mem.attach( 4096, SharedMem::create ) ) << mem.errorText();
    EXPECT_TRUE( allocationResults.empty() );
    allocationResults = { EINTR };
    EXPECT_TRUE( mem.resize( 8192 ) );
    EXPECT_EQ( fileSize( "slots" ), 8192U );
}

int asNobody( const std::string& directory ) {
    if ( ::setgid( 65534 ) != 0 || ::setuid( 65534 ) != 0 ) {
        return 77;
    }
    SharedMem secret( directory, "secret", false, false );
    SharedMem fresh( directory, "fresh", false, false );
    if ( secret.attach( 0, SharedMem::readOnly ) || secret.errorNumber() != EACCES ) {
        return 1;
    }
    return !fresh.attach( 1, SharedMem::create ) && fresh.errorNumber() == EACCES ? 0 : 2;
}

TEST_F( SharedMemTest, AnotherUserIsRefused ) {
    if ( ::getuid() != 0 ) {
        GTEST_SKIP() << "changing the user needs root";
    }
    ::chmod( directory.c_str(), 0755 );
    SharedMem mem( directory, "secret", false, false );
    ASSERT_TRUE( mem.attach( 10, SharedMem::create ) );
    EXPECT_EQ( inChild( asNobody, directory ), 0 );
    EXPECT_FALSE( exists( "fresh" ) );
}

int lockBeyondTheLimit( const std::string& directory ) {
    const rlimit limit = { 4096, 4096 };
    ::setrlimit( RLIMIT_MEMLOCK, &limit );
    if ( ::getuid() == 0 && ( ::setgid( 65534 ) != 0 || ::setuid( 65534 ) != 0 ) ) {
        return 77;
    }
    SharedMem large( directory, "large", false, true );
    if ( large.attach( 1 << 20, SharedMem::create ) ) {
        return 1;
    }
    return large.errorText().rfind( "mlock " + directory + "/large: ", 0 ) == 0 ? 0 : 2;
}

TEST_F( SharedMemTest, PagesAreLockedWhenAskedFor ) {
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
    GTEST_SKIP() << "the sanitizers' runtime does not lock pages";
#endif
    SharedMem mem( directory, "locked", false, true );
    ASSERT_TRUE( mem.attach( 4096, SharedMem::create ) ) << mem.errorText();
    std::ifstream status( "/proc/self/status" );
    std::string text( std::istreambuf_iterator< char >( status ), {} );
    EXPECT_THAT( text, testing::Not( HasSubstr( "VmLck:\t       0 kB" ) ) );
    ::chmod( directory.c_str(), 0777 );
    EXPECT_EQ( inChild( lockBeyondTheLimit, directory ), 0 );
    EXPECT_FALSE( exists( "large" ) );
}

} // namespace

// The library's calls come here.
extern "C" __attribute__( ( visibility( "default" ) ) ) int posix_fallocate64( int fd,
                                                                               off64_t offset,
                                                                               off64_t length ) {
    if ( !allocationResults.empty() ) {
        const int result = allocationResults.front();
        allocationResults.pop_front();
        return result;
    }
    using Function = int ( * )( int, off64_t, off64_t );
    return reinterpret_cast< Function >( ::dlsym( RTLD_NEXT, "posix_fallocate64" ) )( fd, offset,
                                                                                      length );
}
