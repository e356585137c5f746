// How the writer's side tells the reader's what to do, and what it gets back.

#pragma once

#include "Machine.h"

namespace bench {

enum class Command : uint32_t {
    none,
    open,
    warm,
    hit,
    hitDependent,
    miss,
    many,
    scan,
    mixed,
    paced,
    drain,
    quit
};

// In memory that both share. The writer's side gives a command and the reader's takes it away when
// the results stand here; `started` and `stop` are of commands that both take part in.
struct Control {
    std::atomic< uint32_t > command { 0 };
    std::atomic< uint32_t > started { 0 };
    std::atomic< uint32_t > stop { 0 };

    uint64_t operations = 0;
    uint64_t ns = 0;
    uint64_t bad = 0; // missing, unexpected, torn or foreign values
    uint64_t p50 = 0;
    uint64_t p99 = 0;
    volatile uint64_t sink = 0;

    bool finished() const { return command.load( std::memory_order_acquire ) == 0; }
    void give( Command c ) {
        started.store( 0 );
        stop.store( 0 );
        bad = 0;
        storeAndWake( command, uint32_t( c ) );
    }
    Command take() {
        uint32_t c = 0;
        while ( ( c = command.load( std::memory_order_acquire ) ) == 0 ) {
            sleepWhile( command, 0, 1000000000u );
        }
        return Command( c );
    }
    void finish() { storeAndWake( command, 0 ); }
    bool stopped() const { return stop.load( std::memory_order_acquire ) != 0; }
};

} // namespace bench
