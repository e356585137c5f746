#include <Dov/FaultGuard>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>

#include "KeepErrno.h"

namespace Dov {

namespace {

constexpr std::size_t page = 4096;
constexpr std::size_t chunkEntries = 64;

// The handler reads entries while other threads change theirs: `bytes` is 0 while the rest changes.
struct Entry {
    std::atomic< std::uintptr_t > start { 0 };
    std::atomic< std::size_t > bytes { 0 };
    std::atomic< int > protection { 0 };
    std::atomic< FaultGroup* > group { nullptr };
    Entry* nextFree = nullptr; // under the mutex
};

// Chunks are never freed, so that they can be walked at any time.
struct Chunk {
    Entry entries[ chunkEntries ];
    Chunk* next = nullptr;
};

std::atomic< Chunk* > chunks { nullptr };
Entry* freeEntries = nullptr; // under the mutex
struct sigaction previous;    // written before the handler can run
std::atomic< bool > isInstalled { false };

std::mutex& mutex() {
    static std::mutex* const only = [] { // outlives the objects of static duration
        static std::mutex* const made = new std::mutex;
        ::pthread_atfork( [] { made->lock(); }, [] { made->unlock(); }, [] { made->unlock(); } );
        return made;
    }();
    return *only;
}

template < class F >
void forEachEntry( F&& f ) noexcept {
    for ( Chunk* chunk = chunks.load( std::memory_order_acquire ); chunk; chunk = chunk->next ) {
        for ( Entry& entry : chunk->entries ) {
            f( entry );
        }
    }
}

// Null when there is no memory for one.
Entry* takeEntry() noexcept {
    const std::lock_guard guard( mutex() );
    if ( !freeEntries ) {
        Chunk* const chunk = new ( std::nothrow ) Chunk;
        if ( !chunk ) {
            return nullptr;
        }
        for ( Entry& entry : chunk->entries ) {
            entry.nextFree = freeEntries;
            freeEntries = &entry;
        }
        chunk->next = chunks.load( std::memory_order_relaxed );
        chunks.store( chunk, std::memory_order_release );
    }
    Entry* const entry = freeEntries;
    freeEntries = entry->nextFree;
    return entry;
}

// --- From here on: what a signal handler may do.

// The group of the mapping that has that address; null when it is nobody's.
FaultGroup* groupAt( std::uintptr_t address ) noexcept {
    FaultGroup* found = nullptr;
    forEachEntry( [ & ]( const Entry& entry ) {
        const std::size_t bytes = entry.bytes.load( std::memory_order_acquire );
        const std::uintptr_t start = entry.start.load( std::memory_order_acquire );
        FaultGroup* const group = entry.group.load( std::memory_order_acquire );
        if ( bytes != 0 && address - start < bytes &&
             entry.bytes.load( std::memory_order_acquire ) == bytes ) {
            found = group;
        }
    } );
    return found;
}

bool coverEntry( const Entry& entry ) noexcept {
    const std::size_t bytes = entry.bytes.load( std::memory_order_acquire );
    void* const start = reinterpret_cast< void* >( entry.start.load( std::memory_order_acquire ) );
    if ( ::mmap( start, bytes, PROT_READ | PROT_WRITE,
                 MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0 ) == MAP_FAILED ) {
        return false;
    }
    std::memset( start, FaultGuard::coverByte_, bytes < page ? bytes : page );
    const int protection = entry.protection.load( std::memory_order_relaxed );
    return ( protection & PROT_WRITE ) || ::mprotect( start, bytes, protection ) == 0;
}

// As if there had been no handler of ours: what returns is tried again, or was not worth dying for.
void passOn( int signal, siginfo_t* info, void* context ) noexcept {
    if ( previous.sa_flags & SA_SIGINFO ) {
        previous.sa_sigaction( signal, info, context );
        return;
    }
    const bool sent = info->si_code <= 0; // by a process
    if ( previous.sa_handler == SIG_IGN && sent ) {
        return;
    }
    if ( previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN ) {
        previous.sa_handler( signal );
        return;
    }
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    ::sigaction( signal, &standard, nullptr );
    if ( sent ) {
        ::raise( signal ); // comes when this handler returns
    }
}

void handleFault( int signal, siginfo_t* info, void* context ) noexcept {
    const KeepErrno keeper;
    FaultGroup* const group = info->si_code > 0
                                  ? groupAt( reinterpret_cast< std::uintptr_t >( info->si_addr ) )
                                  : nullptr;
    // Memory of our own that faults is not cured by more of it.
    if ( !group || group->damaged() || !FaultGuard::cover( *group ) ) {
        passOn( signal, info, context );
    }
}

} // namespace

bool FaultGuard::cover( FaultGroup& group ) noexcept {
    group.damaged_.store( true, std::memory_order_relaxed );
    if ( group.counter_ ) {
        __atomic_fetch_add( group.counter_, 1, __ATOMIC_RELAXED );
    }
    bool done = true;
    forEachEntry( [ & ]( const Entry& entry ) {
        if ( entry.bytes.load( std::memory_order_acquire ) != 0 &&
             entry.group.load( std::memory_order_relaxed ) == &group ) {
            done = coverEntry( entry ) && done;
        }
    } );
    return done;
}

bool FaultGuard::install() noexcept {
    const std::lock_guard guard( mutex() );
    if ( installed() ) {
        return true;
    }
    if ( ::sigaction( SIGBUS, nullptr, &previous ) != 0 ) {
        return false;
    }
    struct sigaction ours {};
    ours.sa_sigaction = handleFault;
    ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigemptyset( &ours.sa_mask );
    if ( ::sigaction( SIGBUS, &ours, nullptr ) != 0 ) {
        return false;
    }
    isInstalled = true;
    return true;
}

bool FaultGuard::installed() noexcept { return isInstalled.load( std::memory_order_relaxed ); }

bool FaultGuard::Range::is( void* start,
                            std::size_t bytes,
                            int protection,
                            FaultGroup& group ) noexcept {
    if ( !entry_ ) {
        entry_ = takeEntry();
        if ( !entry_ ) {
            return false;
        }
    }
    Entry& entry = *static_cast< Entry* >( entry_ );
    entry.bytes.store( 0, std::memory_order_release );
    entry.start.store( reinterpret_cast< std::uintptr_t >( start ), std::memory_order_release );
    entry.protection.store( protection, std::memory_order_relaxed );
    entry.group.store( &group, std::memory_order_release );
    entry.bytes.store( bytes, std::memory_order_release );
    return true;
}

void FaultGuard::Range::none() noexcept {
    if ( entry_ ) {
        Entry* const entry = static_cast< Entry* >( entry_ );
        entry->bytes.store( 0, std::memory_order_release );
        entry->group.store( nullptr, std::memory_order_release );
        const std::lock_guard guard( mutex() );
        entry->nextFree = freeEntries;
        freeEntries = entry;
        entry_ = nullptr;
    }
}

} // namespace Dov
