// Readers of every role beside a "writer" that scribbles in the files which it holds mapped: each
// call returns, with an answer or an exception.

#include <iterator>
#include <random>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <Qel/System>

#include "Torture.h"
#include "mount/Mounted.h"
#include "trust/Scribbler.h"
#include "trust/Shared.h"

namespace {

using namespace TrustTest;
using QelKrellTest::Mounted;
using QelKrellTest::Torture;

constexpr const char* files[] = { "slots", "buckets", "conquer.1", "conquer.2" };
constexpr U32 sensorCount = 200;

// What the processes of one round tell.
struct WriterTally {
    std::atomic< U64 > flips;
    std::atomic< U64 > calls;
    std::atomic< U64 > attached; // calls of readers that were
    std::atomic< U64 > answers;
    std::atomic< U64 > refusals;
    std::atomic< U64 > longestUs; // of a call
    std::atomic< bool > over;
};

// Every call that a mounted entity has for readers, in one process of a role.
class Caller {
public:
    Caller( WriterTally& tally, QelKrell::QelKrellType role, U64 seed )
        : tally_( tally ), role_( role ), random_( seed ) {}

    // One mount, with some rounds of calls.
    void session() {
        guarded( [ & ] {
            Mounted plant { QelKrell::MountInfo( role_ ) };
            U64 told = 0;
            const auto watch = plant->reading.onEntry( [ & ]( const U32& ) { ++told; } );
            for ( int i = 0; i < 8; ++i ) {
                round( plant );
            }
        } );
    }

private:
    void round( Mounted& plant ) {
        auto& reading = plant->reading;
        Krell::Control& control = reading.core();
        const U64 before = calls_;
        guarded( [ & ] { control.poll(); } );
        for ( int i = 0; i < 16; ++i ) {
            guarded( [ & ] { reading( U32( random_() % sensorCount ) ); } );
        }
        U32 keys[ 64 ];
        for ( U32& key : keys ) {
            key = U32( random_() % sensorCount );
        }
        U64 found = 0;
        guarded( [ & ] {
            reading.findMany( std::span< const U32 >( keys ),
                              [ & ]( const U32&, const auto* value ) { found += !!value; } );
        } );
        guarded( [ & ] {
            for ( const MountBench::Reading& one : reading ) {
                found += one.sensor;
            }
        } );
        guarded( [ & ] { found += reading.size() + control.capacity() + control.sequence(); } );
        guarded( [ & ] { found += control.readerCounters().conquerNotified; } );
        guarded( [ & ] { control.owner(); } );
        guarded( [ & ] { control.resize(); } );
        guarded( [ & ] { control.validate(); } );
        tally_.attached += control.mountStatus() ? calls_ - before : 0;
        guarded( [ & ] { Qel::System::runOnce( 0 ); } );
    }
    template < class F >
    void guarded( F&& call ) {
        ++tally_.calls;
        ++calls_;
        const auto start = std::chrono::steady_clock::now();
        try {
            call();
            ++tally_.answers;
        } catch ( const Krell::Exception& ) {
            ++tally_.refusals;
        } catch ( const Qel::Exception& ) {
            ++tally_.refusals;
        }
        const auto took = std::chrono::steady_clock::now() - start;
        const U64 us = U64( took / std::chrono::microseconds( 1 ) );
        tally_.longestUs = std::max< U64 >( us, tally_.longestUs );
    }

    WriterTally& tally_;
    const QelKrell::QelKrellType role_;
    std::mt19937_64 random_;
    U64 calls_ = 0;
};

class HostileWriterTest : public testing::Test {
protected:
    static constexpr U64 fewestFlips = 50'000;
    static constexpr U64 fewestCalls = 500;

    // Holds the collection, scribbles until the round is over, and now and then makes all good.
    static int scribble( WriterTally& tally, U64 seed, const Milestone& reached ) {
        const std::string directory =
            std::string( getenv( "KRELL_ROOT" ) ) + "/sys/Krell/site/north/reading/";
        Mounted plant( QelKrellTest::asWriter( 20 ) );
        for ( U32 sensor = 0; sensor < sensorCount; ++sensor ) {
            plant->reading.is( QelKrellTest::readingOf( sensor, 1 ) );
            plant->reading.is( QelKrellTest::readingOf( sensor / 2, sensor ) );
        }
        std::vector< std::unique_ptr< Scribbler > > scribblers;
        for ( const char* file : files ) {
            if ( access( ( directory + file ).c_str(), F_OK ) == 0 ) {
                scribblers.push_back( std::make_unique< Scribbler >( directory + file ) );
            }
        }
        std::mt19937_64 random( seed );
        while ( !tally.over ) {
            for ( const auto& scribbler : scribblers ) {
                scribbler->restore();
            }
            Qel::System::runOnce( 0 ); // answers who calls
            for ( auto bursts = random() % 16; bursts > 0; --bursts ) {
                tally.flips += scribblers[ random() % scribblers.size() ]->burst( random );
            }
            reached.tellOnce( tally.flips >= fewestFlips );
        }
        return 0;
    }
    static int readAs( WriterTally& tally,
                       QelKrell::QelKrellType role,
                       U64 seed,
                       const Milestone& done ) {
        Caller caller( tally, role, seed );
        for ( U64 before = tally.calls; !tally.over; ) {
            caller.session();
            done.tellOnce( tally.calls - before >= fewestCalls );
        }
        return 0;
    }
    void expectAlive( Torture& torture, Process& process, const char* who ) {
        const int status = process.wait();
        EXPECT_NE( status, Process::late ) << who << " hangs";
        EXPECT_TRUE( status == 0 || status == Process::late ) << who << " ended with " << status;
        torture.count( "hangs", status == Process::late );
        torture.count( "crashes", status != 0 && status != Process::late );
    }
};

TEST_F( HostileWriterTest, EveryCallReturns ) {
    Torture torture( "hostile-contents", 2 );
    std::mt19937_64 random( torture.seed() );
    for ( const char* figure : { "flips", "calls", "crashes", "hangs" } ) {
        torture.count( figure, 0 );
    }
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( testing::Message()
                      << "KRELL_SEED=" << torture.seed() << " round " << torture.rounds() );
        const QelKrellTest::Root root;
        const Shared< WriterTally > tally;
        Milestones milestones;
        Process writer(
            [ &, seed = random() ] { return scribble( *tally, seed, milestones.mine() ); } );
        std::vector< std::unique_ptr< Process > > readers;
        for ( const auto role : { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
            readers.push_back( std::make_unique< Process >( [ &, seed = random() ] {
                return readAs( *tally, role, seed, milestones.mine() );
            } ) );
        }
        const bool all = milestones.reached( readers.size() + 1 );
        EXPECT_TRUE( all ) << "somebody hangs or is dead";
        tally->over = true;
        for ( const auto& reader : readers ) {
            expectAlive( torture, *reader, "a reader" );
        }
        expectAlive( torture, writer, "the writer" );
        EXPECT_GT( tally->answers, 0U );
        torture.count( "flips", tally->flips );
        torture.count( "calls", tally->calls );
        torture.count( "attachedCalls", tally->attached );
        torture.most( "longestUs", tally->longestUs );
        torture.count( "refused", tally->refusals );
    }
    rusage usage {};
    getrusage( RUSAGE_CHILDREN, &usage );
    torture.most( "processKb", std::uint64_t( usage.ru_maxrss ) );
}

} // namespace
