// A writer is killed after every single instruction of every kind of change.

#include <algorithm>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include "krell/crash/Crash.h"
#include "krell/crash/KillFixture.h"

using namespace KrellTest;

namespace {

// Changes of more instructions are killed after some of them, evenly spread.
constexpr unsigned mostKills = 400 / stride;

// A child that is traced, and stands just before the change.
class Stepped {
public:
    Stepped( const std::function< void() >& prepare, const std::function< void() >& change ) {
        pid_ = ::fork();
        if ( pid_ == 0 ) {
            if ( ::ptrace( PTRACE_TRACEME, 0, nullptr, nullptr ) != 0 ) {
                ::_exit( refused );
            }
            try {
                prepare();
                ::raise( SIGSTOP );
                change();
                ::raise( SIGSTOP );
            } catch ( ... ) {
            }
            ::_exit( 1 );
        }
        status_ = wait();
    }
    ~Stepped() { kill(); }
    Stepped( const Stepped& ) = delete;
    Stepped& operator=( const Stepped& ) = delete;

    // Whether this process may trace its children.
    bool allowed() const { return !WIFEXITED( status_ ) || WEXITSTATUS( status_ ) != refused; }
    bool stopped() const { return WIFSTOPPED( status_ ) && WSTOPSIG( status_ ) == SIGSTOP; }

    // Up to `n` instructions; how many it took to the end of the change, if that was sooner.
    unsigned step( unsigned n ) {
        for ( unsigned i = 0; i < n; ++i ) {
            if ( ::ptrace( PTRACE_SINGLESTEP, pid_, nullptr, nullptr ) != 0 ) {
                throw std::runtime_error( "cannot step" );
            }
            status_ = wait();
            if ( !WIFSTOPPED( status_ ) || WSTOPSIG( status_ ) != SIGTRAP ) {
                return i;
            }
        }
        return n;
    }
    void kill() {
        if ( pid_ > 0 && !WIFEXITED( status_ ) ) {
            ::kill( pid_, SIGKILL );
            while ( WIFSTOPPED( status_ = wait() ) ) {
            }
        }
        pid_ = 0;
    }

private:
    static constexpr int refused = 77;

    int wait() {
        int status = 0;
        if ( ::waitpid( pid_, &status, 0 ) != pid_ ) {
            throw std::runtime_error( "waitpid failed" );
        }
        return status;
    }

    pid_t pid_ = 0;
    int status_ = 0;
};

class StepTest : public KillTest {
protected:
    // The instructions of the change, counted once: from the first stop to the second.
    unsigned count() {
        TestRoot root;
        Stepped child( [ & ] { prepare(); }, [ & ] { apply(); } );
        return child.allowed() && child.stopped() ? child.step( ~0U ) : 0;
    }
};

TEST_P( StepTest, AnyInstructionMayBeTheLast ) {
    const unsigned instructions = count();
    if ( instructions == 0 ) {
        GTEST_SKIP() << "this process may not trace its children";
    }
    const unsigned stride = std::max( 1U, instructions / mostKills );
    unsigned kills = 0;
    bool sawBefore = false;
    bool sawAfter = false;
    for ( unsigned n = 0; n < instructions; n += stride, ++kills ) {
        SCOPED_TRACE( "after instruction " + std::to_string( n ) );
        TestRoot root;
        Stepped child( [ & ] { prepare(); }, [ & ] { apply(); } );
        ASSERT_TRUE( child.stopped() );
        child.step( n );
        child.kill();
        TestCollection reader( layout );
        reader.asReader();
        const Contents seen = seenBy( reader );
        ASSERT_TRUE( seen == before || seen == after );
        ASSERT_EQ( listedBy( reader ), seen );
        ( seen == after ? sawAfter : sawBefore ) = true;
        takeOverAndCheck( seen );
        if ( HasFatalFailure() ) {
            return;
        }
    }
    ASSERT_GT( kills, 10U );
    ASSERT_TRUE( sawAfter );
    ASSERT_TRUE( sawBefore || before == after );
    RecordProperty( "kills", int( kills ) );
}

INSTANTIATE_TEST_SUITE_P( Changes,
                          StepTest,
                          testing::ValuesIn( allChanges() ),
                          []( const auto& info ) { return std::string( info.param.name ); } );

} // namespace
