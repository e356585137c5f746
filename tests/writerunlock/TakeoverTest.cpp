// Takeovers in a row, counted exactly: with successors that lock at once, unseen for as long as the
// test likes, and by processes that are killed anywhere while they hold the lock.

#include "writerunlock/Watching.h"

#include <atomic>
#include <csignal>
#include <random>

#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <Krell/Directory>
#include <Krell/Doorbell>
#include <Krell/WriterLock>

namespace {

using QelKrellTest::Writer;

constexpr Qel::U32 hundred = 100;

class Takeover : public QelKrellTest::Watching {
protected:
    static void letGo( Writer& writer, Qel::U32 i ) {
        switch ( i % 3 ) {
        case 0:
            writer.kill();
            break;
        case 1:
            writer.exit();
            break;
        default:
            writer.release();
        }
    }
    // Writer after writer, each of which waits for the lock of the one before; `then` after each.
    void takeOver( Writer::Manner manner, const std::function< void( Qel::U32 ) >& then ) {
        auto writer = std::make_unique< Writer >( directory, manner );
        sm->connectedIs( true );
        for ( Qel::U32 i = 1; i <= hundred; ++i ) {
            auto successor = std::make_unique< Writer >( directory, Writer::whenFree, manner );
            letGo( *writer, i );
            successor->started();
            ASSERT_NO_FATAL_FAILURE( then( i ) );
            writer = std::move( successor );
        }
        settle();
        EXPECT_EQ( counter->count(), hundred );
        writer->kill();
        settle();
        EXPECT_EQ( counter->count(), hundred + 1 );
    }
};

TEST_F( Takeover, AHundredOfListenersAreEachSeenAtOnce ) {
    takeOver( Writer::listening, [ this ]( Qel::U32 i ) {
        settle();
        ASSERT_EQ( counter->count(), i );
        ASSERT_EQ( state(), "listening" );
    } );
}

TEST_F( Takeover, AHundredOfTheSilentAreEachSeenAtOnce ) {
    takeOver( Writer::silent, [ this ]( Qel::U32 i ) {
        settle();
        ASSERT_EQ( counter->count(), i );
        ASSERT_EQ( state(), "watching" );
    } );
}

TEST_F( Takeover, AHundredUnseenAreCountedInOneTurn ) {
    takeOver( Writer::listening, [ this ]( Qel::U32 ) { ASSERT_EQ( counter->count(), 0u ); } );
}

TEST_F( Takeover, AHundredWithALookNowAndThen ) {
    takeOver( Writer::silent, [ this ]( Qel::U32 i ) {
        if ( i % 7 == 0 ) {
            turn();
            ASSERT_LE( counter->count(), i );
        }
    } );
}

TEST_F( Takeover, AHundredOfMixedMannersBySeveralWatchers ) {
    const auto otherCounter = QelKrell::writerUnlockFactory( "other" );
    const auto other = QelKrell::writerUnlockSmFactory( directory, "", otherCounter );
    other->connectedIs( true );
    settle();
    auto writer = std::make_unique< Writer >( directory );
    sm->connectedIs( true );
    for ( Qel::U32 i = 1; i <= hundred; ++i ) {
        const auto manner = i % 2 ? Writer::listening : Writer::silent;
        auto successor = std::make_unique< Writer >( directory, Writer::whenFree, manner );
        letGo( *writer, i );
        successor->started();
        settle();
        ASSERT_EQ( counter->count(), i );
        ASSERT_EQ( otherCounter->count(), i );
        writer = std::move( successor );
    }
}

TEST_F( Takeover, AThousandOfOneProcessThatLocksAgainAtOnce ) {
    Writer writer( directory );
    sm->connectedIs( true );
    constexpr Qel::U32 thousand = 1000;
    for ( Qel::U32 i = 0; i < thousand; ++i ) {
        writer.release();
        writer.lockAgain();
        if ( i % 97 == 0 ) {
            turn();
        }
    }
    settle();
    EXPECT_EQ( counter->count(), thousand );
}

// --- Against a count of the writers' own

// What all processes see.
struct Shared {
    std::atomic< Qel::U32 > taken { 0 }; // holdings that have begun
    std::atomic< bool > enough { false };
};
// What one worker says of itself.
struct Phase {
    std::atomic< bool > holds { false }; // from when the lock is counted to when it lets go
};

struct Board {
    static constexpr unsigned workers_ = 4;
    Shared shared;
    Phase phases[ workers_ ];
};

// Locks again and again; lets go, dies or goes on listening, as its numbers say.
[[noreturn]] void work( const std::string& path, Board& board, unsigned index, unsigned seed ) {
    static std::mt19937 random( seed );
    static const auto directory =
        std::make_shared< const Krell::Directory >( Krell::Directory::create( path ) );
    static auto* const debug = Krell::Platform::getDebugHandler( "TestWorker" );
    static Krell::WriterLock lock; // these are not destroyed: it ends as if it were killed
    static Krell::Doorbell doorbell( *debug );
    while ( !board.shared.enough ) {
        if ( !lock.tryLock( *directory ) ) {
            sched_yield();
            continue;
        }
        ++board.shared.taken;
        board.phases[ index ].holds = true;
        if ( random() % 2 ) {
            lock.writeOwner();
        }
        if ( random() % 2 ) {
            doorbell.open( directory );
        }
        for ( unsigned i = random() % 50; i > 0; --i ) {
            sched_yield();
        }
        if ( random() % 4 == 0 ) {
            raise( SIGKILL );
        }
        board.phases[ index ].holds = false;
        doorbell.close();
        lock.unlock();
    }
    _exit( 0 );
}

class Stress : public QelKrellTest::Watching {
protected:
    Stress() {
        void* const memory = mmap( nullptr, sizeof( Board ), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
        board = new ( memory ) Board;
        RecordProperty( "seed", int( seed ) );
    }
    ~Stress() override {
        board->shared.enough = true;
        for ( unsigned i = 0; i < Board::workers_; ++i ) {
            if ( workers[ i ] > 0 ) {
                kill( workers[ i ], SIGKILL );
                waitpid( workers[ i ], nullptr, 0 );
            }
        }
        munmap( board, sizeof( Board ) );
    }
    void start( unsigned i ) {
        board->phases[ i ].holds = false;
        const unsigned own = unsigned( random() );
        workers[ i ] = fork();
        if ( workers[ i ] == 0 ) {
            prctl( PR_SET_PDEATHSIG, SIGKILL );
            work( directory, *board, i, own );
        }
    }
    // Kills one that stands still while it holds the lock; a worker that would be killed between
    // its lock and its count goes on instead.
    void killHolder( unsigned i ) {
        kill( workers[ i ], SIGSTOP );
        int status = 0;
        waitpid( workers[ i ], &status, WUNTRACED );
        if ( !WIFSTOPPED( status ) ) {
            return start( i ); // it ended by itself
        }
        const bool holds = board->phases[ i ].holds;
        kill( workers[ i ], holds ? SIGKILL : SIGCONT );
        if ( holds ) {
            ++killed;
            waitpid( workers[ i ], nullptr, 0 );
            start( i );
        }
    }
    void startAnewWhoEnded() {
        for ( unsigned i = 0; i < Board::workers_; ++i ) {
            if ( waitpid( workers[ i ], nullptr, WNOHANG ) == workers[ i ] ) {
                start( i );
            }
        }
    }
    void endAll() {
        board->shared.enough = true;
        for ( pid_t& worker : workers ) {
            waitpid( worker, nullptr, 0 );
            worker = -1;
        }
    }

    const unsigned seed = std::random_device {}();
    std::mt19937 random { seed };
    Board* board;
    pid_t workers[ Board::workers_ ] = {};
    unsigned killed = 0;
};

TEST_F( Stress, TheCountIsTheWritersOwn ) {
    SCOPED_TRACE( "seed " + std::to_string( seed ) );
    constexpr Qel::U32 holdings = 1000;
    sm->connectedIs( true );
    for ( unsigned i = 0; i < Board::workers_; ++i ) {
        start( i );
    }
    while ( board->shared.taken < holdings || killed < 20 ) {
        startAnewWhoEnded();
        killHolder( unsigned( random() % Board::workers_ ) );
        for ( unsigned i = random() % 20; i > 0; --i ) {
            turn();
        }
        if ( random() % 10 == 0 ) {
            tick();
        }
        ASSERT_LE( counter->count(), board->shared.taken );
    }
    endAll();
    for ( int i = 0; i < 3; ++i ) {
        settle();
        clock.advance( 1 );
    }
    EXPECT_EQ( counter->count(), board->shared.taken );
    EXPECT_EQ( state(), "waiting" );
}

} // namespace
