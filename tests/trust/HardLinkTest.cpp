// A hard link in the place of a lock file or a segment let the writer change the file elsewhere.

#include <fstream>

#include <gtest/gtest.h>

#include "mount/Site.h"
#include "trust/Table.h"
#include "trust/Users.h"

namespace {

using namespace TrustTest;
namespace fs = std::filesystem;

class HardLinkTest : public testing::Test {
protected:
    HardLinkTest() { Table().as( QelKrell::writer ).put( 1, 1 ); }

    std::string file( const char* name ) const { return root.path() + "/" + place + "/" + name; }
    std::string elsewhere() const { return root.path() + "/elsewhere"; }
    static std::string bytesOf( const std::string& path ) {
        std::ifstream file( path, std::ios::binary );
        return std::string( std::istreambuf_iterator< char >( file ), {} );
    }
    void expectRefused( const char* call, const char* name ) const {
        const std::string before = bytesOf( elsewhere() );
        EXPECT_EQ( refusalOf( [] { Table().as( QelKrell::writer ); } ),
                   std::string( "RuntimeException: " ) + call + " " + file( name ) +
                       ": the file has another name too" );
        EXPECT_EQ( bytesOf( elsewhere() ), before );
    }

    QelKrellTest::Root root;
};

TEST_F( HardLinkTest, InPlaceOfTheLockFileIsRefused ) {
    std::ofstream( elsewhere() ) << "precious";
    fs::remove( file( "last-owner" ) );
    fs::create_hard_link( elsewhere(), file( "last-owner" ) );
    expectRefused( "openat", "last-owner" );
}

TEST_F( HardLinkTest, InPlaceOfASegmentIsRefused ) {
    for ( const char* name : { "slots", "buckets" } ) {
        fs::create_hard_link( file( name ), elsewhere() );
        expectRefused( "open", name );
        fs::remove( elsewhere() );
    }
    Table table;
    EXPECT_TRUE( table.as( QelKrell::writer ).contents().contains( 1 ) ) << "nothing was lost";
}

} // namespace
