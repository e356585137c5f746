// What befalls a system, at random moments: kills, stops, successors, other layouts. All of it
// follows from the random numbers; what the processes do meanwhile is their own.

#pragma once

#include "torture/System.h"

namespace TortureTest {

class Director {
public:
    // How often each comes, beside the others.
    struct Plot {
        U32 kill;
        U32 stop;
        U32 handOver; // to another process; the former one lives on
        U32 recreate; // with another layout
        U32 pulse;    // single changes, for followers that are asleep
        U32 agree;
        U32 longestMoment; // between two, in microseconds
    };

    Director( System& system, Random& random, QelKrellTest::Torture& torture, const Plot& plot );

    // Everybody works.
    void begin();
    void episode();
    // At the end, and whenever it comes: all agree.
    bool agree();

private:
    void moment();
    void kill();
    void stop();
    void handOver();
    void recreate();
    void pulse();
    void restart( U32 player );
    void takeFollowersPosts( U32 player );
    void succeed( U32 entity, U32 player );
    U32 someLiving();
    U32 anotherThan( U32 player );
    Post followersPost( U32 entity );
    void countKill( bool writer, Phase phase );

    System& system_;
    Random& random_;
    QelKrellTest::Torture& torture_;
    const Plot plot_;
    const bool has32Bits_;
    std::vector< U32 > types_; // of the entities
};

} // namespace TortureTest
