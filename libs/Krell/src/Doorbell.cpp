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
    connections_.clear();
    fdControl_.reset();
    timer_.reset();
    directory_.reset();
    paused_ = false;
    admitted_ = 0;
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
    Dov::Atomics::fullFence(); // SYNC( doorbell ): the caller stored the head before it
    for ( const auto& connection : connections_ ) {
        if ( connection->admitted() && connection->asleep() ) {
            ++kicksIssued_;
            admitted_ -= connection->kick() ? 0 : 1;
        }
    }
}

std::vector< Doorbell::Peer > Doorbell::peers() const {
    std::vector< Peer > result;
    for ( const auto& connection : connections_ ) {
        if ( isOpen() && connection->admitted() ) {
            result.push_back( connection->peer() );
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
    try {
        connections_.push_back(
            std::make_unique< DoorbellConnection >( self, std::move( socket ) ) );
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
        ++admitted_;
        const Peer peer = connection.peer();
        traceText( stepLevel, "is connected with process " + std::to_string( peer.pid ) );
    }
}

void Doorbell::drop( DoorbellConnection& connection, const char* reason ) {
    const std::string who = "process " + std::to_string( connection.peer().pid );
    traceText( reason ? caughtLevel : stepLevel,
               reason ? "hangs up on " + who + ": " + reason : "is left by " + who );
    admitted_ -= connection.admitted() ? 1 : 0;
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
