// The writer's lock on files that are replaced, removed, linked or no files; and calls that fail.

#include <Krell/WriterLock>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <functional>
#include <vector>

#include <gmock/gmock.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "WriterLocks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
namespace fs = std::filesystem;

// While it lives, `action( n )` runs before this thread's n-th fcntl of that kind. Giving a part of
// a lock back is no locking.
class BeforeFcntl {
public:
    BeforeFcntl( int command, std::function< void( int ) > action )
        : command_( command ), action_( std::move( action ) ) {
        current = this;
    }
    ~BeforeFcntl() { current = nullptr; }
    BeforeFcntl( const BeforeFcntl& ) = delete;
    BeforeFcntl& operator=( const BeforeFcntl& ) = delete;

    int calls() const { return calls_; }
    // The errno that the call is to fail with; 0 lets it through.
    int before( int command, const void* argument ) {
        const int wide = command_ == F_SETLK ? F_SETLK64 : F_GETLK64;
        const bool same = command == command_ || command == wide;
        if ( !same || static_cast< const struct flock* >( argument )->l_type == F_UNLCK ) {
            return 0;
        }
        action_( calls_ );
        const std::size_t call = std::size_t( calls_++ );
        return call < failures.size() ? failures[ call ] : 0;
    }

    std::vector< int > failures;
    static inline thread_local BeforeFcntl* current = nullptr;

private:
    int command_;
    std::function< void( int ) > action_;
    int calls_ = 0;
};

// Runs once, before this thread's next opening of a lock file.
thread_local std::function< void() > beforeOpen;

class WriterLockReplacedTest : public WriterLockFixture {};

TEST_F( WriterLockReplacedTest, ALockOnAReplacedFileIsOneNobodyRespects ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    fs::remove( file() );
    EXPECT_EQ( WriterLock::holderOf( directory ), 0 );
    bytesInto( file(), "" );
    EXPECT_EQ( WriterLock::holderOf( directory ), 0 );
    WriterLock second; // of the file that now has the name
    EXPECT_TRUE( second.tryLock( directory ) );
    EXPECT_TRUE( lock.held() );
    lock.unlock();
    EXPECT_FALSE( freeForOthers() );
}

// Between opening and locking, the file is removed: the lock is then worth nothing.
TEST_F( WriterLockReplacedTest, AFileThatGoesBeforeItIsLockedIsMadeAnew ) {
    WriterLock lock;
    const BeforeFcntl hook( F_SETLK, [ & ]( int call ) {
        if ( call < 3 ) {
            fs::remove( file() );
        }
    } );
    ASSERT_TRUE( lock.tryLock( directory ) );
    EXPECT_EQ( hook.calls(), 4 );
    EXPECT_EQ( WriterLock::holderOf( directory ), ::getpid() );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( WriterLockReplacedTest, AFileThatIsReplacedBeforeItIsLockedIsOpenedAnew ) {
    WriterLock lock;
    const BeforeFcntl hook( F_SETLK, [ & ]( int call ) {
        if ( call == 0 ) {
            bytesInto( root / "coll/new", "" );
            fs::rename( root / "coll/new", file() );
        }
    } );
    ASSERT_TRUE( lock.tryLock( directory ) );
    EXPECT_EQ( hook.calls(), 2 );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( WriterLockReplacedTest, AFileThatIsReplacedForEverEndsTheAttempt ) {
    WriterLock lock;
    const BeforeFcntl hook( F_SETLK, [ & ]( int ) { fs::remove( file() ); } );
    try {
        lock.tryLock( directory );
        FAIL();
    } catch ( const RuntimeException& e ) {
        EXPECT_EQ( e.msg(), "fcntl " + file() + ": the file is replaced again and again" );
    }
    EXPECT_FALSE( lock.held() );
}

TEST_F( WriterLockReplacedTest, AWriterThatDiesWhileItIsAskedForIsNoWriter ) {
    const auto other = otherWriter();
    WriterLock lock;
    const BeforeFcntl hook( F_GETLK, [ & ]( int ) { other->kill( SIGKILL ); } );
    ASSERT_TRUE( lock.tryLock( directory ) );
    EXPECT_EQ( hook.calls(), 1 );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( WriterLockReplacedTest, ALockThatIsInterruptedIsTriedAgain ) {
    WriterLock lock;
    BeforeFcntl hook( F_SETLK, []( int ) {} );
    hook.failures = { EINTR, EINTR };
    EXPECT_TRUE( lock.tryLock( directory ) );
    EXPECT_EQ( hook.calls(), 3 );
}

TEST_F( WriterLockReplacedTest, WithoutRoomForLocksTheReasonIsTold ) {
    WriterLock lock;
    BeforeFcntl hook( F_SETLK, []( int ) {} );
    hook.failures = { ENOLCK };
    try {
        lock.tryLock( directory );
        FAIL();
    } catch ( const MemoryResourceException& e ) {
        EXPECT_EQ( e.msg(), "fcntl " + file() + ": No locks available" );
    }
    EXPECT_FALSE( lock.held() );
    EXPECT_TRUE( freeForOthers() );
}

TEST_F( WriterLockReplacedTest, AnotherNameOfALockedFileDoesNotGiveTheLockAway ) {
    const Directory other = Directory::create( root / "other" );
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    fs::create_hard_link( file(), root / "other/last-owner" );
    WriterLock second;
    EXPECT_FALSE( second.tryLock( other ) );
    EXPECT_EQ( WriterLock::holderOf( other ), ::getpid() );
    EXPECT_FALSE( freeForOthers() );
}

// The name comes to mean the locked file just before it is opened. Closing that descriptor again
// would give the lock away.
TEST_F( WriterLockReplacedTest, ALockedFileThatTakesANameInTimeStaysLocked ) {
    const Directory other = Directory::create( root / "other" );
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    const auto plant = [ & ] {
        bytesInto( root / "other/last-owner", "" );
        fs::create_hard_link( file(), root / "other/link" );
        beforeOpen = [ & ] { fs::rename( root / "other/link", root / "other/last-owner" ); };
    };
    WriterLock second;
    plant();
    EXPECT_FALSE( second.tryLock( other ) );
    EXPECT_FALSE( beforeOpen );
    EXPECT_EQ( second.holder(), ::getpid() );
    EXPECT_FALSE( freeForOthers() );
    fs::remove( root / "other/last-owner" );
    plant();
    EXPECT_TRUE( WriterLock::ownerOf( other ).has_value() );
    EXPECT_FALSE( freeForOthers() );
    fs::remove( root / "other/last-owner" );
    plant();
    EXPECT_EQ( WriterLock::holderOf( other ), ::getpid() );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( WriterLockReplacedTest, WhatIsNoRegularFileIsRefused ) {
    const auto expectRefused = [ & ] {
        WriterLock lock;
        EXPECT_THROW( lock.tryLock( directory ), RuntimeException );
        EXPECT_FALSE( lock.held() );
        EXPECT_THROW( WriterLock::ownerOf( directory ), RuntimeException );
        EXPECT_THROW( WriterLock::holderOf( directory ), RuntimeException );
        fs::remove( file() );
    };
    bytesInto( root / "target", "precious" );
    fs::create_symlink( root / "target", file() );
    expectRefused();
    fs::create_symlink( root / "nothing", file() );
    expectRefused();
    fs::create_directory( file() );
    expectRefused();
    ASSERT_EQ( ::mkfifo( file().c_str(), 0600 ), 0 );
    expectRefused();
    EXPECT_EQ( bytesOf( root / "target" ), "precious" );
    EXPECT_FALSE( fs::exists( root / "nothing" ) );
}

using Fcntl = int ( * )( int, int, void* );

int interposed( int fd, int command, void* argument ) {
    BeforeFcntl* hook = std::exchange( BeforeFcntl::current, nullptr ); // not for its own calls
    const int failure = hook ? hook->before( command, argument ) : 0;
    BeforeFcntl::current = hook;
    if ( failure ) {
        errno = failure;
        return -1;
    }
    return reinterpret_cast< Fcntl >( ::dlsym( RTLD_NEXT, "fcntl64" ) )( fd, command, argument );
}

} // namespace

// The library's calls come here.
extern "C" __attribute__( ( visibility( "default" ) ) ) int fcntl64( int fd, int command, ... ) {
    va_list arguments;
    va_start( arguments, command );
    void* argument = va_arg( arguments, void* );
    va_end( arguments );
    return interposed( fd, command, argument );
}

extern "C" __attribute__( ( visibility( "default" ) ) ) int openat64( int base,
                                                                      const char* name,
                                                                      int flags,
                                                                      ... ) {
    va_list arguments;
    va_start( arguments, flags );
    const unsigned mode = flags & O_CREAT ? va_arg( arguments, unsigned ) : 0;
    va_end( arguments );
    if ( beforeOpen && std::strcmp( name, "last-owner" ) == 0 ) {
        std::exchange( beforeOpen, nullptr )();
    }
    using Openat = int ( * )( int, const char*, int, unsigned );
    return reinterpret_cast< Openat >( ::dlsym( RTLD_NEXT, "openat64" ) )( base, name, flags,
                                                                           mode );
}
