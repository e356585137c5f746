#include "writerunlock/Writer.h"

#include <csignal>
#include <memory>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Krell/Directory>
#include <Krell/Doorbell>
#include <Krell/RootPath>
#include <Krell/WriterLock>
#include <Qel/System>
#include <gtest/gtest.h>

namespace QelKrellTest {

namespace {

constexpr int failed = 99;

void needPipe( int* ends ) {
    if ( pipe2( ends, O_CLOEXEC ) != 0 ) {
        throw std::system_error( errno, std::generic_category(), "pipe2" );
    }
}

char readByte( int fd ) {
    char c = 0;
    ssize_t got = 0;
    do {
        got = read( fd, &c, 1 );
    } while ( got < 0 && errno == EINTR );
    return got == 1 ? c : '\0';
}

// The child's; static, because the process ends without destructors.
std::shared_ptr< const Krell::Directory > heldDirectory;
std::unique_ptr< Krell::WriterLock > heldLock;
std::unique_ptr< Krell::Doorbell > doorbell;

Krell::Platform::DebugHandler& debug() {
    static auto* const handler = Krell::Platform::getDebugHandler( "TestWriter" );
    return *handler;
}

void openDoorbell() {
    doorbell = std::make_unique< Krell::Doorbell >( debug() );
    doorbell->open( heldDirectory );
}

} // namespace

Writer::Writer( const std::string& directory, Start start, Manner manner ) : manner_( manner ) {
    int down[ 2 ];
    int up[ 2 ];
    needPipe( down );
    needPipe( up );
    const pid_t parent = getpid();
    pid_ = fork();
    if ( pid_ == 0 ) {
        prctl( PR_SET_PDEATHSIG, SIGKILL );
        if ( getppid() != parent ) {
            _exit( failed );
        }
        close( down[ 1 ] );
        close( up[ 0 ] );
        commands_ = down[ 0 ];
        answers_ = up[ 1 ];
        run( directory, start );
    }
    close( down[ 0 ] );
    close( up[ 1 ] );
    commands_ = down[ 1 ];
    answers_ = up[ 0 ];
    if ( start == atOnce ) {
        started();
    }
}

Writer::~Writer() {
    if ( pid_ > 0 ) {
        ::kill( pid_, SIGKILL );
        reap();
    }
    close( commands_ );
    close( answers_ );
}

// --- In the parent

void Writer::started() { expectAnswer( 'L' ); }

void Writer::release() { order( 'u' ); }

void Writer::lockAgain() { order( 'l' ); }

void Writer::listen() { order( 'd' ); }

void Writer::hangUp() { order( 'h' ); }

void Writer::turn() { order( 't' ); }

void Writer::cleanup() { order( 'c' ); }

void Writer::forkChild() { order( 'f' ); }

void Writer::cloneChild() { order( 'r' ); }

void Writer::becomeOther() {
    tell( 'e' );
    EXPECT_EQ( readByte( answers_ ), '\0' ) << "closed by the exec, as the lock's descriptor is";
}

void Writer::exit() {
    tell( 'q' );
    reap();
}

void Writer::kill() {
    ::kill( pid_, SIGKILL );
    reap();
}

void Writer::order( char command ) {
    tell( command );
    expectAnswer( command );
}

void Writer::tell( char command ) { ASSERT_EQ( write( commands_, &command, 1 ), 1 ); }

void Writer::expectAnswer( char c ) { ASSERT_EQ( readByte( answers_ ), c ); }

void Writer::reap() {
    int status = 0;
    ASSERT_EQ( waitpid( pid_, &status, 0 ), pid_ );
    ASSERT_FALSE( WIFEXITED( status ) && WEXITSTATUS( status ) == failed );
    pid_ = -1;
}

// --- In the child

void Writer::run( const std::string& directory, Start start ) {
    try {
        heldDirectory =
            std::make_shared< const Krell::Directory >( Krell::Directory::create( directory ) );
        heldLock = std::make_unique< Krell::WriterLock >();
        while ( !heldLock->tryLock( *heldDirectory ) ) {
            if ( start == atOnce ) {
                _exit( failed );
            }
            sched_yield();
        }
        if ( manner_ == listening ) {
            openDoorbell();
        }
        answer( 'L' );
        while ( const char command = readByte( commands_ ) ) {
            obey( command );
        }
    } catch ( ... ) {
    }
    _exit( failed );
}

void Writer::lock() {
    if ( !heldLock->tryLock( *heldDirectory ) ) {
        _exit( failed );
    }
    if ( manner_ == listening ) {
        openDoorbell();
    }
}

void Writer::obey( char command ) {
    switch ( command ) {
    case 'u':
        doorbell.reset();
        heldLock->unlock();
        break;
    case 'l':
        lock();
        break;
    case 'd':
        openDoorbell();
        break;
    case 'h':
        doorbell.reset();
        break;
    case 't':
        while ( Qel::System::runOnce( 0 ) ) {
        }
        break;
    case 'c':
        Krell::RootPath( debug(), heldDirectory->path(), false ).cleanup();
        break;
    case 'e':
        // It reads its commands until it is killed.
        dup2( commands_, STDIN_FILENO );
        execlp( "cat", "cat", nullptr );
        _exit( failed );
    case 'f':
        if ( fork() == 0 ) {
            stay();
        }
        break;
    case 'r':
        if ( syscall( SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr ) == 0 ) {
            stay();
        }
        break;
    default:
        _exit( 0 );
    }
    answer( command );
}

void Writer::stay() {
    prctl( PR_SET_PDEATHSIG, 0 );
    pollfd end { commands_, 0, 0 }; // what is said is not for this process
    while ( poll( &end, 1, -1 ) < 0 && errno == EINTR ) {
    }
    _exit( 0 );
}

void Writer::answer( char c ) {
    if ( write( answers_, &c, 1 ) != 1 ) {
        _exit( failed );
    }
}

} // namespace QelKrellTest
