// Growth of a file whose name changed since it was made.

#include <Dov/SharedMem>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "Descriptors.h"

namespace {

using Dov::SharedMem;
using QelKrellTest::openDescriptors;

class SharedMemGrowthTest : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/dev/shm/dovtest.XXXXXX";
        ASSERT_NE( ::mkdtemp( name ), nullptr );
        directory = name;
    }
    void TearDown() override { std::filesystem::remove_all( directory ); }

    std::string at( const std::string& name ) const { return directory + "/" + name; }

    std::string directory;
};

TEST_F( SharedMemGrowthTest, ARenamedFileGrowsAndKeepsNoDescriptor ) {
    SharedMem mem( directory, "temporary", false, false );
    const std::size_t before = openDescriptors();
    ASSERT_TRUE( mem.attach( 100, SharedMem::create ) );
    EXPECT_EQ( openDescriptors(), before );
    std::filesystem::rename( at( "temporary" ), at( "slots" ) );
    EXPECT_FALSE( mem.resize( 9000 ) );
    EXPECT_EQ( mem.errorNumber(), ENOENT );
    EXPECT_EQ( mem.memSize(), 100U );
    mem.nameIs( "slots" );
    EXPECT_TRUE( mem.resize( 9000 ) );
    EXPECT_EQ( std::filesystem::file_size( at( "slots" ) ), 9000U );
    static_cast< char* >( mem.address() )[ 8999 ] = 'x';
    EXPECT_EQ( openDescriptors(), before );
}

TEST_F( SharedMemGrowthTest, AReplacedFileDoesNotGrow ) {
    std::ofstream( at( "other" ) ) << std::string( 50, 'b' );
    SharedMem mem( directory, "slots", false, false );
    ASSERT_TRUE( mem.attach( 100, SharedMem::create ) );
    std::filesystem::rename( at( "other" ), at( "slots" ) );
    EXPECT_FALSE( mem.resize( 9000 ) );
    EXPECT_EQ( mem.errorText(), "resize " + at( "slots" ) + ": now names another file" );
    EXPECT_EQ( mem.errorNumber(), ESTALE );
    EXPECT_EQ( std::filesystem::file_size( at( "slots" ) ), 50U );
    EXPECT_EQ( mem.memSize(), 100U );
}

class SharedMemSpaceTest : public SharedMemGrowthTest {
protected:
    static constexpr std::size_t page = 4096;
    static constexpr std::size_t pages = 64;

    void SetUp() override {
        SharedMemGrowthTest::SetUp();
        mem = std::make_unique< SharedMem >( directory, "slots", false, false );
        ASSERT_TRUE( mem->attach( pages * page, SharedMem::create ) );
        for ( std::size_t i = 0; i < pages * page; ++i ) {
            bytes()[ i ] = char( i / page + 1 );
        }
    }
    char* bytes() { return static_cast< char* >( mem->address() ); }
    std::size_t allocated() {
        struct stat status {};
        ::stat( at( "slots" ).c_str(), &status );
        return std::size_t( status.st_blocks ) * 512;
    }

    std::unique_ptr< SharedMem > mem;
};

TEST_F( SharedMemSpaceTest, WhatIsGivenBackIsZeroAndTakesNoSpace ) {
    ASSERT_EQ( allocated(), pages * page );
    ASSERT_TRUE( mem->giveBack( 2 * page + 1, 10 * page - 1 ) ) << mem->errorText();
    EXPECT_EQ( allocated(), ( pages - 6 ) * page ) << "whole pages only";
    EXPECT_EQ( mem->memSize(), pages * page );
    EXPECT_EQ( std::filesystem::file_size( at( "slots" ) ), pages * page );
    for ( std::size_t i = 0; i < pages; ++i ) {
        EXPECT_EQ( bytes()[ i * page + 7 ], i >= 3 && i < 9 ? 0 : char( i + 1 ) ) << i;
    }
    EXPECT_TRUE( mem->giveBack( 20 * page + 1, 21 * page - 1 ) ) << "no whole page: nothing to do";
    EXPECT_EQ( bytes()[ 20 * page + 7 ], 21 );
}

TEST_F( SharedMemSpaceTest, SpaceThatWasGivenBackIsAllocatedAnew ) {
    ASSERT_TRUE( mem->giveBack( 0, 32 * page ) );
    ASSERT_EQ( allocated(), 32 * page );
    ASSERT_TRUE( mem->allocate( 8 * page, 16 * page ) ) << mem->errorText();
    EXPECT_EQ( allocated(), 40 * page );
    EXPECT_TRUE( mem->allocate( 0, 64 * page ) );
    EXPECT_EQ( allocated(), 64 * page );
    EXPECT_EQ( bytes()[ 40 * page ], 41 ) << "what was there stays";
}

TEST_F( SharedMemSpaceTest, SpaceIsAWritersAndWithinTheMapping ) {
    EXPECT_FALSE( mem->giveBack( 0, 65 * page ) );
    EXPECT_EQ( mem->errorText(), "giveBack " + at( "slots" ) + ": ends before byte 266240" );
    EXPECT_FALSE( mem->allocate( 0, 65 * page ) );
    SharedMem reader( directory, "slots", false, false );
    EXPECT_FALSE( reader.giveBack( 0, page ) );
    EXPECT_EQ( reader.errorNumber(), EINVAL );
    ASSERT_TRUE( reader.attach( 0, SharedMem::readOnly ) );
    EXPECT_FALSE( reader.giveBack( 0, page ) );
    EXPECT_EQ( reader.errorNumber(), EBADF );
    EXPECT_FALSE( reader.allocate( 0, page ) );
    reader.populate( 0, 64 * page ); // not a writer's: nothing
    std::filesystem::rename( at( "slots" ), at( "former" ) );
    std::ofstream( at( "slots" ) ) << std::string( pages * page, 'b' );
    EXPECT_FALSE( mem->giveBack( 0, page ) );
    EXPECT_EQ( mem->errorNumber(), ESTALE );
    EXPECT_FALSE( mem->allocate( 0, page ) );
    EXPECT_EQ( mem->errorNumber(), ESTALE );
    EXPECT_EQ( bytes()[ 7 ], 1 );
}

TEST_F( SharedMemSpaceTest, PopulatedPagesKeepWhatTheyHold ) {
    mem->populate( 0, 200 * page ); // as far as there are any
    mem->populate( 5 * page, 5 * page );
    for ( std::size_t i = 0; i < pages; ++i ) {
        EXPECT_EQ( bytes()[ i * page + 7 ], char( i + 1 ) );
    }
    SharedMem( directory, "none", false, false ).populate( 0, page );
}

// Where there are addresses enough.
TEST_F( SharedMemSpaceTest, AMappingGrowsWhereItIs ) {
    if ( sizeof( void* ) < 8 ) {
        GTEST_SKIP() << "addresses are short";
    }
    SharedMem reader( directory, "slots", false, false );
    ASSERT_TRUE( reader.attach( 0, SharedMem::readOnly ) );
    const void* const before = reader.address();
    char* const own = bytes();
    for ( std::size_t size = pages * page; size < ( std::size_t( 16 ) << 20 ); size += size / 8 ) {
        ASSERT_TRUE( mem->resize( size ) );
        ASSERT_TRUE( reader.remap() );
        ASSERT_EQ( reader.memSize(), size );
    }
    EXPECT_EQ( bytes(), own );
    EXPECT_EQ( reader.address(), before );
    ASSERT_TRUE( mem->resize( std::size_t( 80 ) << 20 ) ); // more than there is room for
    ASSERT_TRUE( reader.remap() );
    bytes()[ ( std::size_t( 80 ) << 20 ) - 1 ] = 'x';
    EXPECT_EQ( static_cast< char* >( reader.address() )[ ( std::size_t( 80 ) << 20 ) - 1 ], 'x' );
    EXPECT_EQ( bytes()[ 7 ], 1 );
}

} // namespace
