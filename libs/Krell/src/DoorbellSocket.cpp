#include <Krell/DoorbellSocket>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Krell {

std::atomic< U32 > DoorbellSocket::forkCount_ { 0 };

// The open descriptors, under a mutex that fork() takes.
class DoorbellSocket::List {
public:
    static List& list() {
        static List* const only = [] { // outlives the objects of static duration
            List* const made = new List;
            ::pthread_atfork( [] { list().mutex_.lock(); }, [] { list().mutex_.unlock(); },
                              [] { list().handleForked(); } );
            return made;
        }();
        return *only;
    }

    // `open()` makes a descriptor, or -1.
    template < class F >
    DoorbellSocket add( F&& open ) {
        const std::lock_guard guard( mutex_ );
        fds_.reserve( fds_.size() + 1 );
        const int fd = open();
        if ( fd < 0 ) {
            return DoorbellSocket();
        }
        fds_.push_back( fd );
        return DoorbellSocket( fd, forkCount_.load( std::memory_order_relaxed ) );
    }

    void remove( const DoorbellSocket& socket ) noexcept {
        const std::lock_guard guard( mutex_ );
        fds_.erase( std::remove( fds_.begin(), fds_.end(), socket.fd_ ), fds_.end() );
        ::close( socket.fd_ );
    }

private:
    // The numbers stay taken, by something that never becomes readable, until the objects go: the
    // child's event loop may still wait for them.
    void handleForked() noexcept {
        int silent = -1;
        for ( const int fd : fds_ ) {
            if ( silent < 0 ) {
                ::close( fd ); // makes room where a process has all that it may have
                silent = ::eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK );
            }
            if ( silent != fd ) {
                ::dup3( silent, fd, O_CLOEXEC );
            }
        }
        const bool owned = std::find( fds_.begin(), fds_.end(), silent ) != fds_.end();
        if ( !owned ) {
            ::close( silent );
        }
        forkCount_.fetch_add( 1, std::memory_order_relaxed );
        mutex_.unlock();
    }

    std::mutex mutex_;
    std::vector< int > fds_;
};

DoorbellSocket& DoorbellSocket::operator=( DoorbellSocket&& o ) noexcept {
    if ( this != &o ) {
        reset();
        fd_ = std::exchange( o.fd_, -1 );
        forks_ = o.forks_;
    }
    return *this;
}

DoorbellSocket DoorbellSocket::make() {
    return List::list().add(
        [] { return ::socket( AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ); } );
}

DoorbellSocket DoorbellSocket::accept() const {
    const int listening = get();
    return List::list().add( [ listening ] {
        return ::accept4( listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC );
    } );
}

void DoorbellSocket::reset() noexcept {
    if ( fd_ >= 0 ) {
        const int kept = errno;
        List::list().remove( *this );
        fd_ = -1;
        errno = kept;
    }
}

} // namespace Krell
