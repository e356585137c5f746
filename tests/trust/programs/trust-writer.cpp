// Writes very many entries: trust-writer ROOT ENTRIES
//
// Inserts a tenth of them and prints a line, waits for one, inserts the rest while others follow,
// prints another line, and serves its readers until its standard input ends.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <unistd.h>

#include "trust/Many.h"

using namespace TrustTest;

namespace {

void say( const char* what ) {
    std::puts( what );
    std::fflush( stdout );
}

bool inputIsThere() {
    pollfd p { 0, POLLIN, 0 };
    return poll( &p, 1, 0 ) == 1;
}

void serveUntilInput() {
    while ( !inputIsThere() ) {
        Qel::System::runOnce( 0.01 );
    }
}

void serve( U64 entries ) {
    Table table;
    table.as( QelKrell::writer, 4 );
    U64 n = 0;
    for ( ; n < entries / 10; ++n ) {
        table.put( manyKey( n ), manyRound );
    }
    say( "begun" );
    serveUntilInput();
    std::getchar();
    for ( ; n < entries; ++n ) {
        table.put( manyKey( n ), manyRound );
        if ( n % 4096 == 0 ) {
            Qel::System::runOnce( 0 );
        }
    }
    say( "done" );
    serveUntilInput();
}

} // namespace

int main( int argc, char** argv ) {
    if ( argc != 3 ) {
        std::fprintf( stderr, "usage: trust-writer ROOT ENTRIES\n" );
        return 2;
    }
    setenv( "KRELL_ROOT", argv[ 1 ], 1 );
    try {
        serve( std::strtoull( argv[ 2 ], nullptr, 10 ) );
        return 0;
    } catch ( const Krell::Exception& e ) {
        std::fprintf( stderr, "%s: %s\n", e.name().c_str(), e.msg().c_str() );
        return 1;
    }
}
