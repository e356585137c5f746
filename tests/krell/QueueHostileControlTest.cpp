// An unsound change queue, through a control: what is corruption is marked for the next writer, and
// nothing else is.

#include <filesystem>

#include <gtest/gtest.h>

#include "krell/QueueSupport.h"

using namespace KrellTest;

namespace {

constexpr std::size_t stampAt = offsetof( Krell::QueueHeader, fenix );

class QueueHostileControlTest : public testing::Test {
protected:
    QueueHostileControlTest() {
        writer.asWriter( 20 );
        for ( U64 key = 0; key < 10; ++key ) {
            put( key, 1 );
        }
    }
    void put( U64 key, U64 value ) { writer.writer().put< 1, 1 >( &key, &value ); }
    std::string pathOf( const char* name ) const { return writerPath + "/" + name; }
    bool marked() const { return std::filesystem::exists( pathOf( "corruption-detected" ) ); }

    TestRoot root;
    const Krell::Layout layout = layoutOf( 1, 1 );
    TestCollection writer { layout };
    const std::string writerPath = writer.rootPath();
};

TEST_F( QueueHostileControlTest, AMissingOrForeignQueueLeavesNoMarker ) {
    const std::string queue = pathOf( "conquer.1" );
    const std::string whole = bytesOf( queue );
    for ( const QelKrell::QelKrellType role :
          { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
        TestCollection follower( layout );
        std::filesystem::remove( queue );
        follower.init( role, false, 0 );
        follower.poll();
        EXPECT_EQ( follower.mountStatus(), 1 );
        EXPECT_TRUE( follower.changes.empty() );
        std::string foreign = whole;
        foreign[ stampAt ] = char( ~foreign[ stampAt ] );
        bytesInto( queue, foreign );
        follower.poll();
        EXPECT_TRUE( follower.changes.empty() );
        EXPECT_TRUE( follower.failures.empty() );
        EXPECT_FALSE( marked() );
        EXPECT_GE( fireTimers(), 1U ) << "it looks again by itself";
        bytesInto( queue, whole );
        follower.poll();
        EXPECT_EQ( follower.changes.size(), 10U );
    }
}

TEST_F( QueueHostileControlTest, AnUnsoundQueueIsMarkedAndToldOnceAndTheNextWriterStartsAnew ) {
    const std::string queue = pathOf( "conquer.1" );
    std::string wrong = bytesOf( queue );
    wrong[ 0 ] = 'X';
    bytesInto( queue, wrong );
    TestCollection follower( layout );
    follower.init( QelKrell::keyshadow, false, 0 );
    for ( unsigned i = 0; i < 3; ++i ) {
        follower.poll();
    }
    ASSERT_EQ( follower.failures.size(), 1U );
    EXPECT_NE( follower.failures[ 0 ].find( queue + ": bad magic" ), std::string::npos )
        << follower.failures[ 0 ];
    EXPECT_TRUE( marked() );
    const U32 fenix = writer.fenixId();
    writer.detach();
    writer.asWriter( 20 );
    EXPECT_NE( writer.fenixId(), fenix );
    put( 3, 3 );
    for ( unsigned i = 0; i < 3; ++i ) {
        follower.poll();
    }
    EXPECT_EQ( follower.takeChanges(), ( std::map< U64, bool > { { 3, true } } ) );
    EXPECT_FALSE( marked() );
}

} // namespace
