// The collection library's watch of a directory on the adapter and the system's events.

#include <Krell/DirectoryWatch>

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <Qel/System>
#include <QelKrell/Platform>

#include "platform/InotifyLimit.h"
#include "platform/Scratch.h"
#include "platform/Tracing.h"

namespace {

namespace fs = std::filesystem;

class DirectoryWatch : public testing::Test, public Krell::DirectoryWatch::Handler {
protected:
    void handleDirectoryChanged() override { ++told_; }
    // How often it was told of all that has happened.
    unsigned told() {
        while ( Qel::System::runOnce( 0 ) ) {
        }
        return std::exchange( told_, 0 );
    }
    void make( const std::string& name ) { fs::create_directories( scratch.path( name ) ); }

    QelKrellTest::Tracing tracing { "" };
    QelKrellTest::Scratch scratch;
    Krell::DirectoryWatch watch { *Krell::Platform::getDebugHandler( "TestWatch" ), *this };

private:
    unsigned told_ = 0;
};

TEST_F( DirectoryWatch, FollowsADirectoryThatComesAndGoesAndComesAgain ) {
    watch.start( scratch.path( "a/b" ) );
    EXPECT_EQ( told(), 0u );
    make( "a" );
    EXPECT_EQ( told(), 0u );
    for ( int i = 0; i < 3; ++i ) {
        make( "a/b" );
        EXPECT_EQ( told(), 1u );
        make( "a/b/c" );
        EXPECT_EQ( told(), 1u );
        fs::remove_all( scratch.path( "a" ) );
        EXPECT_GE( told(), 1u );
        make( "a" );
        EXPECT_EQ( told(), 0u );
    }
}

TEST_F( DirectoryWatch, FollowsANameWhoseDirectoryIsMovedAway ) {
    make( "a" );
    watch.start( scratch.path( "a" ) );
    fs::rename( scratch.path( "a" ), scratch.path( "b" ) );
    EXPECT_EQ( told(), 1u );
    make( "b/c" );
    EXPECT_EQ( told(), 0u );
    fs::rename( scratch.path( "b" ), scratch.path( "a" ) );
    EXPECT_EQ( told(), 1u );
    make( "a/d" );
    EXPECT_EQ( told(), 1u );
}

// The queue is full before the directory is replaced: no event tells of that.
TEST_F( DirectoryWatch, SurvivesLostEvents ) {
    int limit = 0;
    std::ifstream( "/proc/sys/fs/inotify/max_queued_events" ) >> limit;
    ASSERT_GT( limit, 0 );
    if ( limit > 100000 ) {
        GTEST_SKIP() << "this machine queues " << limit << " events";
    }
    make( "a" );
    std::ofstream( scratch.path( "a/x" ) );
    std::ofstream( scratch.path( "a/y" ) );
    watch.start( scratch.path( "a" ) );
    for ( int i = 0; i < limit + 10; ++i ) { // in turn: equal ones in a row are joined
        const std::string path = scratch.path( i % 2 ? "a/x" : "a/y" );
        close( open( path.c_str(), O_WRONLY | O_CLOEXEC ) );
    }
    fs::remove_all( scratch.path( "a" ) );
    make( "a" );
    EXPECT_GE( told(), 1u );
    EXPECT_TRUE( watch.watching() );
    make( "a/z" );
    EXPECT_EQ( told(), 1u ) << "it watches the new directory";
}

TEST_F( DirectoryWatch, ALimitThatIsReachedIsAClearReason ) {
    make( "a" );
    const auto status = QelKrellTest::withInotifyWatches( 0, [ & ] {
        watch.start( scratch.path( "a" ) );
        EXPECT_FALSE( watch.watching() );
        EXPECT_THAT(
            watch.reason(),
            testing::AllOf(
                testing::StartsWith( "cannot watch '" + scratch.path( "a" ) + "': " ),
                testing::HasSubstr( "the limit fs.inotify.max_user_watches is reached" ) ) );
        fs::remove( scratch.path( "a" ) );
        watch.look();
        EXPECT_EQ( told(), 1u ) << "found by looking";
        EXPECT_TRUE( QelKrellTest::inotifyWatchesAre( 5 ) );
        make( "a" );
        watch.look();
        EXPECT_EQ( told(), 1u );
        EXPECT_TRUE( watch.watching() );
        EXPECT_EQ( watch.reason(), "" );
        make( "a/b" );
        EXPECT_EQ( told(), 1u );
    } );
    if ( !status ) {
        GTEST_SKIP() << "a process cannot be given limits of its own here";
    }
    EXPECT_EQ( *status, 0 );
}

} // namespace
