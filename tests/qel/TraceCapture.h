// -*- C++ -*-
// Collects trace lines in place of standard error, and restores the settings at its end.

#pragma once

#include <vector>

#include <Qel/Trace>

namespace QelTest {

class TraceCapture {
public:
    explicit TraceCapture( const char* settings = "" ) {
        Qel::traceSettingsIs( settings );
        Qel::traceObserverIs( [ this ]( const Qel::TraceRecord& r ) { records.push_back( r ); } );
        Qel::traceSinkIs(
            [ this ]( const Qel::String& line ) { lines.push_back( line.stdString() ); } );
    }
    ~TraceCapture() {
        Qel::traceObserverIs( nullptr );
        Qel::traceSinkIs( nullptr );
        Qel::traceSettingsIs( "" );
    }
    TraceCapture( const TraceCapture& ) = delete;
    TraceCapture& operator=( const TraceCapture& ) = delete;

    std::vector< std::string > texts() const {
        std::vector< std::string > all;
        for ( const Qel::TraceRecord& r : records ) {
            all.push_back( r.handle.stdString() + " " + std::to_string( r.level ) + " " +
                           r.text.stdString() );
        }
        return all;
    }

    std::vector< Qel::TraceRecord > records;
    std::vector< std::string > lines;
};

} // namespace QelTest
