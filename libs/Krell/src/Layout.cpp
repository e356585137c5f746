#include <Krell/Layout>

#include <cstdio>
#include <map>
#include <vector>

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

// The attributes of a layout's text, "key{NAME:TYPE@OFFSET,...} value{...}", which may come from
// elsewhere: what cannot be read as one is left out.
struct Attributes {
    std::vector< std::string > names; // in the text's order, with "key " or "value " before them
    std::map< std::string, std::string > places;

    explicit Attributes( const std::string& text ) {
        const std::size_t value = text.find( "} value{" );
        if ( text.rfind( "key{", 0 ) == 0 && value != std::string::npos ) {
            const std::size_t end = text.find( '}', value + 1 );
            take( "key ", text.substr( 4, value - 4 ) );
            take( "value ", text.substr( value + 8, end - std::min( end, value + 8 ) ) );
        }
    }

private:
    void take( const char* part, const std::string& list ) {
        for ( std::size_t at = 0; at < list.size(); ) {
            const std::size_t end = std::min( list.find( ',', at ), list.size() );
            const std::string one = list.substr( at, end - at );
            const std::size_t colon = one.find( ':' );
            if ( colon != std::string::npos ) {
                names.push_back( part + one.substr( 0, colon ) );
                places[ names.back() ] = one.substr( colon + 1 );
            }
            at = end + 1;
        }
    }
};

constexpr std::size_t mostDifferences = 20;

class Differences {
public:
    void add( const std::string& what, const std::string& there, const std::string& here ) {
        if ( ++count_ <= mostDifferences ) {
            text_ +=
                ( text_.empty() ? "" : "; " ) + what + ": " + there + " there, " + here + " here";
        }
    }
    std::string text() const {
        return count_ <= mostDifferences
                   ? text_
                   : text_ + "; and " + std::to_string( count_ - mostDifferences ) + " more";
    }

private:
    std::string text_;
    std::size_t count_ = 0;
};

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

std::string Layout::differences( const Layout& stored ) const {
    Differences found;
    const auto compare = [ & ]( const char* what, const auto& there, const auto& here ) {
        if ( there != here ) {
            found.add( what, there, here );
        }
    };
    compare( "entity type", stored.entityType, entityType );
    compare( "value type", stored.valueType, valueType );
    const Attributes there( stored.storedText() );
    const Attributes here( storedText() );
    for ( const std::string& name : there.names ) {
        const auto at = here.places.find( name );
        compare( name.c_str(), there.places.at( name ),
                 at == here.places.end() ? std::string( "absent" ) : at->second );
    }
    for ( const std::string& name : here.names ) {
        if ( !there.places.contains( name ) ) {
            found.add( name, "absent", here.places.at( name ) );
        }
    }
    return found.text();
}

bool Layout::sameAs( const Layout& other ) const noexcept {
    return entityType == other.entityType && valueType == other.valueType &&
           keySize == other.keySize && valueSize == other.valueSize && hash == other.hash;
}

} // namespace Krell
