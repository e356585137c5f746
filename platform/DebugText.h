// Messages that go through a debug handler.

#pragma once

#include <sstream>

#include <Krell/Platform>

namespace QelKrell {

// Builds and dumps a message when the handler wants that level; else does nothing.
template < class F >
void debugText( Krell::Platform::DebugHandler& handler, int level, F&& build ) {
    if ( handler.enabled( level ) ) {
        constexpr int digits = 12;
        std::stringstream text;
        text.precision( digits );
        build( text );
        handler.dump( text, level );
    }
}

} // namespace QelKrell
