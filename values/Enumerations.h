// What the enumerations of this library have in common: everything but their tables.

#pragma once

#include <ostream>

#include <Qel/Describe>

namespace QelKrell {

template < class E >
Qel::String enumName( E v ) {
    constexpr const auto& table = Qel::tableOf< E >;
    const char* name = table.nameOf( v );
    return name ? Qel::String( name )
                : Qel::String( Qel::shortTypeName( table.fullName ) ) + "(" +
                      Qel::decimalSigned( int( v ) ) + ")";
}

template < class E >
E enumOf( unsigned int number ) {
    constexpr const auto& table = Qel::tableOf< E >;
    for ( const Qel::EnumValue& e : table.values ) {
        if ( e.number == Qel::S64( number ) ) {
            return E( number );
        }
    }
    Qel::throwRangeException( Qel::shortTypeName( table.fullName ), Qel::decimal( number ) );
}

template < class E >
E enumOf( const Qel::String& name ) {
    constexpr const auto& table = Qel::tableOf< E >;
    for ( const Qel::EnumValue& e : table.values ) {
        if ( name == e.name ) {
            return E( e.number );
        }
    }
    Qel::throwRangeException( Qel::shortTypeName( table.fullName ), "'" + name + "'" );
}

#define QELKRELL_ENUMERATION( TYPE )                                                               \
    Qel::String stringValue( TYPE v ) { return enumName( v ); }                                    \
    std::ostream& operator<<( std::ostream& os, const TYPE& v ) { return os << stringValue( v ); } \
    TYPE TYPE##Instance( unsigned int number ) { return enumOf< TYPE >( number ); }                \
    TYPE TYPE##Instance( Qel::String name ) { return enumOf< TYPE >( name ); }                     \
    Qel::String valueToStrep( const TYPE& v ) { return "'" + stringValue( v ) + "'"; }             \
    TYPE sequenceToValue( Qel::StringIteratorConst& it, const Qel::StringIteratorConst& end,       \
                          TYPE* ) {                                                                \
        return TYPE##Instance( Qel::TextOf< Qel::String >::parse( it, end ) );                     \
    }                                                                                              \
    Qel::Ptr< Qel::QelType > fwkTypeOf( const TYPE* ) {                                            \
        static const auto type = new Qel::Ptr< Qel::QelType >( Qel::makeType< TYPE >() );          \
        return *type;                                                                              \
    }

} // namespace QelKrell
