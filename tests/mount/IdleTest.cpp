// A process that follows a hundred collections, and sleeps.

#include <algorithm>
#include <csignal>
#include <optional>
#include <vector>

#include <gmock/gmock.h>

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <QelKrell/WriterUnlock>

#include "mount/Child.h"
#include "mount/Mounted.h"

namespace {

using namespace QelKrellTest;
using testing::Contains;
using testing::IsEmpty;

constexpr int entities = 50; // of two collections each

std::string pathOf( int i ) { return "site/plant" + std::to_string( i ); }

std::vector< MountBench::Plant::Ptr > mountAll( Site& site, const QelKrell::MountInfo& info ) {
    site.mount.handleInitialized();
    std::vector< MountBench::Plant::Ptr > plants;
    for ( int i = 0; i < entities; ++i ) {
        const auto entity = site.mount.doMount( pathOf( i ), MountBench::plantType, info );
        plants.push_back( Qel::ptrCast< MountBench::Plant >( entity ) );
    }
    return plants;
}

// Turns its event loop until it is told to update an entry, and so on until nothing more is said.
void updates( const Channel& channel ) {
    Site site( false );
    const auto plants = mountAll( site, asWriter( 4 ) );
    channel.say( "ready" );
    for ( Qel::U32 round = 1;; ++round ) {
        while ( !channel.hasSaid() ) {
            Qel::System::runOnce( 0.002 );
        }
        if ( channel.hear().empty() ) {
            return;
        }
        plants[ round % entities ]->reading.is( readingOf( 1, round ) );
        channel.say( "done" );
    }
}

bool allConnected( const std::vector< MountBench::Plant::Ptr >& plants ) {
    const auto isConnected = []( auto&& control ) {
        return control.mountStatus() == QelKrell::connected;
    };
    return std::all_of( plants.begin(), plants.end(), [ & ]( const auto& plant ) {
        return isConnected( plant->reading.control() ) && isConnected( plant->limit.control() );
    } );
}

// Follows until it is killed, and waits for the end of the writer of one.
void reads( const Channel& channel, const Root& root ) {
    Site site( false );
    const auto plants = mountAll( site, asReader );
    const auto sm = QelKrell::writerUnlockSmFactory(
        Qel::Name( root.path() + "/sys/Krell/" + pathOf( 0 ) + "/reading" ), "",
        QelKrell::writerUnlockFactory( "unlocks" ) );
    sm->connectedIs( true );
    channel.say( loopUntil( [ & ] { return allConnected( plants ); } ) ? "connected" : "not" );
    Qel::System::doRun();
    channel.say( "the loop has ended" );
}

// The system calls of a child, as a debugger sees them.
class Traced {
public:
    explicit Traced( pid_t pid ) : pid_( pid ) {
        sigset_t child;
        sigemptyset( &child );
        sigaddset( &child, SIGCHLD );
        sigprocmask( SIG_BLOCK, &child, &before_ );
        traced_ = ptrace( PTRACE_SEIZE, pid, 0, PTRACE_O_TRACESYSGOOD ) == 0;
        if ( traced_ ) {
            ptrace( PTRACE_INTERRUPT, pid, 0, 0 ); // out of its wait; it waits anew
            waitpid( pid, nullptr, 0 );
            ptrace( PTRACE_SYSCALL, pid, 0, 0 );
        }
    }
    ~Traced() { sigprocmask( SIG_SETMASK, &before_, nullptr ); }
    Traced( const Traced& ) = delete;
    Traced& operator=( const Traced& ) = delete;

    bool traced() const { return traced_; }
    // The numbers of the calls that it began, until there was none for so long.
    std::vector< long > begun( time_t quietSeconds ) {
        std::vector< long > calls;
        while ( const auto status = next( quietSeconds ) ) {
            constexpr int syscallStop = SIGTRAP | 0x80;
            if ( !WIFSTOPPED( *status ) ) {
                break;
            }
            __ptrace_syscall_info info {};
            ptrace( PTRACE_GET_SYSCALL_INFO, pid_, sizeof info, &info );
            if ( WSTOPSIG( *status ) == syscallStop && info.op == PTRACE_SYSCALL_INFO_ENTRY ) {
                calls.push_back( long( info.entry.nr ) );
            }
            ptrace( PTRACE_SYSCALL, pid_, 0, 0 );
        }
        return calls;
    }

private:
    // The status of its next stop; nothing when it does not stop in time.
    std::optional< int > next( time_t seconds ) const {
        sigset_t child;
        sigemptyset( &child );
        sigaddset( &child, SIGCHLD );
        int status = 0;
        while ( waitpid( pid_, &status, WNOHANG ) == 0 ) {
            const timespec patience = { seconds, 0 };
            if ( sigtimedwait( &child, nullptr, &patience ) < 0 && errno == EAGAIN ) {
                return std::nullopt;
            }
        }
        return status;
    }

    pid_t pid_;
    bool traced_ = false;
    sigset_t before_ {};
};

bool isWait( long call ) {
    return call == SYS_epoll_wait || call == SYS_epoll_pwait
#ifdef SYS_epoll_pwait2
           || call == SYS_epoll_pwait2
#endif
        ;
}

TEST( Idle, AProcessWithAHundredReadersMakesNoSystemCall ) {
    const Root root;
    Child writer( &updates );
    ASSERT_EQ( writer.hear(), "ready" );
    Child reader( [ & ]( const Channel& channel ) { reads( channel, root ); } );
    ASSERT_EQ( reader.hear(), "connected" );
    Traced trace( reader.pid() );
    if ( !trace.traced() ) {
        GTEST_SKIP() << "processes cannot be traced here";
    }
    trace.begun( 1 ); // the end of what connecting made it do, and its wait
    EXPECT_THAT( trace.begun( 2 ), IsEmpty() ) << "it sits in the wait";

    // What it looks like when there is something to do.
    writer.say( "update" );
    ASSERT_EQ( writer.hear(), "done" );
    const std::vector< long > calls = trace.begun( 1 );
    EXPECT_THAT( calls, Contains( testing::Truly( isWait ) ) );
    EXPECT_THAT( calls, Contains( testing::Not( testing::Truly( isWait ) ) ) );
    EXPECT_THAT( trace.begun( 1 ), IsEmpty() );
}

} // namespace
