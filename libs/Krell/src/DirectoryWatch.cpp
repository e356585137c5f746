#include <Krell/DirectoryWatch>

#include <cerrno>
#include <exception>
#include <sstream>
#include <utility>

#include <sys/stat.h>

#include <Krell/Directory>
#include <Krell/Exception>
#include <Krell/RootPath>

namespace Krell {

namespace {

constexpr int caughtLevel = 1;

std::vector< std::string > componentsOf( const std::string& path ) {
    std::vector< std::string > components;
    std::istringstream in( path );
    for ( std::string one; std::getline( in, one, '/' ); ) {
        if ( !one.empty() && one != "." ) {
            components.push_back( one );
        }
    }
    return components;
}

// Whether the root of the collection files stands somewhere below `path`.
bool leadsToRoot( const std::string& path ) {
    try {
        const std::string root = RootPath::root();
        return path == "/" ? root != "/" : root.starts_with( path + "/" );
    } catch ( const InvalidInitializeException& ) {
        return false; // an unusable setting is for those to report who use it
    }
}

} // namespace

DirectoryWatch::DirectoryWatch( Platform::DebugHandler& debug, Handler& handler, Factory factory )
    : debug_( debug ), handler_( handler ), factory_( factory ) {}

DirectoryWatch::~DirectoryWatch() { stop(); }

void DirectoryWatch::start( const std::string& path ) {
    Directory::checkPath( path );
    std::vector< std::string > components = componentsOf( path );
    stop();
    components_ = std::move( components );
    started_ = true;
    place();
    toTell_ = false;
}

void DirectoryWatch::stop() noexcept {
    unwatch();
    started_ = toTell_ = false;
    present_ = Identity();
    reason_.clear();
}

void DirectoryWatch::look() { happened( false, false ); }

// --- Events

// Events were lost, maybe all from now on.
void DirectoryWatch::watchError( const std::string& ) { happened( true, true ); }

// A directory made in its place may have the same identity.
void DirectoryWatch::watchGone() { happened( inDirectory(), true ); }

void DirectoryWatch::watchEvent( const std::string& ) { happened( inDirectory(), false ); }

bool DirectoryWatch::inDirectory() const noexcept {
    return watched_ && watched_->depth == components_.size();
}

// Nothing of the object is touched after the handler's call.
void DirectoryWatch::happened( bool toTell, bool toSetAnew ) {
    if ( !started_ ) {
        return;
    }
    toTell_ = toTell_ || toTell;
    if ( toSetAnew ) {
        watched_.reset();
    }
    if ( placing_ ) {
        return;
    }
    const Identity before = present_;
    place();
    if ( std::exchange( toTell_, false ) || present_ != before ) {
        handler_.handleDirectoryChanged();
    }
}

// --- Where the watch stands

// Sets the watch where it belongs by now. No failure leaves this function: the next event or look()
// tries again.
void DirectoryWatch::place() noexcept {
    placing_ = true;
    try {
        int round = 0;
        while ( !placeOnce() ) {
            if ( ++round == patience_ ) {
                unwatch();
                failed( "the directories on its way keep changing" );
                break;
            }
        }
    } catch ( const Exception& e ) {
        present_ = Identity { Identity::Kind::unknown, 0, 0 };
        unwatch();
        failed( e.msg() );
    } catch ( const std::exception& e ) {
        unwatch();
        failed( e.what() );
    }
    placing_ = false;
}

// True when the watch stands where it belonged after it had been set. What comes into being
// meanwhile is seen by the look that follows, or told by the watch.
bool DirectoryWatch::placeOnce() {
    const Place there = nearest();
    present_ = there.depth == components_.size() ? there.identity : Identity();
    if ( watched_ == there ) {
        reason_.clear();
        return true;
    }
    unwatch(); // setting the same path again would keep the watch on what stood there before
    watched_ = there;
    try {
        if ( !control_ ) {
            control_.reset( factory_( this ) );
        }
        control_->setWatch( pathAt( there.depth ) );
    } catch ( const std::exception& ) {
        watched_.reset();
        if ( nearest() == there ) { // else it was gone when it was to be watched
            throw;
        }
    }
    return false;
}

DirectoryWatch::Place DirectoryWatch::nearest() const {
    for ( std::size_t depth = components_.size();; --depth ) {
        const Identity identity = identityOf( pathAt( depth ) );
        if ( identity.kind == Identity::Kind::directory || depth == 0 ) {
            return { depth, identity };
        }
    }
}

std::string DirectoryWatch::pathAt( std::size_t depth ) const {
    std::string path;
    for ( std::size_t i = 0; i < depth; ++i ) {
        path += "/" + components_[ i ];
    }
    return depth == 0 ? "/" : path;
}

DirectoryWatch::Identity DirectoryWatch::identityOf( const std::string& path ) {
    struct stat status;
    if ( leadsToRoot( path ) ) { // as named, links and all
        if ( ::stat( path.c_str(), &status ) != 0 ) {
            if ( errno != ENOENT && errno != ENOTDIR && errno != ELOOP ) {
                throwSystemFailure( "stat", path, errno );
            }
            return Identity();
        }
        return S_ISDIR( status.st_mode )
                   ? Identity { Identity::Kind::directory, status.st_dev, status.st_ino }
                   : Identity();
    }
    try {
        const Directory directory = Directory::open( path );
        if ( !directory.isOpen() ) {
            return Identity();
        }
        if ( ::fstat( directory.fd(), &status ) != 0 ) {
            throwSystemFailure( "fstat", path, errno );
        }
        return { Identity::Kind::directory, status.st_dev, status.st_ino };
    } catch ( const RuntimeException& ) {
        return Identity(); // a link, a file: no directory stands there
    }
}

void DirectoryWatch::unwatch() noexcept {
    watched_.reset();
    try {
        if ( control_ && !control_->getWatch().empty() ) {
            control_->delWatch();
        }
    } catch ( const std::exception& e ) {
        failed( e.what() );
    }
}

// --- Failures

void DirectoryWatch::failed( const std::string& reason ) noexcept {
    try {
        std::string text = "cannot watch '" + pathAt( components_.size() ) + "': " + reason;
        if ( text == reason_ ) {
            return;
        }
        reason_ = std::move( text );
        if ( debug_.enabled( caughtLevel ) ) {
            constexpr int digits = 12;
            std::stringstream line;
            line.precision( digits );
            line << "Krell::DirectoryWatch " << reason_;
            debug_.dump( line, caughtLevel );
        }
    } catch ( const std::exception& ) { // no memory to say so
    }
}

} // namespace Krell
