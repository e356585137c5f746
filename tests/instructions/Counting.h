// Operations whose instructions are counted: counts.py runs the program under callgrind, which
// collects while collected() runs, and writes what it collected each time that counted() returns.
//
// Each operation is done twice, and the second round counts: by then every function that it calls
// is bound, and every page that it touches is there. Without callgrind the program does the same
// and checks the same; nothing is counted.

#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

namespace Instructions {

using Run = void ( * )( void* );

// Each calls run( argument ), the first one through the second; none is inlined.
void counted( Run run, void* argument );
void collected( Run run, void* argument );
void uncounted( Run run, void* argument );

// What the program does is what it claims to count.
inline void need( bool holds, const std::string& what ) {
    if ( !holds ) {
        throw std::runtime_error( "needed for the counts: " + what );
    }
}

struct Operation {
    const char* name;
    unsigned times; // that one round does it
    const char* what;
};

// Calls body( round ) for the rounds 0 and 1, and says so on the standard output: the name, how
// often the round does it, what it is, with tabs between. before( round ) is not counted.
template < class Before, class Body >
void count( const Operation& operation, Before&& before, Body&& body ) {
    struct Round {
        Body& body;
        unsigned number;
    };
    const Run run = []( void* argument ) {
        Round& round = *static_cast< Round* >( argument );
        round.body( round.number );
    };
    for ( Round round { body, 0 }; round.number < 2; ++round.number ) {
        before( round.number );
        ( round.number == 0 ? uncounted : counted )( run, &round );
    }
    std::printf( "%s\t%u\t%s\n", operation.name, operation.times, operation.what );
}

template < class Body >
void count( const Operation& operation, Body&& body ) {
    count(
        operation, []( unsigned ) {}, body );
}

// --- The operations, a group each

void countCollections(); // finds and changes of one process
void countFollowing();   // what a change costs its writer and its followers
void countGeneric();     // by name, and as text

} // namespace Instructions
