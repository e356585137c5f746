#include <Krell/WriterUnlockSm>

#include <cerrno>
#include <exception>
#include <sstream>

#include <sys/syscall.h>
#include <unistd.h>

#include <Krell/Directory>
#include <Krell/Exception>
#include <Krell/RootPath>
#include <Krell/Util>
#include <Krell/WriterLock>

namespace Krell {

namespace {

constexpr double lookSeconds = 0.1;
constexpr int caughtLevel = 1;

// A descriptor that becomes readable when the process is dead. Empty when there is no such process,
// or the system gives none: the timer has to do then.
Fd openProcess( pid_t pid ) {
    constexpr unsigned noFlags = 0;
    const long fd = syscall( SYS_pidfd_open, pid, noFlags );
    return fd < 0 ? Fd() : Fd( int( fd ) );
}

} // namespace

bool WriterUnlockSm::Holder::sameAs( const Holder& other ) const noexcept {
    const bool sameStart = startTime == other.startTime || startTime == 0 || other.startTime == 0;
    return pid == other.pid && sameStart;
}

WriterUnlockSm::WriterUnlockSm( Platform::DebugHandler& debug,
                                const std::string& instance,
                                const RootPath& root )
    : debug_( debug ), instance_( instance ), directory_( root.directory() ) {}

WriterUnlockSm::~WriterUnlockSm() = default;

void WriterUnlockSm::doConnect() {
    if ( connected_ ) {
        if ( sawRelease() ) {
            handleUnlocked();
        }
        return;
    }
    makeControls();
    const Holder holder = holderNow();
    timer_->setTimeout( lookSeconds );
    connected_ = true;
    watch( holder );
}

void WriterUnlockSm::doDisconnect() {
    if ( connected_ ) {
        connected_ = false;
        timer_->delTimeout();
        unwatch();
        lastFailure_.clear();
    }
}

void WriterUnlockSm::timeout() { lookAgain(); }

void WriterUnlockSm::fdEvent( int ) {
    if ( process_ ) {
        holderDied_ = true;
        fdControl_->delFd(); // it would say so in every turn
        process_ = Fd();
    }
    lookAgain();
}

void WriterUnlockSm::makeControls() {
    if ( !fdControl_ ) {
        fdControl_.reset( Platform::getFdControl( this ) );
    }
    if ( !timer_ ) {
        timer_.reset( Platform::getTimerControl( this ) );
    }
}

// Who holds the lock. The directory is opened anew: it may have been made, moved or replaced.
WriterUnlockSm::Holder WriterUnlockSm::holderNow() const {
    const Directory directory = Directory::open( directory_ );
    Holder holder;
    if ( directory.isOpen() ) {
        holder.pid = WriterLock::holderOf( directory );
    }
    if ( holder.pid > 0 ) {
        holder.startTime = Util::processStartTime( holder.pid );
    }
    return holder;
}

// A look from the event loop. A failure is traced where it is new, and the next look tries again.
void WriterUnlockSm::lookAgain() {
    if ( !connected_ ) {
        return;
    }
    timer_->setTimeout( lookSeconds );
    bool released = false;
    try {
        released = sawRelease();
    } catch ( const Exception& e ) {
        traceFailure( e.msg().c_str() );
    }
    if ( released ) {
        handleUnlocked();
    }
}

// Takes the present holder for the one that is known; whether the former one let go.
bool WriterUnlockSm::sawRelease() {
    const Holder now = holderNow();
    lastFailure_.clear();
    if ( !holderDied_ && now.sameAs( holder_ ) ) {
        return false;
    }
    const bool released = holder_.pid != 0;
    unwatch();
    watch( now );
    return released;
}

void WriterUnlockSm::watch( const Holder& holder ) {
    holder_ = holder;
    if ( holder_.pid == 0 ) {
        return;
    }
    process_ = openProcess( holder_.pid );
    if ( process_ ) {
        try {
            fdControl_->setFd( process_.get() );
        } catch ( const std::exception& e ) {
            process_ = Fd();
            traceFailure( e.what() );
        }
    }
}

void WriterUnlockSm::unwatch() {
    holder_ = Holder();
    holderDied_ = false;
    if ( process_ ) {
        fdControl_->delFd();
        process_ = Fd();
    }
}

void WriterUnlockSm::traceFailure( const char* what ) {
    if ( lastFailure_ != what && debug_.enabled( caughtLevel ) ) {
        constexpr int digits = 12;
        std::stringstream text;
        text.precision( digits );
        text << "Krell::WriterUnlockSm cannot look at '" << directory_ << "': " << what;
        debug_.dump( text, caughtLevel );
    }
    lastFailure_ = what;
}

} // namespace Krell
