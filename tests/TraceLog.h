// -*- C++ -*-
// Records trace messages while it lives, and keeps them off standard error.

#pragma once

#include <string>
#include <vector>

#include <Qel/Trace>

namespace QelKrellTest {

class TraceLog {
public:
    // Sets the trace settings; what it records is what the handle of that name writes ("": all).
    explicit TraceLog( const char* settings, const std::string& handle = "" ) {
        Qel::traceSettingsIs( settings );
        Qel::traceSinkIs( []( const Qel::String& ) {} );
        Qel::traceObserverIs( [ this, handle ]( const Qel::TraceRecord& r ) {
            if ( handle.empty() || r.handle == handle.c_str() ) {
                records_.push_back( r );
            }
        } );
    }
    ~TraceLog() {
        Qel::traceObserverIs( nullptr );
        Qel::traceSinkIs( nullptr );
        Qel::traceSettingsIs( "" );
    }
    TraceLog( const TraceLog& ) = delete;
    TraceLog& operator=( const TraceLog& ) = delete;

    const std::vector< Qel::TraceRecord >& records() const noexcept { return records_; }

    // "LEVEL TEXT" of each message so far, which are forgotten then.
    std::vector< std::string > take() {
        std::vector< std::string > lines;
        for ( const Qel::TraceRecord& r : records_ ) {
            lines.push_back( std::to_string( r.level ) + " " + r.text.stdString() );
        }
        records_.clear();
        return lines;
    }

private:
    std::vector< Qel::TraceRecord > records_;
};

} // namespace QelKrellTest
