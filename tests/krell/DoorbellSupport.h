// Doorbells in tests: a loop that the test turns, a reader that counts what it is told, and the two
// ends of the protocol by hand, for those that break it.

#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <linux/filter.h>
#include <linux/membarrier.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <Krell/DoorbellCaller>
#include <Krell/DoorbellPage>

#include "krell/Hooks.h"

namespace KrellTest {

using Qel::U32;

// One turn of the loop: waits for a watched descriptor to become readable, then fires all that are.
// How many there were. Controls may come and go meanwhile.
inline unsigned turn( int timeoutMs = 0 ) {
    std::vector< pollfd > polled;
    const std::vector< TestFd* > controls = fds();
    for ( const TestFd* control : controls ) {
        const bool isOpen = ::fcntl( control->watched, F_GETFD ) >= 0; // a forked child's may not
        polled.push_back( { isOpen ? control->watched : -1, POLLIN, 0 } );
    }
    if ( ::poll( polled.data(), nfds_t( polled.size() ), timeoutMs ) <= 0 ) {
        return 0;
    }
    unsigned fired = 0;
    for ( std::size_t i = 0; i < controls.size(); ++i ) {
        const auto& live = fds();
        if ( ( polled[ i ].revents & ( POLLIN | POLLHUP | POLLERR ) ) &&
             std::find( live.begin(), live.end(), controls[ i ] ) != live.end() &&
             controls[ i ]->watched == polled[ i ].fd ) {
            controls[ i ]->fire();
            ++fired;
        }
    }
    return fired;
}

// Turns until the condition holds; false when nothing happens for so long that it never will.
inline bool turnUntil( const std::function< bool() >& holds ) {
    constexpr int stuckMs = 20000;
    while ( !holds() ) {
        if ( turn( stuckMs ) == 0 ) {
            return holds();
        }
    }
    return true;
}

// Turns until nothing is left to do.
inline void settle() {
    while ( turn() != 0 ) {
    }
}

struct Told : Krell::DoorbellCaller::Handler {
    unsigned kicked = 0;
    unsigned connected = 0;
    unsigned disconnected = 0;
    std::function< void() > then; // done at last in each

    void handleKick() override { tell( kicked ); }
    void handleConnected() override { tell( connected ); }
    void handleDisconnected() override { tell( disconnected ); }

private:
    void tell( unsigned& count ) {
        ++count;
        if ( const auto action = then ) {
            action();
        }
    }
};

inline sockaddr_un addressOf( const std::string& path ) {
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if ( path.size() >= sizeof address.sun_path ) {
        throw std::runtime_error( path + " is too long" );
    }
    std::memcpy( address.sun_path, path.c_str(), path.size() + 1 );
    return address;
}

// A connection to the socket, and a socket that listens there; empty when that fails.
inline Krell::Fd connectRaw( const std::string& path ) {
    const sockaddr_un address = addressOf( path );
    Krell::Fd fd( ::socket( AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0 ) );
    if ( ::connect( fd.get(), reinterpret_cast< const sockaddr* >( &address ), sizeof address ) ) {
        fd.reset();
    }
    return fd;
}

inline Krell::Fd listenRaw( const std::string& path, int type = SOCK_SEQPACKET ) {
    const sockaddr_un address = addressOf( path );
    Krell::Fd fd( ::socket( AF_UNIX, type | SOCK_CLOEXEC, 0 ) );
    if ( ::bind( fd.get(), reinterpret_cast< const sockaddr* >( &address ), sizeof address ) ||
         ( type != SOCK_DGRAM && ::listen( fd.get(), 8 ) ) ) {
        fd.reset();
    }
    return fd;
}

inline bool sendRaw( int socket, const void* bytes, std::size_t size, std::vector< int > passed ) {
    std::vector< char > control( CMSG_SPACE( passed.size() * sizeof( int ) ) );
    iovec part = { const_cast< void* >( bytes ), size };
    msghdr header {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if ( !passed.empty() ) {
        header.msg_control = control.data();
        header.msg_controllen = control.size();
        cmsghdr* const c = CMSG_FIRSTHDR( &header );
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN( passed.size() * sizeof( int ) );
        std::memcpy( CMSG_DATA( c ), passed.data(), passed.size() * sizeof( int ) );
    }
    return ::sendmsg( socket, &header, MSG_NOSIGNAL | MSG_DONTWAIT ) == ssize_t( size );
}

// Whether the other side has hung up; takes what it said before.
inline bool hungUp( int socket ) {
    char bytes[ 64 ];
    ssize_t size;
    while ( ( size = ::recv( socket, bytes, sizeof bytes, MSG_DONTWAIT ) ) > 0 ) {
    }
    return size == 0 || errno != EAGAIN;
}

// A memory file of that size with those seals; written to before when there is a mapping.
inline Krell::Fd memoryFile( off_t size, int seals, unsigned flags = 0 ) {
    Krell::Fd fd( ::memfd_create( "test", MFD_CLOEXEC | MFD_ALLOW_SEALING | flags ) );
    if ( fd && ( ::ftruncate( fd.get(), size ) || ::fcntl( fd.get(), F_ADD_SEALS, seals ) ) ) {
        fd.reset();
    }
    return fd;
}

// From now on the system refuses that command of membarrier to this thread, for good: use a child.
// False when the system cannot do that.
inline bool refuseMembarrier( int command, int error ) {
    sock_filter filter[] = {
        BPF_STMT( BPF_LD | BPF_W | BPF_ABS, offsetof( seccomp_data, nr ) ),
        BPF_JUMP( BPF_JMP | BPF_JEQ | BPF_K, SYS_membarrier, 0, 3 ),
        BPF_STMT( BPF_LD | BPF_W | BPF_ABS, offsetof( seccomp_data, args ) ), // low half
        BPF_JUMP( BPF_JMP | BPF_JEQ | BPF_K, U32( command ), 0, 1 ),
        BPF_STMT( BPF_RET | BPF_K, SECCOMP_RET_ERRNO | U32( error ) ),
        BPF_STMT( BPF_RET | BPF_K, SECCOMP_RET_ALLOW ),
    };
    const sock_fprog program { sizeof filter / sizeof filter[ 0 ], filter };
    return ::prctl( PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0 ) == 0 &&
           ::prctl( PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program ) == 0;
}
constexpr int commandOfWriters = MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED;
constexpr int commandOfReaders = MEMBARRIER_CMD_GLOBAL_EXPEDITED;

} // namespace KrellTest
