// Which processes have which collections mapped, by what /proc shows of them.

#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <Qel/Types>

namespace KrellTool {

using Qel::U32;
using Qel::U64;

struct Process {
    pid_t pid = 0;
    U32 uid = 0;
    std::string command;
};

// One that has a collection mapped for reading.
struct Reader {
    Process process;
    // The change up to which it has followed, when it is connected and this process may look.
    std::optional< U64 > consumed;
};

struct Users {
    std::vector< Process > writers; // those that have it mapped for writing: one, or none
    std::vector< Reader > readers;
};

// By the collection's directory, without this process.
// Processes that may not be looked at are left out, and counted.
struct UsersOfAll {
    std::map< std::string, Users > byDirectory;
    U32 hidden = 0;
};
UsersOfAll usersOfAll( const std::string& root );

// When the process was started, in seconds since the epoch; 0 when it is gone.
double startOf( pid_t pid );

} // namespace KrellTool
