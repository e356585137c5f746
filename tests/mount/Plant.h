// An entity type with two shared collections and a scalar, as a user would write it.

#pragma once

#include <Qel/FixedString>
#include <QelKrell/Collection>

namespace MountBench {

struct Reading {
    Qel::U32 sensor = 0;
    double celsius = 0;
    Qel::U64 takenAt = 0;
};
constexpr auto describe( const Reading* ) {
    return Qel::valueType< Reading >( "MountBench::Reading",
                                      Qel::attribute( "sensor", &Reading::sensor ),
                                      Qel::attribute( "celsius", &Reading::celsius ),
                                      Qel::attribute( "takenAt", &Reading::takenAt ) );
}

struct Limit {
    Qel::FixedString< 16 > name;
    Qel::S32 value = 0;
};
constexpr auto describe( const Limit* ) {
    return Qel::valueType< Limit >( "MountBench::Limit", Qel::attribute( "name", &Limit::name ),
                                    Qel::attribute( "value", &Limit::value ) );
}

class Plant : public Qel::Entity {
public:
    using Ptr = Qel::Ptr< Plant >;
    using Qel::Entity::Entity;

    Qel::U32 staff() const { return 12; }

    QelKrell::Collection< &Reading::sensor > reading;
    QelKrell::Collection< &Limit::name > limit;
};
constexpr auto describe( const Plant* ) {
    return Qel::entityType< Plant >( "MountBench::Plant", Qel::property( "staff", &Plant::staff ),
                                     QelKrell::collection( "reading", &Plant::reading ),
                                     QelKrell::collection( "limit", &Plant::limit ) );
}

inline constexpr const char* plantType = "MountBench::Plant";

} // namespace MountBench
