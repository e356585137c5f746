// Each system call of an operation in turn fails, with each error that it may give.

#include <fstream>

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

// What a process has of the collection, and of the doorbell.
struct Level {
    std::size_t descriptors = QelKrellTest::openDescriptors();
    std::size_t mappings = 0;

    explicit Level( const Scene& scene ) {
        std::ifstream maps( "/proc/self/maps" );
        for ( std::string line; std::getline( maps, line ); ) {
            mappings += line.find( scene.root.path() ) != std::string::npos ||
                        line.find( "krell-doorbell" ) != std::string::npos;
        }
    }
    bool operator==( const Level& ) const = default;
};

// What the child ends with.
enum Outcome { fineWentOn = 10, fineThrew, leaked, foreign, wrong, notAgain };

// The child's part: the operation with the failing call, and what is there afterwards.
class Attempt {
public:
    Attempt( const Operation& operation, Scene& scene )
        : operation_( operation ), scene_( scene ) {}

    void prepare() {
        ::alarm( 120 ); // a hang
        before_ = std::make_unique< Level >( scene_ );
        operation_.open( scene_ );
    }
    void operate() {
        try {
            operation_.operate( scene_ );
            done_ = true;
        } catch ( const Krell::Exception& e ) {
            text_ = e.msg();
        } catch ( const std::exception& e ) {
            foreign_ = e.what();
        }
    }
    // Ends the child.
    [[noreturn]] void judge() {
        const Outcome outcome = result();
        std::cout << std::flush;
        ::_exit( outcome );
    }

private:
    Outcome result() {
        if ( !foreign_.empty() ) {
            return say( foreign, "a foreign exception: " + foreign_ );
        }
        if ( !done_ && text_.empty() ) {
            return say( foreign, "an exception that says nothing" );
        }
        scene_.close();
        if ( !( Level( scene_ ) == *before_ ) ) {
            return say( leaked, "descriptors or mappings are left" );
        }
        const Seen seen = seenByReader();
        if ( !seen.fault.empty() || !( done_ ? operation_.isDone : operation_.mayBe )( seen ) ) {
            return say( wrong, "a reader sees kind " + std::to_string( seen.kind ) + ", " +
                                   std::to_string( seen.keys ) + " keys, " + seen.fault );
        }
        return again();
    }
    Outcome again() {
        try {
            operation_.open( scene_ );
            operation_.operate( scene_ );
            scene_.close();
        } catch ( const Krell::Exception& e ) {
            return say( notAgain, "again, it fails: " + e.msg() );
        }
        const Seen seen = seenByReader();
        if ( !seen.fault.empty() || !operation_.isDone( seen ) ) {
            return say( notAgain, "again, it is not done: " + seen.fault );
        }
        if ( !( Level( scene_ ) == *before_ ) ) {
            return say( leaked, "again, something is left" );
        }
        return done_ ? fineWentOn : fineThrew;
    }
    Outcome say( Outcome outcome, const std::string& what ) const {
        std::cout << operation_.name << ": " << what << ( text_.empty() ? "" : "; it said " )
                  << text_ << std::endl;
        return outcome;
    }

    const Operation& operation_;
    Scene& scene_;
    std::unique_ptr< Level > before_;
    bool done_ = false;
    std::string text_;
    std::string foreign_;
};

class FailingCallsTest : public testing::Test {
protected:
    static constexpr unsigned stride = 9; // calls, in a run of the tests

    void SetUp() override {
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
        GTEST_SKIP() << "the sanitizer's own system calls would fail too";
#endif
        for ( const char* figure :
              { "calls", "failures", "leaked", "crashed", "hung", "wrong", "notAgain" } ) {
            torture.count( figure, 0 );
        }
    }

    // Has call n fail with its error number `which`. False when there is no such call; `errors`
    // becomes the number of errors that it has.
    bool fail( const Operation& operation, unsigned n, std::size_t which, std::size_t& errors ) {
        Scene scene;
        operation.arrange( scene );
        Attempt attempt( operation, scene );
        Tracer child( [ & ] { attempt.prepare(); }, [ & ] { attempt.operate(); },
                      [ & ] { attempt.judge(); } );
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
        const std::vector< int > possible = QelKrellTest::errorsOf( child );
        errors = possible.size();
        if ( which < errors ) {
            const std::string call = QelKrellTest::nameOfCall( child.number() );
            child.failCall( possible[ which ] );
            judge( child.finish(), std::string( operation.name ) + ": call " + std::to_string( n ) +
                                       ", " + call + ", error " +
                                       std::to_string( possible[ which ] ) );
        }
        return true;
    }

    void judge( int status, const std::string& where ) {
        torture.count( "failures" );
        const int outcome = WIFEXITED( status ) ? WEXITSTATUS( status ) : 0;
        const bool hung = WIFSIGNALED( status ) && WTERMSIG( status ) == SIGALRM;
        torture.count( "hung", hung );
        torture.count( "leaked", outcome == leaked );
        torture.count( "wrong", outcome == wrong || outcome == foreign );
        torture.count( "notAgain", outcome == notAgain );
        torture.count( "crashed", !hung && ( outcome < fineWentOn || outcome > notAgain ) );
        threw += outcome == fineThrew;
        wentOn += outcome == fineWentOn;
        EXPECT_TRUE( outcome == fineThrew || outcome == fineWentOn )
            << where << ", status " << status << ", outcome " << outcome;
    }

    Torture torture { "failing-calls", operations().size() };
    unsigned threw = 0;
    unsigned wentOn = 0;
    bool skipped = false;
};

TEST_F( FailingCallsTest, TheOperationFailsClearlyOrGoesOnAndLeavesNothing ) {
    const std::size_t descriptors = QelKrellTest::openDescriptors();
    std::mt19937_64 random( torture.seed() );
    const unsigned step = Torture::isLong() ? 1 : stride;
    while ( torture.goesOn() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + " round " +
                      std::to_string( torture.rounds() ) );
        const Operation& operation = ofRound( torture );
        for ( unsigned n = 1 + unsigned( random() % step );; n += step ) {
            std::size_t errors = 0;
            std::size_t which = Torture::isLong() ? 0 : random() % 3;
            if ( !fail( operation, n, which, errors ) ) {
                break;
            }
            torture.count( "calls", errors != 0 );
            while ( Torture::isLong() && ++which < errors ) {
                fail( operation, n, which, errors );
            }
        }
        if ( skipped ) {
            GTEST_SKIP() << "this process may not trace its children";
        }
        ASSERT_EQ( QelKrellTest::openDescriptors(), descriptors );
    }
    EXPECT_GT( threw, 0U );
    EXPECT_GT( wentOn, 0U );
}

} // namespace
