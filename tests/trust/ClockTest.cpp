// The date jumps by years, forwards and back, from one question to the next: nothing that waits
// waits longer or shorter, and nothing is lost.

#include <memory>

#include <Qel/System>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include "Torture.h"
#include "mount/Site.h"
#include "trust/Shared.h"
#include "trust/Table.h"

namespace {

using namespace TrustTest;
using QelKrellTest::Torture;

// What the process's clocks say. The functions below ask it.
class Jumps {
public:
    static inline bool on = false;
    static inline bool monotonicToo = false; // which no system does
    static inline U64 count = 0;

    static void begin( U64 seed ) { state_ = seed; }
    static bool concern( clockid_t clock ) {
        return on && ( monotonicToo || clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE ||
                       clock == CLOCK_TAI );
    }
    // Seconds, up to some years in either direction.
    static long next() {
        constexpr long years = 3L * 365 * 86400;
        ++count;
        state_ = state_ * 6364136223846793005u + 1442695040888963407u;
        return long( ( state_ >> 33 ) % ( 2 * U64( years ) ) ) - years;
    }

private:
    static inline U64 state_ = 1;
};

enum Fault { none, early = 11, spins, lost, otherOwner };

double monotonicNow() { // whatever the functions below say
    timespec time {};
    syscall( SYS_clock_gettime, CLOCK_MONOTONIC, &time );
    return double( time.tv_sec ) + double( time.tv_nsec ) * 1e-9;
}

// --- What waits

// A timer of the library's that is set anew each time when it is over.
class Series : public Krell::Platform::TimeoutHandler {
public:
    explicit Series( unsigned number ) : left_( number ) { again(); }
    bool over() const { return left_ == 0; }
    bool early() const { return early_; }

    void timeout() override {
        constexpr double rounding = 1e-6;
        early_ = early_ || monotonicNow() - set_ < delay_ - rounding;
        if ( --left_ ) {
            again();
        }
    }

private:
    void again() {
        set_ = monotonicNow();
        timer_->setTimeout( delay_ );
    }

    static constexpr double delay_ = 0.0005;
    const std::unique_ptr< Krell::Platform::TimerControl > timer_ {
        Krell::Platform::getTimerControl( this )
    };
    unsigned left_;
    double set_ = 0;
    bool early_ = false;
};

// In each turn of the loop the timer comes: it is due long before the turn's time is over.
Fault timersComeInTime() {
    constexpr unsigned number = 40;
    constexpr double turn = 0.005;
    Series series( number );
    for ( unsigned turns = 0; !series.over(); ++turns ) {
        if ( turns == 3 * number ) {
            return spins;
        }
        Qel::System::runOnce( turn );
    }
    return series.early() ? early : none;
}

constexpr U64 keys = 300;

// Takes the collection over from the one who wrote the round before.
int write( U64 round, bool answers ) {
    Jumps::on = true;
    Table table;
    table.as( QelKrell::writer );
    if ( round > 1 && table.contents().size() != keys ) {
        return lost;
    }
    for ( U64 n = 0; n < 10 * keys; ++n ) {
        table.put( n % keys, round * 100 + n / keys );
        if ( answers ) {
            Qel::System::runOnce( 0 );
        }
    }
    for ( ;; ) {
        if ( answers ) {
            Qel::System::runOnce( 1 );
        } else {
            pause();
        }
    }
}

bool upToDate( const Table& table, U64 round ) {
    for ( U64 key = 0; key < keys; ++key ) {
        const U64* const value = table.view()->find( &key );
        if ( !value || value[ 0 ] != round * 100 + 9 ) {
            return false;
        }
    }
    return true;
}

// A shadow follows writers that come and die, of which every other one never answers it.
Fault followsWriters( U64 writers ) {
    Table table;
    table.as( QelKrell::shadow );
    table.pollTimeIs( 0.002 );
    table.yieldTimeIs( 0.0001 );
    table.sampleIs( 50 );
    for ( U64 round = 1; round <= writers; ++round ) {
        Process writer( [ round ] { return write( round, round % 2 == 0 ); } );
        while ( !upToDate( table, round ) ) {
            Qel::System::runOnce( 1 );
        }
        const std::string owner = "test-trust (pid " + std::to_string( writer.pid() ) + ")";
        if ( Table().owner() != owner ) {
            return otherOwner;
        }
        if ( writer.kill() != 128 + SIGKILL ) {
            return lost;
        }
    }
    return none;
}

TEST( ClockTest, JumpsOfTheDateHaveNoEffect ) {
    Torture torture( "clock", 2 );
    for ( const char* figure : { "jumps", "hung", "lost" } ) {
        torture.count( figure, 0 );
    }
    while ( torture.goesOn() && !testing::Test::HasFailure() ) {
        SCOPED_TRACE( testing::Message()
                      << "KRELL_SEED=" << torture.seed() << " round " << torture.rounds() );
        const QelKrellTest::Root root;
        const Shared< std::atomic< U64 > > jumps;
        Process process( [ & ] {
            Jumps::on = true;
            Jumps::begin( torture.seed() + torture.rounds() );
            const Fault waiting = timersComeInTime();
            const Fault following = waiting ? waiting : followsWriters( 4 );
            for ( int i = 0; i < 1000; ++i ) { // so that there are some in any case
                time( nullptr );
            }
            *jumps = Jumps::count;
            return int( following );
        } );
        const int status = process.wait();
        EXPECT_EQ( status, 0 );
        torture.count( "jumps", *jumps );
        torture.count( "hung", status == Process::late );
        torture.count( "lost", status == lost );
        torture.count( "early", status == early );
    }
}

TEST( ClockTest, AClockThatMattersWouldShow ) {
    Process process( [] {
        Jumps::monotonicToo = Jumps::on = true;
        return int( timersComeInTime() );
    } );
    const int status = process.wait();
    EXPECT_TRUE( status == early || status == spins ) << status;
}

// --- In place of the system's

template < class F >
F next( const char* name ) {
    return reinterpret_cast< F >( dlsym( RTLD_NEXT, name ) );
}

} // namespace

#define INTERPOSED extern "C" __attribute__( ( visibility( "default" ) ) )

INTERPOSED int clock_gettime( clockid_t clock, timespec* time ) noexcept {
    const long result = syscall( SYS_clock_gettime, clock, time );
    if ( result == 0 && Jumps::concern( clock ) ) {
        time->tv_sec += Jumps::next();
    }
    return int( result );
}

INTERPOSED int gettimeofday( timeval* time, void* zone ) noexcept {
    static const auto system = next< int ( * )( timeval*, void* ) >( "gettimeofday" );
    const int result = system( time, zone );
    if ( result == 0 && Jumps::concern( CLOCK_REALTIME ) ) {
        time->tv_sec += Jumps::next();
    }
    return result;
}

INTERPOSED time_t time( time_t* out ) noexcept {
    timespec now {};
    clock_gettime( CLOCK_REALTIME, &now );
    if ( out ) {
        *out = now.tv_sec;
    }
    return now.tv_sec;
}
