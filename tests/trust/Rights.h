// What the system lets this process do with a collection's files, by plain system calls: by this,
// what the library must let it do or refuse.

#pragma once

#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace TrustTest {

class Rights {
public:
    explicit Rights( std::string directory ) : directory_( std::move( directory ) ) {}

    bool entering() const { return opens( directory_, O_RDONLY | O_DIRECTORY ); }
    bool reading() const {
        return entering() && file( "fenix", O_RDONLY ) && file( "slots", O_RDONLY ) &&
               file( "buckets", O_RDONLY );
    }
    bool following() const { return reading() && file( queue(), O_RDONLY ); }
    bool lookingAtTheLock() const { return entering() && file( "last-owner", O_RDONLY ); }
    bool locking() const { return entering() && file( "last-owner", O_RDWR ); }
    bool connecting() const {
        return entering() && reached() && connects( directory_ + "/doorbell" );
    }
    // Without another writer.
    bool writing() const {
        return locking() && replacing() && file( "fenix", O_RDONLY ) && file( "slots", O_RDWR ) &&
               file( "buckets", O_RDWR );
    }
    bool cleaningUp() const { return locking() && replacing(); }

private:
    bool file( const std::string& name, int flags ) const {
        return opens( directory_ + "/" + name, flags );
    }
    std::string queue() const {
        return access( ( directory_ + "/conquer.1" ).c_str(), F_OK ) == 0 ? "conquer.1"
                                                                          : "conquer.2";
    }
    bool reached() const { return access( ( directory_ + "/." ).c_str(), X_OK ) == 0; }
    // Whether names can be made, and those of the files removed.
    bool replacing() const {
        struct stat status;
        if ( stat( directory_.c_str(), &status ) != 0 ||
             access( directory_.c_str(), W_OK | X_OK ) != 0 ) {
            return false;
        }
        return !( status.st_mode & S_ISVTX ) || status.st_uid == geteuid();
    }
    static bool opens( const std::string& path, int flags ) {
        const int fd = open( path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC );
        return fd >= 0 && close( fd ) == 0;
    }
    static bool connects( const std::string& path ) {
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        path.copy( address.sun_path, sizeof address.sun_path - 1 );
        const int fd = socket( AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0 );
        const bool done =
            connect( fd, reinterpret_cast< const sockaddr* >( &address ), sizeof address ) == 0;
        close( fd );
        return done;
    }

    const std::string directory_;
};

} // namespace TrustTest
