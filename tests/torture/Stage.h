// The pages that the processes of a tortured system share beside what they share by the product:
// the oracle's books, each process's orders, and what it counted. Of fixed widths.

#pragma once

#include <string>

#include "torture/Book.h"
#include "torture/Ledger.h"

namespace TortureTest {

inline constexpr U32 maxPlayers = 112;
inline constexpr U32 maxEntities = 4;

// What a process counts. Those from `torn` on must stay 0.
enum class Figure : U32 {
    changes,
    reads,
    notifications,
    sleeps,
    replaced, // looks that found the files replaced
    takeovers,
    undecided,
    agreements,
    torn,
    lost,
    missed,
    stale,
    resurrected,
    foreign,
    hung,
    leaked,
    crashed,
    rescuedByTimer,
    end
};
inline constexpr U32 figureCount = U32( Figure::end );
const char* nameOf( Figure figure );
inline bool isFault( Figure figure ) { return figure >= Figure::torn; }

// What the director wants of a process.
enum class Order : U32 {
    work,  // go on, as the posts say
    rest,  // change and read nothing any more; turn the event loop
    move,  // take the posts as they are now; goes on working or resting
    look,  // look at every key of every collection that is followed
    agree, // wait until what the notifications told is what the books say, and resources are level
    pulse, // a writer: one change in each collection, then none
    lap,   // a writer: go round the change queues so many times, while they grow
    end,   // unmount and end
};

// What a process does with an entity: nothing, or a role, and by which of the types.
struct Post {
    bool taken = false;
    U32 role = 0;         // QelKrell::QelKrellType
    U32 type = 0;         // index of typeNames
    bool cleanup = false; // a writer: begins anew

    bool operator==( const Post& ) const = default;
    U32 word() const { return taken ? 1 + role + type * 8 + cleanup * 64U : 0; }
    static Post of( U32 word );
};

// How a process goes about it; random for each.
struct Habits {
    static constexpr U32 sleepy = 1;   // a follower that does nothing until it is called
    static constexpr U32 polling = 2;  // a follower that does not turn its event loop
    static constexpr U32 yielding = 4; // rounds of notifications end at once
    static constexpr U32 unmounts = 8; // between any two posts
    static constexpr U32 pauses = 16;  // a writer that leaves others time to fall asleep
};

enum class Phase : U32 { starting, mounting, changing, idle };

// A process's place. It outlives the process; the next one in it goes on counting.
struct alignas( 64 ) Scene {
    U32 order;  // Order, with a number above bit 4
    U32 answer; // the last order that was done
    U32 phase;  // Phase
    U32 seed;
    U32 habits;
    U32 posts[ maxEntities ]; // Post::word()
    alignas( 8 ) U64 figures[ figureCount ];
    char what[ 240 ]; // of the first fault
};

struct Stage {
    U32 players;
    U32 entities;
    U32 laps;
    U32 capacities[ maxEntities * shelvesOfEntity ]; // slots, after the last lap
    U32 patienceSeconds;                             // after which what was not seen yet is lost
    Scene scenes[ maxPlayers ];
    BookPage books[ maxEntities * shelvesOfEntity ];

    // Adds to a figure, and says why when it is a fault. Called by the scene's process.
    static void count( Scene& scene, Figure figure, U64 n = 1, const std::string& what = "" );
};

} // namespace TortureTest
