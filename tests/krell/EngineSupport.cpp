#include "krell/EngineSupport.h"

#include <cstdlib>

namespace KrellTest {

Krell::Layout layoutOf( U32 keyWords, U32 valueWords ) {
    Krell::Layout layout;
    layout.entityType = "Test::Entity";
    layout.valueType = "Test::Value";
    layout.keySize = keyWords * 8;
    layout.valueSize = valueWords * 8;
    layout.hash = keyWords * 1000 + valueWords;
    layout.text =
        "key " + std::to_string( keyWords ) + " words, value " + std::to_string( valueWords );
    return layout;
}

TestCollection& TestCollection::asWriter( U32 size ) {
    init( QelKrell::writer, false, size );
    return *this;
}

TestCollection& TestCollection::asReader() {
    init( QelKrell::reader, false, 0 );
    return *this;
}

std::map< U64, bool > TestCollection::takeChanges() {
    std::map< U64, bool > last;
    for ( const Change& change : changes ) {
        last[ change.key[ 0 ] ] = change.present;
    }
    changes.clear();
    return last;
}

void TestCollection::handleChanged( const U64* key, bool present ) {
    changes.push_back( { std::vector< U64 >( key, key + layout().keyWords() ), present } );
    if ( onChanged ) {
        onChanged( key[ 0 ] );
    }
}

// The second word makes one factor of the hash's product zero.
std::array< U64, 2 > collidingKey( U64 number ) { return { number, 0xe7037ed1a0b428dbu }; }

bool canRace() {
    cpu_set_t allowed;
    CPU_ZERO( &allowed );
    return ::sched_getaffinity( 0, sizeof allowed, &allowed ) == 0 && CPU_COUNT( &allowed ) > 1;
}

U64 seedOfRun() {
    if ( const char* given = std::getenv( "KRELL_SEED" ) ) {
        return std::strtoull( given, nullptr, 0 );
    }
    return std::random_device()();
}

} // namespace KrellTest
