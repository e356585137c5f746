#include <Krell/Doorbell>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <sstream>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <Dov/Atomics>
#include <Krell/DoorbellFence>

namespace Krell {

namespace {

constexpr int caughtLevel = 1;
constexpr int stepLevel = 5;
constexpr mode_t socketMode = 0660; // who may connect must be able to write
constexpr double pauseSeconds = 1;
constexpr int acceptsPerTurn = 64;
constexpr int nameAttempts = 100;

std::string throughProc( int fd ) { return "/proc/self/fd/" + std::to_string( fd ); }

} // namespace

Doorbell::Doorbell( Platform::DebugHandler& debug ) : debug_( debug ) {}

Doorbell::~Doorbell() { close(); }

void Doorbell::open( std::shared_ptr< const Directory > directory ) {
    close();
    directory_ = std::move( directory );
    try {
        fdControl_.reset( Platform::getFdControl( this ) );
        timer_.reset( Platform::getTimerControl( this ) );
        listening_ = DoorbellSocket::make();
        if ( !listening_ ) {
            throwSystemFailure( "socket", directory_->pathOf( fileName_ ), errno );
        }
        publish( bindTemporary() );
        enlisted_ = DoorbellFence::enlist();
        fdControl_->setFd( listening_.get() );
    } catch ( ... ) {
        close();
        throw;
    }
}

// A forked child leaves the file alone.
void Doorbell::hide() noexcept {
    struct stat status;
    if ( isOpen() && ::fstatat( directory_->fd(), fileName_, &status, AT_SYMLINK_NOFOLLOW ) == 0 &&
         status.st_dev == id_.device && status.st_ino == id_.inode ) {
        ::unlinkat( directory_->fd(), fileName_, 0 );
    }
    id_ = FileId();
}

void Doorbell::close() noexcept {
    hide();
    for ( const auto& connection : connections_ ) {
        connection->hangUp();
    }
    if ( fdControl_ ) {
        fdControl_->delFd();
    }
    listening_.reset();
    bells_.clear();
    connections_.clear();
    fdControl_.reset();
    timer_.reset();
    directory_.reset();
    paused_ = false;
    fences_ = 0;
}

// Binds the socket; the name in the directory.
std::string Doorbell::bindTemporary() {
    for ( int attempt = 0;; ++attempt ) { // another process of our pid's past may have left one
        const std::string name = Directory::temporaryName( fileName_ );
        const std::string path = throughProc( directory_->fd() ) + "/" + name;
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::memcpy( address.sun_path, path.c_str(),
                     std::min( path.size() + 1, sizeof address.sun_path - 1 ) );
        if ( ::bind( listening_.get(), reinterpret_cast< const sockaddr* >( &address ),
                     sizeof address ) == 0 ) {
            return name;
        }
        if ( errno != EADDRINUSE || attempt == nameAttempts ) {
            throwSystemFailure( "bind", directory_->pathOf( name ), errno );
        }
    }
}

// Gives the bound socket its mode and its name, once it listens.
void Doorbell::publish( const std::string& temporary ) {
    try {
        const std::string path = directory_->pathOf( temporary );
        const Fd file(
            ::openat( directory_->fd(), temporary.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC ) );
        struct stat status;
        if ( !file || ::fstat( file.get(), &status ) != 0 ) {
            throwSystemFailure( "openat", path, errno );
        }
        if ( ::chmod( throughProc( file.get() ).c_str(), socketMode ) != 0 ) {
            throwSystemFailure( "chmod", path, errno );
        }
        if ( ::listen( listening_.get(), SOMAXCONN ) != 0 ) {
            throwSystemFailure( "listen", path, errno );
        }
        directory_->rename( temporary, fileName_ );
        id_ = FileId { status.st_dev, status.st_ino };
    } catch ( ... ) {
        ::unlinkat( directory_->fd(), temporary.c_str(), 0 );
        throw;
    }
}

void Doorbell::ringAll() noexcept {
    if ( !isOpen() ) {
        return; // a forked child
    }
    if ( fences_ != 0 ) [[unlikely]] {
        Dov::Atomics::fullFence(); // SYNC( doorbell ): the caller stored the head before it
    } else {
        Dov::Atomics::compilerFence(); // SYNC( doorbell ): likewise; each sleeper has the rest
    }
    const Bell* end = bells_.data() + bells_.size();
    for ( Bell* bell = bells_.data(); bell != end; ) {
        const U64 ticket = Dov::Atomics::loadAcquire( bell->ticket );
        if ( ticket == bell->seen ) [[likely]] {
            ++bell;
        } else if ( handleTicket( *bell, ticket ) ) {
            ++bell;
        } else {
            --end;
        }
    }
}

// False when the bell is gone, and the next one in its place.
bool Doorbell::handleTicket( Bell& bell, U64 ticket ) noexcept {
    bell.seen = ticket;
    if ( ticket != DoorbellPage::awake_ ) {
        ++kicksIssued_;
        if ( !bell.connection->kick() ) {
            silence( *bell.connection );
            return false;
        }
    }
    return true;
}

// Of one that is not admitted: nothing.
void Doorbell::silence( const DoorbellConnection& connection ) noexcept {
    const auto bell = std::find_if( bells_.begin(), bells_.end(), [ & ]( const Bell& one ) {
        return one.connection == &connection;
    } );
    if ( bell != bells_.end() ) {
        fences_ -= connection.needsFence() ? 1 : 0;
        bells_.erase( bell );
    }
}

std::vector< Doorbell::Peer > Doorbell::peers() const {
    std::vector< Peer > result;
    for ( const Bell& bell : bells_ ) {
        if ( isOpen() ) {
            result.push_back( bell.connection->peer( bell.seen ) );
        }
    }
    return result;
}

void Doorbell::fdEvent( int ) {
    if ( isOpen() ) {
        acceptSome();
    } else {
        fdControl_->delFd(); // in a forked child the number may be another file's
    }
}

void Doorbell::timeout() {
    if ( isOpen() ) {
        resume();
    }
}

void Doorbell::acceptSome() {
    for ( int i = 0; i < acceptsPerTurn; ++i ) {
        DoorbellSocket socket = listening_.accept();
        if ( socket ) {
            take( std::move( socket ) );
        } else if ( errno == EAGAIN ) {
            return;
        } else if ( errno != EINTR && errno != ECONNABORTED ) {
            return pause( std::strerror( errno ) );
        }
    }
}

void Doorbell::take( DoorbellSocket socket ) {
    if ( !makeRoom() ) {
        return traceText( caughtLevel, "refuses a reader: there are as many as can be" );
    }
    Owner& self = *this;
    const DoorbellConnection::Offer offer { enlisted_, taken_++ % DoorbellPage::lines_ };
    try {
        bells_.reserve( connections_.size() + 1 );
        connections_.push_back(
            std::make_unique< DoorbellConnection >( self, std::move( socket ), offer ) );
    } catch ( const std::exception& e ) {
        return traceText( caughtLevel, std::string( "cannot take a reader: " ) + e.what() );
    }
    handleReadable( *connections_.back() ); // its hello comes with it
}

// For one more connection, at the cost of one that never said hello.
bool Doorbell::makeRoom() {
    if ( connections_.size() >= maxConnections_ ) {
        const auto oldest =
            std::find_if( connections_.begin(), connections_.end(),
                          []( const auto& connection ) { return connection->silent(); } );
        if ( oldest == connections_.end() ) {
            return false;
        }
        drop( **oldest, "it never said hello, and others wait" );
    }
    return true;
}

void Doorbell::handleReadable( DoorbellConnection& connection ) {
    const bool before = connection.admitted();
    if ( !connection.receive() ) {
        return drop( connection, connection.fault() );
    }
    if ( !before && connection.admitted() ) {
        bells_.push_back( { connection.ticket(), DoorbellPage::awake_, &connection } );
        fences_ += connection.needsFence() ? 1 : 0;
        const Peer peer = connection.peer();
        traceText( stepLevel, "is connected with process " + std::to_string( peer.pid ) );
    }
}

void Doorbell::drop( DoorbellConnection& connection, const char* reason ) {
    const std::string who = "process " + std::to_string( connection.peer().pid );
    traceText( reason ? caughtLevel : stepLevel,
               reason ? "hangs up on " + who + ": " + reason : "is left by " + who );
    silence( connection );
    connections_.erase(
        std::find_if( connections_.begin(), connections_.end(),
                      [ & ]( const auto& one ) { return one.get() == &connection; } ) );
    resume();
}

void Doorbell::pause( const char* reason ) {
    fdControl_->delFd();
    paused_ = true;
    timer_->setTimeout( pauseSeconds );
    traceText( caughtLevel, std::string( "cannot accept: " ) + reason );
}

void Doorbell::resume() {
    if ( paused_ ) {
        timer_->setTimeout( pauseSeconds ); // stays when the next call throws
        fdControl_->setFd( listening_.get() );
        timer_->delTimeout();
        paused_ = false;
    }
}

void Doorbell::traceText( int level, const std::string& text ) {
    if ( debug_.enabled( level ) ) {
        std::stringstream line;
        line << "Krell::Doorbell '" << directory_->pathOf( fileName_ ) << "' " << text;
        debug_.dump( line, level );
    }
}

} // namespace Krell
