// Messages that go straight to the framework's trace facility, under this library's own handle.

#pragma once

#include <sstream>

#include <Qel/Assert>
#include <Qel/Trace>

namespace QelKrell {

// The handle "Krell". Made on first use.
const Qel::TraceHandle& krellTrace();

// Hands a message that is built under `level`, or for the coverage stream; nothing is built when
// neither wants it.
void handTrace( const Qel::TraceHandle& handle,
                const std::stringstream& text,
                int level,
                bool enabled,
                const Qel::SourcePosition& at );

template < class F >
void directTrace( int level, const Qel::SourcePosition& at, F&& build ) {
    const Qel::TraceHandle& handle = krellTrace();
    const bool enabled = handle.enabled( level );
    if ( enabled || Qel::coverageStream_ ) {
        constexpr int digits = 12;
        std::stringstream text;
        text.precision( digits );
        build( text );
        handTrace( handle, text, level, enabled, at );
    }
}

} // namespace QelKrell
