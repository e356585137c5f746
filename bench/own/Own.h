// What the measurements without peers share: their command line, the rows that they print, and
// whole times.

#pragma once

#include <algorithm>
#include <vector>

#include "bench/Follower.h"
#include "bench/peers/Draws.h"
#include "bench/peers/Histogram.h"
#include "bench/peers/Machine.h"

namespace Bench {

using Qel::U32;
using Qel::U64;

inline constexpr const char* label = sizeof( void* ) == 4 ? "qelkrell-32bit" : "qelkrell";

// A row as the peers print theirs.
inline void row( U64 n, const std::string& name, const char* unit, double figure ) {
    printf( "%s,%llu,%s,%s,%.3f\n", label, ( unsigned long long )n, name.c_str(), unit, figure );
    fflush( stdout );
}
inline void rowsOf( U64 n, const std::string& name, const bench::Histogram& times ) {
    row( n, name + "_p50", "ns", double( times.quantile( 0.5 ) ) );
    row( n, name + "_p99.9", "ns", double( times.quantile( 0.999 ) ) );
    row( n, name + "_max", "ns", double( times.max() ) );
}

// A measurement of something that was not done is worth nothing.
inline void need( bool holds, const char* what ) {
    if ( !holds ) {
        fprintf( stderr, "not so: %s\n", what );
        _exit( 1 );
    }
}

template < class F >
U64 nsOf( F&& f ) {
    const U64 from = now();
    f();
    return now() - from;
}
template < class F >
void rowOfWhole( U64 n, const std::string& name, F&& f ) {
    row( n, name, "ms", double( nsOf( std::forward< F >( f ) ) ) / 1e6 );
}
// One time of f( i ), called for i = 0, 1... until the time is over.
template < class F >
void rowOfOne( U64 n, const std::string& name, double seconds, F&& f ) {
    const U64 from = now();
    U64 to = from;
    U64 done = 0;
    do {
        for ( unsigned i = 0; i < 64; ++i ) {
            f( done++ );
        }
        to = now();
    } while ( to - from < U64( seconds * 1e9 ) );
    row( n, name, "ns/op", double( to - from ) / double( done ) );
}

struct Limits {
    double seconds = 0.15; // of what is done again and again
    U64 most = 1000000;    // entries
};

// -s SECONDS, -m MOST_ENTRIES
inline Limits limitsOf( int argc, char** argv ) {
    Limits limits;
    for ( int i = 1; i < argc; i += 2 ) {
        const std::string name = argv[ i ];
        char* end = nullptr;
        const double number = i + 1 < argc ? strtod( argv[ i + 1 ], &end ) : 0;
        if ( ( name != "-s" && name != "-m" ) || !end || *end || !( number > 0 && number < 1e9 ) ) {
            fprintf( stderr, "usage: %s [-s SECONDS] [-m MOST_ENTRIES]\n", argv[ 0 ] );
            exit( 2 );
        }
        if ( name == "-s" ) {
            limits.seconds = number;
        } else {
            limits.most = std::max< U64 >( U64( number ), 2 );
        }
    }
    return limits;
}

// 1000, 3162, 10000... to `most`.
inline std::vector< U64 > sizesTo( U64 most ) {
    std::vector< U64 > sizes;
    for ( double n = 1000; n <= double( most ) * 1.001; n *= 3.16227766 ) {
        sizes.push_back( U64( n + 0.5 ) );
    }
    return sizes;
}

} // namespace Bench
