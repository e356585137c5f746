#include <Krell/WriterUnlockSm>

#include <algorithm>
#include <exception>
#include <sstream>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <Krell/Directory>
#include <Krell/Exception>
#include <Krell/RootPath>
#include <Krell/WriterLock>

namespace Krell {

namespace {

constexpr int caughtLevel = 1;
constexpr double lookSeconds = 0.1;
constexpr double soonSeconds = 0.01; // a writer hangs up just before it lets go
constexpr double slowSeconds = 1;    // what the directory's watch is not told of
constexpr int patience = 16;         // looks at a lock that goes from hand to hand

// A descriptor that becomes readable when the process is dead. Empty when there is no such process,
// or the system gives none.
Fd openProcess( pid_t pid ) {
    constexpr unsigned noFlags = 0;
    const long fd = syscall( SYS_pidfd_open, pid, noFlags );
    return fd < 0 ? Fd() : Fd( int( fd ) );
}

// No file is the same as another; two that are open have different identities.
bool isSameFile( const Fd& one, const Fd& other ) {
    struct stat a;
    struct stat b;
    return one && other && ::fstat( one.get(), &a ) == 0 && ::fstat( other.get(), &b ) == 0 &&
           a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

WriterUnlockSm::WriterUnlockSm( Platform::DebugHandler& debug,
                                const std::string& instance,
                                const RootPath& root )
    : debug_( debug ),
      instance_( instance ),
      directory_( root.directory() ),
      alive_( std::make_shared< const bool >( true ) ) {}

WriterUnlockSm::~WriterUnlockSm() = default;

void WriterUnlockSm::doConnect() {
    if ( connected_ ) {
        if ( !looking_ ) {
            mayCall_ = true;
            look();
            tell();
        }
        return;
    }
    makeControls();
    Sight first = see();
    stop();
    known_ = std::move( first );
    connected_ = true;
    lookAgain();
}

void WriterUnlockSm::doDisconnect() {
    if ( connected_ ) {
        connected_ = false;
        stop();
    }
}

// --- Events

void WriterUnlockSm::timeout() {
    mayCall_ = true;
    lookAgain();
}

void WriterUnlockSm::fdEvent( int ) {
    if ( process_ ) {
        fdControl_->delFd(); // it would say so in every turn
        process_.reset();
        died_ = true;
        hurry();
    }
    lookAgain();
}

// It is not called again before some other event, lest a holder that always hangs up keeps both
// busy.
void WriterUnlockSm::handleDisconnected() {
    mayCall_ = false;
    hurry();
    lookAgain();
}

// It may have begun to listen.
void WriterUnlockSm::handleDirectoryChanged() {
    mayCall_ = true;
    lookAgain();
}

// The lock is let go of just after the sign of it; that is waited for once with each holder.
void WriterUnlockSm::hurry() {
    if ( !hurried_ ) {
        hurried_ = true;
        delay_ = soonSeconds / 2;
    }
}

// --- Looking

void WriterUnlockSm::makeControls() {
    if ( watch_ ) {
        return;
    }
    fdControl_.reset( Platform::getFdControl( this ) );
    timer_.reset( Platform::getTimerControl( this ) );
    caller_.reset( new DoorbellCaller( debug_, *this ) );
    watch_.reset( new DirectoryWatch( debug_, *this ) );
}

// The directory is opened anew: it may have been made, moved or replaced.
WriterUnlockSm::Sight WriterUnlockSm::see() const {
    Sight sight;
    sight.time = ReignLine::now();
    const Directory directory = Directory::open( directory_ );
    if ( directory.isOpen() ) {
        sight.file = WriterLock::fileOf( directory );
    }
    if ( sight.file ) {
        sight.reigns =
            WriterLock::reignsOf( sight.file, directory.pathOf( WriterLock::fileName_ ) );
    }
    return sight;
}

// How many reigns ended from the last look to this one.
U64 WriterUnlockSm::endedSince( const Sight& now ) const {
    if ( isSameFile( known_.file, now.file ) ) {
        return Reigns::ended( known_.reigns, now.reigns );
    }
    Reigns last = known_.reigns;
    try {
        if ( known_.file ) {
            last = WriterLock::reignsOf( known_.file, directory_ );
        }
    } catch ( const Exception& ) { // what was known of it has to do
    }
    return Reigns::ended( known_.reigns, last.ended() ) +
           Reigns::endedOfNew( now.reigns, known_.time );
}

void WriterUnlockSm::observe() {
    Sight now = see();
    toTell_ += endedSince( now );
    const bool sameHolder =
        isSameFile( known_.file, now.file ) && now.reigns.sameHolder( known_.reigns );
    known_ = std::move( now );
    if ( !sameHolder ) {
        forgetHolder();
    }
}

// Lets go of all that belongs to a former holder.
void WriterUnlockSm::forgetHolder() {
    caller_->hangUp();
    if ( process_ ) {
        fdControl_->delFd();
        process_.reset();
    }
    died_ = hurried_ = false;
    mayCall_ = true;
    delay_ = lookSeconds;
}

// A look from the event loop. A failure is traced where it is new, and the next look tries again.
// Nothing of the object is touched after tell().
void WriterUnlockSm::lookAgain() {
    if ( !connected_ || looking_ ) {
        return;
    }
    std::string failure;
    try {
        look();
        lastFailure_.clear();
    } catch ( const Exception& e ) {
        failure = e.msg();
    } catch ( const std::exception& e ) {
        failure = e.what();
    }
    if ( !failure.empty() ) {
        traceFailure( lastFailure_, "look at", failure );
        timer_->setTimeout( lookSeconds );
    }
    tell();
}

// After each step towards the next event one looks once more: what came before is seen, what comes
// later is an event.
void WriterUnlockSm::look() {
    struct Looking {
        explicit Looking( bool& on ) : on_( on ) { on_ = true; }
        ~Looking() { on_ = false; }
        bool& on_;
    } const looking( looking_ );

    if ( watch_->started() ) {
        watch_->look();
    }
    observe();
    bool stepped = true;
    for ( int i = 0; stepped && i < patience; ++i ) {
        stepped = false;
        if ( known_.reigns.held() ) {
            stepped = watchProcess();
            stepped = callHolder() || stepped;
        }
        if ( listens() ) {
            watch_->stop();
        } else if ( !watch_->started() ) {
            watch_->start( directory_ );
            stepped = true;
        }
        if ( stepped ) {
            observe();
        }
    }
    setTimer();
}

// Whether it watches since now.
bool WriterUnlockSm::watchProcess() {
    const pid_t pid = known_.reigns.holder;
    if ( process_ || died_ || pid <= 0 || pid == ::getpid() ) {
        return false;
    }
    process_ = openProcess( pid );
    if ( !process_ ) {
        return false;
    }
    try {
        fdControl_->setFd( process_.get() );
    } catch ( ... ) {
        process_.reset();
        throw;
    }
    return true;
}

// Whether it is connected since now. A doorbell that a dead process left to a child is not the
// holder's.
bool WriterUnlockSm::callHolder() {
    if ( !mayCall_ || caller_->state() != DoorbellCaller::State::idle ) {
        return false;
    }
    mayCall_ = false;
    try {
        if ( !caller_->call( Directory::open( directory_ ) ) ) {
            return false;
        }
        lastCallFailure_.clear();
    } catch ( const Exception& e ) {
        traceFailure( lastCallFailure_, "call the writer of", e.msg() );
        return false;
    }
    const pid_t peer = caller_->peer();
    if ( peer > 0 && known_.reigns.holder > 0 && peer != known_.reigns.holder ) {
        caller_->hangUp(); // unless it is a successor's, which the next look finds
    }
    return true;
}

bool WriterUnlockSm::listens() const {
    return caller_->state() != DoorbellCaller::State::idle && !died_;
}

void WriterUnlockSm::setTimer() {
    if ( listens() ) {
        timer_->delTimeout();
    } else if ( known_.reigns.held() ) {
        delay_ = std::min( 2 * delay_, lookSeconds );
        timer_->setTimeout( delay_ );
    } else {
        timer_->setTimeout( watch_->watching() ? slowSeconds : lookSeconds );
    }
}

// Each call may connect, disconnect and destroy. Connecting and disconnecting change what is there
// to be told.
void WriterUnlockSm::tell() {
    const std::weak_ptr< const bool > alive = alive_;
    while ( !alive.expired() && toTell_ > 0 ) {
        --toTell_;
        handleUnlocked();
    }
}

void WriterUnlockSm::stop() {
    forgetHolder();
    timer_->delTimeout();
    watch_->stop();
    known_ = Sight();
    toTell_ = 0;
    lastFailure_.clear();
    lastCallFailure_.clear();
}

void WriterUnlockSm::traceFailure( std::string& last,
                                   const char* what,
                                   const std::string& reason ) {
    if ( last != reason && debug_.enabled( caughtLevel ) ) {
        constexpr int digits = 12;
        std::stringstream text;
        text.precision( digits );
        text << "Krell::WriterUnlockSm cannot " << what << " '" << directory_ << "': " << reason;
        debug_.dump( text, caughtLevel );
    }
    last = reason;
}

} // namespace Krell
