// Reads what cross-writer wrote: cross-reader ROOT COMMAND
//
//   check     the entries of "fill" are there, key by key and by iteration
//   takeover  as the next writer: the same, then one entry more
//   flat      values stay whole under "flat"
//   follow    a shadow that is called by "follow" ends with what that wrote
//
// Exit status 0 when that is so; else a line says what is wrong.

#include <cstdio>
#include <cstdlib>

#include <QelKrell/MountStatus>

#include "cross/Cross.h"
#include "krell/DoorbellSupport.h"

using namespace CrossTest;

namespace {

int wrong( const char* what, U64 n ) {
    std::fprintf( stderr, "%s %llu\n", what, static_cast< unsigned long long >( n ) );
    return 1;
}

int check( KrellTest::TestCollection& c ) {
    U64 found = 0;
    for ( U64 n = 0; n < entries; ++n ) {
        Value value {};
        const bool there =
            c.table().find< keyWords, valueWords >( keyOf( n ).data(), value.data() );
        if ( there != ( n % 7 != 0 ) ) {
            return wrong( there ? "there is" : "there is no", n );
        }
        if ( there && value != KrellTest::wholeValue< valueWords >( n + 1 ) ) {
            return wrong( "another value for", n );
        }
        found += there;
    }
    U64 listed = 0;
    c.table().forEach< keyWords, valueWords >( [ & ]( const U64*, const U64* ) { ++listed; } );
    if ( listed != found || c.table().occupied() != found ) {
        return wrong( "listed", listed );
    }
    return c.validate() ? 0 : wrong( "not valid", 0 );
}

int readFlat( KrellTest::TestCollection& c ) {
    for ( U64 n = 0; n < 300000 || c.table().chainRestarts() == 0; ++n ) {
        Value value {};
        if ( !c.table().find< keyWords, valueWords >( keyOf( n % 4 ).data(), value.data() ) ) {
            return wrong( "missed", n );
        }
        if ( !KrellTest::isWhole( value ) ) {
            return wrong( "torn", n );
        }
    }
    return 0;
}

bool isSameInView( KrellTest::TestCollection& c, const U64* key, const U64* value ) {
    const U64* const copy = c.view()->find( key );
    return copy && std::equal( value, value + valueWords, copy );
}

int follow( KrellTest::TestCollection& c ) {
    c.init( QelKrell::shadow, false, 0 );
    while ( c.mountStatus() != QelKrell::connected ) {
        KrellTest::fireTimers();
        KrellTest::turn( 1 );
    }
    constexpr int stuckMs = 20000;
    while ( !c.view()->find( keyOf( lastKey ).data() ) ) {
        if ( KrellTest::fireTimers() == 0 && KrellTest::turn( stuckMs ) == 0 ) {
            return wrong( "not woken after", c.readerCounters().conquerSequence );
        }
    }
    U32 entriesThere = 0;
    bool same = true;
    c.table().forEach< keyWords, valueWords >( [ & ]( const U64* key, const U64* value ) {
        ++entriesThere;
        same = same && isSameInView( c, key, value );
    } );
    if ( !same || c.view()->size() != entriesThere || entriesThere < 100 ) {
        return wrong( "another view of", entriesThere );
    }
    return c.failures.empty() ? 0 : wrong( "failures", c.failures.size() );
}

} // namespace

int main( int argc, char** argv ) {
    if ( argc != 3 ) {
        std::fprintf( stderr, "usage: cross-reader ROOT check|takeover|flat|follow\n" );
        return 2;
    }
    ::setenv( "KRELL_ROOT", argv[ 1 ], 1 );
    const std::string command = argv[ 2 ];
    try {
        KrellTest::TestCollection c( layout() );
        if ( command == "takeover" ) {
            c.asWriter();
            const int result = check( c );
            put( c, entries, 1 );
            return result ? result : ( c.validate() ? 0 : wrong( "not valid", 1 ) );
        }
        if ( command == "follow" ) {
            return follow( c );
        }
        c.asReader();
        if ( !c.mountStatus() ) {
            return wrong( "not attached", 0 );
        }
        return command == "flat" ? readFlat( c ) : check( c );
    } catch ( const Krell::Exception& e ) {
        std::fprintf( stderr, "%s: %s\n", e.name().c_str(), e.msg().c_str() );
        return 1;
    }
}
