// Objects and processes of one test.

#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <new>

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TrustTest {

// One object of type T that forked processes share.
template < class T >
class Shared {
public:
    Shared() : object_( new ( mapped() ) T ) {}
    ~Shared() { munmap( static_cast< void* >( object_ ), sizeof( T ) ); }
    Shared( const Shared& ) = delete;
    Shared& operator=( const Shared& ) = delete;
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }

private:
    static void* mapped() {
        void* const at =
            mmap( nullptr, sizeof( T ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
        if ( at == MAP_FAILED ) {
            throw std::bad_alloc();
        }
        return at;
    }

    T* const object_;
};

using Counter = std::atomic< unsigned >;

// A forked process that runs `body` and ends with its result; killed with this object, and with the
// test.
class Process {
public:
    explicit Process( const std::function< int() >& body ) {
        const pid_t parent = getpid();
        pid_ = fork();
        if ( pid_ == 0 ) {
            prctl( PR_SET_PDEATHSIG, SIGKILL );
            int status = 99;
            try {
                status = getppid() == parent ? body() : 98;
            } catch ( ... ) { // the status tells
            }
            _exit( status );
        }
    }
    ~Process() {
        if ( pid_ > 0 ) {
            kill();
        }
    }
    Process( const Process& ) = delete;
    Process& operator=( const Process& ) = delete;

    pid_t pid() const noexcept { return pid_; }
    int kill() {
        ::kill( pid_, SIGKILL );
        return wait();
    }
    static constexpr int late = -1;

    // Its exit status, 128 + the signal that ended it, or `late` when it goes on for so long: then
    // it is killed.
    int wait( std::chrono::seconds longest = std::chrono::minutes( 2 ) ) {
        const int fd = int( syscall( SYS_pidfd_open, pid_, 0 ) );
        pollfd p { fd, POLLIN, 0 };
        const bool over = fd < 0 || poll( &p, 1, int( longest.count() ) * 1000 ) == 1;
        close( fd );
        if ( !over ) {
            ::kill( pid_, SIGKILL );
        }
        int status = 0;
        waitpid( pid_, &status, 0 );
        pid_ = -1;
        return !over                 ? late
               : WIFEXITED( status ) ? WEXITSTATUS( status )
                                     : 128 + WTERMSIG( status );
    }

private:
    pid_t pid_ = -1;
};

// Lets processes say, each once, that they have done what is the least to do.
class Milestone {
public:
    explicit Milestone( int fd ) : fd_( fd ) {}
    void tellOnce( bool holds ) const {
        if ( holds && !told_ ) {
            told_ = write( fd_, "x", 1 ) == 1;
        }
    }

private:
    const int fd_;
    mutable bool told_ = false;
};

class Milestones {
public:
    Milestones() {
        if ( pipe( ends_ ) != 0 ) {
            throw std::bad_alloc();
        }
    }
    ~Milestones() {
        close( ends_[ 0 ] );
        close( ends_[ 1 ] );
    }
    Milestones( const Milestones& ) = delete;
    Milestones& operator=( const Milestones& ) = delete;

    // For the process that calls it.
    Milestone mine() const { return Milestone( ends_[ 1 ] ); }
    // Waits for so many to tell; false when none did for two minutes.
    bool reached( std::size_t number ) const {
        constexpr int longestMs = 120'000;
        char byte;
        for ( pollfd p { ends_[ 0 ], POLLIN, 0 }; number > 0; --number ) {
            if ( poll( &p, 1, longestMs ) != 1 || read( ends_[ 0 ], &byte, 1 ) != 1 ) {
                return false;
            }
        }
        return true;
    }

private:
    int ends_[ 2 ];
};

} // namespace TrustTest
