#include "torture/System.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <set>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "Programs.h"

namespace TortureTest {

namespace {

constexpr U32 patienceSeconds = 60;
constexpr int lookMs = 1000; // between two looks whether somebody died
constexpr int longestMs = 100 * 1000;

} // namespace

System::System( const Cast& cast ) {
    stageFile_ = ::memfd_create( "torture", MFD_CLOEXEC );
    EXPECT_EQ( ::ftruncate( stageFile_, sizeof( Stage ) ), 0 );
    void* const at =
        ::mmap( nullptr, sizeof( Stage ), PROT_READ | PROT_WRITE, MAP_SHARED, stageFile_, 0 );
    EXPECT_NE( at, MAP_FAILED );
    stage_ = static_cast< Stage* >( at );
    stage_->players = cast.players;
    stage_->entities = cast.entities;
    stage_->patienceSeconds = patienceSeconds;
    keysAre( cast.keys );
    bell_ = makePipe();
    pids_.resize( cast.players, -1 );
    for ( U32 i = 0; i < cast.players; ++i ) {
        orders_.push_back( makePipe() );
    }
}

System::~System() {
    for ( U32 i = 0; i < players(); ++i ) {
        if ( lives( i ) ) {
            kill( i );
        }
    }
    orders_.push_back( bell_ );
    for ( const Pipe& pipe : orders_ ) {
        ::close( pipe.in );
        ::close( pipe.out );
    }
    ::munmap( stage_, sizeof( Stage ) );
    ::close( stageFile_ );
}

System::Pipe System::makePipe() {
    int ends[ 2 ];
    EXPECT_EQ( ::pipe2( ends, O_CLOEXEC | O_NONBLOCK ), 0 );
    return { ends[ 0 ], ends[ 1 ] };
}

void System::keysAre( U32 keys ) {
    for ( BookPage& page : stage_->books ) {
        page.keys = keys;
    }
}

// --- Posts

Post System::post( U32 player, U32 entity ) const {
    return Post::of( stage_->scenes[ player ].posts[ entity ] );
}

void System::postIs( U32 player, U32 entity, const Post& post ) {
    stage_->scenes[ player ].posts[ entity ] = post.word();
}

U32 System::writerOf( U32 entity ) const {
    U32 player = 0;
    while ( player < players() &&
            !( post( player, entity ).taken && post( player, entity ).role == QelKrell::writer ) ) {
        ++player;
    }
    return player;
}

// --- Processes

void System::start( U32 player, U32 seed, bool as32Bits ) {
    Scene& scene = stage_->scenes[ player ];
    scene.seed = seed;
    scene.phase = U32( Phase::starting );
    order( player, Order::work );
    const Wires wires { stageFile_, orders_[ player ].in, bell_.out };
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    EXPECT_GE( pid, 0 );
    if ( pid == 0 ) {
        ::signal( SIGINT, SIG_IGN ); // the parent ends the round
        ::prctl( PR_SET_PDEATHSIG, SIGKILL );
        if ( ::getppid() != parent ) {
            ::_exit( 2 );
        }
        if ( as32Bits ) {
            runProgram( player, wires );
        }
        playAndExit( *stage_, player, wires );
    }
    pids_[ player ] = pid;
    ++processes_;
}

void System::runProgram( U32 player, const Wires& wires ) {
    for ( const int fd : { wires.stage, wires.orders, wires.bell } ) {
        ::fcntl( fd, F_SETFD, 0 );
    }
    const std::string program = QelKrellTest::program32( "torture-player" );
    const std::string numbers[] = { std::to_string( player ), std::to_string( wires.stage ),
                                    std::to_string( wires.orders ), std::to_string( wires.bell ) };
    ::execl( program.c_str(), program.c_str(), numbers[ 0 ].c_str(), numbers[ 1 ].c_str(),
             numbers[ 2 ].c_str(), numbers[ 3 ].c_str(), nullptr );
    ::_exit( 2 );
}

Phase System::kill( U32 player ) {
    ::kill( pids_[ player ], SIGKILL );
    int status = 0;
    EXPECT_EQ( ::waitpid( pids_[ player ], &status, 0 ), pids_[ player ] );
    if ( !WIFSIGNALED( status ) || WTERMSIG( status ) != SIGKILL ) {
        reap( player, status );
    }
    pids_[ player ] = -1;
    return Phase( stage_->scenes[ player ].phase );
}

void System::stop( U32 player ) {
    ::kill( pids_[ player ], SIGSTOP );
    int status = 0;
    EXPECT_EQ( ::waitpid( pids_[ player ], &status, WUNTRACED ), pids_[ player ] );
    if ( !WIFSTOPPED( status ) ) {
        reap( player, status );
    }
}

void System::resume( U32 player ) {
    if ( lives( player ) ) {
        ::kill( pids_[ player ], SIGCONT );
    }
}

// It ended by itself.
void System::reap( U32 player, int status ) {
    pids_[ player ] = -1;
    if ( status != 0 ) {
        countHere( Figure::crashed, "player " + std::to_string( player ) + " ended with status " +
                                        std::to_string( status ) );
    }
}

bool System::someoneCrashed() {
    for ( U32 i = 0; i < players(); ++i ) {
        int status = 0;
        if ( lives( i ) && ::waitpid( pids_[ i ], &status, WNOHANG ) == pids_[ i ] ) {
            reap( i, status );
        }
    }
    return here_.figures[ U32( Figure::crashed ) ] != 0;
}

// --- Orders

void System::order( U32 player, Order order ) {
    Dov::Atomics::storeRelease( &stage_->scenes[ player ].order, ++number_ * 16 + U32( order ) );
    EXPECT_TRUE( ::write( orders_[ player ].out, "", 1 ) == 1 || errno == EAGAIN );
}

bool System::isDone( U32 player ) {
    const Scene& scene = stage_->scenes[ player ];
    return waits( [ & ] {
        return !lives( player ) || Dov::Atomics::loadAcquire( &scene.answer ) == scene.order;
    } );
}

bool System::isDone() {
    bool done = true;
    for ( U32 i = 0; i < players(); ++i ) {
        done = isDone( i ) && done;
    }
    return done;
}

bool System::waits( const std::function< bool() >& done ) {
    for ( int waited = 0; !done(); ) {
        pollfd bell { bell_.in, POLLIN, 0 };
        const int rung = ::poll( &bell, 1, lookMs );
        char bytes[ 256 ];
        if ( rung == 1 && ::read( bell_.in, bytes, sizeof bytes ) > 0 ) {
            continue;
        }
        waited += lookMs;
        if ( someoneCrashed() ) {
            return false;
        }
        if ( waited >= longestMs ) {
            countHere( Figure::hung, "an order is not done" );
            return false;
        }
    }
    return true;
}

bool System::orders( Order what, const std::function< bool( U32 player ) >& chosen ) {
    for ( U32 i = 0; i < players(); ++i ) {
        if ( lives( i ) && ( !chosen || chosen( i ) ) ) {
            order( i, what );
        }
    }
    return isDone();
}

bool System::agree() { return isDone() && orders( Order::rest ) && orders( Order::agree ); }

bool System::end() {
    bool done = orders( Order::end );
    for ( U32 i = 0; done && i < players(); ++i ) {
        done = !lives( i ) || hasEnded( i );
    }
    return done;
}

bool System::hasEnded( U32 player ) {
    const int process = int( ::syscall( SYS_pidfd_open, pids_[ player ], 0 ) );
    pollfd end { process, POLLIN, 0 };
    const bool ended = ::poll( &end, 1, longestMs ) == 1;
    ::close( process );
    if ( ended ) {
        int status = 0;
        EXPECT_EQ( ::waitpid( pids_[ player ], &status, 0 ), pids_[ player ] );
        reap( player, status );
    } else {
        countHere( Figure::hung, "a player does not end" );
    }
    return ended;
}

// --- What came of it

void System::countHere( Figure figure, const std::string& what ) {
    Stage::count( here_, figure, 1, what );
}

U64 System::figure( Figure figure ) const {
    U64 sum = here_.figures[ U32( figure ) ];
    for ( U32 i = 0; i < players(); ++i ) {
        sum += Dov::Atomics::loadAcquire( &stage_->scenes[ i ].figures[ U32( figure ) ] );
    }
    return sum;
}

bool System::failed() const {
    bool failed = false;
    for ( U32 i = 0; i < figureCount; ++i ) {
        failed = failed || ( isFault( Figure( i ) ) && figure( Figure( i ) ) != 0 );
    }
    return failed;
}

std::string System::faults() const {
    std::string text = here_.what;
    for ( U32 i = 0; i < players(); ++i ) {
        const Scene& scene = stage_->scenes[ i ];
        if ( scene.what[ 0 ] != '\0' ) {
            text += "\nplayer " + std::to_string( i ) + ": " + scene.what;
        }
    }
    return text;
}

void System::report( QelKrellTest::Torture& torture ) const {
    for ( U32 i = 0; i < figureCount; ++i ) {
        torture.count( nameOf( Figure( i ) ), figure( Figure( i ) ) );
        if ( isFault( Figure( i ) ) ) {
            EXPECT_EQ( figure( Figure( i ) ), 0U )
                << nameOf( Figure( i ) ) << ", seed " << torture.seed() << " round "
                << torture.rounds() << ": " << faults();
        }
    }
    torture.count( "processes", processes_ );
}

void System::checkFiles() {
    const std::set< std::string > known { "slots", "buckets",  "conquer.1", "conquer.2",
                                          "fenix", "doorbell", "last-owner" };
    for ( const auto& entry : std::filesystem::recursive_directory_iterator( root() ) ) {
        if ( !entry.is_directory() && known.count( entry.path().filename() ) == 0 ) {
            countHere( Figure::leaked, entry.path() );
        } else if ( entry.path().filename() == "conquer.1" &&
                    std::filesystem::exists( entry.path().parent_path() / "conquer.2" ) ) {
            countHere( Figure::leaked, entry.path().string() + " beside the other generation" );
        }
    }
}

} // namespace TortureTest
