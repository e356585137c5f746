// Things that somebody puts where the library expects a file or a directory of its own, and what
// they could lead to outside.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include "trust/Grounds.h"

namespace TrustTest {

// What must stay as it is: a tree like the one in the root, with other entries and a socket that
// listens, and a file. All of it is the owner's, so that the system would not protect it.
class Victims {
public:
    static constexpr U64 round = 99; // of the entries

    // `collection` is a path below the root, `fill( round )` makes it.
    Victims( const Grounds& grounds,
             const std::string& collection,
             const std::function< void( U64 ) >& fill )
        : outside_( grounds.outside() ) {
        Grounds::makeFile( file(), "precious", 0666 );
        setenv( "KRELL_ROOT", outside_.c_str(), 1 );
        grounds.asOwner( [ & ] { fill( round ); } );
        setenv( "KRELL_ROOT", grounds.root().c_str(), 1 );
        listening_ = listen( like( collection ) + "/doorbell" );
        picture_ = pictureOf( outside_ );
    }
    ~Victims() { close( listening_ ); }
    Victims( const Victims& ) = delete;
    Victims& operator=( const Victims& ) = delete;

    std::string file() const { return outside_ + "/file"; }
    std::string like( const std::string& below ) const { return outside_ + "/" + below; }
    bool unchanged() const { return pictureOf( outside_ ) == picture_; }
    // What stands there now otherwise than before.
    std::string difference() const {
        std::istringstream lines( pictureOf( outside_ ) );
        std::string result;
        for ( std::string line; std::getline( lines, line ); ) {
            result += picture_.find( line + "\n" ) == std::string::npos ? line + "\n" : "";
        }
        return result;
    }
    // Whether somebody came to the socket since it was asked last.
    bool visited() const {
        const int fd = accept4( listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK );
        return fd >= 0 && close( fd ) == 0;
    }

private:
    static int listen( const std::string& path ) {
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        EXPECT_LT( path.size(), sizeof address.sun_path );
        path.copy( address.sun_path, sizeof address.sun_path - 1 );
        const int fd = socket( AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 );
        EXPECT_EQ( bind( fd, reinterpret_cast< const sockaddr* >( &address ), sizeof address ), 0 );
        EXPECT_EQ( ::listen( fd, 64 ), 0 );
        EXPECT_EQ( chmod( path.c_str(), 0666 ), 0 );
        return fd;
    }

    const std::string outside_;
    int listening_ = -1;
    std::string picture_;
};

// One kind of thing. `make` puts it at a path where nothing is; false where that cannot be.
struct Plant {
    const char* name;
    std::function< bool( const std::string& at ) > make;
    bool isLink = false; // a symbolic one
    bool isHardLink = false;
};

// For the place at that path below the root.
inline std::vector< Plant > plantsFor( const std::string& below, const Victims& victims ) {
    const auto link = []( const std::string& to ) {
        return [ to ]( const std::string& at ) { return symlink( to.c_str(), at.c_str() ) == 0; };
    };
    const auto hardLink = []( const std::string& to ) {
        return [ to ]( const std::string& at ) { return ::link( to.c_str(), at.c_str() ) == 0; };
    };
    const auto node = []( mode_t mode, dev_t device = 0 ) {
        return [ = ]( const std::string& at ) { return mknod( at.c_str(), mode, device ) == 0; };
    };
    const auto file = []( mode_t mode, const std::string& bytes, off_t size ) {
        return [ = ]( const std::string& at ) {
            std::ofstream( at, std::ios::binary ) << bytes;
            return truncate( at.c_str(), size ) == 0 && chmod( at.c_str(), mode ) == 0;
        };
    };
    constexpr off_t small = 6000;
    constexpr off_t huge = off_t( 1 ) << 40;
    const std::string garbage( "KRELLSLT" + std::string( small, '\x5a' ) );
    return {
        { "a link to a file", link( victims.file() ), true },
        { "a link to one of its kind", link( victims.like( below ) ), true },
        { "a link to a directory", link( victims.like( "" ) ), true },
        { "a link to nothing", link( victims.like( "nothing" ) ), true },
        { "a link to itself", link( below.substr( below.rfind( '/' ) + 1 ) ), true },
        { "a link to an endless device", link( "/dev/zero" ), true },
        { "a hard link to a file", hardLink( victims.file() ), false, true },
        { "a hard link to one of its kind", hardLink( victims.like( below ) ), false, true },
        { "a fifo", node( S_IFIFO | 0666 ) },
        { "a socket of nobody", node( S_IFSOCK | 0666 ) },
        { "an endless device", node( S_IFCHR | 0666, makedev( 1, 5 ) ) },
        { "a directory",
          []( const std::string& at ) {
              return mkdir( at.c_str(), 0777 ) == 0 && mkdir( ( at + "/x" ).c_str(), 0777 ) == 0;
          } },
        { "an empty file", file( 0666, "", 0 ) },
        { "a huge file of holes", file( 0666, "", huge ) },
        { "another's file", file( 0666, garbage, small ) },
        { "another's file that nobody may read", file( 0, garbage, small ) },
    };
}

} // namespace TrustTest
