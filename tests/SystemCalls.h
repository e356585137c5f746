// System calls by their numbers: their names, and the errors that a test lets them fail with.

#pragma once

#include <cerrno>
#include <cstdint>
#include <vector>

#include <fcntl.h>
#include <sys/syscall.h>

namespace QelKrellTest {

struct SystemCall {
    long number;
    const char* name;
    std::vector< int > errors;
};

// Those that the libraries make and that can fail for want of something, or be interrupted. Calls
// that only give something back are not among them: that they fail does not happen, and what they
// did not give back would be the test's own doing.
inline const std::vector< SystemCall > systemCalls {
#ifdef SYS_open
    { SYS_open, "open", { EMFILE, ENFILE, ENOMEM, EACCES, EINTR } },
#endif
    { SYS_openat, "openat", { EMFILE, ENFILE, ENOMEM, EACCES, EINTR } },
#ifdef SYS_mmap
    { SYS_mmap, "mmap", { ENOMEM } },
#endif
#ifdef SYS_mmap2
    { SYS_mmap2, "mmap2", { ENOMEM } },
#endif
    { SYS_mremap, "mremap", { ENOMEM } },
    { SYS_madvise, "madvise", { EAGAIN, ENOMEM } },
    { SYS_fallocate, "fallocate", { ENOSPC, EINTR, EFBIG } },
    { SYS_ftruncate, "ftruncate", { EINTR, EIO } },
#ifdef SYS_ftruncate64
    { SYS_ftruncate64, "ftruncate64", { EINTR, EIO } },
#endif
    { SYS_fstat, "fstat", { EIO } },
#ifdef SYS_fstat64
    { SYS_fstat64, "fstat64", { EIO } },
#endif
#ifdef SYS_newfstatat
    { SYS_newfstatat, "newfstatat", { EIO, EACCES } },
#endif
#ifdef SYS_fstatat64
    { SYS_fstatat64, "fstatat64", { EIO, EACCES } },
#endif
    { SYS_statx, "statx", { EIO } },
    { SYS_fstatfs, "fstatfs", { EIO } },
#ifdef SYS_fstatfs64
    { SYS_fstatfs64, "fstatfs64", { EIO } },
#endif
    { SYS_fcntl, "fcntl", { EINTR, ENOLCK } },
#ifdef SYS_fcntl64
    { SYS_fcntl64, "fcntl64", { EINTR, ENOLCK } },
#endif
    { SYS_fchmod, "fchmod", { EPERM, EIO } },
    { SYS_fchmodat, "fchmodat", { EPERM, EIO } },
#ifdef SYS_chmod
    { SYS_chmod, "chmod", { EPERM, EIO } },
#endif
    { SYS_read, "read", { EINTR, EIO } },
    { SYS_pread64, "pread64", { EINTR, EIO } },
    { SYS_write, "write", { EINTR, EIO, ENOSPC } },
    { SYS_pwrite64, "pwrite64", { EINTR, EIO, ENOSPC } },
    { SYS_getdents64, "getdents64", { EIO } },
    { SYS_mkdirat, "mkdirat", { ENOSPC, EACCES } },
    { SYS_renameat, "renameat", { ENOSPC, EIO, EACCES } },
    { SYS_renameat2, "renameat2", { ENOSPC, EIO, EACCES } },
    { SYS_unlinkat, "unlinkat", { EIO, EACCES } },
    { SYS_socket, "socket", { EMFILE, ENFILE, ENOMEM } },
    { SYS_bind, "bind", { ENOMEM, EADDRINUSE } },
    { SYS_listen, "listen", { EADDRINUSE } },
    { SYS_connect, "connect", { EINTR, EAGAIN, ECONNREFUSED, EACCES } },
    { SYS_accept4, "accept4", { EMFILE, EINTR, ECONNABORTED } },
    { SYS_sendmsg, "sendmsg", { EINTR, EPIPE, ENOBUFS } },
    { SYS_sendto, "sendto", { EINTR, EPIPE, ENOBUFS } },
    { SYS_recvmsg, "recvmsg", { EINTR, EMFILE } },
    { SYS_recvfrom, "recvfrom", { EINTR, ECONNRESET } },
    { SYS_getsockopt, "getsockopt", { ENOBUFS } },
    { SYS_setsockopt, "setsockopt", { ENOBUFS } },
    { SYS_memfd_create, "memfd_create", { EMFILE, ENOMEM } },
    { SYS_getrandom, "getrandom", { EINTR } },
    { SYS_membarrier, "membarrier", { EPERM } },
    { SYS_eventfd2, "eventfd2", { EMFILE, ENFILE } },
    { SYS_timerfd_create, "timerfd_create", { EMFILE, ENFILE } },
    { SYS_epoll_create1, "epoll_create1", { EMFILE, ENFILE } },
    { SYS_epoll_ctl, "epoll_ctl", { ENOSPC, ENOMEM } },
    { SYS_epoll_wait, "epoll_wait", { EINTR } },
    { SYS_inotify_init1, "inotify_init1", { EMFILE } },
    { SYS_inotify_add_watch, "inotify_add_watch", { ENOSPC } },
};

inline const char* nameOfCall( long number ) {
    for ( const SystemCall& call : systemCalls ) {
        if ( call.number == number ) {
            return call.name;
        }
    }
    return "another call";
}

// The errors that a test lets that call fail with. Memory that is none of a file's is the
// allocator's, and left alone; so are what a descriptor's flags are asked for.
template < class Child >
std::vector< int > errorsOf( const Child& call ) {
    bool mapping = false;
    bool control = false;
#ifdef SYS_mmap2
    mapping = call.number() == SYS_mmap2;
#else
    mapping = call.number() == SYS_mmap;
#endif
#ifdef SYS_fcntl64
    control = call.number() == SYS_fcntl64;
#else
    control = call.number() == SYS_fcntl;
#endif
    const auto isOneOf = [ & ]( std::uint64_t value, std::initializer_list< int > some ) {
        for ( const int one : some ) {
            if ( value == std::uint64_t( one ) ) {
                return true;
            }
        }
        return false;
    };
    const bool ofAFile = std::int32_t( call.argument( 4 ) ) >= 0;
    const bool isLock =
        isOneOf( call.argument( 1 ), { F_SETLK, F_GETLK, F_ADD_SEALS, F_GET_SEALS } );
    if ( ( mapping && !ofAFile ) || ( control && !isLock ) ) {
        return {};
    }
    for ( const SystemCall& one : systemCalls ) {
        if ( one.number == call.number() ) {
            return one.errors;
        }
    }
    return {};
}

} // namespace QelKrellTest
