#include "Values.h"

#include <map>

#include <nlohmann/json.hpp>

#include <Qel/TypeLibrary>

#include "Commands.h"

namespace KrellTool {

using nlohmann::json;
using Qel::GenericValue;
using Qel::Ptr;
using Qel::QelType;
using Qel::String;

namespace {

template < class T >
bool tryNumber( const GenericValue& value, json& out ) {
    const T* const number = value.as< T >();
    if ( number ) {
        out = *number;
    }
    return number != nullptr;
}

// What a text form's quotes hold.
std::string unquoted( const std::string& text ) {
    std::string out;
    for ( std::size_t i = 1; i + 1 < text.size(); ++i ) {
        if ( text[ i ] != '\\' ) {
            out += text[ i ];
        } else if ( text[ ++i ] == 'x' && i + 2 < text.size() ) {
            out += char( std::stoi( text.substr( i + 1, 2 ), nullptr, 16 ) );
            i += 2;
        } else {
            const std::map< char, char > escapes { { 'n', '\n' }, { 'r', '\r' }, { 't', '\t' } };
            const auto found = escapes.find( text[ i ] );
            out += found == escapes.end() ? text[ i ] : found->second;
        }
    }
    return out;
}

// An entity manager for each system's name: a process has one.
Ptr< Norvo::EntityManager > managerOf( const std::string& system ) {
    static std::map< std::string, Ptr< Norvo::EntityManager > > managers;
    Ptr< Norvo::EntityManager >& manager = managers[ system ];
    if ( !manager ) {
        manager = Norvo::entityManagerFactory( String( system ), false );
    }
    return manager;
}

} // namespace

void loadTypes( const std::vector< std::string >& libraries ) {
    for ( const std::string& library : libraries ) {
        Qel::loadTypes( library );
    }
}

bool isTyped( const Krell::Layout& layout ) {
    const auto type = QelType::typeNode( String( layout.entityType ) );
    return type && type->isEntity();
}

std::string hexOf( const U64* words, U32 bytes ) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for ( U32 i = 0; i < bytes; ++i ) {
        const unsigned byte = unsigned( words[ i / 8 ] >> i % 8 * 8 ) & 0xff;
        out += digits[ byte / 16 ];
        out += digits[ byte % 16 ];
    }
    return out;
}

json jsonOf( const GenericValue& value ) {
    json out;
    if ( !value ) {
        return out;
    }
    if ( const bool* const flag = value.as< bool >() ) {
        return *flag;
    }
    if ( tryNumber< Qel::U8 >( value, out ) || tryNumber< Qel::U16 >( value, out ) ||
         tryNumber< Qel::U32 >( value, out ) || tryNumber< Qel::U64 >( value, out ) ||
         tryNumber< Qel::S8 >( value, out ) || tryNumber< Qel::S16 >( value, out ) ||
         tryNumber< Qel::S32 >( value, out ) || tryNumber< Qel::S64 >( value, out ) ||
         tryNumber< double >( value, out ) || tryNumber< float >( value, out ) ) {
        return out;
    }
    if ( value.type()->hasGenericIfSupport() && !value.type()->isEnumType() ) {
        const Ptr< Qel::GenericIf > face = value.type()->genericIf();
        face->instanceIs( value.address() );
        out = json::object();
        for ( const Qel::QelAttr* attr : value.type()->attributes() ) {
            if ( !attr->isFunction() && !attr->isCollection() ) {
                out[ attr->name.stdString() ] = jsonOf( face->attribute( attr->name ) );
            }
        }
        return out;
    }
    const std::string text = value.strep().stdString();
    if ( text.size() >= 2 && text.front() == '\'' ) {
        return unquoted( text );
    }
    out = json::parse( text, nullptr, false );
    return out.is_discarded() ? json( text ) : out;
}

Mounted::Mounted( const Facts& facts ) : collection_( facts.place.name ) {
    const std::string& path = facts.place.entity; // "/SYSTEM/Krell/ENTITY"
    const std::size_t end = path.find( '/', 1 );
    const std::string krell = "/Krell/";
    if ( end == std::string::npos || path.compare( end, krell.size(), krell ) != 0 ) {
        throw Error( facts.place.path + " is no collection of an entity" );
    }
    manager_ = managerOf( path.substr( 1, end - 1 ) );
    mount_ = std::make_unique< QelKrell::Mount >( manager_ );
    mount_->handleInitialized();
    entity_ = mount_->doMount( String( path.substr( end + krell.size() ) ),
                               String( facts.layout.entityType ),
                               QelKrell::MountInfo( QelKrell::reader ) );
    face_ = entity_->genericIf();
}

} // namespace KrellTool
