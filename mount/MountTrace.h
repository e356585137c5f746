// The mount unit's debug handler and the form in which its operations trace.

#pragma once

#include "platform/DebugText.h"

namespace QelKrell {

constexpr int errorLevel = 0;     // just before an exception is thrown
constexpr int operationLevel = 3; // one line per mount operation
constexpr int stepLevel = 5;      // step detail

// The handler "KrellMount". Made on first use, kept for the life of the process.
Krell::Platform::DebugHandler& mountHandler();

template < class F >
void traceMount( int level, F&& build ) {
    debugText( mountHandler(), level, build );
}

} // namespace QelKrell
