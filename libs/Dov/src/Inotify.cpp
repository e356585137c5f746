#include "Inotify.h"

#include <array>
#include <cerrno>
#include <cstddef>

#include <sys/inotify.h>
#include <unistd.h>

#include <Qel/Exception>

namespace Dov {

namespace {

constexpr Qel::U32 watchedEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                   IN_DELETE_SELF | IN_MOVE_SELF | IN_CLOSE_WRITE;
constexpr Qel::S32 lostDescriptor = -1;

} // namespace

Inotify& Inotify::inotify() {
    static auto* const only = new Inotify;
    return *only;
}

Inotify::Inotify() : file_( new Qel::FileDescriptor( "inotify" ) ), reactor_( new Reactor ) {
    reactor_->notifierIs( file_ );
    reactor_->isRegisteredNotifieeIs( true );
    file_->notifyOnReadableIs( true );
}

// --- The instance

void Inotify::open() {
    const int fd = inotify_init1( IN_CLOEXEC | IN_NONBLOCK );
    if ( fd < 0 ) {
        const int error = errno;
        Qel::throwSystemException( "inotify_init1", "the process's watches", error,
                                   error == EMFILE
                                       ? "the limit fs.inotify.max_user_instances, or that of "
                                         "open descriptors, is reached"
                                       : "" );
    }
    try {
        file_->descriptorIs( fd );
    } catch ( ... ) {
        ::close( fd );
        throw;
    }
    fd_ = fd;
    process_ = getpid();
    ++generation_;
}

void Inotify::close() noexcept {
    if ( fd_ >= 0 ) {
        file_->descriptorIs( -1 );
        ::close( fd_ );
        fd_ = -1;
        ++generation_;
    }
}

// A forked child shares its parent's instance: what it read there would be lost to the parent. Its
// watches are set anew in an instance of its own.
void Inotify::ownProcess() {
    if ( fd_ < 0 || process_ == getpid() ) {
        return;
    }
    Watches old;
    old.swap( watches_ );
    close();
    Watches lost;
    for ( const auto& [ number, watcher ] : old ) {
        try {
            const Qel::ExpectException reported;
            watcher->watch_ = watch( *watcher, watcher->path_ );
        } catch ( const Qel::Exception& ) {
            watcher->watch_ = -1;
            lost.insert( { number, watcher } );
        }
    }
    end( lost, lostDescriptor, 0 );
}

Qel::S32 Inotify::add( const Qel::String& path ) {
    const int number = inotify_add_watch( fd_, path.charPtr(), watchedEvents );
    if ( number < 0 ) {
        const int error = errno;
        Qel::throwSystemException(
            "inotify_add_watch", "'" + path + "'", error,
            error == ENOSPC ? "the limit fs.inotify.max_user_watches is reached" : "" );
    }
    return number;
}

// --- Watches

Inotify::Watches::iterator Inotify::find( Qel::S32 watch,
                                          const WatchDescriptor* watcher ) noexcept {
    const auto [ first, last ] = watches_.equal_range( watch );
    for ( auto at = first; at != last; ++at ) {
        if ( at->second == watcher ) {
            return at;
        }
    }
    return watches_.end();
}

Qel::S32 Inotify::watch( WatchDescriptor& watcher, const Qel::String& path ) {
    ownProcess();
    if ( fd_ < 0 ) {
        open();
    }
    Qel::S32 number = -1;
    try {
        number = add( path );
    } catch ( ... ) {
        if ( watches_.empty() ) {
            close();
        }
        throw;
    }
    if ( find( number, &watcher ) == watches_.end() ) {
        watches_.insert( { number, &watcher } );
    }
    return number;
}

void Inotify::unwatch( WatchDescriptor& watcher, Qel::S32 watch ) noexcept {
    const auto at = find( watch, &watcher );
    if ( at == watches_.end() ) {
        return;
    }
    watches_.erase( at );
    if ( watches_.empty() ) {
        close();
    } else if ( watches_.count( watch ) == 0 && process_ == getpid() ) {
        inotify_rm_watch( fd_, watch );
    }
}

// --- Events

void Inotify::handleReadable() {
    ownProcess();
    alignas( inotify_event ) std::array< char, 16384 > buffer;
    const ssize_t length = fd_ < 0 ? 0 : read( fd_, buffer.data(), buffer.size() );
    if ( length < 0 && errno != EAGAIN && errno != EINTR ) {
        Watches ended;
        ended.swap( watches_ );
        close();
        end( ended, lostDescriptor, 0 );
        return;
    }
    std::size_t at = 0;
    while ( length > 0 && at + sizeof( inotify_event ) <= std::size_t( length ) ) {
        const auto* const event = reinterpret_cast< const inotify_event* >( buffer.data() + at );
        if ( !deliver( event->wd, event->mask, event->cookie,
                       event->len > 0 ? event->name : "" ) ) {
            return;
        }
        at += sizeof( inotify_event ) + event->len;
    }
}

// Gives one event to those whom it concerns; -1 concerns all. Reactors may change anything: false
// when the instance is another one afterwards.
bool Inotify::deliver( Qel::S32 watch, Qel::U32 mask, Qel::U32 cookie, const char* name ) {
    const auto [ first, last ] = watches_.equal_range( watch );
    const Watches concerned = watch == lostDescriptor ? watches_ : Watches( first, last );
    const Qel::U32 generation = generation_;
    if ( mask & IN_IGNORED ) {
        watches_.erase( first, last );
        if ( watches_.empty() ) {
            close();
        }
        end( concerned, watch, mask );
    } else {
        for ( const auto& [ number, watcher ] : concerned ) {
            if ( generation == generation_ && find( number, watcher ) != watches_.end() ) {
                watcher->eventIs( watch, mask, cookie, name );
            }
        }
    }
    return generation == generation_;
}

// Tells watchers, which were taken out, of the event by which their watches end.
void Inotify::end( const Watches& ended, Qel::S32 watch, Qel::U32 mask ) {
    std::vector< WatchDescriptor::Ptr > watchers;
    for ( const auto& [ number, watcher ] : ended ) {
        watcher->watch_ = -1;
        if ( watcher->references() > 0 ) {
            watchers.emplace_back( watcher );
        }
    }
    for ( const WatchDescriptor::Ptr& watcher : watchers ) {
        if ( watcher->watch_ < 0 ) { // not set anew by a reactor meanwhile
            watcher->eventIs( watch, mask, 0, "" );
        }
    }
}

} // namespace Dov
