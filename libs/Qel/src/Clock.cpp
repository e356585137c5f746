#include <Qel/Clock>

#include <cmath>
#include <ctime>
#include <vector>

#include <Qel/ActivityManager>
#include <Qel/Exception>

#include "EventLoop.h"

namespace Qel {

Clock::Clock( const Name& name ) : Entity( name ) {}

Clock::~Clock() {
    for ( const Wakeup& wakeup : wakeups_ ) {
        wakeup.notifiee->armedOn_ = nullptr;
    }
}

Seconds Clock::now() const {
    if ( isManual_ ) {
        return manualTime_;
    }
    constexpr Seconds nanosecond = 1e-9;
    timespec time {};
    clock_gettime( CLOCK_MONOTONIC, &time );
    return Seconds( time.tv_sec ) + Seconds( time.tv_nsec ) * nanosecond;
}

void Clock::manualTimeIs( Seconds time ) {
    if ( !std::isfinite( time ) ) {
        throw RangeException( "clock '" + fullName() + "': manual time is not finite" );
    }
    isManual_ = true;
    manualTime_ = time;
    EventLoop::handleClock();
}

void Clock::manualTimeDel() {
    isManual_ = false;
    EventLoop::handleClock();
}

Seconds Clock::timeMin() const noexcept {
    return wakeups_.empty() ? neverTime : wakeups_.begin()->time;
}

U32 Clock::runDue() {
    struct Due {
        Qel::Ptr< Notifiee > notifiee;
        U64 serial;
    };
    std::vector< Due > due;
    const Seconds time = now();
    for ( auto at = wakeups_.begin(); at != wakeups_.end() && at->time <= time; ++at ) {
        if ( at->notifiee->references() > 0 ) {
            due.push_back( { at->notifiee, at->serial } );
        }
    }
    U32 count = 0;
    for ( const Due& d : due ) {
        if ( d.notifiee->armedOn_ && d.notifiee->serial_ == d.serial ) {
            d.notifiee->timeMinIs( neverTime );
            guardedCall( *d.notifiee, []( Notifiee& n ) { n.onTime(); } );
            ++count;
        }
    }
    return count;
}

U64 Clock::arm( Seconds time, Notifiee& notifiee ) {
    const U64 serial = ++lastSerial_;
    const bool first = time < timeMin();
    wakeups_.insert( { time, serial, &notifiee } );
    if ( first ) {
        EventLoop::handleClock();
    }
    return serial;
}

void Clock::disarm( Seconds time, U64 serial ) noexcept {
    wakeups_.erase( { time, serial, nullptr } );
}

// --- Reactors

Clock::Notifiee::~Notifiee() { disarm(); }

void Clock::Notifiee::timeMinIs( Seconds time ) {
    if ( std::isnan( time ) ) {
        throw RangeException( "the wake-up time of a clock's reactor is not a number" );
    }
    disarm();
    timeMin_ = time;
    arm();
}

void Clock::Notifiee::handleNotifier() {
    disarm();
    arm();
}

void Clock::Notifiee::arm() {
    if ( notifier() && isRegisteredNotifiee() && timeMin_ < neverTime ) {
        serial_ = notifier()->arm( timeMin_, *this );
        armedOn_ = notifier();
    }
}

void Clock::Notifiee::disarm() noexcept {
    if ( armedOn_ ) {
        armedOn_->disarm( timeMin_, serial_ );
        armedOn_ = nullptr;
    }
}

Seconds now() { return ActivityManager::activityManager()->config()->clock()->now(); }

} // namespace Qel
