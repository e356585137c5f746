// Processes are killed, stopped and continued at random moments under full load, and started again.
// An oracle outside of the collections agrees with what each next writer and each follower finds.

#include <gtest/gtest.h>

#include "torture/Director.h"

namespace {

using namespace TortureTest;

TEST( RandomKills, NoDoneChangeIsLostAndNoSeenOneUndone ) {
    constexpr U32 kills = 40; // and what comes between
    QelKrellTest::Torture torture( "random-kills", 6 );
    while ( torture.goesOn() && !HasFailure() ) {
        Random random( torture.seed() * 1000003 + torture.rounds() );
        const U32 keys[] = { 4, 16, 64, 300, 1500 };
        System system( { 3 + random( 3 ), 1 + random( 2 ), keys[ random( 5 ) ] } );
        Director director( system, random, torture, { 24, 2, 0, 0, 0, 1, 3000 } );
        director.begin();
        for ( U32 i = 0; i < kills && !system.failed(); ++i ) {
            director.episode();
        }
        director.agree();
        system.report( torture );
    }
}

} // namespace
