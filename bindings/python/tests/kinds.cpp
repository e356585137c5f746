// A type with an attribute of each kind that can be shared.

#include <Qel/Addresses>
#include <Qel/FixedString>
#include <Qel/TypeLibrary>
#include <QelKrell/Collection>

namespace Kinds {

enum class Colour : Qel::U8 { red, green, blue };
constexpr auto describe( const Colour* ) {
    return Qel::enumType< Colour >( "Kinds::Colour", Qel::enumValue( "red", Colour::red ),
                                    Qel::enumValue( "green", Colour::green ),
                                    Qel::enumValue( "blue", Colour::blue ) );
}

struct Place {
    Qel::S32 x = 0;
    Qel::S32 y = 0;
};
constexpr auto describe( const Place* ) {
    return Qel::valueType< Place >( "Kinds::Place", Qel::attribute( "x", &Place::x ),
                                    Qel::attribute( "y", &Place::y ) );
}

struct Key {
    Qel::FixedString< 12 > name;
    Qel::U16 port = 0;
};
constexpr auto describe( const Key* ) {
    return Qel::valueType< Key >( "Kinds::Key", Qel::attribute( "name", &Key::name ),
                                  Qel::attribute( "port", &Key::port ) );
}

struct All {
    Key key;
    bool flag = false;
    Qel::U8 u8 = 0;
    Qel::S8 s8 = 0;
    Qel::U64 u64 = 0;
    Qel::S64 s64 = 0;
    double real = 0;
    Colour colour = Colour::red;
    Place place;
    std::array< Qel::U32, 4 > numbers {};
    Qel::FixedString< 40 > text;
    Qel::Ipv4Address ipv4;
    Qel::Ipv6Address ipv6;
    Qel::MacAddress mac;
};
constexpr auto describe( const All* ) {
    return Qel::valueType< All >(
        "Kinds::All", Qel::attribute( "key", &All::key ), Qel::attribute( "flag", &All::flag ),
        Qel::attribute( "u8", &All::u8 ), Qel::attribute( "s8", &All::s8 ),
        Qel::attribute( "u64", &All::u64 ), Qel::attribute( "s64", &All::s64 ),
        Qel::attribute( "real", &All::real ), Qel::attribute( "colour", &All::colour ),
        Qel::attribute( "place", &All::place ), Qel::attribute( "numbers", &All::numbers ),
        Qel::attribute( "text", &All::text ), Qel::attribute( "ipv4", &All::ipv4 ),
        Qel::attribute( "ipv6", &All::ipv6 ), Qel::attribute( "mac", &All::mac ) );
}

class Things : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &All::key > thing;
    QelKrell::Collection< &Place::x > place;
};
constexpr auto describe( const Things* ) {
    return Qel::entityType< Things >( "Kinds::Things",
                                      QelKrell::collection( "thing", &Things::thing ),
                                      QelKrell::collection( "place", &Things::place ) );
}

} // namespace Kinds

QEL_TYPES( "kinds", Kinds::Colour, Kinds::Place, Kinds::Key, Kinds::All, Kinds::Things );
