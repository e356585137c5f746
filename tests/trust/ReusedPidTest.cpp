// A writer died, and another process has its pid. In a pid namespace, where one can see to that.

#include <fstream>

#include <Krell/WriterLock>
#include <gtest/gtest.h>
#include <sched.h>

#include "Torture.h"
#include "mount/Site.h"
#include "trust/Shared.h"
#include "trust/Table.h"
#include "trust/Users.h"

namespace {

using namespace TrustTest;
using Krell::Directory;
using Krell::WriterLock;
using QelKrellTest::Torture;

constexpr int notPossible = 77;
constexpr int wrong = 1;

// In the namespace of the caller: the next process gets that pid.
bool nextPidIs( pid_t pid ) {
    std::ofstream file( "/proc/sys/kernel/ns_last_pid" );
    file << pid - 1 << std::flush;
    return bool( file );
}

int statusOf( pid_t pid ) {
    int status = 0;
    waitpid( pid, &status, 0 );
    return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
}

// Runs `body` in a forked process that has that pid, whose death its parent awaited; its status.
template < class F >
int withPid( pid_t pid, F&& body ) {
    if ( !nextPidIs( pid ) ) {
        return notPossible;
    }
    const pid_t child = fork();
    if ( child == 0 ) {
        _exit( getpid() != pid ? notPossible : body() );
    }
    return statusOf( child );
}

// A process that becomes the writer, then runs `then`, and dies of SIGKILL. Its pid.
template < class F >
pid_t deadWriter( F&& then ) {
    const pid_t pid = fork();
    if ( pid == 0 ) {
        Table table;
        table.as( QelKrell::writer );
        table.put( 1, 1 );
        then();
        kill( getpid(), SIGKILL );
    }
    return statusOf( pid ) == 128 + SIGKILL ? pid : -1;
}

std::string directoryPath() { return std::string( getenv( "KRELL_ROOT" ) ) + "/" + place; }

std::string lastOwner( pid_t pid ) { return "test-trust (pid " + std::to_string( pid ) + ")"; }

// As the process that has the dead writer's pid.
int asNamesake( bool lives ) {
    const Directory directory = Directory::open( directoryPath() );
    const bool free = WriterLock::holderOf( directory ) == 0;
    if ( !free || Table().owner() != lastOwner( getpid() ) ) {
        return wrong;
    }
    if ( lives ) { // and is no writer: another one becomes it, and is the one that is named
        const pid_t next = fork();
        if ( next == 0 ) {
            Table table;
            table.as( QelKrell::writer );
            const bool kept = table.contents().contains( 1 );
            const pid_t third = fork();
            if ( third == 0 ) {
                const std::string refusal = refusalOf( [] { Table().as( QelKrell::writer ); } );
                _exit( refusal.ends_with( " is written by " + lastOwner( getppid() ) ) ? 0
                                                                                       : wrong );
            }
            _exit( kept && statusOf( third ) == 0 ? 0 : wrong );
        }
        return statusOf( next );
    }
    Table table;
    table.as( QelKrell::writer );
    return table.contents().contains( 1 ) && WriterLock::holderOf( directory ) == getpid() ? 0
                                                                                           : wrong;
}

// The writer forks, dies, and its child forks a process with the writer's pid, which has a copy of
// the writer's handle.
int heirWithThePid() {
    int ends[ 2 ];
    int result[ 2 ];
    if ( pipe( ends ) != 0 || pipe( result ) != 0 ) {
        return wrong;
    }
    const pid_t writer = fork();
    if ( writer == 0 ) {
        const pid_t self = getpid();
        WriterLock lock;
        const Directory directory = Directory::create( directoryPath() );
        const bool locked = lock.tryLock( directory );
        if ( fork() == 0 ) {
            char byte;
            close( ends[ 1 ] );
            while ( read( ends[ 0 ], &byte, 1 ) > 0 ) { // until the writer was reaped
            }
            const char status = char( withPid( self, [ & ] {
                WriterLock again;
                const bool dead = !lock.held() && WriterLock::holderOf( directory ) == 0;
                return locked && dead && again.tryLock( directory ) && again.held() ? 0 : wrong;
            } ) );
            _exit( write( result[ 1 ], &status, 1 ) == 1 ? 0 : 1 );
        }
        kill( self, SIGKILL );
    }
    close( result[ 1 ] );
    statusOf( writer );
    close( ends[ 0 ] );
    close( ends[ 1 ] );
    char status = wrong;
    const bool heard = read( result[ 0 ], &status, 1 ) == 1;
    close( result[ 0 ] );
    statusOf( -1 ); // the heir
    return heard ? status : wrong;
}

// The first process of the namespace.
int roundInNamespace( unsigned kind ) {
    const QelKrellTest::Root root;
    if ( kind == 2 ) {
        return heirWithThePid();
    }
    const pid_t writer = deadWriter( [] {} );
    return writer < 0 ? wrong : withPid( writer, [ & ] { return asNamesake( kind == 0 ); } );
}

// In a namespace of its own; notPossible where there is none to be had.
int inPidNamespace( unsigned kind ) {
    Process outer( [ kind ] {
        const bool mayAsRoot = unshare( CLONE_NEWPID ) == 0;
        if ( !mayAsRoot && unshare( CLONE_NEWUSER | CLONE_NEWPID ) != 0 ) {
            return notPossible;
        }
        const pid_t first = fork();
        if ( first == 0 ) {
            prctl( PR_SET_PDEATHSIG, SIGKILL );
            _exit( roundInNamespace( kind ) );
        }
        return statusOf( first );
    } );
    return outer.wait();
}

TEST( ReusedPidTest, NobodyIsTakenForADeadWriter ) {
    constexpr unsigned kinds = 3;
    Torture torture( "two-writers", 9 );
    torture.count( "doubleOwners", 0 );
    while ( torture.goesOn() && !testing::Test::HasFailure() ) {
        const unsigned kind = unsigned( torture.rounds() % kinds );
        const int status = inPidNamespace( kind );
        if ( status == notPossible ) {
            GTEST_SKIP() << "the system does not let this process choose pids: a pid namespace and "
                            "/proc/sys/kernel/ns_last_pid are needed";
        }
        EXPECT_EQ( status, 0 ) << "kind " << kind << " round " << torture.rounds();
        torture.count( "reused", status == 0 );
        torture.count( "hung", status == Process::late );
    }
}

} // namespace
