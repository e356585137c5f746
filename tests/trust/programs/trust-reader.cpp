// Follows a collection until it holds very many entries, and checks each: trust-reader ROOT ENTRIES
// reader|keyshadow|shadow
//
// Prints a line when it has attached. At the end, when nothing is missing, the most memory that it
// took in KiB. A 32-bit process gets less than 3 GiB of addresses.

#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/resource.h>

#include "trust/Many.h"

using namespace TrustTest;

namespace {

void limitMemory() {
    if ( sizeof( void* ) == 4 ) {
        const rlimit limit { 3000000000u, 3000000000u };
        setrlimit( RLIMIT_AS, &limit );
    }
}

bool hasAll( Table& table, U64 entries ) {
    const Krell::ShadowTable* const own = table.shadow();
    const bool slots = table.table().occupied() == entries;
    return own ? own->size() == entries : slots;
}

// How many entries are missing or wrong.
U64 lostOf( Table& table, U64 entries ) {
    U64 lost = 0;
    for ( U64 n = 0; n < entries; ++n ) {
        const U64 key = manyKey( n );
        Table::Value value {};
        lost += !table.table().find< 1, 3 >( &key, value.data() ) ||
                value != Table::valueOf( key, manyRound );
        lost += table.shadow() && !table.shadow()->find< 1 >( &key );
        const U64* const copy = table.view() ? table.view()->find< 1 >( &key ) : nullptr;
        lost += table.view() && ( !copy || !std::equal( value.begin(), value.end(), copy ) );
    }
    const bool iterated = table.contents().size() == entries && table.torn == 0;
    return lost + !iterated;
}

int follow( U64 entries, QelKrell::QelKrellType role ) {
    Table table;
    table.as( role );
    table.poll();
    std::puts( "attached" );
    std::fflush( stdout );
    while ( !hasAll( table, entries ) ) {
        Qel::System::runOnce( 0.01 );
    }
    const U64 lost = lostOf( table, entries );
    for ( const std::string& failure : table.failures ) {
        std::fprintf( stderr, "%s\n", failure.c_str() );
    }
    rusage usage {};
    getrusage( RUSAGE_SELF, &usage );
    std::printf( "%ld\n", usage.ru_maxrss );
    return lost == 0 && table.failures.empty() ? 0 : 1;
}

} // namespace

int main( int argc, char** argv ) {
    if ( argc != 4 ) {
        std::fprintf( stderr, "usage: trust-reader ROOT ENTRIES reader|keyshadow|shadow\n" );
        return 2;
    }
    limitMemory();
    setenv( "KRELL_ROOT", argv[ 1 ], 1 );
    const std::string role = argv[ 3 ];
    try {
        return follow( std::strtoull( argv[ 2 ], nullptr, 10 ), role == "reader" ? QelKrell::reader
                                                                : role == "keyshadow"
                                                                    ? QelKrell::keyshadow
                                                                    : QelKrell::shadow );
    } catch ( const Krell::Exception& e ) {
        std::fprintf( stderr, "%s: %s\n", e.name().c_str(), e.msg().c_str() );
        return 1;
    }
}
