// A writer is stopped after every single instruction of every kind of change, and of taking over.
// What stands in the files then is what its death would leave there: a copy is read and taken over.

#include <gtest/gtest.h>

#include "krell/crash/Crash.h"
#include "krell/crash/KillFixture.h"
#include "krell/crash/Steps.h"

using namespace KrellTest;

namespace {

class StepTest : public KillTest {
protected:
    StepTest() : KillTest( "steps" ) {}

    void SetUp() override {
        if ( stride != 1 ) {
            GTEST_SKIP() << "most instructions would be the sanitizer's";
        }
    }

    void renewRoot() {
        root.reset();
        root = std::make_unique< TestRoot >();
    }

    static constexpr const char* place = "sys/Krell/e/c";

    // Steps through `change` and checks each state of the files.
    Steps stepThrough( const std::function< void() >& prepareChild,
                       const std::function< void() >& change ) {
        sawBefore = sawAfter = false;
        const Steps steps = KrellTest::stepThrough( root->path() + "/" + place, prepareChild,
                                                    change, [ & ]( const Files& files ) {
                                                        checkCopy( files );
                                                        return !HasFatalFailure();
                                                    } );
        torture.count( "instructions", steps.instructions );
        torture.count( "states", steps.states );
        return steps;
    }
    void checkCopy( const Files& files ) {
        TestRoot copy;
        filesInto( files, copy / place );
        TestCollection reader( layout );
        reader.asReader();
        const Contents seen = seenBy( reader );
        ASSERT_TRUE( isOneOfBoth( seen ) );
        ASSERT_EQ( listedBy( reader ), seen );
        ASSERT_TRUE( sawAfter == false || seen == after )
            << "a change that a reader saw was undone";
        ( seen == after ? sawAfter : sawBefore ) = true;
        takeOverAndCheck( seen );
    }

    std::unique_ptr< TestRoot > root;
    bool sawBefore = false;
    bool sawAfter = false;
};

TEST_P( StepTest, AnyInstructionMayBeTheLast ) {
    repeat( [ & ] {
        renewRoot();
        const Steps steps = stepThrough( [ & ] { prepare(); }, [ & ] { apply(); } );
        if ( !steps.allowed ) {
            GTEST_SKIP() << "this process may not trace its children";
        }
        ASSERT_FALSE( HasFatalFailure() ) << "after instruction " << steps.instructions - 1;
        EXPECT_TRUE( steps.ended );
        EXPECT_GT( steps.instructions, 50U );
        EXPECT_GT( steps.states, 3U );
        EXPECT_TRUE( sawAfter );
        EXPECT_TRUE( sawBefore || before == after );
    } );
}

class TakeoverStepTest : public StepTest {};

TEST_P( TakeoverStepTest, AnyInstructionMayBeTheLast ) {
    std::mt19937_64 random( torture.seed() );
    repeat( [ & ] {
        renewRoot();
        // The first writer dies half-way through its change.
        const auto first = [ & ] { prepare(); };
        const auto then = [ & ] { apply(); };
        unsigned placeOfDeath = torture.rounds() == 1 ? 4 : 1 + unsigned( random() % 12 );
        while ( !killedAt( placeOfDeath, first, then ).died ) {
            placeOfDeath = placeOfDeath / 2;
            ASSERT_GT( placeOfDeath, 0U );
            renewRoot();
        }
        const Steps steps = stepThrough( [] {},
                                         [ & ] {
                                             writer = std::make_unique< TestCollection >( layout );
                                             writer->asWriter();
                                         } );
        if ( !steps.allowed ) {
            GTEST_SKIP() << "this process may not trace its children";
        }
        ASSERT_FALSE( HasFatalFailure() ) << "after instruction " << steps.instructions - 1
                                          << ", killed before at place " << placeOfDeath;
        EXPECT_TRUE( steps.ended );
        EXPECT_GT( steps.instructions, 1000U );
        EXPECT_GT( steps.states, 3U );
    } );
}

std::string nameOf( const testing::TestParamInfo< Change >& info ) { return info.param.name; }

// Of some changes that leave different work to do; in a long run of all of them.
std::vector< Change > someChanges() {
    if ( QelKrellTest::Torture::isLong() ) {
        return allChanges();
    }
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
