// Text of the keys and values that stand in collections.

#include <QelKrell/Platform>

#include <Krell/Util>
#include <Qel/Exception>
#include <Qel/QelType>

#include "platform/Positions.h"
#include "values/DirectTrace.h"

namespace QelKrell {

namespace {

// The id of the type's attribute "krellString"; 0 when it has none.
Qel::U32 krellStringOf( const Qel::GenericIf& unbound ) {
    const Qel::ExpectException expected( Qel::UnknownAttributeException::id_ );
    try {
        return unbound.attributeId( "krellString" );
    } catch ( const Qel::UnknownAttributeException& ) {
        return 0;
    }
}

} // namespace

QelValuePrinter::QelValuePrinter( const std::string& typeName, int size )
    : size_( size ), type_( Qel::QelType::typeNode( Qel::String( typeName ) ) ) {
    if ( type_ ) {
        genericIf_ = type_->genericIf();
        krellStringAttr_ = krellStringOf( *genericIf_ );
    }
}

QelValuePrinter::~QelValuePrinter() = default;

std::string QelValuePrinter::text( const void* value ) const {
    genericIf_->bytesAre( value, std::size_t( size_ ) );
    const Qel::String form =
        krellStringAttr_ ? genericIf_->attribute( krellStringAttr_ ).strep() : genericIf_->strep();
    return form.stdString();
}

std::string QelValuePrinter::toString( void* value ) {
    const Qel::ExpectException expected;
    try {
        if ( type_ ) {
            return text( value );
        }
    } catch ( const Qel::Exception& e ) {
        directTrace( position::caughtLevel, position::printerCaught, [ & ]( std::ostream& text ) {
            text << "QelValuePrinter::toString caught Qel::Exception: " << e.what();
        } );
    }
    return Krell::Util::dumpHex( value, size_ );
}

} // namespace QelKrell

namespace Krell::Platform {

ValuePrinter* getValuePrinter( std::string typeName, int size ) {
    return new QelKrell::QelValuePrinter( typeName, size );
}

} // namespace Krell::Platform
