#include "LockFile.h"

#include <cerrno>

#include <unistd.h>

#include <Krell/WriterLock>

namespace Krell::LockFile {

namespace {

constexpr int maxAttempts = 1000;

} // namespace

struct flock wholeFile() {
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return range;
}

Blocker blocker( const Fd& file, const std::string& path ) {
    struct flock range = wholeFile();
    if ( ::fcntl( file.get(), F_GETLK, &range ) != 0 ) {
        throwSystemFailure( "fcntl", path, errno );
    }
    if ( range.l_type == F_UNLCK ) {
        return {};
    }
    return { range.l_pid > 0 ? range.l_pid : WriterLock::unknownHolder_,
             range.l_start == 0 ? U64( range.l_len ) : 0 };
}

std::string beginning( const Fd& file, std::size_t size ) {
    std::string text( size, '\0' );
    ssize_t length;
    do {
        length = ::pread( file.get(), text.data(), text.size(), 0 );
    } while ( length < 0 && errno == EINTR );
    text.resize( length > 0 ? std::size_t( length ) : 0 );
    return text;
}

Owner ownerIn( const Fd& file ) { return Owner::parse( beginning( file, Owner::maxText_ ) ); }

void writeFromStart( const Fd& file, const std::string& text, const std::string& path ) {
    for ( std::size_t at = 0; at < text.size(); ) {
        const ssize_t n = ::pwrite( file.get(), text.data() + at, text.size() - at, off_t( at ) );
        if ( n < 0 && errno != EINTR ) {
            throwSystemFailure( "pwrite", path, errno );
        }
        at += n > 0 ? std::size_t( n ) : 0;
    }
}

void writeWhole( const Fd& file, const std::string& text, const std::string& path ) {
    writeFromStart( file, text, path );
    if ( ::ftruncate( file.get(), off_t( text.size() ) ) != 0 ) {
        throwSystemFailure( "ftruncate", path, errno );
    }
}

// The lock at one instant, and the line as it stood then: the same before and after it. A line that
// is being written does not read as one, and is there at the next attempt.
Reigns reignsIn( const Fd& file, const std::string& path ) {
    Blocker lock;
    std::string line;
    for ( int i = 0; i < maxAttempts; ++i ) {
        line = beginning( file, ReignLine::size_ );
        lock = blocker( file, path );
        if ( line == beginning( file, ReignLine::size_ ) ) {
            break;
        }
    }
    const ReignLine last = ReignLine::parse( line ).value_or( ReignLine() );
    return { lock.reign > 0 ? lock.reign - 1 : last.number, lock.reign, lock.holder, last.series };
}

} // namespace Krell::LockFile
