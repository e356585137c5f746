// Watched paths: each event in order, sharing, refusals, ends.

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Dov/WatchDescriptor>
#include <Qel/Clock>
#include <Qel/Exception>
#include <Qel/System>

#include "Descriptors.h"

namespace {

namespace fs = std::filesystem;
using Dov::WatchDescriptor;
using Qel::System;
using testing::ElementsAre;
using testing::IsEmpty;

class Watcher : public WatchDescriptor::Notifiee {
public:
    explicit Watcher( const WatchDescriptor::Ptr& watch, std::function< void() > action = nullptr )
        : action_( std::move( action ) ) {
        notifierIs( watch );
        isRegisteredNotifieeIs( true );
    }
    void onWatchCount() override {
        events.push_back( nameOf( notifier()->eventMask() ) + notifier()->eventName().stdString() );
        descriptors.push_back( notifier()->eventDescriptor() );
        cookies.push_back( notifier()->eventCookie() );
        counts.push_back( notifier()->watchCount() );
        if ( action_ ) {
            action_();
        }
    }

    std::vector< std::string > events;
    std::vector< Qel::S32 > descriptors;
    std::vector< Qel::U32 > cookies;
    std::vector< Qel::U32 > counts;

private:
    static std::string nameOf( Qel::U32 mask ) {
        switch ( mask & ~Qel::U32( IN_ISDIR ) ) {
        case IN_CREATE:
            return "create ";
        case IN_DELETE:
            return "delete ";
        case IN_MOVED_FROM:
            return "from ";
        case IN_MOVED_TO:
            return "to ";
        case IN_CLOSE_WRITE:
            return "written ";
        case IN_DELETE_SELF:
            return "gone ";
        case IN_MOVE_SELF:
            return "moved ";
        case IN_IGNORED:
            return "end ";
        case IN_Q_OVERFLOW:
            return "overflow ";
        default:
            return "mask " + std::to_string( mask ) + " ";
        }
    }

    std::function< void() > action_;
};

class WatchDescriptorTest : public testing::Test {
protected:
    WatchDescriptorTest() {
        std::string pattern = testing::TempDir() + "dov-watch-XXXXXX";
        dir = mkdtemp( pattern.data() );
    }
    ~WatchDescriptorTest() override {
        watch->pathIs( "" );
        fs::remove_all( dir );
    }
    static void serve() {
        while ( System::runOnce( 0 ) ) {
        }
    }
    void touch( const std::string& name ) { std::ofstream( dir / name ) << "x"; }
    template < class E = Qel::SystemException, class F >
    static std::string refusal( F&& call ) {
        const Qel::ExpectException expected( E::id_ );
        try {
            call();
        } catch ( const E& e ) {
            return e.what();
        }
        return "no refusal";
    }

    fs::path dir;
    WatchDescriptor::Ptr watch = new WatchDescriptor( "watch" );
    Qel::Ptr< Watcher > watcher = new Watcher( watch );
};

TEST_F( WatchDescriptorTest, ReactorSeesEveryEventInOrder ) {
    watch->pathIs( dir.string() );
    EXPECT_EQ( watch->path(), dir.string().c_str() );
    touch( "a" );
    fs::rename( dir / "a", dir / "b" );
    fs::remove( dir / "b" );
    EXPECT_TRUE( System::runOnce( Qel::neverTime ) );
    serve();
    EXPECT_THAT( watcher->events,
                 ElementsAre( "create a", "written a", "from a", "to b", "delete b" ) );
    EXPECT_THAT( watcher->counts, ElementsAre( 1, 2, 3, 4, 5 ) );
    EXPECT_EQ( 5U, watch->watchCount() );
    EXPECT_EQ( watch->eventName(), "b" );
    EXPECT_EQ( Qel::U32( IN_DELETE ), watch->eventMask() );
    EXPECT_GT( watch->eventDescriptor(), 0 );
    EXPECT_NE( 0U, watcher->cookies[ 2 ] );
    EXPECT_EQ( watcher->cookies[ 2 ], watcher->cookies[ 3 ] );
    EXPECT_EQ( 0U, watcher->cookies[ 4 ] );
}

TEST_F( WatchDescriptorTest, MoreEventsThanOneReadHolds ) {
    watch->pathIs( dir.string() );
    constexpr unsigned files = 1000;
    for ( unsigned i = 0; i < files; ++i ) {
        touch( "file-with-a-name-of-some-length-" + std::to_string( i ) );
    }
    serve();
    EXPECT_EQ( 2 * files, watch->watchCount() );
    EXPECT_EQ( "written file-with-a-name-of-some-length-999", watcher->events.back() );
}

TEST_F( WatchDescriptorTest, EmptyPathIsNoWatch ) {
    watch->pathIs( "" );
    EXPECT_EQ( System::idle_, System::doRun() );
    watch->pathIs( dir.string() );
    watch->pathIs( "" );
    touch( "a" );
    EXPECT_EQ( System::idle_, System::doRun() ); // no instance is left
    EXPECT_EQ( 0U, watch->watchCount() );
    EXPECT_EQ( watch->path(), "" );
}

TEST_F( WatchDescriptorTest, GoneDirectoryEndsTheWatch ) {
    const fs::path inner = dir / "inner";
    fs::create_directory( inner );
    watch->pathIs( inner.string() );
    fs::remove( inner );
    serve();
    EXPECT_THAT( watcher->events, ElementsAre( "gone ", "end " ) );
    EXPECT_THAT( watcher->descriptors, testing::Each( testing::Gt( 0 ) ) );
    EXPECT_EQ( System::idle_, System::doRun() );
    EXPECT_EQ( watch->path(), inner.string().c_str() );
    fs::create_directory( inner );
    watch->pathIs( inner.string() );
    std::ofstream( inner / "x" );
    serve();
    EXPECT_EQ( "written x", watcher->events.back() );
}

TEST_F( WatchDescriptorTest, MovedObjectIsTold ) {
    const fs::path inner = dir / "inner";
    fs::create_directory( inner );
    watch->pathIs( inner.string() );
    fs::rename( inner, dir / "other" );
    serve();
    EXPECT_THAT( watcher->events, ElementsAre( "moved " ) );
    EXPECT_TRUE( watch->eventMask() & 0xC00 );
    EXPECT_EQ( watch->eventName(), "" );
}

TEST_F( WatchDescriptorTest, ReactorMayWatchAnewWhenTheWatchEnds ) {
    const fs::path inner = dir / "inner";
    fs::create_directory( inner );
    watch->pathIs( inner.string() );
    const Qel::Ptr< Watcher > renewing = new Watcher( watch, [ & ] {
        if ( watch->eventMask() & IN_IGNORED ) {
            fs::create_directory( inner );
            watch->pathIs( inner.string() );
        }
    } );
    fs::remove( inner );
    serve();
    std::ofstream( inner / "x" );
    serve();
    EXPECT_THAT( watcher->events, ElementsAre( "gone ", "end ", "create x", "written x" ) );
}

TEST_F( WatchDescriptorTest, WatchesOfOneObjectAreIndependent ) {
    WatchDescriptor::Ptr second = new WatchDescriptor( "second" );
    const Qel::Ptr< Watcher > secondWatcher = new Watcher( second );
    watch->pathIs( dir.string() );
    second->pathIs( ( dir / "." ).string() );
    touch( "a" );
    serve();
    EXPECT_THAT( watcher->events, ElementsAre( "create a", "written a" ) );
    EXPECT_THAT( secondWatcher->events, ElementsAre( "create a", "written a" ) );
    second = nullptr;
    touch( "b" );
    serve();
    EXPECT_EQ( 4U, watch->watchCount() );
    EXPECT_EQ( 2U, secondWatcher->events.size() );
}

TEST_F( WatchDescriptorTest, NewPathReplacesTheOldOne ) {
    const fs::path inner = dir / "inner";
    fs::create_directory( inner );
    watch->pathIs( dir.string() );
    watch->pathIs( inner.string() );
    touch( "a" );
    std::ofstream( inner / "b" );
    serve();
    EXPECT_THAT( watcher->events, ElementsAre( "create b", "written b" ) );
    watch->pathIs( ( inner / "." ).string() ); // the same object by another name
    std::ofstream( inner / "c" );
    serve();
    EXPECT_EQ( 4U, watch->watchCount() );
}

TEST_F( WatchDescriptorTest, PathThatCannotBeWatchedIsRefusedAndTheOldOneStays ) {
    watch->pathIs( dir.string() );
    const std::string missing = ( dir / "missing" ).string();
    EXPECT_EQ( "inotify_add_watch of '" + missing + "': No such file or directory (errno 2)",
               refusal( [ & ] { watch->pathIs( missing ); } ) );
    EXPECT_EQ( "watch 'watch': the path holds a NUL byte", refusal< Qel::RangeException >( [ & ] {
                   watch->pathIs( Qel::String( "a\0b", 3 ) );
               } ) );
    EXPECT_EQ( watch->path(), dir.string().c_str() );
    touch( "a" );
    serve();
    EXPECT_EQ( 2U, watch->watchCount() );
}

TEST_F( WatchDescriptorTest, RefusedFirstPathLeavesNothingOpen ) {
    EXPECT_NE( "no refusal", refusal( [ & ] { watch->pathIs( ( dir / "missing" ).string() ); } ) );
    EXPECT_EQ( watch->path(), "" );
    EXPECT_EQ( System::idle_, System::doRun() );
}

TEST_F( WatchDescriptorTest, ExhaustedDescriptorsAreAClearRefusal ) {
    SKIP_IF_DESCRIPTORS_ARE_NEEDED();
    rlimit limit {};
    ASSERT_EQ( 0, getrlimit( RLIMIT_NOFILE, &limit ) );
    System::descriptor(); // the loop has its own already
    const rlimit none = { 0, limit.rlim_max };
    ASSERT_EQ( 0, setrlimit( RLIMIT_NOFILE, &none ) );
    const std::string message = refusal( [ & ] { watch->pathIs( dir.string() ); } );
    ASSERT_EQ( 0, setrlimit( RLIMIT_NOFILE, &limit ) );
    EXPECT_EQ( "inotify_init1 of the process's watches: Too many open files (errno 24) - the limit "
               "fs.inotify.max_user_instances, or that of open descriptors, is reached",
               message );
    EXPECT_EQ( watch->path(), "" );
    watch->pathIs( dir.string() );
    touch( "a" );
    serve();
    EXPECT_EQ( 2U, watch->watchCount() );
}

TEST_F( WatchDescriptorTest, ReactorsMayTakeEachOtherOut ) {
    WatchDescriptor::Ptr second = new WatchDescriptor( "second" );
    WatchDescriptor::Ptr first = new WatchDescriptor( "first" );
    int calls = 0;
    const Qel::Ptr< Watcher > a = new Watcher( first, [ & ] {
        ++calls;
        second = nullptr;
        first = nullptr;
    } );
    const Qel::Ptr< Watcher > b = new Watcher( second, [ & ] {
        ++calls;
        second = nullptr;
        first = nullptr;
    } );
    first->pathIs( dir.string() );
    second->pathIs( dir.string() );
    touch( "a" );
    touch( "b" );
    serve();
    EXPECT_EQ( 1, calls );
    EXPECT_EQ( System::idle_, System::doRun() );
}

TEST_F( WatchDescriptorTest, WatchersMayDieWhenTheirWatchEnds ) {
    const fs::path inner = dir / "inner";
    fs::create_directory( inner );
    std::vector< WatchDescriptor::Ptr > all;
    std::vector< Qel::Ptr< Watcher > > watchers;
    int calls = 0;
    for ( int i = 0; i < 5; ++i ) {
        all.push_back( new WatchDescriptor( "w" ) );
        all.back()->pathIs( inner.string() );
        watchers.push_back( new Watcher( all.back(), [ & ] {
            ++calls;
            all.clear();
        } ) );
    }
    fs::remove( inner );
    serve();
    EXPECT_GE( calls, 1 );
    EXPECT_EQ( System::idle_, System::doRun() );
}

TEST_F( WatchDescriptorTest, WatchesMayBeMadeAnewWhileEventsAreDelivered ) {
    watch->pathIs( dir.string() );
    const fs::path inner = dir / "inner";
    const Qel::Ptr< Watcher > mover = new Watcher( watch, [ & ] {
        if ( watch->eventName() == "inner" ) {
            watch->pathIs( "" ); // the last one: the instance goes, and with it its numbers
            watch->pathIs( inner.string() );
        }
    } );
    fs::create_directory( inner );
    touch( "a" ); // read together with the former, of the former instance
    serve();
    std::ofstream( inner / "b" );
    serve();
    EXPECT_THAT( watcher->events, ElementsAre( "create inner", "create b", "written b" ) );
}

TEST_F( WatchDescriptorTest, OverflowIsToldToAllAndTheWatchGoesOn ) {
    std::ifstream limit( "/proc/sys/fs/inotify/max_queued_events" );
    unsigned most = 0;
    limit >> most;
    if ( most == 0 || most > 100000 ) {
        GTEST_SKIP() << "the system queues " << most << " events";
    }
    watch->pathIs( dir.string() );
    const std::string a = ( dir / "a" ).string();
    const std::string b = ( dir / "b" ).string();
    touch( "a" );
    for ( unsigned i = 0; i <= most / 4 + 1; ++i ) {
        ASSERT_EQ( 0, std::rename( a.c_str(), b.c_str() ) );
        ASSERT_EQ( 0, std::rename( b.c_str(), a.c_str() ) );
    }
    serve();
    EXPECT_EQ( "overflow ", watcher->events.back() );
    EXPECT_EQ( -1, watch->eventDescriptor() );
    EXPECT_EQ( Qel::U32( IN_Q_OVERFLOW ), watch->eventMask() );
    touch( "later" );
    serve();
    EXPECT_EQ( "written later", watcher->events.back() );
}

TEST_F( WatchDescriptorTest, ForkedChildTakesNothingFromItsParent ) {
    watch->pathIs( dir.string() );
    const pid_t child = fork();
    if ( child == 0 ) {
        touch( "a" );
        serve(); // gets an instance of its own
        const Qel::U32 before = watch->watchCount();
        touch( "b" );
        serve();
        const bool own = watch->watchCount() == before + 2 && watch->eventName() == "b";
        watch->pathIs( "" );
        _exit( own ? 0 : 1 );
    }
    int status = 0;
    ASSERT_EQ( child, waitpid( child, &status, 0 ) );
    EXPECT_EQ( 0, status );
    serve();
    EXPECT_THAT( watcher->events, ElementsAre( "create a", "written a", "create b", "written b" ) );
    touch( "c" );
    serve();
    EXPECT_EQ( 6U, watch->watchCount() );
}

TEST_F( WatchDescriptorTest, WatchThatAForkedChildCannotRenewEndsThere ) {
    const fs::path inner = dir / "inner";
    fs::create_directory( inner );
    watch->pathIs( inner.string() );
    const pid_t child = fork();
    if ( child == 0 ) {
        fs::remove( inner );
        serve();
        const bool told = watch->eventDescriptor() == -1 && watch->eventMask() == 0 &&
                          watch->watchCount() == 1 && System::doRun() == System::idle_;
        _exit( told ? 0 : 1 );
    }
    int status = 0;
    ASSERT_EQ( child, waitpid( child, &status, 0 ) );
    EXPECT_EQ( 0, status );
    serve();
    EXPECT_THAT( watcher->events, ElementsAre( "gone ", "end " ) );
}

} // namespace
