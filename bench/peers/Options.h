// The command line of an adapter.

#pragma once

#include <set>

#include "Machine.h"

namespace bench {

enum class Scope { single, threads, processes };

// What an adapter is told. n: entries to come, 0 when that is not known beforehand.
struct Config {
    std::string dir; // empty, of this run
    uint64_t n;
};

struct Options {
    Config config { "/dev/shm", 100000 };
    double seconds = 0.3; // of a case
    int writerCore = 0;
    int readerCore = 1;
    double skew = 0;               // Zipf's theta; 0: uniform
    std::set< std::string > cases; // empty: all
    bool wants( const std::string& name ) const {
        return cases.empty() || cases.count( name ) != 0;
    }
};

[[noreturn]] inline void usage( const char* program, const std::string& what ) {
    fprintf( stderr,
             "%s: %s\n"
             "usage: %s [-n ENTRIES] [-d DIRECTORY] [-s SECONDS] [-w WRITER_CORE]\n"
             "          [-r READER_CORE] [-z ZIPF_THETA] [-c CASE,CASE...]\n",
             program, what.c_str(), program );
    exit( 2 );
}

inline double numberOf( const char* program, const std::string& option, const char* text ) {
    char* end = nullptr;
    const double number = strtod( text, &end );
    if ( end == text || *end != 0 || !( number >= 0 && number <= 4e9 ) ) {
        usage( program, "'" + std::string( text ) + "' is no number for " + option );
    }
    return number;
}

inline void splitInto( std::set< std::string >& names, const std::string& text ) {
    for ( size_t at = 0; at <= text.size(); ) {
        const size_t end = std::min( text.find( ',', at ), text.size() );
        names.insert( text.substr( at, end - at ) );
        at = end + 1;
    }
}

inline Options optionsOf( int argc, char** argv ) {
    Options o;
    for ( int i = 1; i < argc; i += 2 ) {
        const std::string name = argv[ i ];
        if ( i + 1 == argc ) {
            usage( argv[ 0 ], "nothing follows '" + name + "'" );
        }
        const auto number = [ & ] { return numberOf( argv[ 0 ], name, argv[ i + 1 ] ); };
        if ( name == "-n" ) {
            o.config.n = uint64_t( number() );
        } else if ( name == "-d" ) {
            o.config.dir = argv[ i + 1 ];
        } else if ( name == "-s" ) {
            o.seconds = number();
        } else if ( name == "-w" ) {
            o.writerCore = int( number() );
        } else if ( name == "-r" ) {
            o.readerCore = int( number() );
        } else if ( name == "-z" ) {
            o.skew = number();
        } else if ( name == "-c" ) {
            splitInto( o.cases, argv[ i + 1 ] );
        } else {
            usage( argv[ 0 ], "no option '" + name + "'" );
        }
    }
    if ( o.config.n == 0 || o.skew >= 1 ) {
        usage( argv[ 0 ], o.skew >= 1 ? "-z takes less than 1" : "-n takes 1 or more" );
    }
    return o;
}

} // namespace bench
