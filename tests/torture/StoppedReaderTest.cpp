// Followers are stopped and killed while the writer goes round its queues and makes them grow: it
// does not wait, the queue stays within its bound, and who was stopped catches up.

#include <gtest/gtest.h>

#include <filesystem>

#include "torture/System.h"

namespace {

using namespace TortureTest;

constexpr U32 writer = 0;
constexpr U32 fewKeys = 40;
constexpr U32 rounds = 3; // of the queue, at least

// A writer and a follower in each role.
class StoppedReader : public testing::Test {
protected:
    void begin( System& system, Random& random ) {
        system.stage().laps = rounds;
        system.postIs( writer, 0, { true, QelKrell::writer } );
        const QelKrell::QelKrellType roles[] = { QelKrell::reader, QelKrell::keyshadow,
                                                 QelKrell::shadow };
        for ( U32 player = 0; player < system.players(); ++player ) {
            if ( player != writer ) {
                system.postIs( player, 0, { true, U32( roles[ player - 1 ] ) } );
                system.habitsAre( player,
                                  random( 2 ) * Habits::sleepy + random( 2 ) * Habits::yielding );
            }
            system.start( player, random( ~0U ) );
        }
    }
    // Of the largest queue; in bytes.
    static std::uintmax_t queueBytes( System& system ) {
        std::uintmax_t most = 0;
        for ( U32 i = 0; i < shelvesOfEntity; ++i ) {
            const std::string directory =
                system.root() + "/sys/Krell/site/e0/" + ( i == 0 ? "small" : "large" );
            std::uintmax_t bytes = 0;
            for ( const char* name : { "/conquer.1", "/conquer.2" } ) {
                std::error_code none;
                const auto size = std::filesystem::file_size( directory + name, none );
                bytes += none ? 0 : size;
            }
            EXPECT_LE( bytes, bound( system.stage().capacities[ i ] ) );
            EXPECT_GT( bytes, 0U );
            most = std::max( most, bytes );
        }
        return most;
    }

private:
    // Header and places, in whole pages.
    static std::uintmax_t bound( U32 slots ) {
        const std::uintmax_t places = slots * std::uintmax_t( 5 ) / 2 + 64;
        return ( 128 + 4 * places + 4095 ) / 4096 * 4096;
    }
};

TEST_F( StoppedReader, TheWriterGoesOnAndTheReaderCatchesUp ) {
    QelKrellTest::Torture torture( "stopped-reader", 4 );
    while ( torture.goesOn() && !HasFailure() ) {
        Random random( torture.seed() * 1000003 + torture.rounds() );
        System system( { 4, 1, fewKeys } );
        begin( system, random );
        const U32 stopped = 1 + random( 3 );
        const U32 killed = 1 + stopped % 3;
        const U32 other = 1 + killed % 3;
        ASSERT_TRUE( system.agree() ) << system.faults();
        system.keysAre( random.oneIn( 2 ) ? maxKeys : 500 );
        const bool asleep = random.oneIn( 2 );
        ASSERT_TRUE( asleep ||
                     system.orders( Order::work, []( U32 player ) { return player != writer; } ) );
        system.stop( stopped );
        system.kill( killed );
        torture.count( "stops" );
        torture.count( "kills" );
        const U64 before = system.figure( Figure::changes );
        ASSERT_TRUE( system.orders( Order::lap, []( U32 player ) { return player == writer; } ) );
        const U64 changes = system.figure( Figure::changes ) - before;
        EXPECT_GT( changes, rounds * 64U ) << "the writer did not go on";
        torture.count( "changes-while-stopped", changes );
        torture.most( "peakBytes", queueBytes( system ) );
        const auto isOther = [ & ]( U32 player ) { return player == other; };
        ASSERT_TRUE( system.orders( Order::agree, isOther ) ) << system.faults();
        system.resume( stopped );
        system.start( killed, random( ~0U ) );
        ASSERT_TRUE( system.agree() ) << system.faults();
        ASSERT_TRUE( system.end() ) << system.faults();
        system.report( torture );
    }
}

} // namespace
