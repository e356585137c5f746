// A search with ".." in its path walked the file system outside the manager's directory, and one
// with a NUL byte in its path walked another directory than it named.

#include <fstream>

#include <Qel/Text>
#include <QelKrell/Exception>

#include <gtest/gtest.h>

#include "Raised.h"
#include "mount/Site.h"

namespace {

using namespace QelKrellTest;

class FindBelow : public testing::Test {
protected:
    FindBelow() {
        site.mount.handleInitialized();
        for ( const char* entity : { "sys/Krell/a", "sys/other/b" } ) {
            const std::string collection = root.path() + "/" + entity + "/c";
            std::filesystem::create_directories( collection );
            std::ofstream( collection + "/slots" ) << "x";
        }
    }
    std::size_t found( const Qel::String8& path ) {
        return Qel::ptrCast< QelKrell::KrellEntities >( site.mount.find( path ) )->names().size();
    }
    void expectRefused( const Qel::String8& path ) {
        EXPECT_EQ( raised< Qel::InternalException >( [ & ] { site.mount.find( path ); } ),
                   ( "Mount::find() path: " + Qel::valueToStrep( path ) +
                     " has a component that is no name: '..' or one with a NUL byte" )
                       .stdString() );
        EXPECT_EQ( mounts( "/sys/other/b" ), 0U );
        EXPECT_EQ( mounts( "/sys/Krell/a" ), 0U );
    }

    Root root;
    Site site { true };
};

TEST_F( FindBelow, APathThatLeadsUpwardsIsRefused ) {
    for ( const char* path : { "..", "../other", "/..", "a/..", "a/../../other", "../" } ) {
        SCOPED_TRACE( path );
        expectRefused( path );
    }
}

TEST_F( FindBelow, APathWithANulByteIsRefused ) {
    expectRefused( Qel::String8( "\0", 1 ) );
    expectRefused( Qel::String8( "a\0b", 3 ) );
}

TEST_F( FindBelow, NamesThatBeginWithDotsAreNames ) {
    EXPECT_EQ( found( "...//" ), 0U );
    std::filesystem::create_directories( root.path() + "/sys/Krell/..a/e/c" );
    std::ofstream( root.path() + "/sys/Krell/..a/e/c/slots" ) << "x";
    EXPECT_EQ( found( "/..a/" ), 1U );
    EXPECT_EQ( mounts( "/sys/Krell/..a/e" ), 1U );
    EXPECT_EQ( found( "" ), 2U );
}

} // namespace
