// The guard itself: which addresses it covers, with what, and to whom it leaves all others.

#include <Dov/FaultGuard>

#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <Dov/SharedMem>

#include "krell/Hooks.h"

using Dov::FaultGroup;
using Dov::FaultGuard;
using Dov::SharedMem;
using KrellTest::inChild;

namespace {

constexpr std::size_t page = 4096;

class FaultGuardTest : public testing::Test {
protected:
    // A file of that many pages, filled with ones.
    void* make( SharedMem& mem, std::size_t pages ) {
        void* const at = mem.attach( pages * page, SharedMem::create );
        EXPECT_NE( at, nullptr ) << mem.errorText();
        std::memset( at, 1, pages * page );
        return at;
    }
    static unsigned byteAt( const void* start, std::size_t at ) {
        return static_cast< const volatile unsigned char* >( start )[ at ];
    }

    KrellTest::TestRoot root;
    SharedMem mem { root.path(), "file", false, false };
};

// Runs in a child, for a handler is the whole process's.
TEST_F( FaultGuardTest, AMappingIsCoveredFromItsFirstPageOn ) {
    const int status = inChild( [ & ] {
        void* const at = make( mem, 4 );
        EXPECT_TRUE( FaultGuard::install() );
        EXPECT_TRUE( FaultGuard::install() );
        EXPECT_EQ( ::truncate( mem.path().c_str(), 2 * page ), 0 );
        EXPECT_EQ( byteAt( at, 0 ), 1U );
        EXPECT_EQ( byteAt( at, 3 * page ), 0U );
        EXPECT_EQ( byteAt( at, 0 ), FaultGuard::coverByte_ );
        EXPECT_EQ( byteAt( at, page - 1 ), FaultGuard::coverByte_ );
        EXPECT_EQ( byteAt( at, page ), 0U );
        static_cast< char* >( at )[ 3 * page ] = 5; // nobody's, but no harm either
        EXPECT_EQ( std::filesystem::file_size( mem.path() ), 2 * page );
        EXPECT_FALSE( mem.remap() );
        EXPECT_EQ( mem.errorNumber(), ENODATA );
        EXPECT_FALSE( mem.resize( 8 * page ) );
        EXPECT_EQ( std::filesystem::file_size( mem.path() ), 2 * page );
        mem.detach();
        EXPECT_NE( mem.attach( 0, SharedMem::readOnly ), nullptr )
            << "a new mapping is a whole one";
        EXPECT_EQ( byteAt( mem.address(), 0 ), 1U );
        return HasFailure() ? 1 : 0;
    } );
    EXPECT_EQ( status, 0 );
}

TEST_F( FaultGuardTest, AllOfAGroupIsCoveredAndNothingElse ) {
    const int status = inChild( [ & ] {
        SharedMem other( root.path(), "other", false, false );
        SharedMem stranger( root.path(), "stranger", false, false );
        Qel::U32 counter = 0;
        const auto group = std::make_shared< FaultGroup >( &counter );
        mem.faultGroupIs( group );
        other.faultGroupIs( group );
        void* const at = make( mem, 2 );
        void* const otherAt = make( other, 3 );
        make( stranger, 1 );
        EXPECT_TRUE( FaultGuard::install() );
        EXPECT_EQ( ::truncate( mem.path().c_str(), 0 ), 0 );
        EXPECT_FALSE( group->damaged() );
        EXPECT_EQ( byteAt( at, page ), 0U );
        EXPECT_TRUE( group->damaged() );
        EXPECT_EQ( counter, 1U );
        EXPECT_EQ( byteAt( otherAt, 0 ), FaultGuard::coverByte_ );
        EXPECT_EQ( byteAt( otherAt, 2 * page ), 0U );
        EXPECT_EQ( byteAt( stranger.address(), 0 ), 1U );
        return HasFailure() ? 1 : 0;
    } );
    EXPECT_EQ( status, 0 );
}

TEST_F( FaultGuardTest, AReadersCoverIsForReadingOnly ) {
    const int status = inChild( [ & ] {
        make( mem, 2 );
        SharedMem reader( root.path(), "file", false, false );
        void* const at = reader.attach( 0, SharedMem::readOnly );
        EXPECT_TRUE( FaultGuard::install() );
        EXPECT_EQ( ::truncate( mem.path().c_str(), 0 ), 0 );
        EXPECT_EQ( byteAt( at, page ), 0U );
        if ( HasFailure() ) {
            return 1;
        }
        ::signal( SIGSEGV, []( int ) { ::_exit( 9 ); } );
        *static_cast< volatile char* >( at ) = 1;
        return 2;
    } );
    EXPECT_EQ( status, 9 );
}

TEST_F( FaultGuardTest, AMappingThatGrewIsCoveredWhereItIsNow ) {
    const int status = inChild( [ & ] {
        make( mem, 1 );
        EXPECT_TRUE( mem.resize( std::size_t( 40 ) << 20 ) ) << mem.errorText(); // moves it
        EXPECT_TRUE( FaultGuard::install() );
        EXPECT_EQ( ::truncate( mem.path().c_str(), 0 ), 0 );
        EXPECT_EQ( byteAt( mem.address(), ( std::size_t( 40 ) << 20 ) - 1 ), 0U );
        EXPECT_EQ( byteAt( mem.address(), 0 ), FaultGuard::coverByte_ );
        return HasFailure() ? 1 : 0;
    } );
    EXPECT_EQ( status, 0 );
}

// A writer whose file had been shortened made it longer again when it grew, with zeros in between.
TEST_F( FaultGuardTest, AMappingOfAShortenedFileIsNotGrown ) {
    const void* const at = make( mem, 4 );
    ASSERT_EQ( ::truncate( mem.path().c_str(), 2 * page ), 0 );
    for ( const bool grow : { true, false } ) {
        EXPECT_FALSE( grow ? mem.resize( 8 * page ) : mem.remap() );
        EXPECT_EQ( mem.errorNumber(), ENODATA );
        EXPECT_NE( mem.errorText().find( "the file holds 8192 bytes, fewer than the 16384" ),
                   std::string::npos )
            << mem.errorText();
    }
    EXPECT_EQ( std::filesystem::file_size( mem.path() ), 2 * page );
    EXPECT_EQ( byteAt( at, page ), 1U ) << "what is there stays mapped";
}

// A mapping of somebody else's, without its file.
void* strange( const std::string& directory ) {
    const std::string path = directory + "/strange";
    KrellTest::bytesInto( path, "12345" );
    const int fd = ::open( path.c_str(), O_RDWR | O_CLOEXEC );
    void* const at = ::mmap( nullptr, page, PROT_READ, MAP_SHARED, fd, 0 );
    EXPECT_EQ( ::ftruncate( fd, 0 ), 0 );
    return at;
}

TEST_F( FaultGuardTest, AnotherAddressGoesToTheHandlerThatWasThere ) {
    const int status = inChild( [ & ] {
        struct sigaction own {};
        own.sa_flags = SA_SIGINFO;
        own.sa_sigaction = []( int signal, siginfo_t* info, void* context ) {
            ::_exit( signal == SIGBUS && info->si_code == BUS_ADRERR && context ? 7 : 8 );
        };
        ::sigaction( SIGBUS, &own, nullptr );
        make( mem, 1 );
        EXPECT_TRUE( FaultGuard::install() );
        byteAt( strange( root.path() ), 0 );
        return 1;
    } );
    EXPECT_EQ( status, 7 );
}

TEST_F( FaultGuardTest, APlainHandlerIsCalledToo ) {
    const int status = inChild( [ & ] {
        ::signal( SIGBUS, []( int ) { ::_exit( 6 ); } );
        EXPECT_TRUE( FaultGuard::install() );
        ::raise( SIGBUS );
        return 1;
    } );
    EXPECT_EQ( status, 6 );
}

TEST_F( FaultGuardTest, WithoutOneTheDefaultActionEndsTheProcess ) {
    for ( const bool sent : { false, true } ) {
        const int status = inChild( [ & ] {
            ::signal( SIGBUS, SIG_DFL );
            EXPECT_TRUE( FaultGuard::install() );
            sent ? void( ::raise( SIGBUS ) ) : void( byteAt( strange( root.path() ), 0 ) );
            return 1;
        } );
        EXPECT_EQ( status, 128 + SIGBUS ) << sent;
    }
}

TEST_F( FaultGuardTest, WhoIgnoredASentSignalStillDoes ) {
    const int status = inChild( [ & ] {
        ::signal( SIGBUS, SIG_IGN );
        EXPECT_TRUE( FaultGuard::install() );
        ::raise( SIGBUS );
        return 0;
    } );
    EXPECT_EQ( status, 0 );
}

TEST_F( FaultGuardTest, WithoutInstallationTheProcessEndsAsEver ) {
    const int status = inChild( [ & ] {
        ::signal( SIGBUS, SIG_DFL );
        void* const at = make( mem, 2 );
        EXPECT_EQ( ::truncate( mem.path().c_str(), 0 ), 0 );
        byteAt( at, page );
        return 1;
    } );
    EXPECT_EQ( status, 128 + SIGBUS );
}

} // namespace
