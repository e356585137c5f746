// A plug-in's type, as it is in the second version: other attributes.

#include <Qel/TypeLibrary>
#include <QelKrell/Collection>

namespace Plug {

struct Reading {
    Qel::U32 sensor = 0;
    float celsius = 0;
};
constexpr auto describe( const Reading* ) {
    return Qel::valueType< Reading >( "Plug::Reading", Qel::attribute( "sensor", &Reading::sensor ),
                                      Qel::attribute( "celsius", &Reading::celsius ) );
}

class Plant : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Reading::sensor > reading;
};
constexpr auto describe( const Plant* ) {
    return Qel::entityType< Plant >( "Plug::Plant",
                                     QelKrell::collection( "reading", &Plant::reading ) );
}

} // namespace Plug

QEL_TYPES( "plug", Plug::Reading, Plug::Plant );
