#include "EventLoop.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <limits>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <Qel/ActivityManager>
#include <Qel/Assert>
#include <Qel/Exception>
#include <Qel/Trace>

namespace Qel {

namespace {

constexpr int errorLevel = 0;
constexpr SourcePosition closedAt = { "EventLoop", 36, "takeClosed" };

TraceHandle& trace() {
    static auto* const handle = new TraceHandle( "QelLoop", false );
    return *handle;
}

// What stop() touches: lock-free, for signal handlers. The flag says that a stop was asked for; the
// event just ends a wait. stop() sets the flag before it reads the descriptor, the loop publishes
// the descriptor before it reads the flag: one of them sees the other.
std::atomic< bool > stopFlag { false };
std::atomic< int > wakeDescriptor { -1 };
std::atomic< EventLoop* > madeLoop { nullptr };

enum OuterKey : U64 { innerKey, timerKey, wakeKey };

int addTo( int epoll, int fd, U64 key ) noexcept {
    epoll_event event {};
    event.events = EPOLLIN;
    event.data.u64 = key;
    return epoll_ctl( epoll, EPOLL_CTL_ADD, fd, &event ) == 0 ? 0 : errno;
}

void addOwn( int epoll, int fd, U64 key ) {
    if ( const int error = addTo( epoll, fd, key ) ) {
        throwSystemException( "epoll_ctl", "the event loop's own descriptors", error );
    }
}

int descriptorOf( U64 id ) noexcept { return int( U32( id ) ); }

String labelOf( int fd, const FileDescriptor& owner ) {
    return "descriptor " + decimalSigned( fd ) + " ('" + owner.fullName() + "')";
}

int millisecondsOf( Seconds seconds ) {
    constexpr double most = std::numeric_limits< int >::max();
    const double milliseconds = std::ceil( std::fmax( seconds, 0 ) * 1000 );
    return seconds == neverTime ? -1 : int( std::fmin( milliseconds, most ) );
}

// The timer's setting for an absolute time. Zero would switch it off, and so far a time_t of 32
// bits reaches; a wake-up that comes too early is set again.
itimerspec timerSetting( Seconds time ) {
    constexpr Seconds last = 2e9;
    const Seconds at = std::fmin( std::fmax( time, 1e-9 ), last );
    const Seconds whole = std::floor( at );
    itimerspec setting {};
    setting.it_value.tv_sec = time_t( whole );
    setting.it_value.tv_nsec = long( std::fmin( std::ceil( ( at - whole ) * 1e9 ), 999999999 ) );
    return setting;
}

} // namespace

OwnedFd::OwnedFd( int made, const char* call ) : fd_( made ) {
    if ( made < 0 ) {
        throwSystemException( call, "the event loop", errno );
    }
}

OwnedFd::~OwnedFd() { close( fd_ ); }

EventLoop::Descriptors::Descriptors()
    : outer( epoll_create1( EPOLL_CLOEXEC ), "epoll_create1" ),
      timer( timerfd_create( CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK ), "timerfd_create" ),
      wake( eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK ), "eventfd" ),
      inner( new OwnedFd( epoll_create1( EPOLL_CLOEXEC ), "epoll_create1" ) ) {
    addOwn( outer, *inner, innerKey );
    addOwn( outer, timer, timerKey );
    addOwn( outer, wake, wakeKey );
}

// --- Made once, and anew in a forked child

EventLoop::EventLoop()
    : clock_( ActivityManager::activityManager()->config()->clock() ),
      process_( getpid() ),
      descriptors_( new Descriptors ) {
    wakeDescriptor = descriptors_->wake;
    armTimer();
}

EventLoop& EventLoop::eventLoop() {
    static auto* const only = [] {
        auto* const made = new EventLoop;
        madeLoop = made;
        return made;
    }();
    return *only;
}

// A forked child shares its parent's epoll sets: to change them would change the parent's.
void EventLoop::ownProcess() {
    const int process = getpid();
    if ( process == process_ ) {
        return;
    }
    auto own = std::make_unique< Descriptors >();
    addInner( *own->inner );
    wakeDescriptor = own->wake;
    descriptors_ = std::move( own );
    process_ = process;
    isInnerStale_ = false;
    timerTime_ = neverTime;
    armTimer();
}

void EventLoop::addInner( int inner ) const {
    for ( const auto& [ fd, watch ] : watches_ ) {
        const int error = addTo( inner, fd, watch.id );
        if ( error && error != EBADF ) { // closed ones are found by dropClosed()
            throwSystemException( "epoll_ctl", labelOf( fd, *watch.owner ), error );
        }
    }
}

void EventLoop::rebuildInner() {
    auto inner = std::make_unique< OwnedFd >( epoll_create1( EPOLL_CLOEXEC ), "epoll_create1" );
    addInner( *inner );
    addOwn( descriptors_->outer, *inner, innerKey );
    descriptors_->inner = std::move( inner ); // closing the old one takes it out of the outer set
    isInnerStale_ = false;
}

int EventLoop::descriptor() {
    ownProcess();
    return descriptors_->outer;
}

// --- Stopping

void EventLoop::stop() noexcept {
    const int savedErrno = errno;
    stopFlag = true;
    const int fd = wakeDescriptor;
    if ( fd >= 0 ) {
        const U64 one = 1;
        [[maybe_unused]] const ssize_t written = write( fd, &one, sizeof one );
    }
    errno = savedErrno;
}

bool EventLoop::takeStop() noexcept {
    if ( !stopFlag ) {
        return false;
    }
    drainWake(); // before the flag: a stop that comes between leaves its event
    return stopFlag.exchange( false );
}

void EventLoop::drainWake() noexcept {
    U64 stops = 0;
    [[maybe_unused]] const ssize_t got = read( descriptors_->wake, &stops, sizeof stops );
}

// --- Watches

U64 EventLoop::watch( int fd, FileDescriptor& owner, FileDescriptor::Ptr& former ) {
    ownProcess();
    if ( isInnerStale_ ) {
        rebuildInner();
    }
    const auto present = watches_.find( fd );
    const U64 id = U64( ++lastSerial_ ) << 32 | U32( fd );
    if ( const int error = addTo( *descriptors_->inner, fd, id ) ) {
        String hint;
        if ( error == EEXIST && present != watches_.end() ) {
            hint = "it is watched by '" + present->second.owner->fullName() + "' already";
        } else if ( error == EPERM ) {
            hint = "regular files and directories are always readable and cannot be watched";
        } else if ( error == ENOSPC ) {
            hint = "the limit fs.epoll.max_user_watches is reached";
        }
        throwSystemException( "epoll_ctl", labelOf( fd, owner ), error, hint );
    }
    if ( present != watches_.end() ) { // the system did not know it any more
        former = &takeClosed( present );
    }
    watches_.insert( { fd, Watch { id, &owner } } );
    return id;
}

void EventLoop::unwatch( U64 id ) noexcept {
    if ( !ownerOf( id ) ) {
        return;
    }
    const int fd = descriptorOf( id );
    watches_.erase( fd );
    if ( process_ == getpid() &&
         epoll_ctl( *descriptors_->inner, EPOLL_CTL_DEL, fd, nullptr ) != 0 ) {
        isInnerStale_ = true; // closed; a duplicate of it may live on in the set
    }
}

FileDescriptor* EventLoop::ownerOf( U64 id ) const noexcept {
    const auto at = watches_.find( descriptorOf( id ) );
    return at != watches_.end() && at->second.id == id ? at->second.owner : nullptr;
}

// Takes the watch of a closed descriptor out, and says so. Calls no reactors.
FileDescriptor& EventLoop::takeClosed( Watches::iterator at ) {
    FileDescriptor& owner = *at->second.owner;
    const bool enabled = trace().enabled( errorLevel );
    if ( enabled || coverageStream_ ) {
        std::stringstream text;
        text << labelOf( at->first, owner ) << " was closed while it was watched";
        traceHelper( trace().name(), "<unknown>", text, errorLevel, enabled, closedAt.source,
                     closedAt.line, closedAt.function );
    }
    watches_.erase( at );
    isInnerStale_ = true;
    owner.watch_ = 0;
    owner.descriptor_ = -1;
    return owner;
}

// Takes out the watches whose descriptors are closed. The system never tells of those.
bool EventLoop::dropClosed() {
    std::vector< pollfd > polled;
    std::vector< U64 > ids;
    polled.reserve( watches_.size() );
    ids.reserve( watches_.size() );
    for ( const auto& [ fd, watch ] : watches_ ) {
        polled.push_back( { fd, 0, 0 } );
        ids.push_back( watch.id );
    }
    if ( polled.empty() || poll( polled.data(), nfds_t( polled.size() ), 0 ) <= 0 ) {
        return false;
    }
    bool found = false;
    for ( std::size_t i = 0; i < polled.size(); ++i ) {
        if ( ( polled[ i ].revents & POLLNVAL ) && ownerOf( ids[ i ] ) ) {
            takeClosed( watches_.find( polled[ i ].fd ) ).handleDescriptor();
            found = true;
        }
    }
    return found;
}

// --- Turns

EventLoop::Running::Running( EventLoop& loop, const char* operation ) : loop_( loop ) {
    if ( loop.isRunning_ ) {
        throw InternalException( String( operation ) + " called while the event loop runs" );
    }
    loop.isRunning_ = true;
}

EventLoop::Running::~Running() {
    loop_.isRunning_ = false;
    loop_.armTimer();
}

void EventLoop::handleClock() noexcept {
    EventLoop* const loop = madeLoop;
    if ( loop && !loop->isRunning_ && loop->process_ == getpid() ) {
        loop->armTimer();
    }
}

// Under manual time the timer just makes the outer set readable while a wake-up is due.
void EventLoop::armTimer() noexcept {
    Seconds time = clock_->timeMin();
    if ( clock_->isManual() ) {
        time = time <= clock_->now() ? 0 : neverTime;
    }
    if ( time != timerTime_ ) {
        const itimerspec setting = time == neverTime ? itimerspec {} : timerSetting( time );
        timerfd_settime( descriptors_->timer, TFD_TIMER_ABSTIME, &setting, nullptr );
        timerTime_ = time;
    }
}

bool EventLoop::canWake( Seconds maxSeconds ) const {
    const Seconds wakeup = clock_->timeMin();
    return !watches_.empty() || wakeup <= clock_->now() ||
           ( !clock_->isManual() && ( wakeup < neverTime || maxSeconds < neverTime ) );
}

bool EventLoop::turn( Seconds maxSeconds ) {
    ownProcess();
    if ( maxSeconds > 0 && dropClosed() ) {
        return true;
    }
    if ( isInnerStale_ ) {
        rebuildInner();
    }
    armTimer();
    std::array< epoll_event, 3 > ready;
    const int count = epoll_wait( descriptors_->outer, ready.data(), int( ready.size() ),
                                  millisecondsOf( maxSeconds ) );
    if ( count < 0 && errno != EINTR ) {
        throwSystemException( "epoll_wait", "the event loop", errno );
    }
    bool isInnerReady = false;
    for ( int i = 0; i < count; ++i ) {
        switch ( ready[ std::size_t( i ) ].data.u64 ) {
        case innerKey:
            isInnerReady = true;
            break;
        case timerKey:
            timerTime_ = std::numeric_limits< Seconds >::quiet_NaN();
            break;
        default:
            drainWake();
        }
    }
    const bool woken = clock_->runDue() > 0;
    return ( isInnerReady && serveDescriptors() ) || woken;
}

bool EventLoop::serveDescriptors() {
    std::array< epoll_event, 64 > ready; // the system serves the others in the next turn
    const int count = epoll_wait( *descriptors_->inner, ready.data(), int( ready.size() ), 0 );
    bool served = false;
    for ( int i = 0; i < count; ++i ) {
        const U64 id = ready[ std::size_t( i ) ].data.u64;
        if ( FileDescriptor* const owner = ownerOf( id ) ) {
            served = true;
            if ( fcntl( descriptorOf( id ), F_GETFD ) < 0 ) {
                takeClosed( watches_.find( descriptorOf( id ) ) ).handleDescriptor();
            } else {
                owner->handleReadable();
            }
        }
    }
    return served;
}

} // namespace Qel
