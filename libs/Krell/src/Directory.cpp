#include <Krell/Directory>

#include <algorithm>
#include <atomic>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <Krell/CrashPoint>
#include <Krell/RootPath>

namespace Krell {

namespace {

static_assert( sizeof( ino_t ) == 8, "built with _FILE_OFFSET_BITS=64" );

constexpr mode_t directoryMode = 0750;
constexpr mode_t fileMode = 0640;
constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

int openRetried( int base, const char* name, int flags ) {
    int fd;
    do {
        fd = ::openat( base, name, flags, fileMode );
    } while ( fd < 0 && errno == EINTR );
    return fd;
}

// A symbolic link where a directory should be is reported as one, not as "not a directory".
int reasonOf( int base, const char* name, int errorNumber ) {
    struct stat status;
    const bool isLink = errorNumber == ENOTDIR &&
                        ::fstatat( base, name, &status, AT_SYMLINK_NOFOLLOW ) == 0 &&
                        S_ISLNK( status.st_mode );
    return isLink ? ELOOP : errorNumber;
}

// The components of a path, without empty ones and ".".
std::vector< std::string > componentsOf( const std::string& path ) {
    std::vector< std::string > components;
    for ( std::size_t at = 0; at < path.size(); ) {
        const std::size_t end = std::min( path.find( '/', at ), path.size() );
        const std::string one = path.substr( at, end - at );
        if ( !one.empty() && one != "." ) {
            components.push_back( one );
        }
        at = end + 1;
    }
    return components;
}

std::string joined( const std::string& path, const std::string& name ) {
    return path == "/" ? path + name : path + "/" + name;
}

// Whether the umask took something from the mode of a directory that was just made.
bool isCut( const struct stat& status ) noexcept {
    return ( status.st_mode & 0777 ) != directoryMode;
}
// Setting the mode must not take away that groups are inherited, where that is so.
mode_t uncut( const struct stat& status ) noexcept {
    return directoryMode | ( status.st_mode & S_ISGID );
}

// The directory `name` below `base`; empty when it is missing. The mode of one that is made does
// not depend on the umask.
Fd openStep(
    const Fd& base, const std::string& name, const std::string& path, bool make, int flags ) {
    const char* const entry = name.c_str();
    Fd fd( openRetried( base.get(), entry, flags ) );
    bool made = false;
    struct stat status;
    if ( !fd && errno == ENOENT && make ) {
        made = ::mkdirat( base.get(), entry, directoryMode ) == 0;
        if ( !made && errno != EEXIST ) {
            throwSystemFailure( "mkdirat", path, errno );
        }
        if ( made && ::fstatat( base.get(), entry, &status, AT_SYMLINK_NOFOLLOW ) == 0 &&
             isCut( status ) ) { // it may not be opened else
            ::fchmodat( base.get(), entry, uncut( status ), AT_SYMLINK_NOFOLLOW );
        }
        fd.reset( openRetried( base.get(), entry, made ? flags & ~O_PATH : flags ) );
    }
    if ( !fd && errno != ENOENT ) {
        throwSystemFailure( "openat", path, reasonOf( base.get(), entry, errno ) );
    }
    if ( fd && made && ::fstat( fd.get(), &status ) != 0 ) {
        throwSystemFailure( "fstat", path, errno );
    }
    if ( fd && made && isCut( status ) && ::fchmod( fd.get(), uncut( status ) ) != 0 ) {
        throwSystemFailure( "fchmod", path, errno );
    }
    return fd;
}

// How many leading components of a path are the root's own.
std::size_t rootDepth( const std::vector< std::string >& components ) {
    try {
        const std::vector< std::string > root = componentsOf( RootPath::root() );
        const bool below = root.size() <= components.size() &&
                           std::equal( root.begin(), root.end(), components.begin() );
        return below ? root.size() : 0;
    } catch ( const InvalidInitializeException& ) {
        return 0; // an unusable setting is for those to report who use it
    }
}

void writeAll( const Fd& file, std::string_view bytes, const std::string& path ) {
    while ( !bytes.empty() ) {
        const ssize_t written = ::write( file.get(), bytes.data(), bytes.size() );
        if ( written < 0 && errno != EINTR ) {
            throwSystemFailure( "write", path, errno );
        }
        bytes.remove_prefix( written > 0 ? std::size_t( written ) : 0 );
    }
}

} // namespace

void Directory::checkPath( const std::string& path ) {
    const std::vector< std::string > components = componentsOf( path );
    const char* fault = path.empty() || path[ 0 ] != '/'         ? "is not absolute"
                        : path.find( '\0' ) != std::string::npos ? "holds a NUL byte"
                        : std::count( components.begin(), components.end(), ".." )
                            ? "has a component '..'"
                            : nullptr;
    if ( fault ) {
        throw InvalidInitializeException( "the path '" + path + "' " + fault );
    }
}

void Directory::checkName( const std::string& name ) {
    if ( name.empty() || name == "." || name == ".." ||
         name.find_first_of( std::string_view( "/\0", 2 ) ) != std::string::npos ) {
        throw InvalidInitializeException( "'" + name +
                                          "' is not the name of a file in a directory" );
    }
}

Directory Directory::open( const std::string& path ) { return walk( path, false ); }

Directory Directory::create( const std::string& path ) {
    for ( int round = 0; round < 100; ++round ) { // somebody may remove what was just made
        if ( Directory made = walk( path, true ); made.isOpen() ) {
            return made;
        }
    }
    throwSystemFailure( "openat", path, ENOENT );
}

// The root as it is named, then each component below it by itself and through no link.
Directory Directory::walk( const std::string& path, bool make ) {
    checkPath( path );
    const std::vector< std::string > components = componentsOf( path );
    const std::size_t trusted = rootDepth( components );
    const auto flags = [ & ]( std::size_t depth ) { // what is passed through need not be readable
        return directoryFlags | ( depth < components.size() ? O_PATH : 0 ) |
               ( depth > trusted ? O_NOFOLLOW : 0 );
    };
    Directory at( Fd( openRetried( AT_FDCWD, "/", flags( 0 ) ) ), "/" );
    if ( !at.isOpen() ) {
        throwSystemFailure( "open", "/", errno );
    }
    for ( std::size_t i = 0; i < components.size(); ++i ) {
        const std::string next = joined( at.path_, components[ i ] );
        at = Directory( openStep( at.fd_, components[ i ], next, make, flags( i + 1 ) ), next );
        if ( !at.isOpen() ) {
            return Directory();
        }
    }
    return at;
}

bool Directory::removeEmpty( const std::string& path ) {
    checkPath( path );
    const std::vector< std::string > components = componentsOf( path );
    if ( components.empty() ) {
        return false;
    }
    std::string above = "/";
    for ( std::size_t i = 0; i + 1 < components.size(); ++i ) {
        above = joined( above, components[ i ] );
    }
    const Directory parent = open( above );
    if ( !parent.isOpen() ||
         ::unlinkat( parent.fd(), components.back().c_str(), AT_REMOVEDIR ) == 0 ) {
        return parent.isOpen();
    }
    if ( errno != ENOENT && errno != ENOTEMPTY && errno != EEXIST ) {
        throwSystemFailure( "unlinkat", path,
                            reasonOf( parent.fd(), components.back().c_str(), errno ) );
    }
    return false;
}

std::string Directory::pathOf( const std::string& name ) const { return joined( path_, name ); }

Fd Directory::openFile( const std::string& name, int flags ) const {
    checkName( name );
    Fd file(
        openRetried( fd(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY ) );
    if ( !file ) {
        if ( errno == ENOENT ) {
            return file;
        }
        throwSystemFailure( "openat", pathOf( name ), errno );
    }
    struct stat status;
    if ( ::fstat( file.get(), &status ) != 0 ) {
        throwSystemFailure( "fstat", pathOf( name ), errno );
    }
    if ( !S_ISREG( status.st_mode ) ) {
        throw RuntimeException( "openat " + pathOf( name ) + ": not a regular file" );
    }
    return file;
}

Fd Directory::createFile( const std::string& name ) const {
    Fd file = createIfAbsent( name );
    if ( !file ) {
        throwSystemFailure( "openat", pathOf( name ), EEXIST );
    }
    return file;
}

Fd Directory::createIfAbsent( const std::string& name ) const {
    checkName( name );
    Fd file(
        openRetried( fd(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC ) );
    if ( !file && errno != EEXIST ) {
        throwSystemFailure( "openat", pathOf( name ), errno );
    }
    if ( file && ::fchmod( file.get(), fileMode ) != 0 ) {
        const int reason = errno;
        ::unlinkat( fd(), name.c_str(), 0 );
        throwSystemFailure( "fchmod", pathOf( name ), reason );
    }
    return file;
}

void Directory::rename( const std::string& from, const std::string& to ) const {
    checkName( from );
    checkName( to );
    if ( ::renameat( fd(), from.c_str(), fd(), to.c_str() ) != 0 ) {
        throwSystemFailure( "renameat", pathOf( from ) + " to " + to, errno );
    }
}

bool Directory::remove( const std::string& name ) const {
    checkName( name );
    if ( ::unlinkat( fd(), name.c_str(), 0 ) == 0 ) {
        return true;
    }
    if ( errno != ENOENT ) {
        throwSystemFailure( "unlinkat", pathOf( name ), errno );
    }
    return false;
}

bool Directory::exists( const std::string& name ) const {
    checkName( name );
    struct stat status;
    if ( ::fstatat( fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW ) == 0 ) {
        return true;
    }
    if ( errno != ENOENT ) {
        throwSystemFailure( "fstatat", pathOf( name ), errno );
    }
    return false;
}

std::vector< std::string > Directory::names() const {
    Fd own( openRetried( fd(), ".", directoryFlags ) );
    const std::unique_ptr< DIR, int ( * )( DIR* ) > stream(
        own ? ::fdopendir( own.get() ) : nullptr, []( DIR* d ) { return ::closedir( d ); } );
    if ( !stream ) {
        throwSystemFailure( "opendir", path_, errno );
    }
    own.release(); // the stream's now
    std::vector< std::string > found;
    errno = 0;
    while ( const dirent* entry = ::readdir( stream.get() ) ) {
        const std::string name = entry->d_name;
        if ( name != "." && name != ".." ) {
            found.push_back( name );
        }
        errno = 0;
    }
    if ( errno != 0 ) {
        throwSystemFailure( "readdir", path_, errno );
    }
    return found;
}

std::optional< std::string > Directory::readSmall( const std::string& name,
                                                   std::size_t limit ) const {
    const Fd file = openFile( name, O_RDONLY );
    if ( !file ) {
        return std::nullopt;
    }
    std::string bytes( limit, '\0' );
    std::size_t got = 0;
    while ( got < limit ) {
        const ssize_t n = ::read( file.get(), bytes.data() + got, limit - got );
        if ( n < 0 && errno != EINTR ) {
            throwSystemFailure( "read", pathOf( name ), errno );
        }
        if ( n == 0 ) {
            break;
        }
        got += n > 0 ? std::size_t( n ) : 0;
    }
    bytes.resize( got );
    return bytes;
}

std::string Directory::writeTemporary( const std::string& name, std::string_view bytes ) const {
    checkName( name );
    std::string temporary;
    Fd file;
    do { // another process of our pid's past may have left one
        temporary = temporaryName( name );
        file = createIfAbsent( temporary );
    } while ( !file );
    KRELL_CRASH_POINT( "temporary: made" );
    try {
        writeAll( file, bytes, pathOf( temporary ) );
    } catch ( ... ) {
        ::unlinkat( fd(), temporary.c_str(), 0 );
        throw;
    }
    return temporary;
}

void Directory::writeWhole( const std::string& name, std::string_view bytes ) const {
    const std::string temporary = writeTemporary( name, bytes );
    try {
        rename( temporary, name );
    } catch ( ... ) {
        ::unlinkat( fd(), temporary.c_str(), 0 );
        throw;
    }
}

std::string Directory::temporaryName( const std::string& name ) {
    static std::atomic< unsigned > count { 0 };
    return name + ".tmp-" + std::to_string( ::getpid() ) + "-" + std::to_string( ++count );
}

bool Directory::isTemporary( const std::string& file, const std::string& name ) {
    const std::string head = name + ".tmp-";
    const std::string tail = file.starts_with( head ) ? file.substr( head.size() ) : "";
    const std::size_t dash = tail.find( '-' );
    return dash != std::string::npos && dash > 0 && dash + 1 < tail.size() &&
           tail.find_first_not_of( "0123456789-" ) == std::string::npos &&
           tail.find( '-', dash + 1 ) == std::string::npos;
}

} // namespace Krell
