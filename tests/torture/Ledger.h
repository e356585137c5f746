// Entities for torture: collections of values that carry a check of themselves, and another layout
// for the same place.

#pragma once

#include <array>

#include <QelKrell/Collection>

namespace TortureTest {

using Qel::U32;
using Qel::U64;

// Of the words behind key and stamp, which follow from these two.
constexpr U64 checkOf( U32 key, U32 stamp, U32 word ) {
    U64 x = ( U64( key ) << 32 | stamp ) + ( word + 1 ) * 0x9e3779b97f4a7c15u;
    x = ( x ^ ( x >> 29 ) ) * 0xbf58476d1ce4e5b9u;
    return x ^ ( x >> 32 );
}

template < class Value >
Value madeOf( U32 key, U32 stamp ) {
    Value value;
    value.key = key;
    value.stamp = stamp;
    for ( U32 i = 0; i < value.check.size(); ++i ) {
        value.check[ i ] = checkOf( key, stamp, i );
    }
    return value;
}
template < class Value >
bool isWhole( const Value& value ) {
    for ( U32 i = 0; i < value.check.size(); ++i ) {
        if ( value.check[ i ] != checkOf( value.key, value.stamp, i ) ) {
            return false;
        }
    }
    return true;
}

template < std::size_t Words >
struct Entry {
    U32 key = 0;
    U32 stamp = 0; // which change wrote it, see Book
    std::array< U64, Words > check {};
};
template < class E >
constexpr auto describeEntry( const char* name ) {
    return Qel::valueType< E >( name, Qel::attribute( "key", &E::key ),
                                Qel::attribute( "stamp", &E::stamp ),
                                Qel::attribute( "check", &E::check ) );
}

using Coin = Entry< 1 >;
using Medal = Entry< 3 >;
using Note = Entry< 24 >;
constexpr auto describe( const Coin* ) { return describeEntry< Coin >( "Torture::Coin" ); }
constexpr auto describe( const Medal* ) { return describeEntry< Medal >( "Torture::Medal" ); }
constexpr auto describe( const Note* ) { return describeEntry< Note >( "Torture::Note" ); }

class Ledger : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Coin::key > small;
    QelKrell::Collection< &Note::key > large;
};
constexpr auto describe( const Ledger* ) {
    return Qel::entityType< Ledger >( "Torture::Ledger",
                                      QelKrell::collection( "small", &Ledger::small ),
                                      QelKrell::collection( "large", &Ledger::large ) );
}

class Album : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Medal::key > small;
    QelKrell::Collection< &Coin::key > large;
};
constexpr auto describe( const Album* ) {
    return Qel::entityType< Album >( "Torture::Album",
                                     QelKrell::collection( "small", &Album::small ),
                                     QelKrell::collection( "large", &Album::large ) );
}

// One after the other at the same place.
inline constexpr const char* typeNames[] = { "Torture::Ledger", "Torture::Album" };
inline constexpr U32 shelvesOfEntity = 2;

} // namespace TortureTest
