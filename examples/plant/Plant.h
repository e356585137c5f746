// An entity type with two shared collections: all that a user writes.

#pragma once

#include <Qel/FixedString>
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

struct Pump {
    Qel::FixedString< 16 > name;
    bool running = false;
};
constexpr auto describe( const Pump* ) {
    return Qel::valueType< Pump >( "Power::Pump", Qel::attribute( "name", &Pump::name ),
                                   Qel::attribute( "running", &Pump::running ) );
}

class Plant : public Qel::Entity { // an entity that keeps a collection of each
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Reading::sensor > reading;
    QelKrell::Collection< &Pump::name > pump;
};
constexpr auto describe( const Plant* ) {
    return Qel::entityType< Plant >( "Power::Plant",
                                     QelKrell::collection( "reading", &Plant::reading ),
                                     QelKrell::collection( "pump", &Plant::pump ) );
}
