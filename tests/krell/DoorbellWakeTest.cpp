// No wake-up is lost: a writer publishes just when a reader falls asleep, which has nothing but the
// doorbell to wake it.

#include <Krell/Doorbell>

#include <csignal>
#include <cstdlib>
#include <thread>

#include <gmock/gmock.h>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <Dov/Atomics>

#include "Torture.h"
#include "krell/DoorbellSupport.h"
#include "krell/EngineSupport.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using State = DoorbellCaller::State;
namespace Atomics = Dov::Atomics;

constexpr U32 spinsOfASleep = 1U << 17; // more than it takes to be kicked and to fall asleep
constexpr int stuckMs = 60000;          // a reader that sees nothing for so long sleeps for good

// What writer and reader share beside the doorbell.
struct Shared {
    alignas( 64 ) U64 head;     // the writer's last change
    alignas( 64 ) U64 last;     // the change after which there is none; 0: not known yet
    alignas( 64 ) U64 sleeps;   // of the reader, so far
    alignas( 64 ) U64 seen;     // by the reader, last
    alignas( 64 ) U64 kicks;    // received
    alignas( 64 ) U64 idleRuns; // of the reader: arms after which the head had moved
    alignas( 64 ) U64 kicksIssued;
    alignas( 64 ) U64 givenUp; // nobody waits for the reader any more
};

// Pauses of many lengths, on both sides: so that publishing and falling asleep meet at every place,
// in spite of the time that a word takes from one processor to the other.
class Pause {
public:
    // Of up to 2^log2 loads.
    explicit Pause( unsigned log2 = usual ) : log2_( log2 ) {}

    static constexpr unsigned usual = 11;
    static constexpr unsigned ofAFenceForAll = 16; // covers the sleeper's call

    void operator()() {
        for ( U32 i = length(); i != 0; --i ) {
            Atomics::loadAcquire( &state_ );
        }
    }
    U32 length() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return U32( state_ >> 32 ) % ( 1U << ( state_ % ( log2_ + 1 ) ) );
    }

private:
    const unsigned log2_;
    U64 state_ = 0x9e3779b97f4a7c15u;
};

// Follows the head until the last change, as a reader of a queue would.
class Follower : public DoorbellCaller::Handler {
public:
    Follower( DoorbellCaller& caller, Shared& shared ) : caller_( caller ), shared_( shared ) {}

    bool isDone() const { return done_; }
    void handleConnected() override { follow(); }
    void handleKick() override { follow(); }
    void handleDisconnected() override { lost_ = true; }
    bool isLost() const { return lost_; }

private:
    void follow() {
        for ( ;; ) {
            const U64 seen = look();
            caller_.consumedIs( seen );
            if ( done_ ) {
                return;
            }
            pause_();
            caller_.arm();
            if ( look() == seen ) {
                Atomics::storeRelease( &shared_.sleeps, ++sleeps_ );
                return;
            }
            caller_.disarm();
            Atomics::storeRelease( &shared_.idleRuns, ++idleRuns_ );
        }
    }
    U64 look() {
        const U64 head = Atomics::loadAcquire( &shared_.head );
        const U64 last = Atomics::loadAcquire( &shared_.last );
        Atomics::storeRelease( &shared_.seen, head );
        done_ = last != 0 && head == last;
        return head;
    }

    DoorbellCaller& caller_;
    Shared& shared_;
    bool done_ = false;
    bool lost_ = false;
    U64 sleeps_ = 0;
    U64 idleRuns_ = 0;
    Pause pause_;
};

// Each round is one change, around the time at which the reader falls asleep, and must reach it:
// nothing follows that would wake it instead. Rings that announce nothing come before: they keep
// the reader's page at hand, so that no slow load gives the change time to arrive first. False when
// the reader was given up.
bool publishUntil( U64 sleeps, Doorbell& bell, Shared& shared ) {
    Pause pause( bell.fences() == 0 ? Pause::ofAFenceForAll : Pause::usual );
    U64 head = 0;
    for ( bool more = true; more; ) {
        more = Atomics::loadAcquire( &shared.sleeps ) < sleeps;
        pause();
        for ( U32 i = pause.length() / 16; i != 0; --i ) {
            bell.ring();
        }
        ++head;
        if ( !more ) {
            Atomics::storeRelease( &shared.last, head );
        }
        Atomics::storeRelease( &shared.head, head );
        bell.ring();
        for ( U32 spins = 0; Atomics::loadAcquire( &shared.seen ) != head; ++spins ) {
            if ( Atomics::loadAcquire( &shared.givenUp ) != 0 ) {
                return false;
            }
            if ( spins % spinsOfASleep == spinsOfASleep - 1 ) {
                std::this_thread::yield();
            }
        }
    }
    Atomics::storeRelease( &shared.kicksIssued, bell.kicksIssued() );
    return true;
}

// Binds the thread to a processor of its own, where there are two: the system would put a reader
// where its writer runs, and the two would take turns instead of racing.
void runApart( int which ) {
    cpu_set_t allowed;
    CPU_ZERO( &allowed );
    ::sched_getaffinity( 0, sizeof allowed, &allowed );
    for ( int cpu = 0, found = 0; cpu < CPU_SETSIZE; ++cpu ) {
        if ( CPU_ISSET( cpu, &allowed ) && found++ == which ) {
            cpu_set_t own;
            CPU_ZERO( &own );
            CPU_SET( cpu, &own );
            ::sched_setaffinity( 0, sizeof own, &own );
        }
    }
}

class DoorbellWakeTest : public testing::Test {
protected:
    DoorbellWakeTest()
        : shared_( static_cast< Shared* >( ::mmap( nullptr,
                                                   sizeof( Shared ),
                                                   PROT_READ | PROT_WRITE,
                                                   MAP_SHARED | MAP_ANONYMOUS,
                                                   -1,
                                                   0 ) ) ) {}
    ~DoorbellWakeTest() override { ::munmap( shared_, sizeof( Shared ) ); }

    // Whether the other end of the pipe is written to, while the reader gets on.
    bool hears( const Fd& pipe ) const {
        pollfd polled { pipe.get(), POLLIN, 0 };
        U64 before;
        do {
            before = Atomics::loadAcquire( &shared_->seen );
        } while ( ::poll( &polled, 1, stuckMs ) == 0 &&
                  before != Atomics::loadAcquire( &shared_->seen ) );
        char byte = 0;
        return polled.revents != 0 && ::read( pipe.get(), &byte, 1 ) == 1 && byte == 'k';
    }
    pid_t process( const std::function< bool() >& body ) {
        const pid_t pid = ::fork();
        if ( pid == 0 ) {
            ::prctl( PR_SET_PDEATHSIG, SIGKILL );
            ::_exit( body() ? 0 : 1 );
        }
        return pid;
    }
    // Rounds of so many sleeps, each with a writer and a reader of its own.
    void repeat( U64 sleeps, const std::function< void( U64 sleeps ) >& round ) {
        while ( torture_.goesOn() && !HasFailure() ) {
            *shared_ = Shared();
            round( sleeps );
            torture_.count( "sleeps", shared_->sleeps );
            torture_.count( "changes", shared_->last );
            torture_.count( "kicks", shared_->kicks );
            torture_.count( "armsInVain", shared_->idleRuns );
            torture_.count( "lost", shared_->seen != shared_->last );
        }
    }

    QelKrellTest::Torture torture_ { "wake-up", 1 };
    TestRoot root_;
    RecordingDebugHandler debug_;
    std::shared_ptr< const Directory > directory_ =
        std::make_shared< const Directory >( Directory::create( root_ / "c" ) );
    Shared* const shared_;
};

struct LateFollower : DoorbellCaller::Handler { // made before what it follows
    Follower* follower = nullptr;
    void handleConnected() override { follower->handleConnected(); }
    void handleKick() override { follower->handleKick(); }
    void handleDisconnected() override { follower->handleDisconnected(); }
};

// The fence that the system refuses to one of the two; 0: none.
class DoorbellWakeOfProcessesTest : public DoorbellWakeTest,
                                    public testing::WithParamInterface< int > {};

TEST_P( DoorbellWakeOfProcessesTest, AReaderIsCurrentAfterTheLastChange ) {
    if ( GetParam() != 0 &&
         inChild( [] { return refuseMembarrier( GetParam(), EPERM ) ? 0 : 1; } ) != 0 ) {
        GTEST_SKIP() << "this system refuses nothing on demand";
    }
    repeat( 10000, [ & ]( U64 wakes ) {
        const auto refuse = []( int command ) {
            return GetParam() != command || refuseMembarrier( command, EPERM );
        };
        int ready[ 2 ];
        int done[ 2 ];
        ASSERT_EQ( ::pipe2( ready, O_CLOEXEC ), 0 );
        ASSERT_EQ( ::pipe2( done, O_CLOEXEC ), 0 );
        const Fd readyIn( ready[ 0 ] );
        const Fd readyOut( ready[ 1 ] );
        const Fd doneIn( done[ 0 ] );
        const Fd doneOut( done[ 1 ] );

        const pid_t writer = process( [ & ] {
            runApart( 0 );
            Doorbell bell( debug_ );
            if ( !refuse( commandOfWriters ) ) {
                return false;
            }
            bell.open( directory_ );
            if ( ::write( readyOut.get(), "k", 1 ) != 1 ||
                 !turnUntil( [ & ] { return bell.connections() == 1; } ) ) {
                return false;
            }
            const bool agreed = GetParam() == 0 || bell.fences() == 1;
            return agreed && publishUntil( wakes, bell, *shared_ );
        } );
        ASSERT_TRUE( hears( readyIn ) );
        const pid_t reader = process( [ & ] {
            runApart( 1 );
            LateFollower handler;
            DoorbellCaller caller( debug_, handler );
            Follower follower( caller, *shared_ );
            handler.follower = &follower;
            if ( !refuse( commandOfReaders ) || !caller.call( *directory_ ) ) {
                return false;
            }
            while ( !follower.isDone() && !follower.isLost() ) {
                turn( -1 ); // no time limit: nothing else wakes it
            }
            shared_->kicks = caller.kicks();
            return follower.isDone() && ::write( doneOut.get(), "k", 1 ) == 1;
        } );
        EXPECT_TRUE( hears( doneIn ) )
            << "the reader sleeps at " << shared_->seen << " of " << shared_->head;
        if ( HasFailure() ) {
            ::kill( reader, SIGKILL );
            ::kill( writer, SIGKILL );
        }
        int status = 0;
        EXPECT_EQ( ::waitpid( reader, &status, 0 ), reader );
        EXPECT_EQ( status, 0 );
        EXPECT_EQ( ::waitpid( writer, &status, 0 ), writer );
        EXPECT_EQ( status, 0 );

        EXPECT_EQ( shared_->seen, shared_->last );
        EXPECT_GE( shared_->sleeps, wakes );
        EXPECT_GT( shared_->kicks, 0U );
        EXPECT_TRUE( shared_->idleRuns > 0 || !canRace() );
        EXPECT_LE( shared_->kicks, shared_->kicksIssued );
        EXPECT_LE( shared_->kicksIssued, shared_->sleeps + shared_->idleRuns );
    } );
}

INSTANTIATE_TEST_SUITE_P( Refused,
                          DoorbellWakeOfProcessesTest,
                          testing::Values( 0, commandOfWriters, commandOfReaders ) );

// The same between threads, for a sanitizer of races.
TEST_F( DoorbellWakeTest, AReaderThreadIsCurrentAfterTheLastChange ) {
    repeat( 5000, [ & ]( U64 wakes ) {
        Doorbell bell( debug_ );
        bell.open( directory_ );
        LateFollower handler;
        DoorbellCaller caller( debug_, handler );
        Follower follower( caller, *shared_ );
        handler.follower = &follower;
        ASSERT_TRUE( caller.call( *directory_ ) );
        ASSERT_TRUE( turnUntil( [ & ] { return caller.state() == State::connected; } ) );
        const auto control = std::find_if( fds().begin(), fds().end(), [ & ]( const TestFd* one ) {
            return one->handler == &caller;
        } );
        ASSERT_NE( control, fds().end() );
        const int connection = ( *control )->watched;
        std::thread writer( [ & ] {
            runApart( 1 );
            publishUntil( wakes, bell, *shared_ );
        } );
        pollfd polled { connection, POLLIN, 0 };
        bool stuck = false;
        while ( !follower.isDone() && !stuck ) {
            stuck = ::poll( &polled, 1, stuckMs ) != 1;
            caller.fdEvent( connection );
        }
        Atomics::storeRelease( &shared_->givenUp, U64( stuck ) );
        writer.join();
        EXPECT_FALSE( stuck ) << "the reader sleeps at " << shared_->seen << " of "
                              << shared_->head;
        EXPECT_EQ( shared_->seen, shared_->last );
        EXPECT_GT( caller.kicks(), 0U );
        shared_->kicks = caller.kicks();
    } );
}

} // namespace
