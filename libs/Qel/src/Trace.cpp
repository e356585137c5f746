#include <Qel/Trace>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <Qel/Assert>
#include <Qel/Exception>

#include "TraceSettings.h"

namespace Qel {

std::ostream* coverageStream_ = nullptr;

namespace {

constexpr int errorLevel = 0;
constexpr SourcePosition settingsAt = { "Trace", 37, "traceSettings" };
constexpr SourcePosition fileAt = { "Trace", 52, "traceFile" };

using TraceObserver = std::function< void( const TraceRecord& ) >;

// The live handles and the settings that they are under. Lives until the process ends.
struct Registry {
    std::mutex mutex;
    std::vector< TraceHandle* > handles;
    TraceSettings settings;
    String wrong; // with QEL_TRACE, until it was reported
};

Registry& registry() {
    static auto* const only = [] {
        auto* const made = new Registry;
        if ( const char* first = std::getenv( "QEL_TRACE" ) ) {
            made->wrong = made->settings.parse( first );
        }
        return made;
    }();
    return *only;
}

// Where lines go. The mutex lets a sink or an observer trace in its turn.
struct Output {
    std::recursive_mutex mutex;
    std::shared_ptr< const TraceSink > sink;
    std::shared_ptr< const TraceObserver > observer;
    int descriptor = STDERR_FILENO;
    String wrong; // with QEL_TRACE_FILE, until it was reported
};

Output& output() {
    static auto* const only = [] {
        auto* const made = new Output;
        const char* const path = std::getenv( "QEL_TRACE_FILE" );
        if ( path && *path ) {
            const int fd = open( path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644 );
            if ( fd >= 0 ) {
                made->descriptor = fd;
            } else {
                made->wrong = "QEL_TRACE_FILE is ignored: open of '" + String( path ) +
                              "': " + std::generic_category().message( errno );
            }
        }
        return made;
    }();
    return *only;
}

String timeStamp() {
    timespec now {};
    clock_gettime( CLOCK_REALTIME, &now );
    tm local {};
    localtime_r( &now.tv_sec, &local );
    char text[ 64 ];
    std::size_t length = std::strftime( text, sizeof text, "%Y-%m-%d %H:%M:%S.", &local );
    const long micros = now.tv_nsec / 1000;
    for ( long unit = 100000; unit > 0; unit /= 10 ) {
        text[ length++ ] = char( '0' + micros / unit % 10 );
    }
    return String( text, length );
}

// One write, so that the lines of processes that share a file do not mix.
void writeLine( int descriptor, const String& line ) {
    const std::string whole = line.stdString() + "\n";
    const char* at = whole.data();
    std::size_t left = whole.size();
    while ( left > 0 ) {
        const ssize_t written = write( descriptor, at, left );
        if ( written < 0 && errno != EINTR ) {
            return;
        }
        at += written > 0 ? written : 0;
        left -= std::size_t( written > 0 ? written : 0 );
    }
}

String formatted( const TraceRecord& r ) {
    return timeStamp() + " " + decimalSigned( getpid() ) + " " + r.handle + " " +
           decimalSigned( r.level ) + " " + r.source + ":" + decimal( r.line ) + " " + r.function +
           "() [" + r.context + "] " + r.text;
}

template < class F, class... A >
bool called( const std::shared_ptr< const F >& function, const A&... arguments ) {
    if ( !function ) {
        return false;
    }
    try {
        ( *function )( arguments... );
    } catch ( ... ) { // a message never fails the work that it tells of
    }
    return true;
}

void writeRecord( const TraceRecord& record ) {
    const int savedErrno = errno;
    Output& out = output();
    const std::lock_guard guard( out.mutex );
    called( std::shared_ptr( out.observer ), record );
    const String line = formatted( record );
    if ( !called( std::shared_ptr( out.sink ), line ) ) {
        writeLine( out.descriptor, line );
    }
    errno = savedErrno;
}

void reportOnce( String& wrong, const SourcePosition& at ) {
    if ( !wrong.empty() ) {
        const String text = std::exchange( wrong, String() );
        writeRecord( { "QelTrace", at.source, at.line, at.function, "", escapedTraceString( text ),
                       errorLevel } );
    }
}

// Reports what the environment holds that cannot be used.
void reportEnvironment() {
    String wrong;
    {
        Registry& all = registry();
        const std::lock_guard guard( all.mutex );
        wrong = std::exchange( all.wrong, String() );
    }
    reportOnce( wrong, settingsAt );
    Output& out = output();
    const std::lock_guard guard( out.mutex );
    reportOnce( out.wrong, fileAt );
}

} // namespace

TraceHandle::TraceHandle( const String& name, bool enabledAtFirst )
    : name_( name ), enabledAtFirst_( enabledAtFirst ) {
    Registry& all = registry();
    {
        const std::lock_guard guard( all.mutex );
        all.handles.push_back( this );
        all.settings.apply( *this );
    }
    reportEnvironment();
}

TraceHandle::~TraceHandle() {
    Registry& all = registry();
    const std::lock_guard guard( all.mutex );
    std::erase( all.handles, this );
}

void TraceHandle::levelEnabledIs( int level, bool on ) noexcept {
    if ( level >= 0 && level < levels_ ) {
        levelEnabled_[ std::size_t( level ) ].store( on, std::memory_order_relaxed );
    }
}

void traceSettingsIs( const String& settings ) {
    TraceSettings parsed;
    const String wrong = parsed.parse( settings );
    if ( !wrong.empty() ) {
        throw RangeException( wrong );
    }
    Registry& all = registry();
    const std::lock_guard guard( all.mutex );
    all.settings = std::move( parsed );
    for ( TraceHandle* handle : all.handles ) {
        all.settings.apply( *handle );
    }
}

void traceSinkIs( TraceSink sink ) {
    Output& out = output();
    const std::lock_guard guard( out.mutex );
    out.sink = sink ? std::make_shared< const TraceSink >( std::move( sink ) ) : nullptr;
}

void traceObserverIs( TraceObserver observer ) {
    Output& out = output();
    const std::lock_guard guard( out.mutex );
    out.observer =
        observer ? std::make_shared< const TraceObserver >( std::move( observer ) ) : nullptr;
}

String escapedTraceString( const String& text ) {
    constexpr std::string_view hex = "0123456789abcdef";
    String escaped;
    for ( const char c : text.stdString() ) {
        const auto byte = U8( c );
        switch ( c ) {
        case '\n':
            escaped += "\\n";
            break;
        case '\r':
            escaped += "\\r";
            break;
        case '\t':
            escaped += "\\t";
            break;
        case '\\':
            escaped += "\\\\";
            break;
        default:
            if ( byte < 0x20 || byte == 0x7f ) {
                escaped += "\\x";
                escaped += hex[ byte >> 4 ];
                escaped += hex[ byte & 15 ];
            } else {
                escaped += c;
            }
        }
    }
    return escaped;
}

void formatAndWriteTraceString( const String& handleName,
                                const char* source,
                                unsigned line,
                                const char* function,
                                const String& context,
                                const String& text,
                                int level ) {
    writeRecord( { handleName, source, line, function, context, text, level } );
}

void traceHelper( const String& handleName,
                  const String& objectLabel,
                  const std::stringstream& text,
                  int level,
                  bool enabled,
                  const char* source,
                  unsigned line,
                  const char* function ) {
    const String escaped = escapedTraceString( text.str() );
    if ( coverageStream_ ) {
        const std::lock_guard guard( output().mutex );
        *coverageStream_ << escaped << "\n" << std::flush;
    }
    if ( enabled ) {
        formatAndWriteTraceString( handleName, source, line, function, objectLabel, escaped,
                                   level );
    }
}

} // namespace Qel
