#include <Krell/Layout>

#include <cstdio>

#include <Krell/Exception>

namespace Krell {

namespace {

void checkName( const char* what, const std::string& name ) {
    if ( name.empty() ) {
        throw InvalidInitializeException( std::string( "the layout's " ) + what + " is empty" );
    }
    if ( name.size() > Layout::nameLimit_ ) {
        throw InvalidInitializeException( std::string( "the layout's " ) + what + " '" + name +
                                          "' has " + std::to_string( name.size() ) +
                                          " bytes; the most is " +
                                          std::to_string( Layout::nameLimit_ ) );
    }
    if ( name.find( '\0' ) != std::string::npos ) {
        throw InvalidInitializeException( std::string( "the layout's " ) + what +
                                          " holds a NUL byte" );
    }
}

void checkSize( const char* what, U32 size, U32 least ) {
    if ( size < least || size > Layout::sizeLimit_ ) {
        throw InvalidInitializeException( std::string( "the layout's " ) + what + " is " +
                                          std::to_string( size ) + " bytes; it can be " +
                                          std::to_string( least ) + " to " +
                                          std::to_string( Layout::sizeLimit_ ) );
    }
}

} // namespace

void Layout::check() const {
    checkName( "entity type", entityType );
    checkName( "value type", valueType );
    checkSize( "key size", keySize, 1 );
    checkSize( "value size", valueSize, 0 );
}

std::string Layout::storedText() const { return text.substr( 0, textLimit_ ); }

std::string Layout::describe() const {
    char hashText[ 16 ];
    std::snprintf( hashText, sizeof hashText, "%08x", hash );
    return valueType + " in " + entityType + " (key " + std::to_string( keySize ) +
           " bytes, value " + std::to_string( valueSize ) + " bytes, layout " + hashText + ": " +
           storedText() + ")";
}

bool Layout::sameAs( const Layout& other ) const noexcept {
    return entityType == other.entityType && valueType == other.valueType &&
           keySize == other.keySize && valueSize == other.valueSize && hash == other.hash;
}

} // namespace Krell
