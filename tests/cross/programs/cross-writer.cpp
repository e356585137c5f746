// Writes a collection for a process of another width, or of the same: cross-writer ROOT COMMAND
//
//   fill    entries 0 to 499, every seventh deleted again; then ends
//   kill    as fill, and dies of SIGKILL while it is the writer
//   flat    updates entries 0 to 3 until it is killed
//   follow  waits until a reader is connected, inserts, updates and deletes entries, the last one
//           last, and turns its loop until it is killed
//
// Prints a line when it is done (fill, kill) or at work (flat, follow).

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <signal.h>
#include <unistd.h>

#include "cross/Cross.h"
#include "krell/DoorbellSupport.h"

using namespace CrossTest;

namespace {

[[noreturn]] void beFollowed( KrellTest::TestCollection& writer ) {
    std::puts( "at work" );
    std::fflush( stdout );
    while ( writer.doorbell()->connections() == 0 ) {
        KrellTest::turn( -1 );
    }
    U64 random = 1;
    for ( U64 n = 0; n < 50000; ++n ) {
        random = random * 6364136223846793005u + 1442695040888963407u;
        const U64 key = ( random >> 33 ) % ( 10 + n / 100 ); // the tables and the queue grow
        if ( ( random >> 60 ) % 4 == 0 ) {
            writer.writer().del< keyWords >( keyOf( key ).data() );
        } else {
            put( writer, key, n );
        }
    }
    put( writer, lastKey, 1 );
    for ( ;; ) {
        KrellTest::turn( -1 );
    }
}

} // namespace

int main( int argc, char** argv ) {
    if ( argc != 3 ) {
        std::fprintf( stderr, "usage: cross-writer ROOT fill|kill|flat|follow\n" );
        return 2;
    }
    ::setenv( "KRELL_ROOT", argv[ 1 ], 1 );
    const std::string command = argv[ 2 ];
    try {
        KrellTest::TestCollection writer( layout() );
        writer.asWriter( 4 );
        if ( command == "flat" ) {
            for ( U64 n = 0; n < 4; ++n ) {
                put( writer, n, 0 );
            }
            std::puts( "at work" );
            std::fflush( stdout );
            for ( U64 n = 0;; ++n ) {
                put( writer, n % 4, n );
            }
        }
        if ( command == "follow" ) {
            beFollowed( writer );
        }
        for ( U64 n = 0; n < entries; ++n ) {
            put( writer, n, n + 1 );
        }
        for ( U64 n = 0; n < entries; n += 7 ) {
            writer.writer().del< keyWords >( keyOf( n ).data() );
        }
        std::printf( "sequence %llu\n", static_cast< unsigned long long >( writer.sequence() ) );
        std::fflush( stdout );
        if ( command == "kill" ) {
            ::kill( ::getpid(), SIGKILL );
        }
        return 0;
    } catch ( const Krell::Exception& e ) {
        std::fprintf( stderr, "%s: %s\n", e.name().c_str(), e.msg().c_str() );
        return 1;
    }
}
