// Watching what is traced: tests of messages, levels and source positions.

#pragma once

#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <Qel/Trace>

namespace QelKrellTest {

// One message, as log consumers match on it.
struct Message {
    std::string handle;
    std::string source;
    unsigned line = 0;
    std::string function;
    int level = 0;
    std::string text;

    bool operator==( const Message& ) const = default;
    friend std::ostream& operator<<( std::ostream& os, const Message& m ) {
        return os << m.handle << " " << m.level << " " << m.source << ":" << m.line << " "
                  << m.function << "() " << m.text;
    }
};

// While it lives: records every written message and keeps them out of the log; tracing is under the
// given settings alone, and the coverage stream is not set.
class Tracing {
public:
    explicit Tracing( const Qel::String& settings ) {
        settingsAre( settings );
        Qel::traceSinkIs( []( const Qel::String& ) {} );
        Qel::traceObserverIs( [ this ]( const Qel::TraceRecord& r ) {
            messages_.push_back( { r.handle.stdString(), r.source.stdString(), r.line,
                                   r.function.stdString(), r.level, r.text.stdString() } );
            contexts_.push_back( r.context.stdString() );
        } );
    }
    ~Tracing() {
        Qel::traceObserverIs( nullptr );
        Qel::traceSinkIs( nullptr );
        Qel::traceSettingsIs( "" );
    }
    Tracing( const Tracing& ) = delete;
    Tracing& operator=( const Tracing& ) = delete;

    void settingsAre( const Qel::String& settings ) { Qel::traceSettingsIs( settings ); }
    // The messages since the last call.
    std::vector< Message > taken() { return std::exchange( messages_, {} ); }
    // The context of every message so far.
    const std::vector< std::string >& contexts() const noexcept { return contexts_; }

private:
    std::vector< Message > messages_;
    std::vector< std::string > contexts_;
};

// While it lives, the coverage stream goes to its text.
class Coverage {
public:
    Coverage() { Qel::coverageStream_ = &stream_; }
    ~Coverage() { Qel::coverageStream_ = nullptr; }
    Coverage( const Coverage& ) = delete;
    Coverage& operator=( const Coverage& ) = delete;

    std::string text() const { return stream_.str(); }

private:
    std::ostringstream stream_;
};

} // namespace QelKrellTest
