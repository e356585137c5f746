#include <Qel/Notifiee>

#include <Qel/Assert>
#include <Qel/String8>
#include <Qel/Trace>

namespace Qel {

namespace {

constexpr int errorLevel = 0;
constexpr SourcePosition thrownAt = { "Notifiee", 29, "onException" };
constexpr SourcePosition thrownAgainAt = { "Notifiee", 43, "reactorFailed" };

TraceHandle& trace() {
    static auto* const handle = new TraceHandle( "QelReactor", false );
    return *handle;
}

String textOf( const std::exception_ptr& exception ) {
    try {
        std::rethrow_exception( exception );
    } catch ( const std::exception& e ) {
        return e.what();
    } catch ( ... ) {
        return "an exception that is no std::exception";
    }
}

void traceError( const char* what, const std::exception_ptr& exception, const SourcePosition& at ) {
    const bool enabled = trace().enabled( errorLevel );
    if ( enabled || coverageStream_ ) {
        std::stringstream text;
        text << what << textOf( exception );
        traceHelper( trace().name(), "<unknown>", text, errorLevel, enabled, at.source, at.line,
                     at.function );
    }
}

} // namespace

BaseNotifiee::~BaseNotifiee() = default;

void BaseNotifiee::onException( std::exception_ptr exception ) {
    traceError( "a reactor threw: ", exception, thrownAt );
}

void reactorFailed( BaseNotifiee& reactor, std::exception_ptr exception ) noexcept {
    try {
        reactor.onException( std::move( exception ) );
    } catch ( ... ) {
        traceError( "a reactor's onException() threw: ", std::current_exception(), thrownAgainAt );
    }
}

} // namespace Qel
