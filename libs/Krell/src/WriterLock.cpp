#include <Krell/WriterLock>

#include <atomic>
#include <map>
#include <mutex>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

#include "LockFile.h"

namespace Krell {

using namespace LockFile;

namespace {

static_assert( sizeof( ino_t ) == 8, "built with _FILE_OFFSET_BITS=64" );

constexpr int maxAttempts = 1000;

// How often this process's line of ancestors has forked since it first locked something.
std::atomic< U32 > forks { 0 };

// Tells this process from its forked ancestors, dead ones whose pid it may have got included. Not
// 0.
U64 thisProcess() noexcept {
    return U64( forks.load( std::memory_order_relaxed ) ) << 32 | U32( ::getpid() );
}

} // namespace

// The locks that this process holds. Everything that opens or closes a lock file does so under the
// mutex and asks here first, for a close would give the lock away.
class WriterLock::Registry {
public:
    struct Entry {
        U64 process;              // that locked; a forked child finds its parent's entries
        Fd file;                  // the one descriptor that carries the lock
        Owner owner;              // what stands in the file
        ReignLine reign;          // and in its first line
        std::vector< Fd > parked; // of the same file under other names: not to be closed before
    };

    static Registry& instance() {
        static Registry* registry = [] {
            ::pthread_atfork( [] { mutex().lock(); }, [] { mutex().unlock(); }, handleForked );
            return new Registry; // outlives every handle, those of static duration too
        }();
        return *registry;
    }
    static std::mutex& mutex() {
        static std::mutex* m = new std::mutex;
        return *m;
    }

    // This process's entry, or null.
    Entry* find( const FileId& id ) {
        const auto at = entries_.find( id );
        if ( at == entries_.end() ) {
            return nullptr;
        }
        if ( at->second.process != thisProcess() ) {
            entries_.erase( at ); // closes our copies of the parent's descriptors; its lock stays
            return nullptr;
        }
        return &at->second;
    }
    void insert( const FileId& id, Fd file, const Owner& owner, const ReignLine& reign ) {
        entries_.insert_or_assign( id,
                                   Entry { thisProcess(), std::move( file ), owner, reign, {} } );
    }
    void erase( const FileId& id ) { entries_.erase( id ); }
    // Takes a descriptor that came to a file locked by this process, to keep it open; false, and
    // the descriptor as it was, when the file is none.
    bool park( const FileId& id, Fd& file ) {
        Entry* entry = find( id );
        if ( entry ) {
            entry->parked.push_back( std::move( file ) );
        }
        return entry != nullptr;
    }

private:
    static void handleForked() {
        forks.fetch_add( 1, std::memory_order_relaxed );
        mutex().unlock();
    }

    std::map< FileId, Entry > entries_;
};

WriterLock::FileId WriterLock::idOf( int fd, const std::string& path ) {
    struct stat status;
    if ( ::fstat( fd, &status ) != 0 ) {
        throwSystemFailure( "fstat", path, errno );
    }
    return { status.st_dev, status.st_ino };
}

// The file that the name means now, and by how many names it goes.
std::optional< WriterLock::Named > WriterLock::named( const Directory& directory ) {
    struct stat status;
    if ( ::fstatat( directory.fd(), fileName_, &status, AT_SYMLINK_NOFOLLOW ) == 0 ) {
        return Named { { status.st_dev, status.st_ino }, status.st_nlink };
    }
    if ( errno != ENOENT ) {
        throwSystemFailure( "fstatat", directory.pathOf( fileName_ ), errno );
    }
    return std::nullopt;
}
std::optional< WriterLock::FileId > WriterLock::idOfName( const Directory& directory ) {
    const std::optional< Named > file = named( directory );
    return file ? std::optional( file->id ) : std::nullopt;
}

WriterLock::~WriterLock() { unlock(); }

bool WriterLock::tryLock( const Directory& directory ) {
    if ( held() ) {
        throw RuntimeException( "the writer's lock " + path_ + " is held by this handle already" );
    }
    path_ = directory.pathOf( fileName_ );
    holder_ = 0;
    owner_ = Owner();
    const std::lock_guard guard( Registry::mutex() );
    Registry& registry = Registry::instance();
    for ( int i = 0; i < maxAttempts; ++i ) {
        switch ( attempt( directory, registry ) ) {
        case Attempt::locked:
            return true;
        case Attempt::refused:
            return false;
        case Attempt::again:
            break;
        }
    }
    throw RuntimeException( "fcntl " + path_ + ": the file is replaced again and again" );
}

WriterLock::Attempt WriterLock::attempt( const Directory& directory, Registry& registry ) {
    const std::optional< FileId > named = idOfName( directory );
    if ( named ) {
        if ( const Registry::Entry* entry = registry.find( *named ) ) {
            holder_ = ::getpid();
            owner_ = entry->owner;
            return Attempt::refused;
        }
    }
    Fd file =
        named ? directory.openFile( fileName_, O_RDWR ) : directory.createIfAbsent( fileName_ );
    if ( !file ) {
        return Attempt::again; // gone, or there, meanwhile
    }
    const FileId id = idOf( file.get(), path_ );
    if ( registry.park( id, file ) ) {
        return Attempt::again; // the name means a file of ours since: refused next time
    }
    return settle( directory, registry, std::move( file ), id );
}

// The file is open, and not locked by this process.
WriterLock::Attempt WriterLock::settle( const Directory& directory,
                                        Registry& registry,
                                        Fd file,
                                        const FileId& id ) {
    struct flock range = wholeFile();
    int result;
    do {
        result = ::fcntl( file.get(), F_SETLK, &range );
    } while ( result != 0 && errno == EINTR );
    if ( result != 0 ) {
        if ( errno != EAGAIN && errno != EACCES ) {
            throwSystemFailure( "fcntl", path_, errno );
        }
        holder_ = blocker( file, path_ ).holder;
        owner_ = ownerIn( file );
        return holder_ == 0 ? Attempt::again : Attempt::refused; // 0: gone since
    }
    const std::optional< Named > now = named( directory );
    if ( !now || now->id != id ) {
        return Attempt::again; // a lock on a file that nobody else will find
    }
    if ( now->names > 1 ) { // nothing is written to a file that was linked here from elsewhere
        throw RuntimeException( "openat " + path_ + ": the file has another name too" );
    }
    owner_ = ownerIn( file );
    const ReignLine reign = number( file );
    registry.insert( id, std::move( file ), owner_, reign );
    id_ = id;
    lockedBy_ = thisProcess();
    holder_ = ::getpid();
    return Attempt::locked;
}

// Numbers the reign of the lock on the file: first in the lock, which may only shrink, then in the
// text. See Reigns for what others find in between.
ReignLine WriterLock::number( const Fd& file ) const {
    const std::optional< ReignLine > last = ReignLine::parse( beginning( file, ReignLine::size_ ) );
    const ReignLine reign = ReignLine::after( last );
    struct flock rest = wholeFile();
    rest.l_type = F_UNLCK;
    rest.l_start = off_t( reign.number );
    if ( ::fcntl( file.get(), F_SETLK, &rest ) != 0 ) {
        throwSystemFailure( "fcntl", path_, errno );
    }
    if ( last ) {
        writeFromStart( file, reign.text(), path_ );
    } else {
        writeWhole( file, reign.text() + ( owner_.empty() ? "" : owner_.text() ), path_ );
    }
    return reign;
}

void WriterLock::unlock() noexcept {
    if ( held() ) {
        const std::lock_guard guard( Registry::mutex() );
        Registry::instance().erase( id_ );
    }
    lockedBy_ = 0;
}

bool WriterLock::held() const noexcept { return lockedBy_ != 0 && lockedBy_ == thisProcess(); }

void WriterLock::writeOwner() {
    if ( !held() ) {
        throw RuntimeException( "the writer's lock is not held by this handle" );
    }
    const std::lock_guard guard( Registry::mutex() );
    Registry::Entry& entry = *Registry::instance().find( id_ );
    const Owner self = Owner::self();
    writeWhole( entry.file, entry.reign.text() + self.text(), path_ );
    entry.owner = self;
}

std::optional< Owner > WriterLock::ownerOf( const Directory& directory ) {
    const std::lock_guard guard( Registry::mutex() );
    Registry& registry = Registry::instance();
    const std::optional< FileId > named = idOfName( directory );
    if ( !named ) {
        return std::nullopt;
    }
    if ( const Registry::Entry* entry = registry.find( *named ) ) {
        return entry->owner;
    }
    Fd file = directory.openFile( fileName_, O_RDONLY );
    if ( !file ) {
        return std::nullopt;
    }
    const Owner owner = ownerIn( file );
    registry.park( idOf( file.get(), directory.pathOf( fileName_ ) ), file );
    return owner;
}

pid_t WriterLock::holderOf( const Directory& directory ) {
    const std::lock_guard guard( Registry::mutex() );
    Registry& registry = Registry::instance();
    const std::optional< FileId > named = idOfName( directory );
    if ( named && registry.find( *named ) ) {
        return ::getpid();
    }
    Fd file = named ? directory.openFile( fileName_, O_RDONLY ) : Fd();
    if ( !file ) {
        return 0;
    }
    const std::string path = directory.pathOf( fileName_ );
    const pid_t holder = blocker( file, path ).holder;
    return registry.park( idOf( file.get(), path ), file ) ? ::getpid() : holder;
}

Fd WriterLock::fileOf( const Directory& directory ) {
    // Closing a descriptor of that kind does not give a lock away.
    Fd file( ::openat( directory.fd(), fileName_, O_PATH | O_NOFOLLOW | O_CLOEXEC ) );
    if ( !file ) {
        if ( errno != ENOENT ) {
            throwSystemFailure( "openat", directory.pathOf( fileName_ ), errno );
        }
        return file;
    }
    struct stat status;
    if ( ::fstat( file.get(), &status ) != 0 ) {
        throwSystemFailure( "fstat", directory.pathOf( fileName_ ), errno );
    }
    if ( !S_ISREG( status.st_mode ) ) {
        throw RuntimeException( directory.pathOf( fileName_ ) + " is no regular file" );
    }
    return file;
}

Reigns WriterLock::reignsOf( const Fd& file, const std::string& path ) {
    const std::lock_guard guard( Registry::mutex() );
    if ( const Registry::Entry* entry = Registry::instance().find( idOf( file.get(), path ) ) ) {
        const ReignLine& reign = entry->reign;
        return { reign.number - 1, reign.number, ::getpid(), reign.series };
    }
    // Not ours, so it may be closed again.
    const std::string name = "/proc/self/fd/" + std::to_string( file.get() );
    const Fd opened( ::open( name.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC ) );
    if ( !opened ) {
        throwSystemFailure( "open", path, errno );
    }
    return reignsIn( opened, path );
}

std::string WriterLock::refusalText( const Directory& directory,
                                     pid_t holder,
                                     const Owner& owner ) {
    std::string who = owner.description();
    if ( holder > 0 && owner.pid != holder ) {
        who = "pid " + std::to_string( holder );
    } else if ( owner.empty() ) {
        who = "a process that has no pid here";
    }
    return directory.path() + " is written by " + who;
}

} // namespace Krell
