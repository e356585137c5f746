// The role and the mount status: names, numbers, text form.

#include <Qel/QelType>
#include <Qel/Text>
#include <QelKrell/KrellType>
#include <QelKrell/MountStatus>

#include <sstream>

#include <gmock/gmock.h>

#include "Raised.h"

namespace {

using Qel::RangeException;
using Qel::strepToValue;
using Qel::String;
using QelKrell::QelKrellType;
using QelKrell::QelKrellTypeInstance;
using QelKrell::QelMountStatus;
using QelKrell::QelMountStatusInstance;
using QelKrellTest::raised;

static_assert( sizeof( QelKrellType ) == 4 && sizeof( QelMountStatus ) == 4 );
static_assert( QelKrell::writer == 0 && QelKrell::shadow == 1 && QelKrell::reader == 2 &&
               QelKrell::keyshadow == 3 );
static_assert( QelKrell::none == 0 && QelKrell::attached == 1 && QelKrell::connected == 2 );

// What both enumerations have in common, by type.
template < class E >
struct Traits;
template <>
struct Traits< QelKrellType > {
    static constexpr const char* name = "QelKrellType";
    static constexpr std::array< const char*, 4 > values { "writer", "shadow", "reader",
                                                           "keyshadow" };
    static QelKrellType instance( unsigned n ) { return QelKrellTypeInstance( n ); }
    static QelKrellType instance( const String& n ) { return QelKrellTypeInstance( n ); }
};
template <>
struct Traits< QelMountStatus > {
    static constexpr const char* name = "QelMountStatus";
    static constexpr std::array< const char*, 3 > values { "none", "attached", "connected" };
    static QelMountStatus instance( unsigned n ) { return QelMountStatusInstance( n ); }
    static QelMountStatus instance( const String& n ) { return QelMountStatusInstance( n ); }
};

template < class E >
class Enumeration : public testing::Test {
protected:
    using T = Traits< E >;
    static constexpr unsigned count = unsigned( T::values.size() );
};
using Names = testing::Types< QelKrellType, QelMountStatus >;
TYPED_TEST_SUITE( Enumeration, Names );

TYPED_TEST( Enumeration, EveryValueHasItsName ) {
    using T = Traits< TypeParam >;
    for ( unsigned n = 0; n < this->count; ++n ) {
        const auto v = TypeParam( n );
        EXPECT_EQ( stringValue( v ), T::values[ n ] );
        EXPECT_EQ( valueToStrep( v ), "'" + String( T::values[ n ] ) + "'" );
        EXPECT_EQ( T::instance( n ), v );
        EXPECT_EQ( T::instance( T::values[ n ] ), v );
        EXPECT_EQ( strepToValue< TypeParam >( valueToStrep( v ) ), v );
        std::ostringstream os;
        os << v;
        EXPECT_EQ( os.str(), T::values[ n ] );
    }
}

TYPED_TEST( Enumeration, OtherNumbersPrintWithTheTypesName ) {
    for ( const int n : { int( this->count ), 7, -1, 2147483647, -2147483647 - 1 } ) {
        const std::string text =
            std::string( Traits< TypeParam >::name ) + "(" + std::to_string( n ) + ")";
        EXPECT_EQ( stringValue( TypeParam( n ) ), text.c_str() );
        EXPECT_EQ( valueToStrep( TypeParam( n ) ), String( "'" + text + "'" ) );
        std::ostringstream os;
        os << TypeParam( n );
        EXPECT_EQ( os.str(), text );
    }
}

TYPED_TEST( Enumeration, OtherNumbersAreNoInstances ) {
    for ( const unsigned n : { this->count, 7U, 4294967295U, 2147483648U } ) {
        EXPECT_EQ( raised< RangeException >( [ n ] { Traits< TypeParam >::instance( n ); } ),
                   Traits< TypeParam >::name + ( ": " + std::to_string( n ) ) );
    }
}

TYPED_TEST( Enumeration, OtherNamesAreNoInstances ) {
    std::vector< std::string > names { "", "x", " ", "QelKrellType(1)" };
    for ( const std::string name : Traits< TypeParam >::values ) {
        names.push_back( name + " " );
        names.push_back( " " + name );
        names.push_back( name.substr( 0, name.size() - 1 ) );
        names.push_back( name + "s" );
        names.push_back( char( name[ 0 ] - 'a' + 'A' ) + name.substr( 1 ) );
    }
    for ( const std::string& name : names ) {
        EXPECT_EQ(
            raised< RangeException >( [ & ] { Traits< TypeParam >::instance( String( name ) ); } ),
            Traits< TypeParam >::name + ( ": '" + name + "'" ) );
    }
}

TYPED_TEST( Enumeration, NamesAreComparedWhole ) {
    const std::string name = Traits< TypeParam >::values[ 1 ];
    EXPECT_THROW( Traits< TypeParam >::instance( String( name + std::string( 1, '\0' ) ) ),
                  RangeException );
}

TYPED_TEST( Enumeration, NumberedTextDoesNotReadBack ) {
    EXPECT_THROW( strepToValue< TypeParam >( valueToStrep( TypeParam( 7 ) ) ), RangeException );
}

TYPED_TEST( Enumeration, TextCutAnywhereIsRefused ) {
    const std::string whole = valueToStrep( TypeParam( 1 ) ).stdString();
    for ( std::size_t n = 0; n < whole.size(); ++n ) {
        EXPECT_THROW( strepToValue< TypeParam >( String( whole.substr( 0, n ) ) ),
                      Qel::EndOfTextException );
    }
}

TYPED_TEST( Enumeration, IsMarkedAsOne ) {
    const auto type = fwkTypeOf( static_cast< const TypeParam* >( nullptr ) );
    EXPECT_TRUE( type->isEnumType() );
    EXPECT_FALSE( type->isValue() );
    EXPECT_TRUE( type->hasGenericIfSupport() );
    EXPECT_TRUE( type->attributes().empty() );
    ASSERT_EQ( type->enumValues().size(), this->count );
    for ( unsigned n = 0; n < this->count; ++n ) {
        EXPECT_EQ( type->enumValues()[ n ].first, n );
        EXPECT_EQ( type->enumValues()[ n ].second, Traits< TypeParam >::values[ n ] );
    }
}

TEST( Enumerations, WhatFollowsTheQuotedNameIsJunk ) {
    EXPECT_EQ( strepToValue< QelMountStatus >( "'attached'" ), QelKrell::attached );
    EXPECT_EQ( strepToValue< QelMountStatus >( " 'attached'" ), QelKrell::attached );
    EXPECT_EQ(
        raised< RangeException >( [] { strepToValue< QelMountStatus >( "'attached' more" ); } ),
        "junk at column 10 deserializing 'attached' more" );
    EXPECT_EQ( raised< RangeException >( [] { strepToValue< QelKrellType >( "'reader'x" ); } ),
               "junk at column 8 deserializing 'reader'x" );
    EXPECT_EQ( raised< RangeException >( [] { strepToValue< QelKrellType >( "reader" ); } ),
               "expected a quoted string but found 'reader'" );
}

TEST( Enumerations, ParsingGoesOnBehindTheValue ) {
    const String text = "'keyshadow''none'.";
    auto it = text.begin();
    EXPECT_EQ( sequenceToValue( it, text.end(), static_cast< QelKrellType* >( nullptr ) ),
               QelKrell::keyshadow );
    EXPECT_EQ( it - text.begin(), 11 );
    EXPECT_EQ( sequenceToValue( it, text.end(), static_cast< QelMountStatus* >( nullptr ) ),
               QelKrell::none );
    EXPECT_EQ( *it, '.' );
}

} // namespace
