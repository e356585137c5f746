// What happens to collections between one look and the next.

#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>

#include <Krell/QueueReader>

#include "Commands.h"

namespace KrellTool {

// A reader of our own, which no writer knows of. It counts which keys changed, and how often its
// mappings had to be renewed.
class Followed {
public:
    // Krell::Exception when the collection cannot be read.
    explicit Followed( const Place& place );

    // How many keys changed since the last call: several changes of one key are one.
    // Krell::Exception as above; the next call tries again.
    //   cost  some nanoseconds for each of them; of all entries in the first call
    U64 changedKeys();
    // Of the mappings, since the first call of changedKeys().
    U64 remaps() const;

private:
    U64 allRemaps() const;

    Contents contents_;
    Krell::QueueReader queue_;
    std::optional< U64 > remapsBefore_;
};

struct Lag {
    Process process;
    U64 changes = 0; // that it has not followed
};

// One collection since the last look.
struct Activity {
    Facts facts;
    double changesPerSecond = 0;
    std::optional< double > keysPerSecond; // less, where changes of one key became one
    std::size_t readers = 0;
    std::vector< Lag > lags; // of the readers whose progress is known, the slowest first
    U64 restarts = 0;        // since the first look: another writer, or another incarnation
    U64 remaps = 0;          // since the first look: tables and queue that grew
    bool isFreshlyRestarted = false;
};

class Rates {
public:
    // Takes the first look at what is below that path.
    explicit Rates( std::string path );

    // The next look: by how much is changed, the busiest first.
    std::vector< Activity > look();

private:
    struct Former {
        Facts facts;
        std::unique_ptr< Followed > followed; // null where that cannot be
        U64 restarts = 0;
        U64 remaps = 0; // of those that were followed before
    };

    Activity activityOf( const Facts& facts, Former& former, double seconds ) const;
    static std::optional< U64 > changedKeys( const Facts& facts, Former& former );

    const std::string path_;
    std::chrono::steady_clock::time_point time_;
    std::map< std::string, Former > former_;
};

} // namespace KrellTool
