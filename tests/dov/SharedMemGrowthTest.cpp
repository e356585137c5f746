// Growth of a file whose name changed since it was made.

#include <Dov/SharedMem>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

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

} // namespace
