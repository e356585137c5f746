// A writer is stopped after every single instruction of every kind of change, and of taking over.
// What stands in the files then is what its death would leave there: a copy is read and taken over.

#include <filesystem>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include "krell/crash/Crash.h"
#include "krell/crash/KillFixture.h"

using namespace KrellTest;

namespace {

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
    ~Stepped() {
        if ( !WIFEXITED( status_ ) && !WIFSIGNALED( status_ ) ) {
            ::kill( pid_, SIGKILL );
            while ( WIFSTOPPED( wait() ) ) {
            }
        }
    }
    Stepped( const Stepped& ) = delete;
    Stepped& operator=( const Stepped& ) = delete;

    // Whether this process may trace its children.
    bool allowed() const { return !WIFEXITED( status_ ) || WEXITSTATUS( status_ ) != refused; }
    // At one of the two stops.
    bool stopped() const { return WIFSTOPPED( status_ ) && WSTOPSIG( status_ ) == SIGSTOP; }
    // One instruction; false when it led to the end of the change.
    bool step() {
        if ( ::ptrace( PTRACE_SINGLESTEP, pid_, nullptr, nullptr ) != 0 ) {
            throw std::runtime_error( "cannot step" );
        }
        status_ = wait();
        return WIFSTOPPED( status_ ) && WSTOPSIG( status_ ) == SIGTRAP;
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

using Files = std::map< std::string, std::string >;

Files filesIn( const std::string& directory ) {
    Files files;
    for ( const auto& entry : std::filesystem::directory_iterator( directory ) ) {
        if ( entry.is_regular_file() ) { // a dead writer's socket means nothing
            files[ entry.path().filename() ] = bytesOf( entry.path() );
        }
    }
    return files;
}

class StepTest : public KillTest {
protected:
    void SetUp() override {
        if ( stride != 1 ) {
            GTEST_SKIP() << "most instructions would be the sanitizer's";
        }
    }

    static constexpr const char* place = "sys/Krell/e/c";

    // Steps through `change` and checks each state of the files, once.
    void stepThrough( const std::function< void() >& prepareChild,
                      const std::function< void() >& change ) {
        Stepped child( prepareChild, change );
        if ( !child.allowed() ) {
            GTEST_SKIP() << "this process may not trace its children";
        }
        ASSERT_TRUE( child.stopped() );
        Files files;
        do {
            ++instructions;
            Files now = filesIn( root / place );
            if ( now != files ) {
                files = std::move( now );
                SCOPED_TRACE( "after instruction " + std::to_string( instructions - 1 ) );
                checkCopy( files );
                if ( HasFatalFailure() ) {
                    return;
                }
                ++states;
            }
        } while ( child.step() );
        ASSERT_TRUE( child.stopped() );
    }
    void checkCopy( const Files& files ) {
        TestRoot copy;
        std::filesystem::create_directories( copy / place );
        for ( const auto& [ name, bytes ] : files ) {
            bytesInto( copy / place + "/" + name, bytes );
        }
        TestCollection reader( layout );
        reader.asReader();
        const Contents seen = seenBy( reader );
        ASSERT_TRUE( seen == before || seen == after );
        ASSERT_EQ( listedBy( reader ), seen );
        ASSERT_TRUE( sawAfter == false || seen == after )
            << "a change that a reader saw was undone";
        ( seen == after ? sawAfter : sawBefore ) = true;
        takeOverAndCheck( seen );
    }

    TestRoot root;
    unsigned instructions = 0;
    unsigned states = 0;
    bool sawBefore = false;
    bool sawAfter = false;
};

TEST_P( StepTest, AnyInstructionMayBeTheLast ) {
    stepThrough( [ & ] { prepare(); }, [ & ] { apply(); } );
    if ( IsSkipped() || HasFatalFailure() ) {
        return;
    }
    EXPECT_GT( instructions, 50U );
    EXPECT_GT( states, 3U );
    EXPECT_TRUE( sawAfter );
    EXPECT_TRUE( sawBefore || before == after );
    RecordProperty( "instructions", int( instructions ) );
    RecordProperty( "states", int( states ) );
}

class TakeoverStepTest : public StepTest {};

TEST_P( TakeoverStepTest, AnyInstructionMayBeTheLast ) {
    // The first writer dies half-way through its change.
    ASSERT_TRUE( killedAt(
                     4, [ & ] { prepare(); }, [ & ] { apply(); } )
                     .died );
    stepThrough( [] {},
                 [ & ] {
                     writer = std::make_unique< TestCollection >( layout );
                     writer->asWriter();
                 } );
    if ( IsSkipped() || HasFatalFailure() ) {
        return;
    }
    EXPECT_GT( instructions, 1000U );
    EXPECT_GT( states, 3U );
    RecordProperty( "instructions", int( instructions ) );
    RecordProperty( "states", int( states ) );
}

std::string nameOf( const testing::TestParamInfo< Change >& info ) { return info.param.name; }

// Of some changes that leave different work to do.
std::vector< Change > someChanges() {
    std::vector< Change > some;
    for ( const Change& change : allChanges() ) {
        for ( const char* name :
              { "Update", "Delete", "InsertIntoARetiredSlot", "InsertThatGrowsTheBuckets" } ) {
            if ( change.name == std::string( name ) ) {
                some.push_back( change );
            }
        }
    }
    return some;
}

INSTANTIATE_TEST_SUITE_P( Changes, StepTest, testing::ValuesIn( allChanges() ), nameOf );
INSTANTIATE_TEST_SUITE_P( Changes, TakeoverStepTest, testing::ValuesIn( someChanges() ), nameOf );

} // namespace
