#include "mount/Controls.h"

#include "mount/MountTrace.h"

namespace QelKrell {

std::optional< CollectionControl > getControl( Qel::GenericIf& entity, const Qel::String8& name ) {
    const Qel::QelAttr* attr = entity.type()->attr( name + "Control" );
    if ( attr && !attr->isFunction() && !attr->isCollection() ) {
        const Qel::GenericValue value = entity.attribute( attr->name );
        if ( const auto* control = value.as< CollectionControl >() ) {
            traceMount( stepLevel, [ & ]( std::ostream& text ) {
                text << "getControl() found attribute " << name;
            } );
            return *control;
        }
    }
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "getControl() " << name << " is not krelled, skipping";
    } );
    return std::nullopt;
}

} // namespace QelKrell
