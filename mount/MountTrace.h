// The mount unit's debug handler and the form in which its operations trace.

#pragma once

#include <sstream>

#include <Krell/Platform>

namespace QelKrell {

constexpr int errorLevel = 0;     // just before an exception is thrown
constexpr int operationLevel = 3; // one line per mount operation
constexpr int stepLevel = 5;      // step detail

// The handler "KrellMount". Made on first use, kept for the life of the process.
Krell::Platform::DebugHandler& mountHandler();

// `build( stream )` writes the message; nothing is built when the level is off.
template < class F >
void traceMount( int level, F&& build ) {
    Krell::Platform::DebugHandler& handler = mountHandler();
    if ( handler.enabled( level ) ) {
        constexpr int digits = 12;
        std::stringstream text;
        text.precision( digits );
        build( text );
        handler.dump( text, level );
    }
}

} // namespace QelKrell
