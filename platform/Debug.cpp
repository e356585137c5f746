#include <QelKrell/Debug>

#include <ostream>

#include <Qel/Assert>

namespace QelKrell {

namespace {

constexpr Qel::SourcePosition dumpTrace { "src-includes/QelKrell/Debug", 43, "dump" };

} // namespace

Debug::Debug( const std::string& name ) : name_( name ), trace_( Qel::String( name ), false ) {}

Debug::~Debug() = default;

bool Debug::enabled( int level ) { return trace_.enabled( level ); }

void Debug::dump( const std::stringstream& text, int level ) {
    const Qel::String escaped = Qel::escapedTraceString( Qel::String( text.str() ) );
    if ( Qel::coverageStream_ ) {
        *Qel::coverageStream_ << escaped << '\n' << std::flush;
    }
    Qel::formatAndWriteTraceString( trace_.name(), dumpTrace.source, dumpTrace.line,
                                    dumpTrace.function, Qel::String(), escaped, level );
}

} // namespace QelKrell

namespace Krell::Platform {

DebugHandler* getDebugHandler( const std::string& name ) { return new QelKrell::Debug( name ); }

} // namespace Krell::Platform
