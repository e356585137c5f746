// Timeouts of the collection library, on a clock that the test owns, and its event loop.

#include <QelKrell/Platform>

#include <limits>
#include <memory>

#include <Qel/ActivityManager>
#include <Qel/Exception>
#include <Qel/System>
#include <gmock/gmock.h>

#include "Raised.h"
#include "platform/ManualClock.h"
#include "platform/Tracing.h"

namespace {

using QelKrellTest::Message;
using QelKrellTest::Tracing;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr double never = std::numeric_limits< double >::infinity();

class Handler : public Krell::Platform::TimeoutHandler {
public:
    void timeout() override {
        ++timeouts;
        if ( then ) {
            then();
        }
    }
    int timeouts = 0;
    std::function< void() > then;
};

Message message( unsigned line, const std::string& function, const std::string& text ) {
    return { "Krell", "Platform", line, function, 5, "QelKrell::ClockTimer::" + text };
}

class ClockTimer : public testing::Test {
protected:
    QelKrell::ClockTimer& adapter() { return dynamic_cast< QelKrell::ClockTimer& >( *control ); }
    double timeMin() { return adapter().notifiee()->timeMin(); }

    Tracing tracing { "" };
    QelKrellTest::ManualClock clock;
    Handler handler;
    std::unique_ptr< Krell::Platform::TimerControl > control { Krell::Platform::getTimerControl(
        &handler ) };
};

TEST_F( ClockTimer, IsMadeIdleOnTheActivityManagersClock ) {
    EXPECT_EQ( timeMin(), never );
    EXPECT_TRUE( adapter().notifiee()->isRegisteredNotifiee() );
    EXPECT_EQ( adapter().notifiee()->notifier(),
               Qel::ActivityManager::activityManager()->config()->clock().get() );
    clock.advance( 1000 );
    EXPECT_EQ( handler.timeouts, 0 );
}

TEST_F( ClockTimer, ANullClockIsRefused ) {
    const auto make = [ this ] { QelKrell::ClockTimer( &handler, nullptr ); };
    EXPECT_EQ( QelKrellTest::raised< Qel::RangeException >( make ), "null ValidPtr" );
}

TEST_F( ClockTimer, ComesOnceAtItsTime ) {
    control->setTimeout( 2.5 );
    EXPECT_EQ( timeMin(), clock.now() + 2.5 );
    clock.advance( 2.25 );
    EXPECT_EQ( handler.timeouts, 0 );
    clock.advance( 0.25 );
    EXPECT_EQ( handler.timeouts, 1 );
    clock.advance( 100 );
    EXPECT_EQ( handler.timeouts, 1 );
}

TEST_F( ClockTimer, ANewTimeoutReplacesThePendingOne ) {
    control->setTimeout( 1 );
    control->setTimeout( 3 );
    clock.advance( 2 );
    EXPECT_EQ( handler.timeouts, 0 );
    clock.advance( 1 );
    EXPECT_EQ( handler.timeouts, 1 );
}

TEST_F( ClockTimer, DelTimeoutEndsItAndIsNoErrorOnAnIdleTimer ) {
    control->setTimeout( 1 );
    control->delTimeout();
    EXPECT_EQ( timeMin(), never );
    control->delTimeout();
    EXPECT_EQ( timeMin(), never );
    clock.advance( 2 );
    EXPECT_EQ( handler.timeouts, 0 );
}

TEST_F( ClockTimer, TheHandlerMayArmItAnew ) {
    control->setTimeout( 1 );
    handler.then = [ this ] { control->setTimeout( 1 ); };
    clock.advance( 1 );
    clock.advance( 1 );
    clock.advance( 0.5 );
    EXPECT_EQ( handler.timeouts, 2 );
}

TEST_F( ClockTimer, ATimeOfZeroOrLessComesInTheNextTurn ) {
    for ( double seconds : { 0.0, -5.0 } ) {
        handler.timeouts = 0;
        control->setTimeout( seconds );
        EXPECT_EQ( handler.timeouts, 0 );
        Qel::System::runOnce( 0 );
        EXPECT_EQ( handler.timeouts, 1 );
    }
}

TEST_F( ClockTimer, ATimeThatIsNoneIsRefusedAndChangesNothing ) {
    control->setTimeout( 1 );
    EXPECT_THROW( control->setTimeout( std::numeric_limits< double >::quiet_NaN() ),
                  Qel::RangeException );
    clock.advance( 1 );
    EXPECT_EQ( handler.timeouts, 1 );
}

TEST_F( ClockTimer, TheHandlerMayDestroyTheAdapter ) {
    control->setTimeout( 1 );
    handler.then = [ this ] { control.reset(); };
    clock.advance( 1 );
    EXPECT_EQ( handler.timeouts, 1 );
    EXPECT_FALSE( control );
}

TEST_F( ClockTimer, OneDestroyedByAnothersHandlerDoesNotFire ) {
    Handler second;
    std::unique_ptr< Krell::Platform::TimerControl > other(
        Krell::Platform::getTimerControl( &second ) );
    control->setTimeout( 1 );
    other->setTimeout( 1 );
    handler.then = [ & ] { other.reset(); };
    clock.advance( 1 );
    EXPECT_EQ( handler.timeouts, 1 );
    EXPECT_EQ( second.timeouts, 0 );
}

TEST_F( ClockTimer, MessagesStandWhereTheyStood ) {
    tracing.settingsAre( "Krell/5" );
    control->setTimeout( 1.0 / 3 );
    control->setTimeout( 0.1 );
    clock.advance( 0.1 );
    control->delTimeout();
    control.reset();
    EXPECT_THAT( tracing.taken(),
                 ElementsAre( message( 91, "setTimeout", "setTimeout() 0.333333333333" ),
                              message( 91, "setTimeout", "setTimeout() 0.1" ),
                              message( 69, "onTime", "onTime()" ),
                              message( 96, "delTimeout", "delTimeout()" ),
                              message( 60, "orphan", "Notifiee::orphan()" ),
                              message( 96, "delTimeout", "delTimeout()" ),
                              message( 55, "~Notifiee", "Notifiee::~Notifiee()" ) ) );
    control.reset( Krell::Platform::getTimerControl( &handler ) );
    EXPECT_THAT( tracing.taken(), IsEmpty() );
}

TEST_F( ClockTimer, ALateNotificationIsTracedAndDropped ) {
    auto notifiee = adapter().notifiee();
    control.reset();
    tracing.settingsAre( "Krell/5" );
    notifiee->onTime();
    EXPECT_THAT( tracing.taken(),
                 ElementsAre( message( 37, "onTime", "Notifiee::onTime() ignoring orphan" ) ) );
    EXPECT_EQ( handler.timeouts, 0 );
}

TEST_F( ClockTimer, AnEndedEventLoopSaysWhy ) {
    EXPECT_EQ( Krell::Platform::doEventLoop(), int( Qel::System::idle_ ) );
    control->setTimeout( 0 );
    handler.then = [] { Qel::System::stop(); };
    EXPECT_EQ( Krell::Platform::doEventLoop(), int( Qel::System::stopped_ ) );
    EXPECT_EQ( handler.timeouts, 1 );
}

TEST_F( ClockTimer, AnEventLoopRunsForTheGivenTime ) {
    const auto config = Qel::ActivityManager::activityManager()->config();
    control->setTimeout( 0 );
    handler.then = [ & ] {
        EXPECT_EQ( config->executionTime(), 5 );
        clock.set( clock.now() + 5 );
    };
    EXPECT_EQ( Krell::Platform::doEventLoop( 5 ), int( Qel::System::executionTime_ ) );
    EXPECT_EQ( handler.timeouts, 1 );
    EXPECT_EQ( config->executionTime(), never );
}

} // namespace
