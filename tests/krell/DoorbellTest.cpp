// Readers connect to the writer's doorbell, sleep, are woken, and learn that the writer is gone.

#include <Krell/Doorbell>

#include <csignal>
#include <filesystem>

#include <gmock/gmock.h>

#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "krell/DoorbellSupport.h"
#include "krell/EngineSupport.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using State = DoorbellCaller::State;
using Message = DoorbellMessage;
using testing::ElementsAre;
using testing::IsEmpty;

class DoorbellTest : public testing::Test {
protected:
    std::shared_ptr< const Directory > directory( const std::string& name = "c" ) {
        return std::make_shared< const Directory >( Directory::create( root_ / name ) );
    }
    void connect() {
        bell_.open( directory_ );
        ASSERT_TRUE( caller_.call( *directory_ ) );
        ASSERT_TRUE( turnUntil( [ & ] { return caller_.state() == State::connected; } ) );
    }
    bool kickArrives() {
        const unsigned before = told_.kicked;
        caller_.arm();
        bell_.ring();
        return turnUntil( [ & ] { return told_.kicked != before; } );
    }

    TestRoot root_;
    RecordingDebugHandler debug_;
    std::shared_ptr< const Directory > directory_ = directory();
    const std::string path_ = root_ / "c/doorbell";
    Doorbell bell_ { debug_ };
    Told told_;
    DoorbellCaller caller_ { debug_, told_ };
};

// --- Connecting, kicks, the end

TEST_F( DoorbellTest, AReaderConnectsIsKickedAndHearsOfTheEnd ) {
    bell_.open( directory_ );
    EXPECT_TRUE( bell_.isOpen() );
    EXPECT_EQ( caller_.state(), State::idle );
    EXPECT_TRUE( caller_.call( *directory_ ) );
    EXPECT_EQ( caller_.state(), State::calling );
    EXPECT_TRUE( turnUntil( [ & ] { return told_.connected != 0; } ) );
    EXPECT_EQ( caller_.state(), State::connected );
    EXPECT_EQ( bell_.connections(), 1U );
    EXPECT_EQ( caller_.connectionsMade(), 1U );
    EXPECT_EQ( caller_.peer(), ::getpid() );

    EXPECT_TRUE( kickArrives() );
    EXPECT_EQ( caller_.kicks(), 1U );
    EXPECT_EQ( bell_.kicksIssued(), 1U );

    bell_.close();
    EXPECT_FALSE( bell_.isOpen() );
    EXPECT_EQ( bell_.connections(), 0U );
    EXPECT_TRUE( turnUntil( [ & ] { return told_.disconnected != 0; } ) );
    EXPECT_EQ( caller_.state(), State::idle );
    EXPECT_EQ( caller_.peer(), 0 );
    EXPECT_EQ( told_.disconnected, 1U );
    EXPECT_EQ( modeOf( path_ ), -1 );
}

TEST_F( DoorbellTest, NobodyIsKickedWhoIsAwake ) {
    connect();
    for ( int i = 0; i < 1000; ++i ) {
        bell_.ring();
    }
    EXPECT_EQ( bell_.kicksIssued(), 0U );
    caller_.arm();
    EXPECT_TRUE( caller_.armed() );
    caller_.disarm();
    EXPECT_FALSE( caller_.armed() );
    bell_.ring();
    EXPECT_EQ( bell_.kicksIssued(), 0U );
    settle();
    EXPECT_EQ( told_.kicked, 0U );
}

TEST_F( DoorbellTest, EachSleepIsKickedForOnce ) {
    connect();
    for ( U32 sleep = 1; sleep <= 20; ++sleep ) {
        caller_.arm();
        for ( int i = 0; i < 100; ++i ) {
            bell_.ring();
        }
        EXPECT_EQ( bell_.kicksIssued(), sleep );
        settle();
        EXPECT_EQ( told_.kicked, sleep );
        EXPECT_EQ( caller_.kicks(), sleep );
        EXPECT_FALSE( caller_.armed() );
    }
}

TEST_F( DoorbellTest, KicksThatCameTogetherAreToldOnce ) {
    connect();
    for ( int i = 0; i < 3; ++i ) {
        caller_.arm();
        bell_.ring();
    }
    settle();
    EXPECT_EQ( caller_.kicks(), 3U );
    EXPECT_EQ( told_.kicked, 1U );
}

TEST_F( DoorbellTest, WhoIsNotConnectedCannotArm ) {
    caller_.arm();
    EXPECT_FALSE( caller_.armed() );
    caller_.disarm();
    caller_.consumedIs( 1 );
    bell_.open( directory_ );
    ASSERT_TRUE( caller_.call( *directory_ ) );
    caller_.arm();
    EXPECT_FALSE( caller_.armed() );
}

TEST_F( DoorbellTest, SeveralReadersAreWokenEachForItself ) {
    connect();
    Told otherTold;
    DoorbellCaller other( debug_, otherTold );
    ASSERT_TRUE( other.call( *directory_ ) );
    ASSERT_TRUE( turnUntil( [ & ] { return otherTold.connected != 0; } ) );
    EXPECT_EQ( bell_.connections(), 2U );
    other.arm();
    bell_.ring();
    settle();
    EXPECT_EQ( told_.kicked, 0U );
    EXPECT_EQ( otherTold.kicked, 1U );
    EXPECT_TRUE( kickArrives() );
    EXPECT_EQ( otherTold.kicked, 1U );
    other.hangUp();
    EXPECT_TRUE( turnUntil( [ & ] { return bell_.connections() == 1; } ) );
    EXPECT_TRUE( kickArrives() );
}

TEST_F( DoorbellTest, PeersAreListed ) {
    EXPECT_THAT( bell_.peers(), IsEmpty() );
    connect();
    caller_.consumedIs( 0x123456789abcdef0u );
    auto peers = bell_.peers();
    ASSERT_EQ( peers.size(), 1U );
    EXPECT_EQ( peers[ 0 ].pid, ::getpid() );
    EXPECT_EQ( peers[ 0 ].uid, ::geteuid() );
    EXPECT_EQ( peers[ 0 ].consumed, 0x123456789abcdef0u );
    EXPECT_FALSE( peers[ 0 ].asleep );
    caller_.arm();
    EXPECT_TRUE( bell_.peers()[ 0 ].asleep );
    bell_.ring();
    EXPECT_FALSE( bell_.peers()[ 0 ].asleep );
}

TEST_F( DoorbellTest, AReaderMayCallAgain ) {
    connect();
    ASSERT_TRUE( caller_.call( *directory_ ) );
    EXPECT_EQ( caller_.state(), State::calling );
    ASSERT_TRUE( turnUntil( [ & ] { return caller_.state() == State::connected; } ) );
    settle();
    EXPECT_EQ( bell_.connections(), 1U );
    EXPECT_EQ( caller_.connectionsMade(), 2U );
    EXPECT_EQ( told_.disconnected, 0U );
    EXPECT_TRUE( kickArrives() );
}

TEST_F( DoorbellTest, TheHandlerMayHangUpCallAgainAndDestroy ) {
    bell_.open( directory_ );
    auto caller = std::make_unique< DoorbellCaller >( debug_, told_ );
    const auto untilConnected = [ & ] {
        const unsigned before = told_.connected;
        EXPECT_TRUE( caller->call( *directory_ ) );
        EXPECT_TRUE( turnUntil( [ & ] { return told_.connected != before; } ) );
    };
    told_.then = [ & ] { caller->hangUp(); };
    untilConnected();
    EXPECT_EQ( caller->state(), State::idle );

    told_.then = nullptr;
    untilConnected();
    told_.then = [ & ] { EXPECT_TRUE( caller->call( *directory_ ) ); };
    caller->arm();
    bell_.ring();
    EXPECT_TRUE( turnUntil( [ & ] { return told_.kicked != 0; } ) );
    EXPECT_EQ( caller->state(), State::calling );

    told_.then = [ & ] { caller.reset(); };
    EXPECT_TRUE( turnUntil( [ & ] { return !caller; } ) );
    for ( const bool kick : { true, false } ) {
        told_.then = nullptr;
        caller = std::make_unique< DoorbellCaller >( debug_, told_ );
        untilConnected();
        told_.then = [ & ] { caller.reset(); };
        caller->arm();
        kick ? bell_.ring() : bell_.close();
        EXPECT_TRUE( turnUntil( [ & ] { return !caller; } ) );
    }
    EXPECT_EQ( told_.disconnected, 1U );
}

TEST_F( DoorbellTest, NothingIsLeftOpenOrMapped ) {
    const auto open = [] {
        std::size_t count = 0;
        for ( int fd = 0; fd < 1024; ++fd ) {
            count += ::fcntl( fd, F_GETFD ) >= 0;
        }
        return count;
    };
    const auto pages = [] {
        const std::string maps = bytesOf( "/proc/self/maps" );
        std::size_t count = 0;
        for ( std::size_t at = 0; ( at = maps.find( "krell-doorbell", at ) ) != maps.npos; ++at ) {
            ++count;
        }
        return count;
    };
    const std::size_t before = open();
    connect();
    EXPECT_EQ( open(), before + 3 );
    EXPECT_EQ( pages(), 2U );
    caller_.hangUp();
    settle();
    EXPECT_EQ( open(), before + 1 );
    EXPECT_EQ( pages(), 0U );
    bell_.close();
    EXPECT_EQ( open(), before );
}

// --- The socket's file

TEST_F( DoorbellTest, NobodyListens ) {
    EXPECT_FALSE( caller_.call( Directory() ) );
    EXPECT_FALSE( caller_.call( *directory_ ) );
    ASSERT_TRUE( listenRaw( path_ ) ); // and is closed at once: a stale socket
    EXPECT_FALSE( caller_.call( *directory_ ) );
    EXPECT_EQ( caller_.state(), State::idle );
    bell_.open( directory_ ); // takes the stale one's place
    EXPECT_TRUE( caller_.call( *directory_ ) );
}

TEST_F( DoorbellTest, AWriterThatAcceptsNobodyIsNotWaitedFor ) {
    const Fd busy = listenRaw( path_ );
    std::vector< Fd > waiting;
    bool full = false;
    while ( !full && waiting.size() < 5000 ) {
        const sockaddr_un address = addressOf( path_ );
        Fd one( ::socket( AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) );
        full = ::connect( one.get(), reinterpret_cast< const sockaddr* >( &address ),
                          sizeof address ) != 0;
        waiting.push_back( std::move( one ) );
    }
    ASSERT_TRUE( full );
    EXPECT_FALSE( caller_.call( *directory_ ) );
}

TEST_F( DoorbellTest, OtherKindsOfFilesAreRefused ) {
    const auto refusal = [ & ] {
        const std::string text =
            messageOf< RuntimeException >( [ & ] { caller_.call( *directory_ ); } );
        EXPECT_EQ( caller_.state(), State::idle );
        std::filesystem::remove( path_ );
        return text;
    };
    bytesInto( path_, "no socket" );
    EXPECT_EQ( refusal(), "connect " + path_ + ": Socket operation on non-socket" );
    std::filesystem::create_directory( path_ );
    EXPECT_EQ( refusal(), "connect " + path_ + ": Socket operation on non-socket" );
    ASSERT_EQ( ::mkfifo( path_.c_str(), 0600 ), 0 );
    EXPECT_EQ( refusal(), "connect " + path_ + ": Socket operation on non-socket" );
    const Fd elsewhere = listenRaw( root_ / "elsewhere" );
    std::filesystem::create_symlink( root_ / "elsewhere", path_ );
    EXPECT_EQ( refusal(), "connect " + path_ + ": Too many levels of symbolic links" );
    const Fd datagrams = listenRaw( path_, SOCK_DGRAM );
    EXPECT_EQ( refusal(), "connect " + path_ + ": Protocol wrong type for socket" );
}

TEST_F( DoorbellTest, WhoMayNotConnectIsToldSo ) {
    if ( ::geteuid() != 0 ) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    bell_.open( directory_ );
    std::filesystem::permissions( root_ / "c", std::filesystem::perms( 0755 ) );
    EXPECT_EQ( inChild( [ & ] {
                   const bool changed = ::setgroups( 0, nullptr ) == 0 && ::setegid( 65534 ) == 0 &&
                                        ::seteuid( 65534 ) == 0;
                   DoorbellCaller caller( debug_, told_ );
                   return changed && messageOf< PermissionException >( [ & ] {
                                         caller.call( *directory_ );
                                     } ) == "connect " + path_ + ": Permission denied"
                              ? 0
                              : 1;
               } ),
               0 );
}

TEST_F( DoorbellTest, PathsMayBeLongerThanAnAddress ) {
    directory_ = directory( std::string( 200, 'a' ) + "/" + std::string( 200, 'b' ) );
    connect();
    EXPECT_TRUE( kickArrives() );
    bell_.close();
    EXPECT_THAT( directory_->names(), IsEmpty() );
}

TEST_F( DoorbellTest, ThoseOfTheGroupMayConnectWhateverTheUmask ) {
    for ( const mode_t mask : { 0777, 0 } ) {
        const mode_t before = ::umask( mask );
        bell_.open( directory_ );
        ::umask( before );
        EXPECT_EQ( modeOf( path_ ), 0660 );
        EXPECT_THAT( directory_->names(), ElementsAre( "doorbell" ) );
    }
}

TEST_F( DoorbellTest, WhateverStoodThereIsReplaced ) {
    bytesInto( path_, "left over" );
    bell_.open( directory_ );
    EXPECT_TRUE( caller_.call( *directory_ ) );
    bell_.close();
    bytesInto( root_ / "target", "kept" );
    std::filesystem::create_symlink( root_ / "target", path_ );
    bell_.open( directory_ );
    EXPECT_TRUE( caller_.call( *directory_ ) );
    EXPECT_EQ( bytesOf( root_ / "target" ), "kept" );
}

TEST_F( DoorbellTest, WhatCannotBeReplacedLeavesNothingBehind ) {
    std::filesystem::create_directory( path_ );
    const std::string text = messageOf< RuntimeException >( [ & ] { bell_.open( directory_ ); } );
    EXPECT_THAT( text, testing::MatchesRegex( "renameat .*/c/doorbell[.]tmp-[0-9]+-[0-9]+ to "
                                              "doorbell: Is a directory" ) );
    EXPECT_FALSE( bell_.isOpen() );
    EXPECT_THAT( directory_->names(), ElementsAre( "doorbell" ) );
    EXPECT_THAT( fds(), IsEmpty() );
}

TEST_F( DoorbellTest, ASecondSocketTakesThePlaceAndKeepsIt ) {
    connect();
    Doorbell second( debug_ );
    second.open( directory_ );
    EXPECT_TRUE( kickArrives() ); // the first one's readers stay
    Told told;
    DoorbellCaller caller( debug_, told );
    EXPECT_TRUE( caller.call( *directory_ ) );
    EXPECT_TRUE( turnUntil( [ & ] { return second.connections() == 1; } ) );
    bell_.close();
    EXPECT_EQ( modeOf( path_ ), 0660 );
    EXPECT_TRUE( caller_.call( *directory_ ) );
    EXPECT_TRUE( turnUntil( [ & ] { return second.connections() == 2; } ) );
    second.close();
    EXPECT_EQ( modeOf( path_ ), -1 );
}

// --- Other processes

// A process that does its part and is killed at the end. Its body reports through `say`.
class Process {
public:
    explicit Process( const std::function< void( int say ) >& body ) {
        int ends[ 2 ];
        if ( ::pipe2( ends, O_CLOEXEC ) != 0 ) {
            throw std::runtime_error( "no pipe" );
        }
        pid_ = ::fork();
        if ( pid_ == 0 ) {
            ::prctl( PR_SET_PDEATHSIG, SIGKILL );
            body( ends[ 1 ] );
            ::_exit( 0 );
        }
        ::close( ends[ 1 ] );
        heard_.reset( ends[ 0 ] );
    }
    Process( const Process& ) = delete;
    Process& operator=( const Process& ) = delete;
    ~Process() { kill(); }

    pid_t pid() const { return pid_; }
    void kill() {
        if ( pid_ > 0 ) {
            ::kill( pid_, SIGKILL );
            ::waitpid( std::exchange( pid_, 0 ), nullptr, 0 );
        }
    }
    // What it says next; -1 when it is gone.
    int hear() {
        int what = -1;
        return ::read( heard_.get(), &what, sizeof what ) == sizeof what ? what : -1;
    }
    static void say( int to, int what ) {
        if ( ::write( to, &what, sizeof what ) != sizeof what ) {
            ::_exit( 1 );
        }
    }

private:
    pid_t pid_ = 0;
    Fd heard_;
};

TEST_F( DoorbellTest, AKilledWriterIsNoticed ) {
    Process writer( [ & ]( int say ) {
        bell_.open( directory_ );
        Process::say( say, 1 );
        turnUntil( [ & ] { return bell_.connections() == 2; } );
    } );
    ASSERT_EQ( writer.hear(), 1 );
    ASSERT_TRUE( caller_.call( *directory_ ) );
    ASSERT_TRUE( turnUntil( [ & ] { return told_.connected != 0; } ) );
    EXPECT_EQ( caller_.peer(), writer.pid() );
    writer.kill();
    EXPECT_TRUE( turnUntil( [ & ] { return told_.disconnected != 0; } ) );
    EXPECT_FALSE( caller_.call( *directory_ ) ); // the file is there still
    EXPECT_EQ( modeOf( path_ ), 0660 );
}

TEST_F( DoorbellTest, AKilledWriterIsNoticedThoughItsChildLives ) {
    Process writer( [ & ]( int say ) {
        bell_.open( directory_ );
        Process::say( say, 1 );
        turnUntil( [ & ] { return bell_.connections() == 1; } );
        const pid_t child = ::fork();
        if ( child == 0 ) {
            ::prctl( PR_SET_PDEATHSIG, 0 );
            Process::say( say, 2 );
            for ( ;; ) {
                ::pause();
            }
        }
        Process::say( say, child );
        ::pause();
    } );
    ASSERT_EQ( writer.hear(), 1 );
    ASSERT_TRUE( caller_.call( *directory_ ) );
    ASSERT_TRUE( turnUntil( [ & ] { return told_.connected != 0; } ) );
    const int first = writer.hear(); // the two in either order
    const int second = writer.hear();
    const pid_t child = std::max( first, second );
    ASSERT_GT( child, 2 );
    writer.kill();
    EXPECT_TRUE( turnUntil( [ & ] { return told_.disconnected != 0; } ) );
    EXPECT_FALSE( caller_.call( *directory_ ) );
    EXPECT_EQ( ::kill( child, SIGKILL ), 0 );
}

TEST_F( DoorbellTest, AKilledReaderIsDropped ) {
    bell_.open( directory_ );
    Process reader( [ & ]( int say ) {
        Told told;
        DoorbellCaller caller( debug_, told );
        caller.call( *directory_ );
        turnUntil( [ & ] { return told.connected != 0; } );
        caller.arm();
        Process::say( say, 1 );
        ::pause();
    } );
    ASSERT_TRUE( turnUntil( [ & ] { return bell_.connections() == 1; } ) );
    ASSERT_EQ( reader.hear(), 1 );
    EXPECT_EQ( bell_.peers()[ 0 ].pid, reader.pid() );
    reader.kill();
    bell_.ring(); // finds it gone
    EXPECT_EQ( bell_.kicksIssued(), 1U );
    EXPECT_EQ( bell_.connections(), 0U );
    bell_.ring();
    EXPECT_EQ( bell_.kicksIssued(), 1U );
    settle();
    EXPECT_THAT( fds(), testing::SizeIs( 1 ) );
    connect();
    EXPECT_TRUE( kickArrives() );
}

TEST_F( DoorbellTest, AKilledReaderThatWasAwakeIsDroppedInTheNextTurn ) {
    bell_.open( directory_ );
    Process reader( [ & ]( int ) {
        Told told;
        DoorbellCaller caller( debug_, told );
        caller.call( *directory_ );
        ::pause();
    } );
    ASSERT_TRUE( turnUntil( [ & ] { return bell_.connections() == 1; } ) );
    reader.kill();
    EXPECT_TRUE( turnUntil( [ & ] { return bell_.connections() == 0; } ) );
    EXPECT_THAT( debug_.lines, IsEmpty() );
}

TEST_F( DoorbellTest, AForkedChildOfTheWriterHasNoDoorbell ) {
    auto bell = std::make_unique< Doorbell >( debug_ );
    bell->open( directory_ );
    ASSERT_TRUE( caller_.call( *directory_ ) );
    ASSERT_TRUE( turnUntil( [ & ] { return bell->connections() == 1; } ) );
    settle();
    caller_.arm();
    EXPECT_EQ( inChild( [ & ] {
                   bell->ring();
                   const bool dead = !bell->isOpen() && bell->connections() == 0 &&
                                     bell->peers().empty() && bell->kicksIssued() == 0;
                   settle();
                   bell->timeout();
                   bell->open( directory( "d" ) ); // the object can be used anew
                   const bool anew = bell->isOpen() && caller_.call( *directory( "d" ) );
                   bell.reset();
                   return dead && anew && modeOf( path_ ) == 0660 ? 0 : 1;
               } ),
               0 );
    settle();
    EXPECT_EQ( told_.kicked + told_.disconnected, 0U );
    EXPECT_TRUE( caller_.armed() );
    bell->ring();
    EXPECT_TRUE( turnUntil( [ & ] { return told_.kicked == 1; } ) );
}

TEST_F( DoorbellTest, AForkedChildOfTheReaderIsNotConnected ) {
    connect();
    EXPECT_EQ( inChild( [ & ] {
                   caller_.arm();
                   caller_.consumedIs( 7 );
                   const bool dead = caller_.state() == State::idle && !caller_.armed();
                   settle();
                   caller_.hangUp();
                   return dead ? 0 : 1;
               } ),
               0 );
    EXPECT_EQ( caller_.state(), State::connected );
    EXPECT_FALSE( bell_.peers()[ 0 ].asleep );
    EXPECT_EQ( bell_.peers()[ 0 ].consumed, 0U );
    EXPECT_TRUE( kickArrives() );
}

} // namespace
