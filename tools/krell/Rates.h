// What happened to collections between two looks.

#pragma once

#include <chrono>
#include <map>
#include <optional>

#include "Commands.h"

namespace KrellTool {

struct Sample {
    std::chrono::steady_clock::time_point time;
    std::vector< Facts > all;
    UsersOfAll users;

    // Of what is below that path now.
    static Sample of( const std::string& path );
};

struct Slowest {
    Process process;
    U64 lag = 0; // changes
};

// One collection over the time between two samples.
struct Activity {
    Facts facts;
    double changesPerSecond = 0;
    std::size_t readers = 0;
    std::optional< Slowest > slowest; // of the readers whose progress is known
    bool restarted = false;           // another writer, or another incarnation
    bool grew = false;
};
// By how much is changed, the busiest first.
std::vector< Activity > activities( const Sample& before, const Sample& now );

} // namespace KrellTool
