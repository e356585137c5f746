// The members and functions that every value type of this library takes from its table.

#pragma once

#include <ostream>

#include <Qel/Describe>

// Defines what QELKRELL_VALUE( TYPE ) declares, and the printers. The table stands before it.
#define QELKRELL_VALUE_TYPE( TYPE )                                                                \
    TYPE::TYPE( Qel::StringIteratorConst& it, const Qel::StringIteratorConst& end )                \
        : TYPE( Qel::tableParse< TYPE >( it, end ) ) {}                                            \
    bool TYPE::operator==( const TYPE& other ) const { return Qel::tableEqual( *this, other ); }   \
    bool TYPE::operator!() const { return *this == TYPE(); }                                       \
    Qel::Ptr< Qel::QelType > TYPE::_fwkType() {                                                    \
        static const auto type = new Qel::Ptr< Qel::QelType >( Qel::makeType< TYPE >() );          \
        return *type;                                                                              \
    }                                                                                              \
    Qel::Ptr< Qel::QelType > TYPE::fwkType() const { return _fwkType(); }                          \
    Qel::String valueToStrep( const TYPE& v ) { return Qel::tablePrint( v ); }                     \
    std::ostream& operator<<( std::ostream& os, const TYPE& v ) { return os << valueToStrep( v ); }
