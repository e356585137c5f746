// A process is killed before and after each system call of making, replacing, taking over, growing,
// leaving and removing a collection.

#include <gmock/gmock.h>

#include "Descriptors.h"
#include "SystemCalls.h"
#include "Torture.h"
#include "Tracer.h"
#include "faults/Operations.h"

using namespace FaultsTest;
using QelKrellTest::Torture;
using QelKrellTest::Tracer;

namespace {

class KilledCreatingTest : public testing::Test {
protected:
    static constexpr unsigned stride = 9; // in a run of the tests

    // Kills at call n, before or after it is done. False when there is no such call.
    bool kill( const Operation& operation, unsigned n, bool done ) {
        Scene scene;
        operation.arrange( scene );
        Tracer child( [ & ] { operation.open( scene ); }, [ & ] { operation.operate( scene ); } );
        if ( !child.allowed() ) {
            skipped = true;
            return false;
        }
        EXPECT_TRUE( child.stopped() ) << operation.name;
        for ( unsigned i = 0; i < n; ++i ) {
            if ( !child.toCall() ) {
                EXPECT_TRUE( child.stopped() ) << operation.name << " failed by itself";
                return false;
            }
        }
        const std::string call = QelKrellTest::nameOfCall( child.number() );
        if ( done ) {
            child.finishCall();
        }
        child.kill();
        check( operation, scene,
               std::string( operation.name ) + ", killed " + ( done ? "after" : "before" ) +
                   " call " + std::to_string( n ) + ", " + call );
        return true;
    }

    void check( const Operation& operation, const Scene& scene, const std::string& where ) {
        torture.count( "kills" );
        const Seen seen = seenByReader();
        const bool whole = seen.fault.empty() && operation.mayBe( seen );
        torture.count( "halfMade", !whole );
        EXPECT_TRUE( whole ) << where << ": a reader sees kind " << seen.kind << ", " << seen.keys
                             << " keys " << seen.fault;
        std::vector< std::string > left;
        const std::string fault = faultOfNextWriter( scene, seen, left );
        torture.count( "lost", !fault.empty() );
        EXPECT_EQ( fault, "" ) << where;
        torture.count( "left", left.size() );
        EXPECT_THAT( left, testing::IsEmpty() ) << where;
    }

    Torture torture { "killed-creating", operations().size() };
    bool skipped = false;
};

// The stamp was written through a file whose name nobody took for a temporary one: a writer that
// was killed then left it there for ever.
TEST_F( KilledCreatingTest, NothingIsHalfMadeAndTheNextWriterGetsIn ) {
    for ( const char* figure : { "kills", "halfMade", "lost", "left" } ) {
        torture.count( figure, 0 );
    }
    const std::size_t descriptors = QelKrellTest::openDescriptors();
    std::mt19937_64 random( torture.seed() );
    while ( torture.goesOn() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + " round " +
                      std::to_string( torture.rounds() ) );
        const Operation& operation = ofRound( torture );
        const unsigned step = Torture::isLong() ? 1 : stride;
        unsigned n = 1 + unsigned( random() % step );
        while ( kill( operation, n, random() % 2 ) && !HasFailure() ) {
            n += step;
        }
        if ( skipped ) {
            GTEST_SKIP() << "this process may not trace its children";
        }
        ASSERT_EQ( QelKrellTest::openDescriptors(), descriptors );
    }
}

} // namespace
