// The writer's lock across processes, in one process, over forks, kills and replaced files.

#include <Krell/WriterLock>

#include <atomic>
#include <cerrno>
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

#include "Hooks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using testing::HasSubstr;
namespace fs = std::filesystem;

class WriterLockTest : public testing::Test {
protected:
    std::string file() const { return root / "coll/last-owner"; }
    // Whether another process gets the lock now.
    bool freeForOthers() const {
        return inChild( [ & ] {
                   return WriterLock().tryLock( Directory::open( root / "coll" ) ) ? 1 : 2;
               } ) == 1;
    }
    // A process that locks and writes its name.
    std::unique_ptr< Child > otherWriter() const {
        auto child = std::make_unique< Child >( [ this ] {
            static WriterLock lock;
            const bool locked = lock.tryLock( Directory::open( root / "coll" ) );
            if ( locked ) {
                lock.writeOwner();
            }
            return locked;
        } );
        EXPECT_TRUE( child->result() );
        return child;
    }
    static unsigned openDescriptors() {
        unsigned count = 0;
        for ( const auto& entry : fs::directory_iterator( "/proc/self/fd" ) ) {
            count += !entry.path().empty();
        }
        return count;
    }

    TestRoot root;
    Directory directory = Directory::create( root / "coll" );
};

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
    for ( int signal : { SIGKILL, SIGTERM, SIGSEGV } ) {
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
    const std::string text = bytesOf( root / "coll/last-owner" ); // gives the lock away, and
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
    EXPECT_EQ( bytesOf( file() ), text );
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
    for ( int i = 0; i < 30; ++i ) {
        EXPECT_EQ( inChild( [ & ] { return WriterLock::holderOf( directory ) >= 0 ? 0 : 1; } ), 0 );
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

TEST_F( WriterLockTest, ALockOnAReplacedFileIsOneNobodyRespects ) {
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

// Processes that remove the file while others lock it: whoever has the lock has it on the file that
// the name meant.
TEST_F( WriterLockTest, TheLockIsAlwaysOnTheFileOfThatName ) {
    const pid_t remover = ::fork();
    if ( remover == 0 ) {
        for ( ;; ) {
            ::unlink( file().c_str() );
        }
    }
    unsigned locked = 0;
    unsigned gaveUp = 0;
    for ( int i = 0; i < 2000; ++i ) {
        WriterLock lock;
        try {
            locked += lock.tryLock( directory );
        } catch ( const RuntimeException& e ) {
            EXPECT_THAT( e.msg(), HasSubstr( "replaced again and again" ) );
            ++gaveUp;
        }
    }
    ::kill( remover, SIGKILL );
    ::waitpid( remover, nullptr, 0 );
    EXPECT_EQ( locked + gaveUp, 2000U );
    EXPECT_GT( locked, 0U );
    WriterLock lock;
    EXPECT_TRUE( lock.tryLock( directory ) );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( WriterLockTest, AnotherNameOfALockedFileDoesNotGiveTheLockAway ) {
    const Directory other = Directory::create( root / "other" );
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    fs::create_hard_link( file(), root / "other/last-owner" );
    WriterLock second;
    EXPECT_FALSE( second.tryLock( other ) );
    EXPECT_EQ( WriterLock::holderOf( other ), ::getpid() );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( WriterLockTest, WhatIsNoRegularFileIsRefused ) {
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
    EXPECT_EQ( bytesOf( file() ),
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
    EXPECT_EQ( bytesOf( file() ), Owner::self().text() );
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

TEST( OwnerTest, TextIsReadBack ) {
    const Owner self = Owner::self();
    EXPECT_EQ( self.pid, ::getpid() );
    EXPECT_FALSE( self.empty() );
    EXPECT_EQ( Owner::parse( self.text() ), self );
    EXPECT_EQ( self.description(), self.process + " (pid " + std::to_string( self.pid ) + ")" );
    EXPECT_EQ( Owner().description(), "nobody known" );
}

TEST( OwnerTest, GarbageIsAnEmptyOwner ) {
    for ( const std::string& text :
          { std::string(), std::string( "\n\n" ), std::string( 5000, '\0' ),
            std::string( 5000, 'p' ), std::string( "pid: " ), std::string( "pid: \n" ),
            std::string( "pid: x\n" ), std::string( "pid: 0\n" ), std::string( "pid: -3\n" ),
            std::string( "pid: 12" ), std::string( "pid: 12x\n" ),
            std::string( "pid: 99999999999999\n" ), std::string( "pid:12\n" ),
            std::string( "PID: 12\n" ) } ) {
        EXPECT_TRUE( Owner::parse( text ).empty() ) << text;
        EXPECT_EQ( Owner::parse( text ), Owner() );
    }
}

TEST( OwnerTest, WhatIsMissingOrUnknownIsPassedOver ) {
    const Owner owner = Owner::parse( "colour: red\npid: 12\nprocess\nstart-time: many\n" );
    EXPECT_EQ( owner.pid, 12 );
    EXPECT_EQ( owner.process, "" );
    EXPECT_EQ( owner.startTime, 0U );
    EXPECT_EQ( owner.bootId, "" );
}

TEST( OwnerTest, EveryTruncationIsReadOrEmpty ) {
    const Owner self = Owner::self();
    const std::string text = self.text();
    for ( std::size_t length = 0; length <= text.size(); ++length ) {
        const Owner owner = Owner::parse( text.substr( 0, length ) );
        EXPECT_TRUE( owner.empty() || ( owner.pid == self.pid && owner.process == self.process ) )
            << length;
    }
}

TEST( OwnerTest, OfEachKeyTheFirstLineCounts ) {
    const std::string old = "process: old\npid: 1\nstart-time: 1\nboot-id: o\nuid: 1\n";
    const Owner owner =
        Owner::parse( "process: new\npid: 2\nstart-time: 2\nboot-id: n\nuid: 2\n" + old );
    EXPECT_EQ( owner, ( Owner { "new", 2, 2, "n", 2 } ) );
}

TEST( OwnerTest, NamesCannotBreakTheLines ) {
    Owner owner { "evil\npid: 666\n\x7f", 12, 3, "id\n", 4 };
    const Owner read = Owner::parse( owner.text() );
    EXPECT_EQ( read.pid, 12 );
    EXPECT_EQ( read.process, "evil?pid: 666??" );
    EXPECT_EQ( read.bootId, "id?" );
    owner.process = std::string( 100000, 'x' );
    EXPECT_LE( owner.text().size(), Owner::maxText_ );
    EXPECT_EQ( Owner::parse( owner.text() ).pid, 12 );
}

} // namespace
