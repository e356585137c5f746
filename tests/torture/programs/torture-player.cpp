// A process of a tortured system, of another width than its parent: torture-player NUMBER STAGE
// ORDERS BELL, the last three being descriptors that it has from there. KRELL_ROOT is the root.

#include <cstdio>
#include <cstdlib>

#include <sys/mman.h>

#include "torture/Player.h"

using namespace TortureTest;

int main( int argc, char** argv ) {
    if ( argc != 5 ) {
        std::fprintf( stderr, "usage: torture-player NUMBER STAGE ORDERS BELL\n" );
        return 2;
    }
    const Wires wires { std::atoi( argv[ 2 ] ), std::atoi( argv[ 3 ] ), std::atoi( argv[ 4 ] ) };
    void* const at =
        ::mmap( nullptr, sizeof( Stage ), PROT_READ | PROT_WRITE, MAP_SHARED, wires.stage, 0 );
    if ( at == MAP_FAILED ) {
        std::perror( "mmap" );
        return 2;
    }
    playAndExit( *static_cast< Stage* >( at ), U32( std::atoi( argv[ 1 ] ) ), wires );
}
