// Clocks: wake-ups on a clock that the test owns, and on the system's.

#include <gmock/gmock.h>

#include <cmath>
#include <functional>

#include <Qel/Clock>
#include <Qel/Exception>

#include "Sleeper.h"
#include "TraceCapture.h"

namespace {

using Qel::Clock;
using Qel::neverTime;
using QelTest::Sleeper;
using testing::ElementsAre;

class ClockTest : public testing::Test {
protected:
    ClockTest() { clock->manualTimeIs( 100 ); }
    Qel::Ptr< Sleeper > sleeper( int number, double time = neverTime ) {
        Qel::Ptr< Sleeper > made =
            new Sleeper( clock, [ this, number ] { woken.push_back( number ); } );
        made->timeMinIs( time );
        return made;
    }
    void advance( double time ) {
        clock->manualTimeIs( time );
        clock->runDue();
    }

    Clock::Ptr clock = new Clock( "clock" );
    std::vector< int > woken;
};

TEST_F( ClockTest, ManualTimeStandsUntilItIsMoved ) {
    EXPECT_TRUE( clock->isManual() );
    EXPECT_EQ( 100, clock->now() );
    clock->manualTimeIs( 99 );
    EXPECT_EQ( 99, clock->now() );
    const Qel::ExpectException quiet;
    EXPECT_THROW( clock->manualTimeIs( NAN ), Qel::RangeException );
    EXPECT_THROW( clock->manualTimeIs( neverTime ), Qel::RangeException );
    EXPECT_EQ( 99, clock->now() );
}

TEST_F( ClockTest, SystemTimeGoesForward ) {
    clock->manualTimeDel();
    EXPECT_FALSE( clock->isManual() );
    timespec before {};
    clock_gettime( CLOCK_MONOTONIC, &before );
    const double first = clock->now();
    const double second = clock->now();
    EXPECT_GE( first, double( before.tv_sec ) );
    EXPECT_GE( second, first );
}

TEST_F( ClockTest, WakesOnceWhenTheTimeHasCome ) {
    const auto a = sleeper( 1, 101 );
    EXPECT_EQ( 101, clock->timeMin() );
    EXPECT_EQ( 0U, clock->runDue() );
    clock->manualTimeIs( 101 );
    EXPECT_THAT( woken, ElementsAre() );
    EXPECT_EQ( 1U, clock->runDue() );
    EXPECT_THAT( woken, ElementsAre( 1 ) );
    EXPECT_EQ( neverTime, a->timeMin() );
    EXPECT_EQ( neverTime, clock->timeMin() );
    advance( 200 );
    EXPECT_THAT( woken, ElementsAre( 1 ) );
}

TEST_F( ClockTest, EarlierWakeupsComeFirst ) {
    const auto a = sleeper( 1, 103 );
    const auto b = sleeper( 2, 101 );
    const auto c = sleeper( 3, 102 );
    const auto d = sleeper( 4, 101 );
    advance( 102 );
    EXPECT_THAT( woken, ElementsAre( 2, 4, 3 ) );
    advance( 103 );
    EXPECT_THAT( woken, ElementsAre( 2, 4, 3, 1 ) );
}

TEST_F( ClockTest, NewTimeReplacesThePendingOne ) {
    const auto a = sleeper( 1, 101 );
    a->timeMinIs( 150 );
    advance( 101 );
    EXPECT_THAT( woken, ElementsAre() );
    a->timeMinIs( neverTime );
    EXPECT_EQ( neverTime, clock->timeMin() );
    a->timeMinIs( neverTime );
    advance( 200 );
    EXPECT_THAT( woken, ElementsAre() );
    a->timeMinIs( -neverTime );
    clock->runDue();
    EXPECT_THAT( woken, ElementsAre( 1 ) );
    const Qel::ExpectException quiet;
    a->timeMinIs( 300 );
    EXPECT_THROW( a->timeMinIs( NAN ), Qel::RangeException );
    EXPECT_EQ( 300, a->timeMin() );
}

TEST_F( ClockTest, ReactorMayAskAnewAndWaitsForTheNextTurn ) {
    Qel::Ptr< Sleeper > a;
    int calls = 0;
    a = new Sleeper( clock, [ & ] {
        EXPECT_EQ( neverTime, a->timeMin() );
        ++calls;
        a->timeMinIs( 50 ); // due already
    } );
    a->timeMinIs( 100 );
    EXPECT_EQ( 1U, clock->runDue() );
    EXPECT_EQ( 1, calls );
    EXPECT_EQ( 50, clock->timeMin() );
    EXPECT_EQ( 1U, clock->runDue() );
    EXPECT_EQ( 2, calls );
}

TEST_F( ClockTest, ReactorsMayWithdrawEachOther ) {
    Qel::Ptr< Sleeper > b = sleeper( 2, 100 );
    Qel::Ptr< Sleeper > c = sleeper( 3, 100 );
    Qel::Ptr< Sleeper > d = sleeper( 4, 100 );
    const Qel::Ptr< Sleeper > a = new Sleeper( clock, [ & ] {
        b = nullptr;
        c->timeMinIs( 100 ); // anew: not in this turn
        d->isRegisteredNotifieeIs( false );
    } );
    a->timeMinIs( 99 );
    clock->runDue();
    EXPECT_THAT( woken, ElementsAre( 2 ) ); // held by the running turn
    clock->runDue();
    EXPECT_THAT( woken, ElementsAre( 2, 3 ) );
}

TEST_F( ClockTest, UnregisteredReactorKeepsItsTime ) {
    const auto a = sleeper( 1, 101 );
    a->isRegisteredNotifieeIs( false );
    EXPECT_EQ( neverTime, clock->timeMin() );
    advance( 102 );
    EXPECT_THAT( woken, ElementsAre() );
    EXPECT_EQ( 101, a->timeMin() );
    a->isRegisteredNotifieeIs( true );
    clock->runDue();
    EXPECT_THAT( woken, ElementsAre( 1 ) );
}

TEST_F( ClockTest, MovesBetweenClocksAndOutlivesThem ) {
    const Clock::Ptr other = new Clock( "other" );
    other->manualTimeIs( 0 );
    const auto a = sleeper( 1, 101 );
    a->notifierIs( other );
    EXPECT_EQ( neverTime, clock->timeMin() );
    EXPECT_EQ( 101, other->timeMin() );
    a->notifierIs( clock );
    clock = nullptr;
    EXPECT_EQ( nullptr, a->notifier() );
    EXPECT_EQ( 101, a->timeMin() );
    a->timeMinIs( 5 );
    a->notifierIs( other );
    EXPECT_EQ( 5, other->timeMin() );
}

TEST_F( ClockTest, ClockMayDieInATurn ) {
    const Qel::Ptr< Sleeper > a = new Sleeper( clock, [ & ] { clock = nullptr; } );
    a->timeMinIs( 99 );
    const auto b = sleeper( 2, 100 );
    EXPECT_EQ( 1U, clock->runDue() );
    EXPECT_EQ( nullptr, b->notifier() );
    EXPECT_THAT( woken, ElementsAre() );
}

TEST_F( ClockTest, ReactorThatThrowsStopsNoOther ) {
    const QelTest::TraceCapture trace;
    const Qel::Ptr< Sleeper > a = new Sleeper( clock, [] { throw std::runtime_error( "tired" ); } );
    a->timeMinIs( 99 );
    const auto b = sleeper( 2, 100 );
    EXPECT_EQ( 2U, clock->runDue() );
    EXPECT_THAT( woken, ElementsAre( 2 ) );
    EXPECT_THAT( trace.texts(), ElementsAre( "QelReactor 0 a reactor threw: tired" ) );
}

} // namespace
