// The operations whose system calls are killed at, or made to fail, and what must stand in the
// files of a collection then.
//
// Contents are the keys 1 to n, each with the value that follows from it; so the number n says all.

#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Torture.h"
#include "krell/EngineSupport.h"

namespace FaultsTest {

using KrellTest::TestCollection;
using KrellTest::TestRoot;
using Qel::U32;
using Qel::U64;

inline constexpr unsigned valueWords = 5;

// "sys/Krell/e/c" below a root of its own, with handles on it.
struct Scene {
    TestRoot root;
    std::unique_ptr< TestCollection > writer;
    std::unique_ptr< TestCollection > reader;

    std::string place() const { return root / "sys/Krell/e/c"; }
    void close() {
        reader.reset();
        writer.reset();
    }
};

// Of this layout are the collections that the operations make, and of another one what one of them
// replaces.
Krell::Layout layout();
Krell::Layout formerLayout();

std::unique_ptr< TestCollection > writerOf( U32 size = 0 );
std::unique_ptr< TestCollection > readerOf();
// Puts the keys from `first` to `last`.
void put( TestCollection& writer, U64 first, U64 last );

// What a process sees that comes to the collection.
struct Seen {
    enum Kind { nothing, former, present };
    Kind kind = nothing;
    U64 keys = 0;
    std::string fault; // what is wrong with it; empty: nothing
};

struct Operation {
    const char* name;
    void ( *arrange )( Scene& ); // in the test's process: what is there before
    void ( *open )( Scene& );    // in the child: what is open before
    void ( *operate )( Scene& );
    bool ( *mayBe )( const Seen& ); // when it did not come to its end, and at its end
    bool ( *isDone )( const Seen& );
};

const std::vector< Operation >& operations();
// One a round, in turn.
inline const Operation& ofRound( const QelKrellTest::Torture& torture ) {
    return operations()[ ( torture.seed() + torture.rounds() ) % operations().size() ];
}

// As a reader sees it, key by key and by iteration.
Seen seenByReader();
// The next writer gets in, finds what a reader saw, and leaves nothing of others lying about: what
// is wrong with that; empty: nothing. `left`: files of no use that it did not remove.
std::string faultOfNextWriter( const Scene& scene,
                               const Seen& seen,
                               std::vector< std::string >& left );

} // namespace FaultsTest
