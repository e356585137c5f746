// For tests of what happens when a file cannot grow.

#pragma once

#include <csignal>

#include <sys/resource.h>

namespace QelKrellTest {

// Files of this process cannot grow beyond `bytes` while it lives: writes fail with EFBIG.
class FileLimit {
public:
    explicit FileLimit( rlim_t bytes ) : handler_( std::signal( SIGXFSZ, SIG_IGN ) ) {
        ::getrlimit( RLIMIT_FSIZE, &before_ );
        const rlimit limit { bytes, before_.rlim_max };
        ::setrlimit( RLIMIT_FSIZE, &limit );
    }
    ~FileLimit() {
        ::setrlimit( RLIMIT_FSIZE, &before_ );
        std::signal( SIGXFSZ, handler_ );
    }
    FileLimit( const FileLimit& ) = delete;
    FileLimit& operator=( const FileLimit& ) = delete;

private:
    rlimit before_ {};
    void ( *const handler_ )( int );
};

} // namespace QelKrellTest
