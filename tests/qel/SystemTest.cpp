// The event loop: why it ends, who may stop it, timers, embedding, refusals.

#include <gmock/gmock.h>

#include <csignal>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <Qel/ActivityManager>
#include <Qel/Exception>
#include <Qel/FileDescriptor>
#include <Qel/System>

#include "Sleeper.h"
#include "TraceCapture.h"

namespace {

using Qel::Clock;
using Qel::FileDescriptor;
using Qel::neverTime;
using Qel::System;
using QelTest::Sleeper;
using testing::ElementsAre;

class Reader : public FileDescriptor::Notifiee {
public:
    Reader( const FileDescriptor::Ptr& file, std::function< void() > action )
        : action_( std::move( action ) ) {
        notifierIs( file );
        isRegisteredNotifieeIs( true );
    }
    void onReadableCount() override { action_(); }

private:
    std::function< void() > action_;
};

class SystemTest : public testing::Test {
protected:
    SystemTest() {
        EXPECT_EQ( 0, pipe2( ends, O_CLOEXEC | O_NONBLOCK ) );
        file->notifyOnReadableIs( true );
    }
    ~SystemTest() override {
        file->descriptorIs( -1 );
        close( ends[ 0 ] );
        close( ends[ 1 ] );
        config->executionTimeIs( neverTime );
        clock->manualTimeDel();
    }
    // A watched descriptor keeps the loop waiting.
    void watch() { file->descriptorIs( ends[ 0 ] ); }
    void fill() { EXPECT_EQ( 1, write( ends[ 1 ], "x", 1 ) ); }
    bool isEmbedderWoken() const {
        pollfd polled = { System::descriptor(), POLLIN, 0 };
        return poll( &polled, 1, 0 ) == 1;
    }

    int ends[ 2 ] = { -1, -1 };
    FileDescriptor::Ptr file = new FileDescriptor( "pipe" );
    Qel::ActivityManagerConfig::Ptr config = Qel::ActivityManager::activityManager()->config();
    Clock::Ptr clock = config->clock();
};

TEST_F( SystemTest, NowIsTheTimeOfTheConfiguredClock ) {
    clock->manualTimeIs( 12.5 );
    EXPECT_EQ( 12.5, Qel::now() );
    EXPECT_EQ( Qel::ActivityManager::activityManager(), Qel::ActivityManager::activityManager() );
}

TEST_F( SystemTest, RunEndsWhenNothingCanHappen ) {
    EXPECT_EQ( System::idle_, System::doRun() );
    clock->manualTimeIs( 0 );
    const Qel::Ptr< Sleeper > waker = new Sleeper( clock, [] {} );
    waker->timeMinIs( 1 ); // manual time does not move by itself
    EXPECT_EQ( System::idle_, System::doRun() );
    config->executionTimeIs( 10 );
    EXPECT_EQ( System::idle_, System::doRun() );
}

TEST_F( SystemTest, RunEndsWhenTheExecutionTimeIsOver ) {
    EXPECT_EQ( neverTime, config->executionTime() );
    watch();
    config->executionTimeIs( 0.01 );
    EXPECT_EQ( System::executionTime_, System::doRun() );
    EXPECT_EQ( neverTime, config->executionTime() );
}

TEST_F( SystemTest, ExecutionTimeIsCountedFromTheStartOfTheRun ) {
    clock->manualTimeIs( 1000 );
    watch();
    fill();
    config->executionTimeIs( 5 );
    int turns = 0;
    const Qel::Ptr< Reader > reader = new Reader( file, [ & ] {
        ++turns;
        clock->manualTimeIs( clock->now() + 2 );
    } );
    EXPECT_EQ( System::executionTime_, System::doRun() );
    EXPECT_EQ( 3, turns );
    EXPECT_EQ( 1006, clock->now() );
}

TEST_F( SystemTest, ExecutionTimeMayBeSetInARunAndOutlivesARunThatItDidNotEnd ) {
    watch();
    fill();
    config->executionTimeIs( 1000 );
    const Qel::Ptr< Reader > reader = new Reader( file, [ & ] { System::stop(); } );
    EXPECT_EQ( System::stopped_, System::doRun() );
    EXPECT_EQ( 1000, config->executionTime() );
    const Qel::Ptr< Reader > shorter = new Reader( file, [ & ] { config->executionTimeIs( 0 ); } );
    reader->notifierIs( nullptr );
    EXPECT_EQ( System::executionTime_, System::doRun() );
}

TEST_F( SystemTest, ExecutionTimeOfZeroIsOneTurn ) {
    watch();
    fill();
    config->executionTimeIs( 0 );
    EXPECT_EQ( System::executionTime_, System::doRun() );
    EXPECT_EQ( 1U, file->readableCount() );
}

TEST_F( SystemTest, BadTimesAreRefused ) {
    const Qel::ExpectException quiet;
    EXPECT_THROW( config->executionTimeIs( -1 ), Qel::RangeException );
    EXPECT_THROW( config->executionTimeIs( std::nan( "" ) ), Qel::RangeException );
    EXPECT_EQ( neverTime, config->executionTime() );
    EXPECT_THROW( System::runOnce( -1 ), Qel::RangeException );
    EXPECT_THROW( System::runOnce( std::nan( "" ) ), Qel::RangeException );
}

TEST_F( SystemTest, TimersFireInTheirOrderOnTheSystemsClock ) {
    std::vector< int > fired;
    const Qel::Ptr< Sleeper > b = new Sleeper( clock, [ & ] { fired.push_back( 2 ); } );
    const Qel::Ptr< Sleeper > a = new Sleeper( clock, [ & ] { fired.push_back( 1 ); } );
    const double start = Qel::now();
    b->timeMinIs( start + 0.002 );
    a->timeMinIs( start + 0.001 );
    EXPECT_EQ( System::idle_, System::doRun() ); // nothing is left when both have fired
    EXPECT_THAT( fired, ElementsAre( 1, 2 ) );
    EXPECT_GE( Qel::now(), start + 0.002 );
}

TEST_F( SystemTest, FarAndPastTimesAreNoTrouble ) {
    watch();
    const Qel::Ptr< Sleeper > far = new Sleeper( clock, [] { FAIL(); } );
    far->timeMinIs( 1e300 );
    EXPECT_FALSE( System::runOnce( 0 ) );
    int fired = 0;
    const Qel::Ptr< Sleeper > past = new Sleeper( clock, [ & ] { ++fired; } );
    past->timeMinIs( -1e300 );
    EXPECT_TRUE( System::runOnce( neverTime ) );
    EXPECT_EQ( 1, fired );
    fill();
    EXPECT_TRUE( System::runOnce( 1e300 ) );
}

TEST_F( SystemTest, DueWakeupsRunBeforeDescriptors ) {
    std::vector< std::string > order;
    watch();
    fill();
    const Qel::Ptr< Reader > reader =
        new Reader( file, [ & ] { order.push_back( "descriptor" ); } );
    const Qel::Ptr< Sleeper > waker = new Sleeper( clock, [ & ] { order.push_back( "time" ); } );
    clock->manualTimeIs( 10 );
    waker->timeMinIs( 9 );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_THAT( order, ElementsAre( "time", "descriptor" ) );
}

TEST_F( SystemTest, ManualTimeMovedByAReactorIsServedNext ) {
    watch();
    fill();
    clock->manualTimeIs( 0 );
    const Qel::Ptr< Sleeper > waker = new Sleeper( clock, [] { System::stop(); } );
    waker->timeMinIs( 100 );
    const Qel::Ptr< Reader > reader = new Reader( file, [ & ] {
        char byte;
        EXPECT_EQ( 1, read( ends[ 0 ], &byte, 1 ) );
        clock->manualTimeIs( 100 );
    } );
    EXPECT_EQ( System::stopped_, System::doRun() );
    EXPECT_EQ( neverTime, waker->timeMin() );
}

TEST_F( SystemTest, ReactorStopsTheRunAfterItsTurn ) {
    watch();
    fill();
    const Qel::Ptr< Reader > reader = new Reader( file, [] {
        System::stop();
        System::stop();
    } );
    EXPECT_EQ( System::stopped_, System::doRun() );
    EXPECT_EQ( 1U, file->readableCount() );
    file->descriptorIs( -1 );
    EXPECT_EQ( System::idle_, System::doRun() ); // the stop was used up
}

TEST_F( SystemTest, StopBeforeARunEndsItAtOnce ) {
    watch();
    fill();
    System::stop();
    EXPECT_EQ( System::stopped_, System::doRun() );
    EXPECT_EQ( 0U, file->readableCount() );
}

TEST_F( SystemTest, AnotherThreadStopsTheRun ) {
    watch();
    const std::jthread other( [] { System::stop(); } );
    EXPECT_EQ( System::stopped_, System::doRun() );
}

TEST_F( SystemTest, StopIsNeverLost ) {
    watch();
    for ( int i = 0; i < 500; ++i ) {
        const std::jthread other( [] { System::stop(); } );
        ASSERT_EQ( System::stopped_, System::doRun() );
    }
}

TEST_F( SystemTest, SignalHandlerStopsTheRun ) {
    watch();
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = []( int ) { System::stop(); };
    ASSERT_EQ( 0, sigaction( SIGUSR1, &action, &before ) );
    const pthread_t loopThread = pthread_self();
    // The handler interrupts the wait, or comes before it: either way the run ends.
    const std::jthread other( [ loopThread ] { pthread_kill( loopThread, SIGUSR1 ); } );
    EXPECT_EQ( System::stopped_, System::doRun() );
    sigaction( SIGUSR1, &before, nullptr );
}

TEST_F( SystemTest, RunningLoopDoesNotRunAgain ) {
    const QelTest::TraceCapture trace;
    watch();
    fill();
    std::vector< std::string > refused;
    const Qel::Ptr< Reader > reader = new Reader( file, [ & ] {
        const Qel::ExpectException quiet;
        try {
            System::doRun();
        } catch ( const Qel::InternalException& e ) {
            refused.push_back( e.what() );
        }
        System::stop();
        System::runOnce( 0 );
    } );
    EXPECT_EQ( System::stopped_, System::doRun() );
    EXPECT_THAT( refused, ElementsAre( "System::doRun() called while the event loop runs" ) );
    EXPECT_THAT( trace.texts(),
                 ElementsAre( "QelReactor 0 a reactor threw: System::runOnce() called while "
                              "the event loop runs" ) );
}

TEST_F( SystemTest, ReactorThatThrowsDoesNotEndTheRun ) {
    const QelTest::TraceCapture trace;
    watch();
    fill();
    int turns = 0;
    const Qel::Ptr< Reader > reader = new Reader( file, [ & ] {
        if ( ++turns == 3 ) {
            System::stop();
        }
        throw std::runtime_error( "again" );
    } );
    EXPECT_EQ( System::stopped_, System::doRun() );
    EXPECT_EQ( 3, turns );
    EXPECT_EQ( 3U, trace.texts().size() );
}

TEST_F( SystemTest, EmbeddersAreWokenByWhatTheLoopWouldServe ) {
    const int descriptor = System::descriptor();
    EXPECT_FALSE( isEmbedderWoken() );
    watch();
    EXPECT_FALSE( isEmbedderWoken() );
    fill();
    EXPECT_TRUE( isEmbedderWoken() );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_TRUE( isEmbedderWoken() );
    char byte;
    EXPECT_EQ( 1, read( ends[ 0 ], &byte, 1 ) );
    EXPECT_FALSE( isEmbedderWoken() );

    const Qel::Ptr< Sleeper > waker = new Sleeper( clock, [] {} );
    waker->timeMinIs( Qel::now() + 0.001 );
    pollfd polled = { descriptor, POLLIN, 0 };
    EXPECT_EQ( 1, poll( &polled, 1, -1 ) );
    while ( waker->timeMin() < neverTime ) {
        System::runOnce( 0 );
    }
    EXPECT_FALSE( isEmbedderWoken() );

    clock->manualTimeIs( 5 );
    waker->timeMinIs( 6 );
    EXPECT_FALSE( isEmbedderWoken() );
    clock->manualTimeIs( 6 );
    EXPECT_TRUE( isEmbedderWoken() );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_FALSE( isEmbedderWoken() );

    System::stop();
    EXPECT_TRUE( isEmbedderWoken() );
    EXPECT_FALSE( System::runOnce( 0 ) );
    EXPECT_FALSE( isEmbedderWoken() );
    EXPECT_EQ( descriptor, System::descriptor() );
    EXPECT_EQ( System::stopped_, System::doRun() );
}

TEST_F( SystemTest, EmbeddersDescriptorOutlivesClosedDescriptors ) {
    const QelTest::TraceCapture trace;
    const int copy = dup( ends[ 0 ] );
    watch();
    const FileDescriptor::Ptr other = new FileDescriptor( "copy" );
    other->descriptorIs( copy );
    other->notifyOnReadableIs( true );
    const int descriptor = System::descriptor();
    close( copy );
    other->descriptorIs( -1 );
    fill();
    EXPECT_TRUE( isEmbedderWoken() );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 1U, file->readableCount() );
    EXPECT_EQ( descriptor, System::descriptor() );
    EXPECT_TRUE( isEmbedderWoken() );
    file->descriptorIs( -1 );
    EXPECT_FALSE( isEmbedderWoken() );
}

} // namespace
