// The event loop's clock in a test's hands.

#pragma once

#include <Qel/ActivityManager>
#include <Qel/System>

namespace QelKrellTest {

// While it lives, time stands still but for advance().
class ManualClock {
public:
    ManualClock() { set( 1000 ); }
    ~ManualClock() { clock_->manualTimeDel(); }
    ManualClock( const ManualClock& ) = delete;
    ManualClock& operator=( const ManualClock& ) = delete;

    double now() const { return clock_->now(); }
    void set( double time ) { clock_->manualTimeIs( time ); }
    // Moves time on and gives the loop one turn.
    void advance( double seconds ) {
        set( now() + seconds );
        Qel::System::runOnce( 0 );
    }

private:
    Qel::Clock::Ptr clock_ = Qel::ActivityManager::activityManager()->config()->clock();
};

} // namespace QelKrellTest
