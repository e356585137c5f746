#include "platform/Tracing.h"

#include <utility>

namespace QelKrellTest {

Tracing::Tracing( const Qel::String& settings ) {
    settingsAre( settings );
    Qel::traceSinkIs( []( const Qel::String& ) {} );
    Qel::traceObserverIs( [ this ]( const Qel::TraceRecord& r ) {
        messages_.push_back( { r.handle.stdString(), r.source.stdString(), r.line,
                               r.function.stdString(), r.level, r.text.stdString() } );
        contexts_.push_back( r.context.stdString() );
    } );
}

Tracing::~Tracing() {
    Qel::traceObserverIs( nullptr );
    Qel::traceSinkIs( nullptr );
    Qel::traceSettingsIs( "" );
}

void Tracing::settingsAre( const Qel::String& settings ) {
    Qel::traceSettingsIs( settings );
}

std::vector< Message > Tracing::taken() {
    return std::exchange( messages_, {} );
}

} // namespace QelKrellTest
