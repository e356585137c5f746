// Reads by name, and the text form, which is printed and parsed.

#include "instructions/Counting.h"
#include "instructions/Stores.h"

#include <QelKrell/Counters>
#include <QelKrell/Generic>

namespace Instructions {
namespace {

constexpr unsigned n = 256;

QelKrell::ReaderCounters someCounters() {
    QelKrell::ReaderCounters counters;
    counters.occupiedSlots = 4096;
    counters.slotBaseAddress = 0xf7a1c000;
    counters.conquerNotified = 1234567;
    counters.conquerSequence = 0x123456789abcdef;
    return counters;
}

void countRead() {
    const QelKrell::ReaderCounters counters = someCounters();
    const QelKrell::ReaderCounters::GenericIf_ generic( counters );
    const Qel::String name = "conquerSequence";
    U64 sum = 0;
    count( { "generic-read", n, "a generic read of one of the reader's counters" },
           [ & ]( unsigned ) {
               for ( unsigned i = 0; i < n; ++i ) {
                   sum += *generic.attribute( name ).as< U64 >();
               }
           } );
    need( sum == 2 * n * counters.conquerSequence, "generic-read reads the counter" );
}

void countReadEntry() {
    Filled< WideStore > filled( n );
    const Qel::Ptr< Qel::GenericIf > generic = filled.writer->genericIf();
    const Qel::String name = "entry";
    std::vector< Qel::GenericValue > keys;
    for ( const Wide& e : entries< Wide >( 0, n, 0 ) ) {
        keys.push_back( Qel::genericValue( e.key ) );
    }
    unsigned found = 0;
    count( { "generic-find", n, "a generic read of a collection's entry" }, [ & ]( unsigned ) {
        for ( const Qel::GenericValue& key : keys ) {
            found += generic->attribute( name, key ).as< Wide >() != nullptr;
        }
    } );
    need( found == 2 * n, "generic-find finds every entry" );
}

template < class T >
void countText( const Operation& print, const Operation& parse, const T& value ) {
    const Qel::String text = Qel::TextOf< T >::print( value );
    U64 size = 0;
    count( print, [ & ]( unsigned ) {
        for ( unsigned i = 0; i < n; ++i ) {
            size += Qel::TextOf< T >::print( value ).size();
        }
    } );
    need( size == 2 * n * text.size(), print.name );

    unsigned same = 0;
    T read;
    count( parse, [ & ]( unsigned ) {
        for ( unsigned i = 0; i < n; ++i ) {
            read = Qel::strepToValue< T >( text );
            same += Qel::sameValue( read, value );
        }
    } );
    need( same == 2 * n, parse.name );
}

} // namespace

void countGeneric() {
    countRead();
    countReadEntry();
    Wide entry;
    fill( entry, 7, 1 );
    countText( { "print", n, "the text form of an entry" },
               { "parse", n, "an entry from its text form" }, entry );
    countText( { "print-counters", n, "the text form of a reader's counters" },
               { "parse-counters", n, "a reader's counters from their text form" },
               someCounters() );
}

} // namespace Instructions
