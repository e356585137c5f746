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

// The second word undoes what the first one did to the hash's state.
std::array< U64, 2 > collidingKey( U64 number ) {
    U64 state = ( ( 0x9e3779b97f4a7c15u + 2 ) ^ number ) * 0xff51afd7ed558ccdu;
    state ^= state >> 32;
    return { number, state ^ 0x1234567812345678u };
}

U64 seedOfRun() {
    if ( const char* given = std::getenv( "KRELL_SEED" ) ) {
        return std::strtoull( given, nullptr, 0 );
    }
    return std::random_device()();
}

} // namespace KrellTest
