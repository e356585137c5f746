// The writer's lock across processes, in one process, over forks and kills.

#include <Krell/WriterLock>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Krell/Util>

#include "WriterLocks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
namespace fs = std::filesystem;

class WriterLockTest : public WriterLockFixture {};

TEST_F( WriterLockTest, AFreeLockIsTakenAndItsFileMade ) {
    WriterLock lock;
    EXPECT_FALSE( lock.held() );
    EXPECT_EQ( WriterLock::holderOf( directory ), 0 );
    EXPECT_EQ( WriterLock::ownerOf( directory ), std::nullopt );
    ASSERT_TRUE( lock.tryLock( directory ) );
    EXPECT_TRUE( lock.held() );
    EXPECT_TRUE( lock.owner().empty() );
    EXPECT_EQ( modeOf( file() ), 0640 );
    EXPECT_EQ( WriterLock::holderOf( directory ), ::getpid() );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( WriterLockTest, UnlockFreesItAndLeavesTheFile ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    lock.writeOwner();
    lock.unlock();
    EXPECT_FALSE( lock.held() );
    EXPECT_EQ( WriterLock::holderOf( directory ), 0 );
    EXPECT_TRUE( freeForOthers() );
    EXPECT_EQ( WriterLock::ownerOf( directory ), Owner::self() );
    lock.unlock();
    EXPECT_TRUE( lock.tryLock( directory ) );
    EXPECT_EQ( lock.owner(), Owner::self() );
}

TEST_F( WriterLockTest, DestructionFreesIt ) {
    {
        WriterLock lock;
        ASSERT_TRUE( lock.tryLock( directory ) );
    }
    EXPECT_TRUE( freeForOthers() );
}

TEST_F( WriterLockTest, AnotherProcessIsRefusedAndToldByWhom ) {
    const auto other = otherWriter();
    WriterLock lock;
    EXPECT_FALSE( lock.tryLock( directory ) );
    EXPECT_FALSE( lock.held() );
    EXPECT_EQ( lock.holder(), other->pid() );
    EXPECT_EQ( lock.owner().pid, other->pid() );
    EXPECT_EQ( lock.owner().process, Util::processName() );
    EXPECT_EQ( lock.owner().startTime, Util::processStartTime( other->pid() ) );
    EXPECT_EQ( WriterLock::holderOf( directory ), other->pid() );
    EXPECT_EQ( WriterLock::ownerOf( directory )->pid, other->pid() );
    EXPECT_EQ( WriterLock::refusalText( directory, lock.holder(), lock.owner() ),
               ( root / "coll" ) + " is written by " + Util::processName() + " (pid " +
                   std::to_string( other->pid() ) + ")" );
}

TEST_F( WriterLockTest, ALockIsFreeWhenItsProcessWasKilled ) {
    for ( int signal : { SIGKILL, SIGTERM, SIGABRT } ) {
        const auto other = otherWriter();
        const pid_t pid = other->pid();
        WriterLock lock;
        ASSERT_FALSE( lock.tryLock( directory ) );
        other->kill( signal );
        ASSERT_TRUE( lock.tryLock( directory ) );
        EXPECT_EQ( lock.owner().pid, pid ); // who was it before
    }
}

TEST_F( WriterLockTest, AStoppedWriterKeepsItsLock ) {
    const auto other = otherWriter();
    ASSERT_EQ( ::kill( other->pid(), SIGSTOP ), 0 );
    int status = 0;
    ASSERT_EQ( ::waitpid( other->pid(), &status, WUNTRACED ), other->pid() );
    WriterLock lock;
    EXPECT_FALSE( lock.tryLock( directory ) );
    EXPECT_EQ( lock.holder(), other->pid() );
}

TEST_F( WriterLockTest, TheSameProcessIsRefusedToo ) {
    WriterLock first;
    WriterLock second;
    ASSERT_TRUE( first.tryLock( directory ) );
    first.writeOwner();
    EXPECT_FALSE( second.tryLock( directory ) );
    EXPECT_FALSE( second.held() );
    EXPECT_EQ( second.holder(), ::getpid() );
    EXPECT_EQ( second.owner(), Owner::self() );
    second.unlock();
    EXPECT_TRUE( first.held() );
    EXPECT_FALSE( freeForOthers() );
    first.unlock();
    EXPECT_TRUE( second.tryLock( directory ) );
}

TEST_F( WriterLockTest, AHeldHandleRefusesToLockAgain ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    try {
        lock.tryLock( directory );
        FAIL();
    } catch ( const RuntimeException& e ) {
        EXPECT_EQ( e.msg(), "the writer's lock " + file() + " is held by this handle already" );
    }
    EXPECT_TRUE( lock.held() );
}

TEST_F( WriterLockTest, LocksOfDifferentCollectionsAreIndependent ) {
    const Directory other = Directory::create( root / "other" );
    WriterLock one;
    WriterLock two;
    EXPECT_TRUE( one.tryLock( directory ) );
    EXPECT_TRUE( two.tryLock( other ) );
    two.unlock();
    EXPECT_FALSE( freeForOthers() );
}

// Any close of the file's descriptors in this process would give the lock away.
TEST_F( WriterLockTest, AskingForOwnerAndHolderKeepsTheLock ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    lock.writeOwner();
    const unsigned before = openDescriptors();
    WriterLock second;
    const Directory again = Directory::open( root / "coll" );
    for ( int i = 0; i < 10; ++i ) {
        EXPECT_EQ( WriterLock::ownerOf( again ), Owner::self() );
        EXPECT_EQ( WriterLock::holderOf( again ), ::getpid() );
        EXPECT_FALSE( second.tryLock( again ) );
    }
    EXPECT_FALSE( freeForOthers() );
    EXPECT_EQ( openDescriptors(), before + 1 ); // `again`
}

TEST_F( WriterLockTest, RefusalsAndQuestionsLeakNoDescriptors ) {
    const auto other = otherWriter();
    const unsigned before = openDescriptors();
    for ( int i = 0; i < 10; ++i ) {
        WriterLock lock;
        EXPECT_FALSE( lock.tryLock( directory ) );
        WriterLock::ownerOf( directory );
        WriterLock::holderOf( directory );
    }
    EXPECT_EQ( openDescriptors(), before );
}

TEST_F( WriterLockTest, AForkedChildDoesNotHoldTheLock ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    lock.writeOwner();
    const pid_t parent = ::getpid();
    const int status = inChild( [ & ] {
        WriterLock own;
        const bool right = !lock.held() && !own.tryLock( directory ) && own.holder() == parent &&
                           WriterLock::holderOf( directory ) == parent &&
                           WriterLock::ownerOf( directory )->pid == parent;
        lock.unlock();
        return right ? 0 : 1;
    } );
    EXPECT_EQ( status, 0 );
    EXPECT_TRUE( lock.held() );
    EXPECT_FALSE( freeForOthers() );
    EXPECT_EQ( WriterLock::ownerOf( directory ), Owner::self() );
}

TEST_F( WriterLockTest, AForkedChildsDestructorChangesNothingForTheParent ) {
    auto lock = std::make_unique< WriterLock >();
    ASSERT_TRUE( lock->tryLock( directory ) );
    lock->writeOwner();
    const std::string text = ownersText(); // gives the lock away, and
    lock->unlock();
    ASSERT_TRUE( lock->tryLock( directory ) ); // takes it anew
    EXPECT_EQ( inChild( [ & ] {
                   lock.reset();
                   return 0;
               } ),
               0 );
    EXPECT_TRUE( lock->held() );
    EXPECT_FALSE( freeForOthers() );
    lock.reset();
    EXPECT_EQ( ownersText(), text );
}

TEST_F( WriterLockTest, AForkedChildMayNotWriteTheOwner ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    EXPECT_EQ( inChild( [ & ] {
                   try {
                       lock.writeOwner();
                   } catch ( const RuntimeException& ) {
                       return 7;
                   }
                   return 0;
               } ),
               7 );
}

// The child lives on with copies of the parent's descriptors when the parent dies.
TEST_F( WriterLockTest, TheLockGoesWithItsProcessAlthoughAForkedChildLives ) {
    int alive[ 2 ];
    ASSERT_EQ( ::pipe2( alive, O_CLOEXEC ), 0 );
    Child writer( [ & ] {
        static WriterLock lock;
        const bool locked = lock.tryLock( directory );
        if ( ::fork() == 0 ) {
            ::close( alive[ 1 ] );
            char byte;
            ::_exit( ::read( alive[ 0 ], &byte, 1 ) == 0 ? 0 : 1 );
        }
        return locked;
    } );
    ASSERT_TRUE( writer.result() );
    EXPECT_EQ( WriterLock::holderOf( directory ), writer.pid() );
    writer.kill( SIGKILL );
    WriterLock lock;
    EXPECT_TRUE( lock.tryLock( directory ) );
    ::close( alive[ 0 ] );
    ::close( alive[ 1 ] );
}

TEST_F( WriterLockTest, AForkedChildMayLockForItselfWhenTheParentIsGone ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    Child child( [ & ] { // the handle is the parent's; its collection is locked there
        static WriterLock own;
        return !own.tryLock( directory );
    } );
    EXPECT_TRUE( child.result() );
    lock.unlock();
    EXPECT_EQ( inChild( [ & ] { return lock.tryLock( directory ) && lock.held() ? 0 : 1; } ), 0 );
}

TEST_F( WriterLockTest, ASpawnedProgramDoesNotInheritTheLockFile ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    const std::string command = "ls -l /proc/self/fd | grep -q last-owner";
    const char* arguments[] = { "sh", "-c", command.c_str(), nullptr };
    pid_t pid = 0;
    ASSERT_EQ(
        ::posix_spawnp( &pid, "sh", nullptr, nullptr, const_cast< char** >( arguments ), environ ),
        0 );
    int status = 0;
    ASSERT_EQ( ::waitpid( pid, &status, 0 ), pid );
    EXPECT_EQ( WEXITSTATUS( status ), 1 );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( WriterLockTest, AForkBesideAThreadThatLocksDoesNotDeadlock ) {
    std::thread thread( [ & ] {
        const Directory own = Directory::open( root / "coll" );
        for ( int i = 0; i < 300; ++i ) {
            WriterLock lock;
            EXPECT_TRUE( lock.tryLock( own ) );
        }
    } );
    for ( int i = 0; i < 30; ++i ) { // ends by a signal: nothing of the thread is taken down
        const int status = inChild(
            [ & ] { return WriterLock::holderOf( directory ) >= 0 ? ::raise( SIGKILL ) : 1; } );
        EXPECT_EQ( status, 128 + SIGKILL );
    }
    thread.join();
}

TEST_F( WriterLockTest, OfManyThreadsOneAtATimeHoldsIt ) {
    std::vector< std::thread > threads;
    std::atomic< bool > overlap { false };
    std::atomic< int > inside { 0 };
    for ( int t = 0; t < 4; ++t ) {
        threads.emplace_back( [ & ] {
            const Directory own = Directory::open( root / "coll" );
            for ( int won = 0; won < 50; ) {
                WriterLock lock;
                if ( lock.tryLock( own ) ) {
                    ++won;
                    const bool alone = ++inside == 1;
                    overlap = overlap || !alone;
                    --inside;
                } else {
                    std::this_thread::yield();
                }
            }
        } );
    }
    for ( std::thread& t : threads ) {
        t.join();
    }
    EXPECT_FALSE( overlap );
    EXPECT_EQ( inside, 0 );
}

TEST_F( WriterLockTest, OfManyProcessesOneHoldsIt ) {
    std::vector< std::unique_ptr< Child > > children;
    int winners = 0;
    for ( int i = 0; i < 8; ++i ) {
        children.push_back( std::make_unique< Child >( [ & ] {
            static WriterLock lock;
            return lock.tryLock( directory );
        } ) );
        winners += children.back()->result();
    }
    EXPECT_EQ( winners, 1 );
}

TEST_F( WriterLockTest, ModeDoesNotDependOnTheUmask ) {
    for ( mode_t mask : { 000, 077 } ) {
        const mode_t old = ::umask( mask );
        const Directory fresh = Directory::create( root / "mask" + std::to_string( mask ) );
        WriterLock lock;
        EXPECT_TRUE( lock.tryLock( fresh ) );
        ::umask( old );
        EXPECT_EQ( modeOf( fresh.pathOf( "last-owner" ) ), 0640 );
    }
}

TEST_F( WriterLockTest, OwnerTextIsLinesThatPeopleRead ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    lock.writeOwner();
    lock.unlock();
    EXPECT_EQ( ownersText(),
               "process: " + Util::processName() + "\npid: " + std::to_string( ::getpid() ) +
                   "\nstart-time: " + std::to_string( Util::processStartTime( ::getpid() ) ) +
                   "\nboot-id: " + Util::bootId() + "\nuid: " + std::to_string( ::getuid() ) +
                   "\n" );
}

TEST_F( WriterLockTest, WriteOwnerReplacesALongerText ) {
    bytesInto( file(), std::string( 10000, 'x' ) );
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    EXPECT_TRUE( lock.owner().empty() );
    lock.writeOwner();
    lock.unlock();
    EXPECT_EQ( ownersText(), Owner::self().text() );
}

TEST_F( WriterLockTest, WriteOwnerNeedsTheLock ) {
    WriterLock lock;
    EXPECT_THROW( lock.writeOwner(), RuntimeException );
    EXPECT_FALSE( fs::exists( file() ) );
}

TEST_F( WriterLockTest, WriteOwnerWithoutSpaceIsAMemoryResource ) {
    const int status = inChild( [ & ] {
        ::signal( SIGXFSZ, SIG_IGN );
        WriterLock lock;
        const bool locked = lock.tryLock( directory );
        const rlimit limit = { 0, 0 };
        ::setrlimit( RLIMIT_FSIZE, &limit );
        try {
            lock.writeOwner();
        } catch ( const MemoryResourceException& e ) {
            return locked && lock.held() && e.msg() == "pwrite " + file() + ": File too large" ? 0
                                                                                               : 1;
        }
        return 2;
    } );
    EXPECT_EQ( status, 0 );
}

TEST_F( WriterLockTest, AnotherUserMayNeitherLockNorLook ) {
    if ( ::getuid() != 0 ) {
        GTEST_SKIP() << "changing the user needs root";
    }
    { WriterLock().tryLock( directory ); }
    const int status = inChild( [ & ] {
        if ( ::setgid( 65534 ) != 0 || ::setuid( 65534 ) != 0 ) {
            return 77;
        }
        WriterLock lock;
        EXPECT_THROW( lock.tryLock( directory ), PermissionException );
        EXPECT_THROW( WriterLock::ownerOf( directory ), PermissionException );
        EXPECT_THROW( WriterLock::holderOf( directory ), PermissionException );
        return testing::Test::HasFailure() ? 1 : 0;
    } );
    EXPECT_EQ( status, 0 );
}

TEST_F( WriterLockTest, AMemberOfTheGroupMayLookButNotLock ) {
    if ( ::getuid() != 0 ) {
        GTEST_SKIP() << "changing the user needs root";
    }
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    lock.writeOwner();
    const pid_t writer = ::getpid();
    const int status = inChild( [ & ] { // group 0 still
        if ( ::setuid( 65534 ) != 0 ) {
            return 77;
        }
        WriterLock own;
        EXPECT_EQ( WriterLock::holderOf( directory ), writer );
        EXPECT_EQ( WriterLock::ownerOf( directory )->pid, writer );
        EXPECT_THROW( own.tryLock( directory ), PermissionException );
        return testing::Test::HasFailure() ? 1 : 0;
    } );
    EXPECT_EQ( status, 0 );
}

TEST_F( WriterLockTest, RefusalNamesWhoeverIsKnown ) {
    Owner owner;
    owner.process = "plantd";
    owner.pid = 12;
    const std::string path = root / "coll";
    EXPECT_EQ( WriterLock::refusalText( directory, 12, owner ),
               path + " is written by plantd (pid 12)" );
    EXPECT_EQ( WriterLock::refusalText( directory, 13, owner ), path + " is written by pid 13" );
    EXPECT_EQ( WriterLock::refusalText( directory, 13, Owner() ), path + " is written by pid 13" );
    EXPECT_EQ( WriterLock::refusalText( directory, -1, owner ),
               path + " is written by plantd (pid 12)" );
    EXPECT_EQ( WriterLock::refusalText( directory, -1, Owner() ),
               path + " is written by a process that has no pid here" );
}

} // namespace
