// A writer that is stopped after single instructions: what stands in its directory then is what its
// death would leave there.

#pragma once

#include <functional>
#include <map>
#include <string>

#include "krell/EngineSupport.h"

namespace KrellTest {

// Contents by name: of the regular files alone, for a dead writer's socket means nothing.
using Files = std::map< std::string, std::string >;

Files filesIn( const std::string& directory ); // none when it is not there
void filesInto( const Files& files, const std::string& directory );

struct Steps {
    bool allowed = true; // to trace children
    bool ended = false;  // the body, as it is to
    U64 instructions = 0;
    U64 states = 0; // of the files, that were checked
};

// Runs `prepare` and then `body` in a child. Of the instructions of `body` it looks at the files
// after one, and after every `every`-th from that on; check( files ) is called when they have
// changed, and false from it is the end.
Steps stepThrough( const std::string& directory,
                   const std::function< void() >& prepare,
                   const std::function< void() >& body,
                   const std::function< bool( const Files& ) >& check,
                   U64 every = 1,
                   U64 first = 0 );

} // namespace KrellTest
