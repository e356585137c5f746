// A hard link in the place of a lock file or a segment let the writer change the file elsewhere;
// also one that was taken away again between the opening of the file and the look at its names.

#include <fstream>

#include <gtest/gtest.h>

#include "Tracer.h"
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

// Until the writer comes to its nth system call, and then the file is what it was.
TEST_F( HardLinkTest, TakenAwayAtAnySystemCallIsNotWrittenThrough ) {
    const std::string aside = root.path() + "/aside";
    for ( const char* name : { "slots", "buckets", "last-owner" } ) {
        unsigned refused = 0;
        bool over = false;
        for ( unsigned call = 1; !over; ++call ) {
            SCOPED_TRACE( testing::Message() << name << " until call " << call );
            fs::copy_file( file( name ), elsewhere() );
            const std::string before = bytesOf( elsewhere() );
            fs::rename( file( name ), aside );
            fs::create_hard_link( elsewhere(), file( name ) );
            std::string refusal;
            QelKrellTest::Tracer writer(
                [] {},
                [] {
                    if ( refusalOf( [] { Table().as( QelKrell::writer ).put( 2, 2 ); } ) != "" ) {
                        throw std::runtime_error( "refused" );
                    }
                } );
            if ( !writer.allowed() ) {
                GTEST_SKIP() << "ptrace is not allowed here";
            }
            ASSERT_TRUE( writer.stopped() );
            unsigned made = 0;
            while ( made < call && writer.toCall() ) {
                ++made;
            }
            over = made < call;
            fs::rename( aside, file( name ) );
            refused += WEXITSTATUS( writer.finish() ) == QelKrellTest::Tracer::failed_;
            EXPECT_TRUE( bytesOf( elsewhere() ) == before ) << "it was written";
            fs::remove( elsewhere() );
        }
        EXPECT_GT( refused, 0U ) << name;
        EXPECT_EQ( refusalOf( [] { Table().as( QelKrell::writer ); } ), "" );
    }
}

} // namespace
