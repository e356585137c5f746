// Everything at once: several entities, growth, deletions, other sizes and layouts, writers that
// hand over and live on, kills, followers that poll and followers that sleep. No timer makes any of
// them current.

#include <gtest/gtest.h>

#include "torture/Director.h"

namespace {

using namespace TortureTest;

TEST( Soak, EverybodyAgreesWhateverCame ) {
    constexpr U32 episodes = 25;
    QelKrellTest::Torture torture( "soak", 3 );
    while ( torture.goesOn() && !HasFailure() ) {
        Random random( torture.seed() * 1000003 + torture.rounds() );
        const U32 keys[] = { 16, 200, 2000 };
        System system( { 5 + random( 3 ), 3, keys[ random( 3 ) ] } );
        Director director( system, random, torture, { 3, 2, 5, 2, 2, 1, 20000 } );
        director.begin();
        for ( U32 i = 0; i < episodes && !system.failed(); ++i ) {
            director.episode();
        }
        director.agree();
        system.end();
        system.report( torture );
    }
}

} // namespace
