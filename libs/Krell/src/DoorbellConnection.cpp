#include <Krell/DoorbellConnection>

#include <array>
#include <cerrno>
#include <cstring>

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <Dov/Atomics>

namespace Krell {

namespace {

// False with errno EAGAIN when kicks that nobody received fill the connection.
bool sendWhole( int socket, const void* bytes, std::size_t size ) noexcept {
    ssize_t sent;
    do {
        sent = ::send( socket, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL );
    } while ( sent < 0 && errno == EINTR );
    return sent == ssize_t( size );
}

// The descriptors that came with a message; all are closed that the caller does not keep.
class Passed {
public:
    explicit Passed( msghdr& header ) noexcept {
        header.msg_control = room_;
        header.msg_controllen = sizeof room_;
    }
    void take( msghdr& header ) noexcept {
        for ( cmsghdr* c = CMSG_FIRSTHDR( &header ); c; c = CMSG_NXTHDR( &header, c ) ) {
            if ( c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS ) {
                takeFrom( *c );
            }
        }
    }
    // Empty unless exactly one came.
    Fd only() noexcept { return count_ == 1 ? std::move( fds_[ 0 ] ) : Fd(); }

private:
    static constexpr std::size_t most_ = 4; // more than good; what does not fit the system closes

    void takeFrom( const cmsghdr& c ) noexcept {
        const std::size_t n = ( c.cmsg_len - CMSG_LEN( 0 ) ) / sizeof( int );
        for ( std::size_t i = 0; i < n && count_ < most_; ++i ) {
            int fd;
            std::memcpy( &fd, CMSG_DATA( &c ) + i * sizeof fd, sizeof fd );
            fds_[ count_++ ].reset( fd );
        }
    }

    alignas( cmsghdr ) char room_[ CMSG_SPACE( most_ * sizeof( int ) ) ];
    std::array< Fd, most_ > fds_;
    std::size_t count_ = 0;
};

// Null when the file is a page that stays as it is whatever its owner does. The seals come first:
// only memory files have any, and asking one of those for more never waits for its owner. Pages of
// the huge kind can be taken away.
const char* faultOfPage( int file ) noexcept {
    const int seals = ::fcntl( file, F_GET_SEALS );
    if ( seals < 0 || ( seals & DoorbellPage::seals_ ) != DoorbellPage::seals_ ) {
        return "its page is not a sealed memory file";
    }
    struct stat status;
    struct statfs system;
    if ( ::fstat( file, &status ) != 0 || status.st_size < off_t( DoorbellPage::size_ ) ) {
        return "its page is too small";
    }
    if ( ::fstatfs( file, &system ) != 0 || system.f_type != TMPFS_MAGIC ) {
        return "its page is of another kind of memory";
    }
    return nullptr;
}

// Empty when it cannot be mapped, with its page there: it may be a hole, and no memory left.
DoorbellPageView mapPage( int file ) noexcept {
    void* const memory = ::mmap( nullptr, DoorbellPage::size_, PROT_READ, MAP_SHARED, file, 0 );
    DoorbellPageView page( memory == MAP_FAILED ? nullptr
                                                : static_cast< const DoorbellPage* >( memory ) );
    if ( page && ::madvise( memory, DoorbellPage::size_, MADV_POPULATE_READ ) != 0 &&
         errno != EINVAL ) { // unknown to older systems
        page.reset();
    }
    return page;
}

} // namespace

DoorbellConnection::DoorbellConnection( Owner& owner, DoorbellSocket socket, Offer offer )
    : owner_( owner ),
      socket_( std::move( socket ) ),
      offer_( offer ),
      fdControl_( Platform::getFdControl( this ) ) {
    socklen_t size = sizeof credentials_;
    ::getsockopt( socket_.get(), SOL_SOCKET, SO_PEERCRED, &credentials_, &size );
    const int least = 1; // the system's own minimum: a few kicks
    ::setsockopt( socket_.get(), SOL_SOCKET, SO_SNDBUF, &least, sizeof least );
    fdControl_->setFd( socket_.get() );
}

DoorbellConnection::Peer DoorbellConnection::peer( U64 kickedFor ) const noexcept {
    Peer peer { credentials_.pid, credentials_.uid, 0, false };
    if ( admitted() ) {
        const U64 now = Dov::Atomics::loadAcquire( ticket() );
        peer.consumed =
            Dov::Atomics::loadAcquire( &page_->consumed( offer_.line ) ); // SYNC( consumed )
        peer.asleep = now != DoorbellPage::awake_ && now != kickedFor;
    }
    return peer;
}

void DoorbellConnection::fdEvent( int ) {
    if ( socket_ ) {
        owner_.handleReadable( *this ); // may destroy this object
    } else {
        fdControl_->delFd(); // in a forked child the number may be another file's
    }
}

bool DoorbellConnection::receive() noexcept {
    switch ( state_ ) {
    case State::silent:
        return receiveHello();
    case State::admitted:
        return receiveRest();
    case State::cut:
        break;
    }
    return false;
}

bool DoorbellConnection::receiveHello() noexcept {
    DoorbellMessage hello;
    iovec part = { &hello, sizeof hello };
    msghdr header {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    Passed passed( header );
    ssize_t size;
    do {
        size = ::recvmsg( socket_.get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC );
    } while ( size < 0 && errno == EINTR );
    if ( size < 0 ) {
        return errno == EAGAIN;
    }
    passed.take( header );
    if ( size == 0 ) {
        return false;
    }
    if ( size != sizeof hello || ( header.msg_flags & MSG_TRUNC ) || !hello.isHello() ) {
        return failed( "its first message is no hello of this version" );
    }
    Fd file = passed.only();
    if ( !file || ( header.msg_flags & MSG_CTRUNC ) ) {
        return failed( "its hello did not bring one descriptor" );
    }
    return admit( std::move( file ), hello );
}

bool DoorbellConnection::admit( Fd file, DoorbellMessage hello ) noexcept {
    if ( const char* const fault = faultOfPage( file.get() ) ) {
        return failed( fault );
    }
    page_ = mapPage( file.get() );
    if ( !page_ ) {
        return failed( "its page cannot be mapped" );
    }
    const bool bySleeper = offer_.enlisted && hello.fence == DoorbellMessage::bySleeper;
    fence_ = bySleeper ? DoorbellMessage::bySleeper : DoorbellMessage::byWriter;
    const auto welcome = DoorbellMessage::of( DoorbellMessage::welcome, fence_, offer_.line );
    if ( !sendWhole( socket_.get(), &welcome, sizeof welcome ) ) {
        return false; // gone meanwhile
    }
    state_ = State::admitted;
    return true;
}

// A reader says nothing after its hello, so there is its end, or a fault.
bool DoorbellConnection::receiveRest() noexcept {
    char byte;
    const ssize_t size = ::recv( socket_.get(), &byte, sizeof byte, MSG_DONTWAIT );
    if ( size > 0 ) {
        return failed( "it said something after its hello" );
    }
    return size < 0 && ( errno == EAGAIN || errno == EINTR );
}

void DoorbellConnection::hangUp() noexcept {
    if ( socket_ ) {
        ::shutdown( socket_.get(), SHUT_RDWR );
    }
}

bool DoorbellConnection::kick() noexcept {
    const char byte = 1;
    if ( sendWhole( socket_.get(), &byte, sizeof byte ) || errno == EAGAIN ) {
        return true; // EAGAIN: there are kicks enough that it did not receive yet
    }
    state_ = State::cut;
    ::shutdown( socket_.get(), SHUT_RDWR ); // wakes it, too
    return false;
}

bool DoorbellConnection::failed( const char* fault ) noexcept {
    fault_ = fault;
    return false;
}

} // namespace Krell
