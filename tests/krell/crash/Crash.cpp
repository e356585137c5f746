#include "krell/crash/Crash.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Krell/Exception>

namespace KrellTest {

namespace {

constexpr int failed = 3;

// Shared with the child, so that its last place outlives it.
struct Shared {
    char place[ 128 ];
};

Shared& shared() {
    static void* const page = ::mmap( nullptr, sizeof( Shared ), PROT_READ | PROT_WRITE,
                                      MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
    return *static_cast< Shared* >( page );
}

unsigned placesLeft = 0;
const char* placeWanted = nullptr; // instead of a number
int signalAtPlace = 0;

void atPlace( const char* name ) {
    if ( placeWanted ? std::strcmp( placeWanted, name ) != 0
                     : placesLeft == 0 || --placesLeft != 0 ) {
        return;
    }
    std::strncpy( shared().place, name, sizeof shared().place - 1 );
    ::raise( signalAtPlace );
}

pid_t start( unsigned n,
             int signal,
             const std::function< void() >& prepare,
             const std::function< void() >& body ) {
    std::memset( shared().place, 0, sizeof( Shared ) );
    std::fflush( nullptr );
    const pid_t pid = ::fork();
    if ( pid < 0 ) {
        throw std::runtime_error( "fork failed" );
    }
    if ( pid > 0 ) {
        return pid;
    }
    try {
        prepare();
        placesLeft = n;
        signalAtPlace = signal;
        Krell::crashPointHandler = atPlace;
        body();
    } catch ( const Krell::Exception& e ) {
        std::fprintf( stderr, "child: %s: %s\n", e.name().c_str(), e.msg().c_str() );
        ::_exit( failed );
    } catch ( ... ) {
        ::_exit( failed );
    }
    ::_exit( 0 );
}

int wait( pid_t pid ) {
    int status = 0;
    if ( ::waitpid( pid, &status, WUNTRACED ) != pid ) {
        throw std::runtime_error( "waitpid failed" );
    }
    return status;
}

} // namespace

Crash killedAt( const char* place,
                const std::function< void() >& prepare,
                const std::function< void() >& body ) {
    placeWanted = place;
    try {
        const Crash crash = killedAt( 0U, prepare, body );
        placeWanted = nullptr;
        return crash;
    } catch ( ... ) {
        placeWanted = nullptr;
        throw;
    }
}

Crash killedAt( unsigned n,
                const std::function< void() >& prepare,
                const std::function< void() >& body ) {
    const int status = wait( start( n, SIGKILL, prepare, body ) );
    if ( WIFSIGNALED( status ) && WTERMSIG( status ) == SIGKILL && shared().place[ 0 ] ) {
        return { true, shared().place };
    }
    if ( WIFEXITED( status ) && WEXITSTATUS( status ) == 0 ) {
        return { false, "" };
    }
    throw std::runtime_error( "a child failed, status " + std::to_string( status ) );
}

Stopped::Stopped( unsigned n,
                  const std::function< void() >& prepare,
                  const std::function< void() >& body )
    : pid_( start( n, SIGSTOP, prepare, body ) ) {
    const int status = wait( pid_ );
    stopped_ = WIFSTOPPED( status );
    place_ = shared().place;
    if ( !stopped_ ) {
        pid_ = 0;
        if ( !WIFEXITED( status ) || WEXITSTATUS( status ) != 0 ) {
            throw std::runtime_error( "a child failed, status " + std::to_string( status ) );
        }
    }
}

Stopped::~Stopped() {
    if ( pid_ > 0 ) {
        ::kill( pid_, SIGKILL );
        int status = 0;
        ::waitpid( pid_, &status, 0 );
    }
}

} // namespace KrellTest
