#include <Dov/SharedMem>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Dov/Atomics>

#include "KeepErrno.h"

namespace Dov {

namespace {

static_assert( sizeof( off_t ) == 8 && sizeof( ino_t ) == 8, "built with _FILE_OFFSET_BITS=64" );

constexpr mode_t fileMode = 0640;
constexpr std::size_t hugePage = std::size_t( 2 ) << 20;
constexpr std::size_t leastRoom = std::size_t( 16 ) << 20; // of addresses, to grow in

// posix_fallocate returns its error and leaves errno alone.
int allocated( int fd, std::size_t from, std::size_t to ) {
    int result;
    do {
        result = ::posix_fallocate( fd, off_t( from ), off_t( to - from ) );
    } while ( result == EINTR );
    return result;
}

int protection( SharedMem::Mode mode ) {
    return mode == SharedMem::readOnly ? PROT_READ : PROT_READ | PROT_WRITE;
}

// The addresses that a mapping of that size takes up, so that it can grow where it is.
std::size_t withRoom( std::size_t size, bool exact ) {
    if ( exact || sizeof( void* ) < 8 ) {
        return size;
    }
    return size + ( size > leastRoom ? size : leastRoom );
}

void adviseHugePages( void* address, std::size_t size ) {
    ::madvise( address, size, MADV_HUGEPAGE ); // advice: a kernel without it does as well
}

// Extends a mapping of the file, or makes it anew elsewhere. ThreadSanitizer does not see mremap,
// and would take what another thread once had at that address for a race.
void* extended( int fd, void* address, std::size_t size, std::size_t newSize, int protection ) {
#if defined( DOV_THREAD_SANITIZER )
    void* const at = ::mmap( nullptr, newSize, protection, MAP_SHARED, fd, 0 );
    if ( at != MAP_FAILED ) {
        ::munmap( address, size );
    }
    return at;
#else
    static_cast< void >( fd );
    static_cast< void >( protection );
    return ::mremap( address, size, newSize, MREMAP_MAYMOVE );
#endif
}

} // namespace

SharedMem::SharedMem( const std::string& directory,
                      const std::string& name,
                      bool unlinkAtDestruction,
                      bool lockPages )
    : directory_( directory ),
      name_( name ),
      unlinkAtDestruction_( unlinkAtDestruction ),
      lockPages_( lockPages ) {}

SharedMem::~SharedMem() {
    detach();
    if ( unlinkAtDestruction_ && created_ ) {
        removeCreated();
    }
}

void* SharedMem::attach( std::size_t size, Mode mode ) {
    if ( address_ ) {
        failed( "attach", EBUSY, "is attached already" );
        return nullptr;
    }
    if ( mode != create && mode != readOnly && mode != readWrite ) {
        failed( "attach", EINVAL, "unknown mode " + std::to_string( int( mode ) ) );
        return nullptr;
    }
    mode_ = mode;
    if ( faults_->damaged() ) { // by a mapping that is gone
        faults_ = std::make_shared< FaultGroup >();
    }
    if ( mode == create ? !openNew( size ) : !openExisting( size ) ) {
        closeFile();
        return nullptr;
    }
    if ( !map( size ) ) {
        if ( mode == create ) {
            removeCreated();
        }
        closeFile();
        return nullptr;
    }
    closeFile();
    return address_;
}

void SharedMem::detach() noexcept {
    const KeepErrno keeper;
    if ( address_ ) {
        range_.none();
        ::munmap( address_, mapped_ );
        address_ = nullptr;
        size_ = mapped_ = 0;
    }
    closeFile();
}

bool SharedMem::resize( std::size_t newSize ) {
    if ( !isWritable( "resize", size_ ) ) {
        return false;
    }
    if ( newSize <= size_ ) {
        return true;
    }
    const bool done =
        reopen( "resize", O_RDWR ) && allocateFile( size_, newSize ) && extend( newSize );
    closeFile();
    return done;
}

bool SharedMem::remap() {
    if ( !address_ ) {
        return failed( "remap", EINVAL, "is not attached" );
    }
    std::size_t size = 0;
    const bool done =
        reopen( "remap", O_RDONLY ) && sizeOfFile( size ) && ( size <= size_ || extend( size ) );
    closeFile();
    return done;
}

bool SharedMem::isWhole() {
    if ( !address_ ) {
        return failed( "isWhole", EINVAL, "is not attached" );
    }
    const bool whole = reopen( "open", O_RDONLY );
    closeFile();
    return whole;
}

std::size_t SharedMem::memSize() const noexcept {
    if ( address_ ) {
        return size_;
    }
    const KeepErrno keeper;
    struct stat status;
    if ( !statusOfName( status ) || !S_ISREG( status.st_mode ) ||
         std::uintmax_t( status.st_size ) > SIZE_MAX ) {
        return 0;
    }
    return std::size_t( status.st_size );
}

// Of what the name means now.
bool SharedMem::statusOfName( struct stat& status ) const noexcept {
    const bool byPath = directoryFd_ < 0;
    return ::fstatat( byPath ? AT_FDCWD : directoryFd_, ( byPath ? path() : name_ ).c_str(),
                      &status, AT_SYMLINK_NOFOLLOW ) == 0;
}

std::string SharedMem::path() const { return directory_ + "/" + name_; }

bool SharedMem::failed( const char* call, int errorNumber, const std::string& reason ) {
    errorNumber_ = errorNumber;
    errorText_ = std::string( call ) + " " + path() + ": " +
                 ( reason.empty() ? std::strerror( errorNumber ) : reason );
    errno = errorNumber;
    return false;
}

// A descriptor, or -1 with the failure noted.
int SharedMem::openAt( const char* call, int flags ) {
    if ( name_.empty() || name_ == "." || name_ == ".." || name_.find( '/' ) != std::string::npos ||
         path().find( '\0' ) != std::string::npos ) {
        failed( call, EINVAL, "not a plain file name" );
        return -1;
    }
    const bool byPath = directoryFd_ < 0;
    const std::string where = byPath ? path() : name_;
    int fd;
    do {
        fd = ::openat( byPath ? AT_FDCWD : directoryFd_, where.c_str(),
                       flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, fileMode );
    } while ( fd < 0 && errno == EINTR );
    if ( fd < 0 ) {
        failed( call, errno );
    }
    return fd;
}

bool SharedMem::openNew( std::size_t size ) {
    if ( size == 0 || size > std::size_t( PTRDIFF_MAX ) ) {
        return failed( "create", size == 0 ? EINVAL : ENOMEM,
                       "no size for a mapping: " + std::to_string( size ) );
    }
    fd_ = openAt( "create", O_RDWR | O_CREAT | O_EXCL );
    if ( fd_ < 0 ) {
        return false;
    }
    created_ = true;
    struct stat status;
    if ( ::fstat( fd_, &status ) == 0 ) {
        device_ = status.st_dev;
        inode_ = status.st_ino;
    }
    if ( ( ::fchmod( fd_, fileMode ) == 0 || failed( "fchmod", errno ) ) &&
         allocateFile( 0, size ) ) {
        return true;
    }
    removeCreated();
    return false;
}

bool SharedMem::openExisting( std::size_t& size ) {
    created_ = false;
    fd_ = openAt( "open", mode_ == readOnly ? O_RDONLY : O_RDWR );
    std::size_t there = 0;
    if ( fd_ < 0 || !sizeOfFile( there ) ) {
        return false;
    }
    if ( there == 0 ) {
        return failed( "open", ENODATA, "the file is empty" );
    }
    if ( there < size ) {
        return failed( "open", ENODATA,
                       "the file holds " + std::to_string( there ) + " bytes, fewer than " +
                           std::to_string( size ) );
    }
    size = size ? size : there;
    return true;
}

// The file that is mapped, under its name, and whole.
bool SharedMem::reopen( const char* call, int flags ) {
    if ( faults_->damaged() ) {
        return failed( call, ENODATA, "was shortened while it was mapped" );
    }
    fd_ = openAt( "open", flags );
    return fd_ >= 0 && isOurs( call );
}

// Whether bytes up to `to` are mapped, for writing.
bool SharedMem::isWritable( const char* call, std::size_t to ) {
    if ( !address_ ) {
        return failed( call, EINVAL, "is not attached" );
    }
    if ( mode_ == readOnly ) {
        return failed( call, EBADF, "is attached for reading only" );
    }
    return to <= size_ || failed( call, EINVAL, "ends before byte " + std::to_string( to ) );
}

// Also notes which file it is, when nothing is mapped yet.
bool SharedMem::sizeOfFile( std::size_t& size ) {
    struct stat status;
    if ( ::fstat( fd_, &status ) != 0 ) {
        return failed( "fstat", errno );
    }
    if ( !S_ISREG( status.st_mode ) ) {
        return failed( "open", EINVAL, "not a regular file" );
    }
    if ( mode_ == readWrite && !hasOneName( status ) ) {
        return false;
    }
    if ( std::uintmax_t( status.st_size ) > std::uintmax_t( PTRDIFF_MAX ) ) {
        return failed( "open", EFBIG, "the file is larger than the address space" );
    }
    if ( !address_ ) {
        device_ = status.st_dev;
        inode_ = status.st_ino;
    }
    size = std::size_t( status.st_size );
    return true;
}

// Nothing is written to a file that somebody linked here from elsewhere. File and number of names
// are compared by one look at the name: it may have been linked and be unlinked again by now.
bool SharedMem::hasOneName( const struct stat& file ) {
    struct stat named;
    if ( !statusOfName( named ) ) {
        return failed( "fstatat", errno );
    }
    if ( named.st_dev != file.st_dev || named.st_ino != file.st_ino ) {
        return failed( "open", ESTALE, "now names another file" );
    }
    return named.st_nlink <= 1 || failed( "open", EMLINK, "the file has another name too" );
}

bool SharedMem::isOurs( const char* call ) {
    struct stat status;
    if ( ::fstat( fd_, &status ) != 0 ) {
        return failed( "fstat", errno );
    }
    if ( status.st_dev != device_ || status.st_ino != inode_ ) {
        return failed( call, ESTALE, "now names another file" );
    }
    if ( std::uintmax_t( status.st_size ) >= size_ ) {
        return true;
    }
    if ( FaultGuard::installed() ) {
        FaultGuard::cover( *faults_ ); // before anything of it is touched
    }
    return failed( call, ENODATA,
                   "the file holds " + std::to_string( status.st_size ) +
                       " bytes, fewer than the " + std::to_string( size_ ) + " that are mapped" );
}

bool SharedMem::allocateFile( std::size_t from, std::size_t to ) {
    const int error = to > std::size_t( PTRDIFF_MAX ) ? ENOMEM : allocated( fd_, from, to );
    return error == 0 || failed( "posix_fallocate", error );
}

// With room to grow in, where there are addresses for it.
bool SharedMem::map( std::size_t size ) {
    std::size_t length = withRoom( size, lockPages_ );
    void* at = ::mmap( nullptr, length, protection( mode_ ), MAP_SHARED, fd_, 0 );
    if ( at == MAP_FAILED && length > size ) {
        length = size;
        at = ::mmap( nullptr, length, protection( mode_ ), MAP_SHARED, fd_, 0 );
    }
    if ( at == MAP_FAILED ) {
        return failed( "mmap", errno );
    }
    if ( lockPages_ && ::mlock( at, size ) != 0 ) {
        failed( "mlock", errno );
        ::munmap( at, length );
        return false;
    }
    if ( !range_.is( at, length, protection( mode_ ), *faults_ ) ) {
        ::munmap( at, length );
        return failed( "mmap", ENOMEM );
    }
    address_ = at;
    mapped_ = length;
    sizeIs( size );
    return true;
}

// The file has `newSize` bytes already.
bool SharedMem::extend( std::size_t newSize ) {
    if ( newSize > mapped_ ) {
        std::size_t length = withRoom( newSize, lockPages_ );
        range_.is( nullptr, 0, 0, *faults_ );
        void* at = extended( fd_, address_, mapped_, length, protection( mode_ ) );
        if ( at == MAP_FAILED && length > newSize ) {
            length = newSize;
            at = extended( fd_, address_, mapped_, length, protection( mode_ ) );
        }
        if ( at == MAP_FAILED ) {
            const int error = errno;
            range_.is( address_, mapped_, protection( mode_ ), *faults_ );
            return failed( "mremap", error );
        }
        range_.is( at, length, protection( mode_ ), *faults_ );
        address_ = at;
        mapped_ = length;
        size_ = 0;
    }
    sizeIs( newSize );
    return true;
}

void SharedMem::sizeIs( std::size_t size ) noexcept {
    if ( size >= hugePage && size_ < hugePage ) {
        adviseHugePages( address_, mapped_ );
    }
    size_ = size;
}

void SharedMem::closeFile() noexcept {
    if ( fd_ >= 0 ) {
        const KeepErrno keeper;
        ::close( fd_ );
        fd_ = -1;
    }
}

// Removes the name if it still means the file that this object created.
void SharedMem::removeCreated() noexcept {
    const KeepErrno keeper;
    struct stat status;
    if ( statusOfName( status ) && status.st_dev == device_ && status.st_ino == inode_ ) {
        const bool byPath = directoryFd_ < 0;
        ::unlinkat( byPath ? AT_FDCWD : directoryFd_, ( byPath ? path() : name_ ).c_str(), 0 );
    }
    created_ = false;
}

} // namespace Dov
