// An entity type with one shared collection: all that a user writes.

#pragma once

#include <QelKrell/Collection>

struct Reading { // a plain record
    Qel::U32 sensor = 0;
    double celsius = 0;
};
constexpr auto describe( const Reading* ) { // its table
    return Qel::valueType< Reading >( "Power::Reading",
                                      Qel::attribute( "sensor", &Reading::sensor ),
                                      Qel::attribute( "celsius", &Reading::celsius ) );
}

class Plant : public Qel::Entity { // an entity that keeps a collection of them
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Reading::sensor > reading;
};
constexpr auto describe( const Plant* ) {
    return Qel::entityType< Plant >( "Power::Plant",
                                     QelKrell::collection( "reading", &Plant::reading ) );
}

inline const Qel::Unit< Reading, Plant > plantUnit( "power" );
