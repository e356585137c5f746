// Keys and values for people and for programs: by their types where these are loaded, else as
// hexadecimal digits of the fixed-width form.

#pragma once

#include <nlohmann/json_fwd.hpp>

#include <Krell/Layout>
#include <Norvo/EntityManager>
#include <Qel/GenericIf>
#include <QelKrell/KrellMount>

#include "Collections.h"

namespace KrellTool {

// Loads libraries of types.
void loadTypes( const std::vector< std::string >& libraries );
// Whether the type of the entity is loaded.
bool isTyped( const Krell::Layout& layout );

std::string hexOf( const U64* words, U32 bytes );
nlohmann::json jsonOf( const Qel::GenericValue& value );

// An entity that this process mounted as a reader, to read one of its collections by name.
class Mounted {
public:
    // Error when the path is not that of an entity.
    explicit Mounted( const Facts& facts );

    const Qel::Ptr< Qel::GenericIf >& face() const noexcept { return face_; }
    const Qel::String& collection() const noexcept { return collection_; }

private:
    Qel::Ptr< Norvo::EntityManager > manager_;
    std::unique_ptr< QelKrell::Mount > mount_;
    Qel::Entity::Ptr entity_;
    Qel::Ptr< Qel::GenericIf > face_;
    Qel::String collection_;
};

} // namespace KrellTool
