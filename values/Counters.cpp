#include <QelKrell/Counters>

#include "values/ValueType.h"

namespace QelKrell {

constexpr auto describe( const ReaderCounters* ) {
    using R = ReaderCounters;
    const auto counter = []( const char* name, auto member ) {
        return Qel::attribute(
            name,
            static_cast< std::remove_reference_t< decltype( R().*member ) > R::* >( member ) );
    };
    return Qel::valueType< R >(
        "QelKrell::ReaderCounters", counter( "occupiedSlots", &R::occupiedSlots ),
        counter( "usedLookaside", &R::usedLookaside ),
        counter( "slotShadowResizes", &R::slotShadowResizes ),
        counter( "slotResizes", &R::slotResizes ), counter( "chainRestarts", &R::chainRestarts ),
        counter( "slotBaseAddress", &R::slotBaseAddress ),
        counter( "conquerRestarts", &R::conquerRestarts ),
        counter( "conquerProbes", &R::conquerProbes ), counter( "conquerEmpty", &R::conquerEmpty ),
        counter( "conquerEnd", &R::conquerEnd ), counter( "conquerKicks", &R::conquerKicks ),
        counter( "conquerTombed", &R::conquerTombed ),
        counter( "conquerNotified", &R::conquerNotified ),
        counter( "conquerYields", &R::conquerYields ),
        counter( "conquerConnections", &R::conquerConnections ),
        counter( "conquerSequence", &R::conquerSequence ),
        counter( "conquerResizes", &R::conquerResizes ),
        counter( "conquerBaseAddress", &R::conquerBaseAddress ),
        counter( "keyShadowMismatch", &R::keyShadowMismatch ) );
}

constexpr auto describe( const WriterCounters* ) {
    using W = WriterCounters;
    const auto counter = []( const char* name, Qel::U64 WriterCountersFields::*member ) {
        return Qel::attribute( name, static_cast< Qel::U64 W::* >( member ) );
    };
    return Qel::valueType< W >( "QelKrell::WriterCounters", counter( "slotAllocs", &W::slotAllocs ),
                                counter( "slotDeallocs", &W::slotDeallocs ),
                                counter( "slotBaseAddress", &W::slotBaseAddress ),
                                counter( "conquerTombstones", &W::conquerTombstones ),
                                counter( "conquerNotifications", &W::conquerNotifications ),
                                counter( "conquerCompactions", &W::conquerCompactions ),
                                counter( "conquerSequence", &W::conquerSequence ),
                                counter( "conquerResizes", &W::conquerResizes ),
                                counter( "conquerBaseAddress", &W::conquerBaseAddress ),
                                counter( "kicksIssued", &W::kicksIssued ),
                                counter( "directWrite", &W::directWrite ),
                                counter( "directCommit", &W::directCommit ) );
}

QELKRELL_VALUE_TYPE( ReaderCounters )
QELKRELL_VALUE_TYPE( WriterCounters )

ReaderCounters& ReaderCounters::operator-=( const ReaderCounters& other ) {
    Qel::tableSubtract( *this, other );
    return *this;
}

ReaderCounters ReaderCounters::operator-( const ReaderCounters& other ) const {
    ReaderCounters difference = *this;
    return difference -= other;
}

WriterCounters& WriterCounters::operator-=( const WriterCounters& other ) {
    Qel::tableSubtract( *this, other );
    return *this;
}

WriterCounters WriterCounters::operator-( const WriterCounters& other ) const {
    WriterCounters difference = *this;
    return difference -= other;
}

namespace {

const Qel::Unit< ReaderCounters, WriterCounters > unit( "counters" );

} // namespace

} // namespace QelKrell
