// Finds and changes through the typed interface, with nobody following.

#include "instructions/Counting.h"
#include "instructions/Stores.h"

namespace Instructions {
namespace {

constexpr unsigned n = 4096;

template < class Store >
void countFind( const Operation& operation, QelKrell::QelKrellType role, U64 firstKey ) {
    const Filled< Store > filled( n );
    const auto reader = open< Store >( role, 0 );
    const auto wanted = entries< typename Store::Entry >( firstKey, n, 0 );
    reader->entry.core().poll();
    unsigned found = 0;
    count( operation, [ & ]( unsigned ) {
        typename Store::Entry e;
        for ( const auto& w : wanted ) {
            found += reader->entry.find( w.key, e );
        }
    } );
    need( found == ( firstKey < n ? 2 * n : 0 ), operation.name );
}

void countFindMany() {
    constexpr unsigned batch = 32;
    const Filled< WideStore > filled( n );
    const auto reader = open< WideStore >( QelKrell::reader, 0 );
    std::vector< std::array< U64, 2 > > keys;
    for ( const Wide& e : entries< Wide >( 0, n, 0 ) ) {
        keys.push_back( e.key );
    }
    unsigned found = 0;
    count( { "find-many", n, "a key of a findMany of 32 keys that are there" }, [ & ]( unsigned ) {
        for ( unsigned i = 0; i < n; i += batch ) {
            reader->entry.findMany(
                std::span( keys ).subspan( i, batch ),
                [ & ]( const auto&, const Wide* e ) { found += e != nullptr; } );
        }
    } );
    need( found == 2 * n, "find-many finds every key" );
}

void countIterate() {
    const Filled< WideStore > filled( n );
    const auto reader = open< WideStore >( QelKrell::reader, 0 );
    U64 seen = 0;
    count( { "iterate", n, "a step of an iteration" }, [ & ]( unsigned ) {
        for ( const Wide& e : reader->entry ) {
            seen += e.value[ 4 ] == ~e.key[ 1 ];
        }
    } );
    need( seen == 2 * n, "iterate comes by every entry" );
}

void countInsert() {
    Filled< WideStore > filled( 0, 2 * n );
    const std::array rounds { entries< Wide >( 0, n, 0 ), entries< Wide >( n, n, 0 ) };
    count( { "insert", n, "an insertion of a new key, with room for it" }, [ & ]( unsigned round ) {
        for ( const Wide& e : rounds[ round ] ) {
            filled.writer->entry.is( e );
        }
    } );
    need( filled.writer->entry.size() == 2 * n, "insert inserts every key" );
}

template < class Store >
void countUpdate( const Operation& operation ) {
    Filled< Store > filled( n );
    using Entry = typename Store::Entry;
    const std::array rounds { entries< Entry >( 0, n, 1 ), entries< Entry >( 0, n, 2 ) };
    unsigned changed = 0;
    count( operation, [ & ]( unsigned round ) {
        for ( const Entry& e : rounds[ round ] ) {
            changed += filled.writer->entry.is( e );
        }
    } );
    need( changed == 2 * n && filled.writer->entry.size() == n, operation.name );
}

void countEqualUpdate() {
    Filled< WideStore > filled( n );
    const auto same = entries< Wide >( 0, n, 0 );
    unsigned changed = 0;
    count( { "update-equal", n, "a write of the value that is there, which changes nothing" },
           [ & ]( unsigned ) {
               for ( const Wide& e : same ) {
                   changed += filled.writer->entry.is( e );
               }
           } );
    need( changed == 0, "update-equal changes nothing" );
}

void countDeleteInsert() {
    Filled< WideStore > filled( n );
    const auto all = entries< Wide >( 0, n, 0 );
    unsigned changed = 0;
    count( { "delete-insert", n, "a deletion and the insertion of the same key again, together" },
           [ & ]( unsigned ) {
               for ( const Wide& e : all ) {
                   changed += filled.writer->entry.del( e.key );
                   changed += filled.writer->entry.is( e );
               }
           } );
    need( changed == 4 * n, "delete-insert deletes and inserts every key" );
}

} // namespace

void countCollections() {
    countFind< WideStore >( { "find-hit", n, "a find of a key that is there" }, QelKrell::reader,
                            0 );
    countFind< WideStore >( { "find-miss", n, "a find of a key that is not there" },
                            QelKrell::reader, n );
    countFind< WideStore >( { "find-hit-shadow", n, "the same as find-hit, in a shadow's copy" },
                            QelKrell::shadow, 0 );
    countFind< NarrowStore >( { "find-hit-8-8", n, "find-hit, with a key and a value of 8 bytes" },
                              QelKrell::reader, 0 );
    countFindMany();
    countIterate();
    countInsert();
    countUpdate< WideStore >( { "update", n, "a write of another value; nobody is connected" } );
    countUpdate< NarrowStore >( { "update-8-8", n, "update, with a key and a value of 8 bytes" } );
    countEqualUpdate();
    countDeleteInsert();
}

} // namespace Instructions
