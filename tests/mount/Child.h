// A forked process that runs a piece of a test, and lines of text between it and the test.

#pragma once

#include <csignal>
#include <functional>
#include <iostream>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Qel/System>

namespace QelKrellTest {

// One end. A line that does not come within a minute, or at all, reads as "".
class Channel {
public:
    explicit Channel( int fd ) : fd_( fd ) {}

    void say( const std::string& line ) const {
        const std::string text = line + "\n";
        EXPECT_EQ( send( fd_, text.data(), text.size(), MSG_NOSIGNAL ), ssize_t( text.size() ) );
    }
    // Whether something was said, or the other end is gone.
    bool hasSaid() const { return ready( 0 ); }
    std::string hear() const {
        std::string line;
        for ( char c = 0; ready( minute ) && read( fd_, &c, 1 ) == 1 && c != '\n'; ) {
            line += c;
        }
        return line;
    }

private:
    static constexpr int minute = 60000;

    bool ready( int milliseconds ) const {
        pollfd p { fd_, POLLIN, 0 };
        return poll( &p, 1, milliseconds ) == 1;
    }

    int fd_;
};

class Child {
public:
    // An exception that leaves `body` is said, as "failed: WHAT".
    explicit Child( const std::function< void( const Channel& ) >& body ) {
        int ends[ 2 ];
        EXPECT_EQ( socketpair( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends ), 0 );
        pid_ = fork();
        EXPECT_GE( pid_, 0 );
        if ( pid_ == 0 ) {
            close( ends[ 0 ] );
            run( body, Channel( ends[ 1 ] ) );
        }
        close( ends[ 1 ] );
        fd_ = ends[ 0 ];
    }
    ~Child() {
        if ( pid_ > 0 ) {
            kill();
        }
        close( fd_ );
    }
    Child( const Child& ) = delete;
    Child& operator=( const Child& ) = delete;

    pid_t pid() const noexcept { return pid_; }
    void say( const std::string& line ) const { Channel( fd_ ).say( line ); }
    std::string hear() const { return Channel( fd_ ).hear(); }

    // Both return the status, after the process's end.
    int kill() {
        ::kill( pid_, SIGKILL );
        return wait();
    }
    int wait() {
        int status = -1;
        EXPECT_EQ( waitpid( pid_, &status, 0 ), pid_ );
        pid_ = -1;
        return status;
    }

private:
    [[noreturn]] static void run( const std::function< void( const Channel& ) >& body,
                                  const Channel& channel ) {
        try {
            body( channel );
        } catch ( const std::exception& e ) {
            channel.say( std::string( "failed: " ) + e.what() );
        }
        std::cout.flush();
        _exit( testing::Test::HasFailure() ? 1 : 0 );
    }

    pid_t pid_ = -1;
    int fd_ = -1;
};

// Runs the event loop until `holds`, for many turns at the most; whether it does.
template < class F >
bool loopUntil( F&& holds ) {
    constexpr int turns = 2000;
    constexpr double turn = 0.02;
    for ( int i = 0; i < turns && !holds(); ++i ) {
        Qel::System::runOnce( turn );
    }
    return holds();
}

} // namespace QelKrellTest
