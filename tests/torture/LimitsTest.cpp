// Many at once: readers of one collection, collections of one process.

#include <gtest/gtest.h>

#include <fstream>

#include <sys/resource.h>

#include <Qel/System>

#include "Descriptors.h"
#include "mount/Child.h"
#include "torture/System.h"

namespace {

using namespace TortureTest;
using QelKrellTest::Channel;
using QelKrellTest::Child;

#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
constexpr U32 readers = 30; // a process takes a hundred times the memory there
constexpr U32 plants = 100;
#else
constexpr U32 readers = 100;
constexpr U32 plants = 500;
#endif
constexpr U32 collections = plants * shelvesOfEntity;

TEST( Limits, AHundredReadersAreCurrentAfterTheLastChange ) {
    constexpr U32 writer = 0;
    constexpr U32 kills = readers / 10;
    QelKrellTest::Torture torture( "limits", 1 );
    while ( torture.goesOn() && !HasFailure() ) {
        Random random( torture.seed() * 1000003 + torture.rounds() );
        System system( { readers + 1, 1, 200 } );
        system.stage().laps = QelKrellTest::Torture::isLong() ? 2 : 0; // 0: each key once
        system.postIs( writer, 0, { true, QelKrell::writer } );
        for ( U32 player = 0; player <= readers; ++player ) {
            if ( player != writer ) {
                system.postIs( player, 0, { true, 1 + random( 3 ) } );
                system.habitsAre( player, Habits::sleepy + random( 2 ) * Habits::yielding );
            }
            system.start( player, random( ~0U ) );
            if ( player == writer ) {
                ASSERT_TRUE( system.isDone() && system.orders( Order::rest ) ) << system.faults();
            }
        }
        ASSERT_TRUE( system.isDone() ) << system.faults();
        for ( U32 i = 0; i < kills; ++i ) {
            U32 player;
            do {
                player = 1 + random( readers );
            } while ( !system.lives( player ) );
            system.kill( player );
            torture.count( "kills" );
        }
        ASSERT_TRUE( system.orders( Order::lap, []( U32 player ) { return player == writer; } ) );
        ASSERT_TRUE( system.agree() ) << system.faults();
        EXPECT_EQ( system.figure( Figure::agreements ), readers + 1 - kills );
        ASSERT_TRUE( system.end() ) << system.faults();
        system.report( torture );
        torture.most( "readers", readers );
    }
}

// --- A thousand collections

// What a process holds, without what other processes hold with it.
struct Held {
    std::size_t descriptors = QelKrellTest::openDescriptors();
    std::size_t files = 0; // mapped
    std::size_t pages = 0; // of doorbells, mapped

    Held() {
        std::ifstream maps( "/proc/self/maps" );
        for ( std::string line; std::getline( maps, line ); ) {
            if ( line.find( "/memfd:" ) != std::string::npos ) {
                ++pages; // whose names end in the path of the collection
            } else {
                files += line.find( std::getenv( "KRELL_ROOT" ) ) != std::string::npos;
            }
        }
    }
};

class ManyMounted {
public:
    explicit ManyMounted( QelKrell::QelKrellType role ) : site_( false ) {
        site_.mount.handleInitialized();
        QelKrell::MountInfo info( role );
        info.collectionInfoIs( { "small", 1 } );
        info.collectionInfoIs( { "large", 1 } );
        for ( U32 i = 0; i < plants; ++i ) {
            mounted_.push_back( Qel::ptrCast< Ledger >(
                site_.mount.doMount( pathOf( i ), typeNames[ 0 ], info ) ) );
        }
    }
    void unmount() {
        mounted_.clear();
        site_.mount.doUnmountAll();
    }
    Ledger& operator[]( U32 i ) { return *mounted_[ i ]; }
    bool allConnected() {
        return std::all_of( mounted_.begin(), mounted_.end(), []( const auto& ledger ) {
            return ledger->small.control().mountStatus() == QelKrell::connected &&
                   ledger->large.control().mountStatus() == QelKrell::connected;
        } );
    }

private:
    static Qel::String8 pathOf( U32 i ) {
        return Qel::String8( ( "site/e" + std::to_string( i ) ).c_str() );
    }

    QelKrellTest::Site site_;
    std::vector< Qel::Ptr< Ledger > > mounted_;
};

bool hasDescriptors( rlim_t n ) {
    rlimit limit {};
    ::getrlimit( RLIMIT_NOFILE, &limit );
    limit.rlim_cur = std::max( limit.rlim_cur, std::min( n, limit.rlim_max ) );
    return ::setrlimit( RLIMIT_NOFILE, &limit ) == 0 && limit.rlim_cur >= n;
}

// What the first mount of a process makes for good, the event loop's descriptor for one, is there.
void warmUp() {
    QelKrellTest::Site site( false );
    site.mount.handleInitialized();
    site.mount.doMount( "warm", typeNames[ 0 ], QelKrell::MountInfo( QelKrell::writer ) );
    site.mount.doMount( "warm", typeNames[ 0 ], QelKrell::MountInfo( QelKrell::reader ) );
    Qel::System::runOnce( 0 );
    site.mount.doUnmountAll();
}

void turnUntilTold( const Channel& channel ) {
    while ( !channel.hasSaid() ) {
        Qel::System::runOnce( 0.01 );
    }
    channel.hear();
}

void writesMany( const Channel& channel ) {
    warmUp();
    const Held before;
    ManyMounted mounted( QelKrell::writer );
    for ( U32 i = 0; i < plants; ++i ) {
        mounted[ i ].small.is( madeOf< Coin >( i, 1 ) );
        mounted[ i ].large.is( madeOf< Note >( i, 1 ) );
    }
    const Held alone;
    EXPECT_EQ( alone.descriptors - before.descriptors, collections * 3 );
    EXPECT_EQ( alone.files - before.files, collections * 3 );
    EXPECT_EQ( alone.pages, before.pages );
    channel.say( "mounted" );
    turnUntilTold( channel );
    const Held followed;
    EXPECT_EQ( followed.descriptors - alone.descriptors, collections ) << "one for each reader";
    EXPECT_EQ( followed.pages - alone.pages, collections );
    EXPECT_EQ( followed.files, alone.files );
    mounted[ 7 ].small.is( madeOf< Coin >( 1000, 2 ) );
    channel.say( "changed" );
    turnUntilTold( channel );
    mounted.unmount();
    const Held after;
    EXPECT_EQ( after.descriptors, before.descriptors );
    EXPECT_EQ( after.files, before.files );
    EXPECT_EQ( after.pages, before.pages );
}

void followsMany( const Channel& channel ) {
    warmUp();
    const Held before;
    ManyMounted mounted( QelKrell::shadow );
    const bool connected = QelKrellTest::loopUntil( [ & ] { return mounted.allConnected(); } );
    channel.say( connected ? "connected" : "not connected" );
    const Held held;
    EXPECT_EQ( held.descriptors - before.descriptors, collections * 2 );
    EXPECT_EQ( held.files - before.files, collections * 3 );
    EXPECT_EQ( held.pages - before.pages, collections );
    for ( U32 i = 0; i < plants; ++i ) {
        EXPECT_TRUE( mounted[ i ].small( i ) ) << i;
        EXPECT_TRUE( mounted[ i ].large( i ) ) << i;
    }
    EXPECT_TRUE( QelKrellTest::loopUntil( [ & ] { return bool( mounted[ 7 ].small( 1000 ) ); } ) );
    mounted.unmount();
    const Held after;
    EXPECT_EQ( after.descriptors, before.descriptors );
    EXPECT_EQ( after.files, before.files );
    EXPECT_EQ( after.pages, before.pages );
}

TEST( Limits, AThousandMountedCollectionsTakeWhatIsDocumentedAndGiveItBack ) {
    constexpr rlim_t needed = collections * 4 + 100;
    if ( !hasDescriptors( needed ) ) {
        GTEST_SKIP() << "a process may not have " << needed << " descriptors here";
    }
    QelKrellTest::Torture torture( "limits", 1 );
    while ( torture.goesOn() && !HasFailure() ) {
        const QelKrellTest::Root root;
        Child writer( writesMany );
        ASSERT_EQ( writer.hear(), "mounted" );
        Child follower( followsMany );
        ASSERT_EQ( follower.hear(), "connected" );
        writer.say( "followed" );
        ASSERT_EQ( writer.hear(), "changed" );
        EXPECT_EQ( follower.wait(), 0 );
        writer.say( "unmount" );
        EXPECT_EQ( writer.wait(), 0 );
        torture.most( "collections", collections );
        torture.count( "leaked", HasFailure() );
    }
}

} // namespace
