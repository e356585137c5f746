// How long waking another process takes, without any table: one byte or count back and forth
// between two processes on two cores; half a round is printed. Rows as the peers print them.
//
// usage: wake [ROUNDS] [busy]
//   busy   a spinning thread of the lowest class on each core keeps the cores from halting; the
//          difference is what leaving a halt costs, which is much in a virtual machine

#include "Histogram.h"
#include "Machine.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <memory>
#include <vector>

using namespace bench;

namespace {

// One direction each way: side 0 sends on it to side 1 and receives from it.
class Link {
public:
    virtual ~Link() = default;
    virtual void send( int side ) = 0;
    virtual void receive( int side ) = 0;
};

// Side s reads from readers[ s ] and writes to writers[ s ].
class DescriptorLink : public Link {
public:
    struct Ends {
        int readers[ 2 ];
        int writers[ 2 ];
        size_t size; // of a message
    };
    DescriptorLink( const Ends& ends, bool withEpoll ) : ends_( ends ) {
        for ( int side = 0; withEpoll && side < 2; ++side ) {
            polls_[ side ] = epoll_create1( 0 );
            epoll_event wanted {};
            wanted.events = EPOLLIN;
            if ( epoll_ctl( polls_[ side ], EPOLL_CTL_ADD, ends_.readers[ side ], &wanted ) != 0 ) {
                die( "epoll" );
            }
        }
    }
    void send( int side ) override {
        const uint64_t one = 1;
        if ( write( ends_.writers[ side ], &one, ends_.size ) != ssize_t( ends_.size ) ) {
            die( "write" );
        }
    }
    void receive( int side ) override {
        epoll_event ready;
        while ( polls_[ side ] >= 0 && epoll_wait( polls_[ side ], &ready, 1, -1 ) != 1 ) {
        }
        uint64_t got = 0;
        if ( read( ends_.readers[ side ], &got, ends_.size ) != ssize_t( ends_.size ) ) {
            die( "read" );
        }
    }

private:
    Ends ends_;
    int polls_[ 2 ] = { -1, -1 };
};

// A counter for each side, in memory: waited for in the kernel, or by looking again and again.
struct Counters {
    alignas( 64 ) std::atomic< uint32_t > sent[ 2 ] = {};
};
class MemoryLink : public Link {
public:
    explicit MemoryLink( bool spins ) : spins_( spins ), counters_( *shared< Counters >() ) {}
    void send( int side ) override {
        const uint32_t next = counters_.sent[ side ].load( std::memory_order_relaxed ) + 1;
        if ( spins_ ) {
            counters_.sent[ side ].store( next, std::memory_order_release );
        } else {
            storeAndWake( counters_.sent[ side ], next );
        }
    }
    void receive( int side ) override {
        std::atomic< uint32_t >& word = counters_.sent[ 1 - side ];
        while ( word.load( std::memory_order_acquire ) == seen_ ) {
            if ( spins_ ) {
                relax();
            } else {
                sleepWhile( word, seen_, 1000000000u );
            }
        }
        ++seen_;
    }

private:
    bool spins_;
    Counters& counters_;
    uint32_t seen_ = 0;
};

void play( const std::string& name, Link& link, unsigned rounds ) {
    const pid_t child = fork();
    if ( child == 0 ) {
        prctl( PR_SET_PDEATHSIG, SIGKILL );
        pin( 1 );
        for ( unsigned i = 0; i < rounds; ++i ) {
            link.receive( 1 );
            link.send( 1 );
        }
        _exit( 0 );
    }
    pin( 0 );
    Histogram halves;
    for ( unsigned i = 0; i < rounds; ++i ) {
        const uint64_t from = now();
        link.send( 0 );
        link.receive( 0 );
        halves.record( ( now() - from ) / 2 );
    }
    waitpid( child, nullptr, 0 );
    printf( "%s,0,oneway_p50,ns,%llu\n%s,0,oneway_p99,ns,%llu\n", name.c_str(),
            ( unsigned long long )halves.quantile( 0.5 ), name.c_str(),
            ( unsigned long long )halves.quantile( 0.99 ) );
    fflush( stdout );
}

DescriptorLink::Ends pipes() {
    int there[ 2 ];
    int back[ 2 ];
    if ( pipe( there ) != 0 || pipe( back ) != 0 ) {
        die( "pipe" );
    }
    return { { back[ 0 ], there[ 0 ] }, { there[ 1 ], back[ 1 ] }, 1 };
}
DescriptorLink::Ends sockets() {
    int ends[ 2 ];
    if ( socketpair( AF_UNIX, SOCK_STREAM, 0, ends ) != 0 ) {
        die( "socketpair" );
    }
    return { { ends[ 0 ], ends[ 1 ] }, { ends[ 0 ], ends[ 1 ] }, 1 };
}
DescriptorLink::Ends counts() {
    const int there = eventfd( 0, 0 );
    const int back = eventfd( 0, 0 );
    return { { back, there }, { there, back }, 8 };
}

// Keeps both cores from halting while it lives.
class Spinners {
public:
    Spinners() {
        for ( int core = 0; core < 2; ++core ) {
            pids_[ core ] = fork();
            if ( pids_[ core ] == 0 ) {
                prctl( PR_SET_PDEATHSIG, SIGKILL );
                const sched_param any {};
                sched_setscheduler( 0, SCHED_IDLE, &any );
                pin( core );
                for ( ;; ) {
                    relax();
                }
            }
        }
    }
    ~Spinners() {
        for ( const pid_t pid : pids_ ) {
            kill( pid, SIGKILL );
            waitpid( pid, nullptr, 0 );
        }
    }
    Spinners( const Spinners& ) = delete;
    Spinners& operator=( const Spinners& ) = delete;

private:
    pid_t pids_[ 2 ];
};

} // namespace

int main( int argc, char** argv ) {
    const unsigned rounds = argc > 1 ? unsigned( strtoul( argv[ 1 ], nullptr, 10 ) ) : 20000;
    const bool busy = argc > 2 && strcmp( argv[ 2 ], "busy" ) == 0;
    if ( rounds == 0 || ( argc > 2 && !busy ) || argc > 3 ) {
        fprintf( stderr, "usage: %s [ROUNDS] [busy]\n", argv[ 0 ] );
        return 2;
    }
    const std::unique_ptr< Spinners > spinners( busy ? new Spinners : nullptr );
    const std::string suffix = busy ? "+busy" : "";
    for ( const bool withEpoll : { false, true } ) {
        const std::string how = ( withEpoll ? "_epoll" : "" ) + suffix;
        DescriptorLink overPipe( pipes(), withEpoll );
        play( "wake_pipe" + how, overPipe, rounds );
        DescriptorLink overSocket( sockets(), withEpoll );
        play( "wake_unix" + how, overSocket, rounds );
        DescriptorLink overCount( counts(), withEpoll );
        play( "wake_eventfd" + how, overCount, rounds );
    }
    MemoryLink sleeping( false );
    play( "wake_futex" + suffix, sleeping, rounds );
    MemoryLink spinning( true );
    play( "wake_spin" + suffix, spinning, rounds );
    return 0;
}
