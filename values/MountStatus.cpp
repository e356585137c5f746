#include <QelKrell/MountStatus>

#include "Enumerations.h"

namespace QelKrell {

constexpr auto describe( const QelMountStatus* ) {
    return Qel::enumType< QelMountStatus >(
        "QelKrell::QelMountStatus", Qel::enumValue( "none", none ),
        Qel::enumValue( "attached", attached ), Qel::enumValue( "connected", connected ) );
}

QELKRELL_ENUMERATION( QelMountStatus )

namespace {

const Qel::Unit< QelMountStatus > unit( "mount status" );

} // namespace

} // namespace QelKrell
