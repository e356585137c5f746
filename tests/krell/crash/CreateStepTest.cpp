// A writer is stopped after single instructions of making a collection, of replacing one and of
// taking one away: the next writer and readers of what stands there then go on as if it had died.

#include <algorithm>
#include <filesystem>

#include <gtest/gtest.h>

#include "Torture.h"
#include "krell/crash/Crash.h"
#include "krell/crash/Steps.h"

using namespace KrellTest;

namespace {

using WholeContents = std::map< std::vector< U64 >, std::vector< U64 > >;

const Krell::Layout layout = layoutOf( 1, 2 );

void put( TestCollection& writer, U64 key ) {
    const U64 value[ 2 ] = { key, ~key };
    writer.writer().put< 1, 2 >( &key, value );
}

void makeOld() {
    TestCollection writer( layout );
    writer.asWriter( 8 );
    for ( U64 n = 1; n <= 4; ++n ) {
        put( writer, n );
    }
}

struct Work {
    const char* name;
    bool hasOld; // a collection stands there
    bool marked; // and is marked as corrupt
    void ( *body )();
};

void PrintTo( const Work& work, std::ostream* os ) { *os << work.name; }

class CreateStepTest : public testing::TestWithParam< Work > {
protected:
    void SetUp() override {
        if ( stride != 1 ) {
            GTEST_SKIP() << "most instructions would be the sanitizer's";
        }
    }

    static constexpr const char* place = "/sys/Krell/e/c";
    static constexpr const char* wholeSet = "buckets conquer fenix last-owner slots";

    void prepare( const std::string& root ) {
        if ( work.hasOld ) {
            makeOld();
        }
        if ( work.marked ) {
            bytesInto( root + place + "/corruption-detected", "" );
        }
    }
    void check( const Files& files ) {
        TestRoot copy;
        filesInto( files, copy.path() + place );
        TestCollection reader( layout );
        reader.asReader();
        const WholeContents seen = contentsOf< 1, 2 >( reader.table() );
        // Nothing half-made: all of the old ones, or none.
        const bool whole = seen.empty() || ( work.hasOld && seen.size() == 4 );
        torture.count( "halfMade", !whole );
        ASSERT_TRUE( whole ) << seen.size() << " entries";
        torture.count( "resurrected", gone && !seen.empty() );
        ASSERT_TRUE( !gone || seen.empty() ) << "what had been taken away came back";
        gone = gone || seen.empty();

        TestCollection writer( layout );
        writer.asWriter();
        const WholeContents kept = contentsOf< 1, 2 >( writer.table() );
        ASSERT_TRUE( kept.empty() || ( kept == seen && !work.marked ) ) << kept.size() << " kept";
        put( writer, 7 );
        ASSERT_TRUE( writer.validate() );
        std::string left;
        for ( const auto& [ name, bytes ] : filesIn( copy.path() + place ) ) {
            left += ( left.empty() ? "" : " " ) + name.substr( 0, name.find( '.' ) );
        }
        torture.count( "left", left != wholeSet );
        ASSERT_EQ( left, wholeSet );
        for ( unsigned i = 0; i < 60; ++i ) { // more than between two looks at the stamp's file
            reader.timeout();
        }
        ASSERT_EQ( ( contentsOf< 1, 2 >( reader.table() ) ),
                   ( contentsOf< 1, 2 >( writer.table() ) ) );
        ASSERT_EQ( reader.failures, std::vector< std::string >() );
    }

    const Work work = GetParam();
    QelKrellTest::Torture torture { "steps", 1 };
    bool gone = false;
};

TEST_P( CreateStepTest, AnyInstructionMayBeTheLast ) {
    // Of more than a hundred thousand instructions, every one in a long run.
    const U64 every = QelKrellTest::Torture::isLong() ? 1 : 149;
    std::mt19937_64 random( torture.seed() );
    while ( torture.goesOn() && !HasFailure() ) {
        TestRoot root;
        gone = !work.hasOld;
        const Steps steps = stepThrough(
            root.path() + place, [ & ] { prepare( root.path() ); }, work.body,
            [ & ]( const Files& files ) {
                check( files );
                return !HasFatalFailure();
            },
            every, random() );
        if ( !steps.allowed ) {
            GTEST_SKIP() << "this process may not trace its children";
        }
        EXPECT_TRUE( steps.ended )
            << "KRELL_SEED=" << torture.seed() << ", instruction " << steps.instructions - 1;
        EXPECT_GT( steps.instructions, 1000U );
        EXPECT_GT( steps.states, 1U );
        torture.count( "instructions", steps.instructions / every );
        torture.count( "states", steps.states );
    }
}

INSTANTIATE_TEST_SUITE_P( Works,
                          CreateStepTest,
                          testing::Values( Work { "ANewCollection", false, false,
                                                  [] { TestCollection( layout ).asWriter( 8 ); } },
                                           Work { "AnotherIncarnation", true, true,
                                                  [] { TestCollection( layout ).asWriter( 8 ); } },
                                           Work { "Cleanup", true, false,
                                                  [] { TestCollection( layout ).cleanup(); } } ),
                          []( const auto& info ) { return std::string( info.param.name ); } );

} // namespace
