// The probe: which entity type a collection's files record.

#include <cstring>
#include <filesystem>
#include <fstream>

#include <Krell/KrellTest>

#include <gmock/gmock.h>

#include "krell/Hooks.h"

namespace {

using Krell::KrellTest;
using Header = Krell::KrellReaderGeneric::Table::Header;

class EntityType : public testing::Test {
protected:
    EntityType() {
        char name[] = "/dev/shm/krelltest.XXXXXX";
        EXPECT_NE( mkdtemp( name ), nullptr );
        directory = name;
    }
    ~EntityType() override { std::filesystem::remove_all( directory ); }

    static Header header( const char* type ) {
        Header h;
        std::memcpy( h.entityType, type, std::strlen( type ) );
        h.checksum = h.doHash();
        return h;
    }
    void slotsAre( const void* bytes, std::size_t size ) {
        std::ofstream file( directory + "/slots", std::ios::binary );
        file.write( static_cast< const char* >( bytes ), std::streamsize( size ) );
    }
    bool probe() { return KrellTest::getEntityType( directory.c_str(), type ); }

    std::string directory;
    Qel::String type = "untouched";
};

TEST_F( EntityType, IsReadFromTheHeader ) {
    const Header h = header( "Power::Plant" );
    slotsAre( &h, sizeof h );
    EXPECT_TRUE( probe() );
    EXPECT_EQ( type, "Power::Plant" );
}

TEST_F( EntityType, MayBeEmptyOrFillItsField ) {
    const Header h = header( "" );
    slotsAre( &h, sizeof h );
    EXPECT_TRUE( probe() );
    EXPECT_EQ( type, "" );
    const std::string longest( 64, 'x' );
    const Header full = header( longest.c_str() );
    slotsAre( &full, sizeof full );
    EXPECT_TRUE( probe() );
    EXPECT_EQ( type, longest.c_str() );
}

TEST_F( EntityType, IsNotReadFromWhatIsNoCollection ) {
    EXPECT_FALSE( probe() ) << "no file";
    slotsAre( "", 0 );
    EXPECT_FALSE( probe() ) << "an empty one";
    const Header h = header( "Power::Plant" );
    slotsAre( &h, 199 );
    EXPECT_FALSE( probe() ) << "a short one";
    Header damaged = h;
    damaged.entityType[ 0 ] ^= 1;
    slotsAre( &damaged, sizeof damaged );
    EXPECT_FALSE( probe() ) << "a damaged one";
    std::filesystem::remove( directory + "/slots" );
    std::filesystem::create_symlink( "/etc/passwd", directory + "/slots" );
    EXPECT_FALSE( probe() ) << "a link";
    std::filesystem::remove( directory + "/slots" );
    std::filesystem::create_directory( directory + "/slots" );
    EXPECT_FALSE( probe() ) << "a directory";
    EXPECT_FALSE( KrellTest::getEntityType( "/nowhere/at/all", type ) );
    EXPECT_EQ( type, "untouched" );
}

TEST_F( EntityType, TheFenixIsNotChecked ) {
    Header h = header( "Power::Plant" );
    h.fenix = 0xdeadbeef;
    slotsAre( &h, sizeof h );
    EXPECT_TRUE( probe() );
}

} // namespace
