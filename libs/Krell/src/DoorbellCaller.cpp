#include <Krell/DoorbellCaller>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <Dov/Atomics>
#include <Krell/Doorbell>
#include <Krell/DoorbellFence>

namespace Krell {

namespace {

constexpr int caughtLevel = 1;
constexpr int messagesPerTurn = 256; // what is left is there in the next turn

// The socket itself, whatever happens to its name; empty when there is none.
Fd openSocketFile( const Directory& directory, const std::string& path ) {
    Fd file( ::openat( directory.fd(), Doorbell::fileName_, O_PATH | O_NOFOLLOW | O_CLOEXEC ) );
    if ( !file ) {
        if ( errno != ENOENT ) {
            throwSystemFailure( "openat", path, errno );
        }
        return file;
    }
    struct stat status;
    if ( ::fstat( file.get(), &status ) != 0 ) {
        throwSystemFailure( "fstat", path, errno );
    }
    if ( !S_ISSOCK( status.st_mode ) ) {
        throwSystemFailure( "connect", path, S_ISLNK( status.st_mode ) ? ELOOP : ENOTSOCK );
    }
    return file;
}

// Empty when nobody listens there.
DoorbellSocket connectTo( const Fd& file, const std::string& path ) {
    DoorbellSocket socket = DoorbellSocket::make();
    if ( !socket ) {
        throwSystemFailure( "socket", path, errno );
    }
    const std::string name = "/proc/self/fd/" + std::to_string( file.get() );
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::memcpy( address.sun_path, name.c_str(), name.size() + 1 );
    int result;
    do {
        result = ::connect( socket.get(), reinterpret_cast< const sockaddr* >( &address ),
                            sizeof address );
    } while ( result != 0 && errno == EINTR );
    if ( result != 0 ) {
        if ( errno != ECONNREFUSED && errno != EAGAIN ) { // EAGAIN: its queue is full
            throwSystemFailure( "connect", path, errno );
        }
        socket.reset();
    }
    return socket;
}

// The file of a page of this process, and the only mapping that can write it.
std::pair< Fd, DoorbellPagePtr > makePage( const std::string& path ) {
    const std::size_t cut = path.size() - std::min( path.size(), DoorbellPage::pathLimit_ );
    const std::string name = DoorbellPage::name_ + path.substr( cut );
    Fd file( ::memfd_create( name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING ) );
    if ( !file ) {
        throwSystemFailure( "memfd_create", path, errno );
    }
    if ( const int error = ::posix_fallocate( file.get(), 0, DoorbellPage::size_ ) ) {
        throwSystemFailure( "posix_fallocate", path, error );
    }
    void* const memory =
        ::mmap( nullptr, DoorbellPage::size_, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0 );
    if ( memory == MAP_FAILED ) {
        throwSystemFailure( "mmap", path, errno );
    }
    DoorbellPagePtr page( static_cast< DoorbellPage* >( memory ) );
    if ( ::fcntl( file.get(), F_ADD_SEALS, DoorbellPage::seals_ | F_SEAL_SEAL ) != 0 ) {
        throwSystemFailure( "fcntl", path, errno );
    }
    return { std::move( file ), std::move( page ) };
}

// Sends a message with a descriptor; false when the other side is gone.
bool sendWithDescriptor( int socket, DoorbellMessage message, int fd, const std::string& path ) {
    alignas( cmsghdr ) char control[ CMSG_SPACE( sizeof fd ) ] = {};
    iovec part = { &message, sizeof message };
    msghdr header {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* const passed = CMSG_FIRSTHDR( &header );
    passed->cmsg_level = SOL_SOCKET;
    passed->cmsg_type = SCM_RIGHTS;
    passed->cmsg_len = CMSG_LEN( sizeof fd );
    std::memcpy( CMSG_DATA( passed ), &fd, sizeof fd );
    ssize_t sent;
    do {
        sent = ::sendmsg( socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL );
    } while ( sent < 0 && errno == EINTR );
    const bool gone = sent < 0 && ( errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN );
    if ( sent < 0 && !gone ) {
        throwSystemFailure( "sendmsg", path, errno );
    }
    return !gone;
}

} // namespace

DoorbellCaller::DoorbellCaller( Platform::DebugHandler& debug, Handler& handler )
    : debug_( debug ), handler_( handler ) {}

DoorbellCaller::~DoorbellCaller() { hangUp(); }

bool DoorbellCaller::call( const Directory& directory ) {
    hangUp();
    if ( !directory.isOpen() ) {
        return false;
    }
    path_ = directory.pathOf( Doorbell::fileName_ );
    const Fd file = openSocketFile( directory, path_ );
    if ( !file ) {
        return false;
    }
    DoorbellSocket socket = connectTo( file, path_ );
    if ( !socket ) {
        return false;
    }
    auto [ pageFile, page ] = makePage( path_ );
    fence_ = DoorbellFence::forAll() ? DoorbellMessage::bySleeper : DoorbellMessage::byWriter;
    const auto hello = DoorbellMessage::of( DoorbellMessage::hello, fence_ );
    if ( !sendWithDescriptor( socket.get(), hello, pageFile.get(), path_ ) ) {
        return false;
    }
    if ( !fdControl_ ) {
        fdControl_.reset( Platform::getFdControl( this ) );
    }
    fdControl_->setFd( socket.get() );
    socket_ = std::move( socket );
    page_ = std::move( page );
    state_ = State::calling;
    return true;
}

void DoorbellCaller::hangUp() noexcept {
    if ( state_ != State::idle ) {
        fdControl_->delFd();
        socket_.reset();
        page_.reset();
        armed_ = false;
        state_ = State::idle;
    }
}

void DoorbellCaller::arm() {
    if ( state() != State::connected ) {
        return;
    }
    armed_ = true;
    Dov::Atomics::storeRelease( &page_->ticket( line_ ), ++ticket_ );
    // SYNC( doorbell ): the caller looks at the head after it
    if ( fence_ == DoorbellMessage::byWriter ) {
        Dov::Atomics::fullFence();
    } else if ( !DoorbellFence::forAll() ) {
        traceText( std::string( " for want of a fence: " ) + std::strerror( errno ) );
        hangUp();
    }
}

void DoorbellCaller::disarm() noexcept {
    if ( armed() ) {
        armed_ = false;
        Dov::Atomics::storeRelease( &page_->ticket( line_ ), DoorbellPage::awake_ );
    }
}

void DoorbellCaller::consumedIs( U64 sequence ) noexcept {
    if ( state() == State::connected ) {
        // The mark is for tools, which copy the page through /proc/PID/mem: nobody here loads it.
        // It comes behind the word, so that a page with the mark has a word.
        DoorbellPage::Line& progress = page_->progress( line_ );
        Dov::Atomics::storeRelease( &progress.word, sequence ); // SYNC( consumed )
        Dov::Atomics::storeRelease( &progress.mark, DoorbellPage::progressMark_ );
    }
}

pid_t DoorbellCaller::peer() const noexcept {
    ucred credentials {};
    socklen_t size = sizeof credentials;
    const int fd = socket_.get();
    const bool known =
        fd >= 0 && ::getsockopt( fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size ) == 0;
    return known ? credentials.pid : 0;
}

void DoorbellCaller::fdEvent( int ) {
    if ( !socket_ ) {
        fdControl_->delFd(); // in a forked child the number may be another file's
        return;
    }
    switch ( receive() ) { // the object may be gone after its handler was told
    case Received::nothing:
        return;
    case Received::kick:
        disarm();
        return handler_.handleKick();
    case Received::welcome:
        return handler_.handleConnected();
    case Received::end:
        hangUp();
        return handler_.handleDisconnected();
    }
}

// What there is, up to the bound; the last in the order of the enumeration counts.
DoorbellCaller::Received DoorbellCaller::receive() {
    Received all = Received::nothing;
    for ( int i = 0; i < messagesPerTurn; ++i ) {
        const Received one = receiveOne();
        all = std::max( all, one );
        if ( one == Received::nothing || one == Received::end ) {
            break;
        }
    }
    return all;
}

DoorbellCaller::Received DoorbellCaller::receiveOne() {
    DoorbellMessage message;
    ssize_t size;
    do {
        size = ::recv( socket_.get(), &message, sizeof message, MSG_DONTWAIT | MSG_TRUNC );
    } while ( size < 0 && errno == EINTR );
    if ( size <= 0 ) {
        return size < 0 && errno == EAGAIN ? Received::nothing : Received::end;
    }
    if ( state_ == State::connected && size == 1 ) {
        ++kicks_;
        return Received::kick;
    }
    if ( state_ == State::calling && size == sizeof message && takeWelcome( message ) ) {
        return Received::welcome;
    }
    traceBroken( size );
    return Received::end;
}

bool DoorbellCaller::takeWelcome( DoorbellMessage message ) noexcept {
    if ( !message.isWelcome( fence_ ) ) {
        return false;
    }
    fence_ = DoorbellMessage::Fence( message.fence );
    line_ = message.line;
    state_ = State::connected;
    ++connectionsMade_;
    return true;
}

void DoorbellCaller::traceBroken( ssize_t size ) {
    traceText( ": a message of " + std::to_string( size ) + " bytes that is no " +
               ( state_ == State::calling ? "welcome" : "kick" ) );
}

void DoorbellCaller::traceText( const std::string& text ) {
    if ( debug_.enabled( caughtLevel ) ) {
        std::stringstream line;
        line << "Krell::DoorbellCaller hangs up on '" << path_ << "', process " << peer() << text;
        debug_.dump( line, caughtLevel );
    }
}

} // namespace Krell
