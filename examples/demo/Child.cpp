#include "Child.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace Demo {

namespace {

[[noreturn]] void fail( int error, const std::string& what ) {
    throw std::system_error( error, std::generic_category(), what );
}

} // namespace

Child::Child( const std::string& program ) {
    int ends[ 2 ];
    if ( pipe2( ends, O_CLOEXEC ) != 0 ) {
        fail( errno, "pipe" );
    }
    output_ = ends[ 0 ];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init( &actions );
    posix_spawn_file_actions_adddup2( &actions, ends[ 1 ], STDOUT_FILENO );
    std::string name = program;
    char* const arguments[] = { name.data(), nullptr };
    const int error = posix_spawn( &pid_, program.c_str(), &actions, nullptr, arguments, environ );
    posix_spawn_file_actions_destroy( &actions );
    close( ends[ 1 ] );
    if ( error != 0 ) {
        pid_ = -1;
        close( output_ );
        fail( error, program );
    }
}

Child::~Child() {
    if ( pid_ > 0 ) {
        signal( SIGKILL );
        wait();
    }
    if ( output_ >= 0 ) {
        close( output_ );
    }
}

void Child::signal( int number ) const { kill( pid_, number ); }

int Child::wait() {
    int status = 0;
    while ( waitpid( pid_, &status, 0 ) < 0 && errno == EINTR ) {
    }
    pid_ = -1;
    constexpr int bySignal = 128;
    return WIFEXITED( status ) ? WEXITSTATUS( status ) : bySignal + WTERMSIG( status );
}

void Child::showSome() {
    char bytes[ 4096 ];
    const ssize_t got = read( output_, bytes, sizeof bytes );
    if ( got < 0 && errno == EINTR ) {
        return;
    }
    if ( got <= 0 ) {
        close( output_ );
        output_ = -1;
        return;
    }
    partial_.append( bytes, std::size_t( got ) );
    for ( std::size_t end; ( end = partial_.find( '\n' ) ) != std::string::npos; ) {
        lines_.push_back( partial_.substr( 0, end ) );
        partial_.erase( 0, end + 1 );
        std::printf( "  %s\n", lines_.back().c_str() );
    }
    std::fflush( stdout );
}

std::string Child::said( const std::string& start ) const {
    for ( auto line = lines_.rbegin(); line != lines_.rend(); ++line ) {
        if ( line->starts_with( start ) ) {
            return line->substr( start.size() );
        }
    }
    return "";
}

void show( const std::vector< Child* >& children,
           double seconds,
           const std::function< bool() >& done ) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration_cast< Clock::duration >(
                                        std::chrono::duration< double >( seconds ) );
    while ( !done() ) {
        const auto left =
            std::chrono::ceil< std::chrono::milliseconds >( end - Clock::now() ).count();
        std::vector< pollfd > ready;
        ready.reserve( children.size() );
        for ( const Child* child : children ) {
            ready.push_back( { child->output(), POLLIN, 0 } ); // a negative one is passed over
        }
        if ( left <= 0 || poll( ready.data(), ready.size(), int( left ) ) <= 0 ) {
            return;
        }
        bool more = false;
        for ( std::size_t i = 0; i < children.size(); ++i ) {
            if ( ready[ i ].revents != 0 ) {
                children[ i ]->showSome();
            }
            more = more || children[ i ]->output() >= 0;
        }
        if ( !more ) {
            return;
        }
    }
}

} // namespace Demo
