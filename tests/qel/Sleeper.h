// Reactors on clocks, for tests.

#pragma once

#include <functional>
#include <utility>

#include <Qel/Clock>

namespace QelTest {

// Does something when its time has come; none is set at first.
class Sleeper : public Qel::Clock::Notifiee {
public:
    Sleeper( const Qel::Clock::Ptr& clock, std::function< void() > action )
        : action_( std::move( action ) ) {
        notifierIs( clock );
        isRegisteredNotifieeIs( true );
    }
    void onTime() override { action_(); }

private:
    std::function< void() > action_;
};

} // namespace QelTest
