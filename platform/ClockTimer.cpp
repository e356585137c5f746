// Timeouts for the collection library, and its way into the event loop.

#include <QelKrell/Platform>

#include <limits>

#include <Qel/ActivityManager>
#include <Qel/Exception>
#include <Qel/System>

#include "platform/Positions.h"
#include "values/DirectTrace.h"

namespace QelKrell {

namespace {

using position::stepLevel;

constexpr double never = std::numeric_limits< double >::infinity();

} // namespace

ClockTimer::ClockTimer( Krell::Platform::TimeoutHandler* handler,
                        const Qel::Ptr< Qel::Clock >& clock )
    : handler_( handler ), clock_( clock ) {
    if ( !clock_ ) {
        throw Qel::RangeException( "null ValidPtr" );
    }
    notifiee_ = new Notifiee( this );
    notifiee_->notifierIs( clock_ );
    notifiee_->isRegisteredNotifieeIs( true );
    notifiee_->timeMinIs( never );
}

ClockTimer::~ClockTimer() {
    notifiee_->orphan();
    ClockTimer::delTimeout();
    notifiee_ = nullptr;
}

void ClockTimer::setTimeout( double seconds ) {
    directTrace( stepLevel, position::setTimeout, [ seconds ]( std::ostream& text ) {
        text << "QelKrell::ClockTimer::setTimeout() " << seconds;
    } );
    notifiee_->timeMinIs( Qel::now() + seconds );
}

void ClockTimer::delTimeout() {
    directTrace( stepLevel, position::delTimeout,
                 []( std::ostream& text ) { text << "QelKrell::ClockTimer::delTimeout()"; } );
    notifiee_->timeMinIs( never );
}

ClockTimer::Notifiee::~Notifiee() {
    directTrace( stepLevel, position::timerNotifieeGone, []( std::ostream& text ) {
        text << "QelKrell::ClockTimer::Notifiee::~Notifiee()";
    } );
}

void ClockTimer::Notifiee::orphan() {
    directTrace( stepLevel, position::timerOrphan,
                 []( std::ostream& text ) { text << "QelKrell::ClockTimer::Notifiee::orphan()"; } );
    owner_ = nullptr;
}

void ClockTimer::Notifiee::onTime() {
    if ( !owner_ ) {
        directTrace( stepLevel, position::timerIgnoringOrphan, []( std::ostream& text ) {
            text << "QelKrell::ClockTimer::Notifiee::onTime() ignoring orphan";
        } );
        return;
    }
    directTrace( stepLevel, position::timerOnTime,
                 []( std::ostream& text ) { text << "QelKrell::ClockTimer::onTime()"; } );
    owner_->handler_->timeout();
}

} // namespace QelKrell

namespace Krell::Platform {

TimerControl* getTimerControl( TimeoutHandler* handler ) {
    return new QelKrell::ClockTimer( handler,
                                     Qel::ActivityManager::activityManager()->config()->clock() );
}

int doEventLoop() { return int( Qel::System::doRun() ); }

int doEventLoop( double seconds ) {
    Qel::ActivityManager::activityManager()->config()->executionTimeIs( seconds );
    return doEventLoop();
}

} // namespace Krell::Platform
