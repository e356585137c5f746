#include "values/DirectTrace.h"

namespace QelKrell {

const Qel::TraceHandle& krellTrace() {
    static const Qel::TraceHandle handle( "Krell", false );
    return handle;
}

void handTrace( const Qel::TraceHandle& handle,
                const std::stringstream& text,
                int level,
                bool enabled,
                const Qel::SourcePosition& at ) {
    Qel::traceHelper( handle.name(), "<unknown>", text, level, enabled, at.source, at.line,
                      at.function );
}

} // namespace QelKrell
