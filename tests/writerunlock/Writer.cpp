#include "writerunlock/Writer.h"

#include <csignal>
#include <memory>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Krell/Directory>
#include <Krell/WriterLock>
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
std::unique_ptr< Krell::Directory > heldDirectory;
std::unique_ptr< Krell::WriterLock > heldLock;

} // namespace

Writer::Writer( const std::string& directory, Start start ) {
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

void Writer::release() {
    tell( 'u' );
    expectAnswer( 'u' );
}

void Writer::lockAgain() {
    tell( 'l' );
    expectAnswer( 'l' );
}

void Writer::becomeOther() {
    tell( 'e' );
    EXPECT_EQ( readByte( answers_ ), '\0' ) << "closed by the exec, as the lock's descriptor is";
}

void Writer::forkChild() {
    tell( 'f' );
    expectAnswer( 'f' );
}

void Writer::exit() {
    tell( 'q' );
    reap();
}

void Writer::kill() {
    ::kill( pid_, SIGKILL );
    reap();
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
            std::make_unique< Krell::Directory >( Krell::Directory::create( directory ) );
        heldLock = std::make_unique< Krell::WriterLock >();
        while ( !heldLock->tryLock( *heldDirectory ) ) {
            if ( start == atOnce ) {
                _exit( failed );
            }
            sched_yield();
        }
        answer( 'L' );
        while ( const char command = readByte( commands_ ) ) {
            obey( command );
        }
    } catch ( ... ) {
    }
    _exit( failed );
}

void Writer::obey( char command ) {
    switch ( command ) {
    case 'u':
        heldLock->unlock();
        break;
    case 'l':
        if ( !heldLock->tryLock( *heldDirectory ) ) {
            _exit( failed );
        }
        break;
    case 'e':
        // It reads its commands until it is killed.
        dup2( commands_, STDIN_FILENO );
        execlp( "cat", "cat", nullptr );
        _exit( failed );
    case 'f':
        if ( fork() == 0 ) {
            prctl( PR_SET_PDEATHSIG, 0 );
            while ( readByte( commands_ ) ) {
            }
            _exit( 0 );
        }
        break;
    default:
        _exit( 0 );
    }
    answer( command );
}

void Writer::answer( char c ) {
    if ( write( answers_, &c, 1 ) != 1 ) {
        _exit( failed );
    }
}

} // namespace QelKrellTest
