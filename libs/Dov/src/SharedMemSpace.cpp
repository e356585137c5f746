// What a mapped file takes up: space in the file system, pages in memory.

#include <Dov/SharedMem>

#include <cerrno>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>

#include "KeepErrno.h"

namespace Dov {

namespace {

constexpr std::size_t page = 4096;
constexpr std::size_t populatedAtOnce = std::size_t( 4 ) << 20;
constexpr int populateWrite = 23; // MADV_POPULATE_WRITE, Linux 5.14
constexpr unsigned sparePart = 16;

// Whole pages within the bytes.
std::size_t firstPage( std::size_t from ) { return ( from + page - 1 ) / page * page; }
std::size_t lastPage( std::size_t to ) { return to / page * page; }

} // namespace

bool SharedMem::giveBack( std::size_t from, std::size_t to ) {
    if ( !isWritable( "giveBack", to ) ) {
        return false;
    }
    const std::size_t first = firstPage( from );
    const std::size_t last = lastPage( to );
    if ( first >= last ) {
        return true;
    }
    const bool done =
        reopen( "giveBack", O_RDWR ) &&
        ( hasRoomToSpare() || failed( "giveBack", ENOSPC, "the file system is nearly full" ) ) &&
        ( ::fallocate( fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t( first ),
                       off_t( last - first ) ) == 0 ||
          failed( "fallocate", errno ) );
    closeFile();
    return done;
}

bool SharedMem::allocate( std::size_t from, std::size_t to ) {
    if ( !isWritable( "allocate", to ) ) {
        return false;
    }
    const bool done = from >= to || ( reopen( "allocate", O_RDWR ) && allocateFile( from, to ) );
    closeFile();
    return done;
}

void SharedMem::populate( std::size_t from, std::size_t to ) noexcept {
    const KeepErrno keeper;
    const std::size_t last =
        address_ && mode_ != readOnly ? firstPage( to < size_ ? to : size_ ) : 0;
    for ( std::size_t at = lastPage( from ); at < last; at += populatedAtOnce ) {
        const std::size_t bytes = last - at < populatedAtOnce ? last - at : populatedAtOnce;
        if ( ::madvise( static_cast< char* >( address_ ) + at, bytes, populateWrite ) != 0 ) {
            return;
        }
    }
}

// A file system that says nothing of its size is as large as the memory.
bool SharedMem::hasRoomToSpare() const noexcept {
    struct statvfs status;
    return ::fstatvfs( fd_, &status ) == 0 && status.f_bavail >= status.f_blocks / sparePart;
}

} // namespace Dov
