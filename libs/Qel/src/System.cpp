#include <Qel/System>

#include <Qel/ActivityManager>
#include <Qel/Exception>

#include "EventLoop.h"

namespace Qel {

System::RunEnd System::doRun() {
    EventLoop& loop = EventLoop::eventLoop();
    const EventLoop::Running running( loop, "System::doRun()" );
    const ActivityManagerConfig::Ptr config = ActivityManager::activityManager()->config();
    const Seconds start = now();
    for ( bool first = true;; first = false ) {
        if ( loop.takeStop() ) {
            return stopped_;
        }
        const Seconds left = config->executionTime() - ( now() - start );
        if ( left <= 0 && !first ) {
            config->executionTimeIs( neverTime );
            return executionTime_;
        }
        if ( left > 0 && !loop.canWake( left ) ) {
            return idle_;
        }
        loop.turn( left );
    }
}

void System::stop() noexcept { EventLoop::stop(); }

bool System::runOnce( Seconds maxSeconds ) {
    if ( !( maxSeconds >= 0 ) ) {
        throw RangeException( "System::runOnce() of a time that is no number of seconds from 0" );
    }
    EventLoop& loop = EventLoop::eventLoop();
    const EventLoop::Running running( loop, "System::runOnce()" );
    return loop.turn( maxSeconds );
}

int System::descriptor() { return EventLoop::eventLoop().descriptor(); }

} // namespace Qel
