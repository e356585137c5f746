#include <QelKrell/KrellType>

#include "Enumerations.h"

namespace QelKrell {

constexpr auto describe( const QelKrellType* ) {
    return Qel::enumType< QelKrellType >(
        "QelKrell::QelKrellType", Qel::enumValue( "writer", writer ),
        Qel::enumValue( "shadow", shadow ), Qel::enumValue( "reader", reader ),
        Qel::enumValue( "keyshadow", keyshadow ) );
}

QELKRELL_ENUMERATION( QelKrellType )

namespace {

const Qel::Unit< QelKrellType > unit( "collection role" );

} // namespace

} // namespace QelKrell
