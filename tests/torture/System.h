// A system of processes under torture, as seen by the process that tortures it: starts, kills and
// stops them, gives orders, and adds up what they counted.

#pragma once

#include <functional>
#include <vector>

#include "Torture.h"
#include "mount/Site.h"
#include "torture/Player.h"

namespace TortureTest {

struct Cast { // how many
    U32 players;
    U32 entities;
    U32 keys; // of each collection
};

class System {
public:
    explicit System( const Cast& cast );
    ~System();
    System( const System& ) = delete;
    System& operator=( const System& ) = delete;

    Stage& stage() { return *stage_; }
    U32 players() const { return stage_->players; }
    U32 entities() const { return stage_->entities; }
    void keysAre( U32 keys );
    const std::string& root() const { return root_.path(); }

    // --- Posts. Those of a living player count from the next order `move` on.

    Post post( U32 player, U32 entity ) const;
    void postIs( U32 player, U32 entity, const Post& post );
    void habitsAre( U32 player, U32 habits ) { stage_->scenes[ player ].habits = habits; }
    // The player that writes the entity; players() when nobody does.
    U32 writerOf( U32 entity ) const;

    // --- Processes

    // Forks it, or takes the 32-bit program for it, with the order `work`.
    void start( U32 player, U32 seed, bool as32Bits = false );
    bool lives( U32 player ) const { return pids_[ player ] > 0; }
    // What it was doing.
    Phase kill( U32 player );
    // Returns when it has stopped.
    void stop( U32 player );
    void resume( U32 player );

    // --- Orders

    void order( U32 player, Order order );
    // Whether all that live, or that one, have done what they were told; false when one crashed or
    // hangs, which is counted.
    bool isDone();
    bool isDone( U32 player );
    // To all that live and are chosen, and waits until it is done.
    bool orders( Order order, const std::function< bool( U32 player ) >& chosen = nullptr );
    // All come to rest, writers first, and agree on what there is.
    bool agree();
    // All unmount and end; then nobody lives.
    bool end();

    // --- What came of it

    U64 figure( Figure figure ) const;
    // There was a fault: what comes after it may only follow from it.
    bool failed() const;
    // The first faults, with who found them; empty when there are none.
    std::string faults() const;
    // Adds all figures, and fails the test when one that must be 0 is not.
    void report( QelKrellTest::Torture& torture ) const;
    // Counts files that have no place in a collection that has a writer and nothing else.
    void checkFiles();

private:
    struct Pipe {
        int in = -1;
        int out = -1;
    };

    bool waits( const std::function< bool() >& done );
    bool someoneCrashed();
    bool hasEnded( U32 player );
    void reap( U32 player, int status );
    void countHere( Figure figure, const std::string& what );
    void runProgram( U32 player, const Wires& wires );
    static Pipe makePipe();

    QelKrellTest::Root root_;
    int stageFile_ = -1;
    Stage* stage_ = nullptr;
    Pipe bell_;
    std::vector< Pipe > orders_;
    std::vector< pid_t > pids_;
    U32 number_ = 0; // of orders
    U32 processes_ = 0;
    Scene here_ {}; // what this process counts
};

} // namespace TortureTest
