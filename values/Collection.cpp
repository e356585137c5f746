#include <QelKrell/CollectionCore>

#include "values/DirectTrace.h"

namespace QelKrell {

namespace {

constexpr int errorLevel = 0;
constexpr Qel::SourcePosition failedPosition { "Collection", 31, "handleFailed" };

} // namespace

CollectionCore::CollectionCore( Qel::Entity& entity, const char* name, const Krell::Layout& layout )
    : Krell::Control( layout ), entity_( entity ), name_( name ) {}

CollectionCore::~CollectionCore() = default;

void CollectionCore::close() noexcept {
    try {
        detach();
    } catch ( const Krell::Exception& e ) {
        handleFailed( e );
    }
}

void CollectionCore::turn() {
    const Qel::Ptr< CollectionCore > self( this );
    Krell::Control::turn();
}

std::string CollectionCore::collectionPath() const {
    const std::string entityPath = entity_.fullName().stdString();
    return ( entityPath.starts_with( '/' ) ? entityPath.substr( 1 ) : entityPath ) + "/" +
           name_.stdString();
}

void CollectionCore::handleFailed( const Krell::Exception& e ) {
    directTrace( errorLevel, failedPosition, [ & ]( std::ostream& text ) {
        text << "QelKrell::CollectionCore::handleFailed() " << name_ << ": " << e.msg();
    } );
}

Krell::Layout makeLayout( const Qel::String& entityType,
                          const char* valueType,
                          std::size_t keySize,
                          std::size_t valueSize,
                          const Qel::String& text ) {
    Krell::Layout layout;
    layout.entityType = entityType.stdString();
    layout.valueType = valueType;
    layout.keySize = Qel::U32( keySize );
    layout.valueSize = Qel::U32( valueSize );
    layout.hash = Qel::stringHash( text );
    layout.text = text.stdString();
    return layout;
}

} // namespace QelKrell
