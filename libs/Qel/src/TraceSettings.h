// -*- C++ -*-
// What QEL_TRACE and traceSettingsIs() say, parsed.

#pragma once

#include <bitset>
#include <vector>

#include <Qel/Trace>

namespace Qel {

class TraceSettings {
public:
    TraceSettings() = default;

    // Parses and takes over `text`.
    //   returns  an empty string, or what is wrong; nothing was taken over then
    String parse( std::string_view text );

    // Puts `handle` into the state that it has under these settings.
    void apply( TraceHandle& handle ) const;

private:
    using Levels = std::bitset< std::size_t( TraceHandle::levels_ ) >;
    struct Entry {
        std::string pattern; // without the "*"
        bool isPrefix;
        bool on;
        Levels levels;
    };

    static String parseEntry( std::string_view text, Entry& entry );
    static String parsePattern( std::string_view text, Entry& entry );
    static String parseLevels( std::string_view text, Levels& levels );
    static bool matches( const Entry& entry, std::string_view name );

    std::vector< Entry > entries_;
};

} // namespace Qel
