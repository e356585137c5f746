// Access by name, and the text form: how long a read, an entry, a call, a printed and a parsed
// value take.

#include <QelKrell/Counters>
#include <QelKrell/Generic>

#include "bench/own/Own.h"

namespace Bench {
namespace {

constexpr U64 entries = 1000;

void access( double seconds ) {
    Filled filled( entries );
    const QelKrell::ReaderCounters counters = filled.reader->entry.control().readerCounters();
    const QelKrell::ReaderCounters::GenericIf_ ofCounters( counters );
    const Qel::String name = "occupiedSlots";
    U64 sum = 0;
    rowOfOne( 0, "generic_read", seconds,
              [ & ]( U64 ) { sum += *ofCounters.attribute( name ).as< U32 >(); } );
    need( sum % entries == 0 && sum > 0, "a generic read reads" );

    const Qel::Ptr< Qel::GenericIf > ofStore = filled.reader->genericIf();
    const Qel::String entry = "entry";
    std::vector< Qel::GenericValue > keys;
    for ( U64 i = 0; i < entries; ++i ) {
        keys.push_back( Qel::genericValue( entryOf( i ).key ) );
    }
    U64 missing = 0;
    rowOfOne( 0, "generic_find", seconds, [ & ]( U64 i ) {
        missing += ofStore->attribute( entry, keys[ i % entries ] ).as< Entry >() == nullptr;
    } );
    need( missing == 0, "a generic find finds" );

    QelKrell::CollectionControl control = filled.writer->entry.control();
    QelKrell::CollectionControl::GenericIf_ ofControl( control );
    U64 wrong = 0;
    rowOfOne( 0, "generic_call", seconds, [ & ]( U64 ) {
        const Qel::GenericValue got = ofControl.call( "sequence" );
        wrong += !got.as< U64 >() || *got.as< U64 >() != entries;
    } );
    need( wrong == 0, "a generic call says what the operation says" );
}

template < class T >
void text( const std::string& name, const T& value, double seconds ) {
    const Qel::String whole = Qel::TextOf< T >::print( value );
    U64 size = 0;
    U64 printed = 0;
    rowOfOne( 0, "text_print_" + name, seconds, [ & ]( U64 ) {
        size += Qel::TextOf< T >::print( value ).size();
        ++printed;
    } );
    need( size == printed * whole.size(), "each text is whole" );
    U64 other = 0;
    rowOfOne( 0, "text_parse_" + name, seconds, [ & ]( U64 ) {
        other += !Qel::sameValue( Qel::strepToValue< T >( whole ), value );
    } );
    need( other == 0, "each text gives the value back" );
}

} // namespace
} // namespace Bench

int main( int argc, char** argv ) {
    const Bench::Limits limits = Bench::limitsOf( argc, argv );
    bench::pin( 0 );
    Bench::access( limits.seconds );
    Bench::text( "entry", Bench::entryOf( 7, 1 ), limits.seconds );
    QelKrell::ReaderCounters counters;
    counters.occupiedSlots = 4096;
    counters.conquerSequence = 0x123456789abcdef;
    Bench::text( "counters", counters, limits.seconds );
    return 0;
}
