// The token reader and the text forms of built-in types, references and pointers.

#include <Qel/Describe>
#include <Qel/Dir>
#include <Qel/FixedString>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include <gmock/gmock.h>

#include "Python.h"
#include "Raised.h"

namespace TextBench {

struct Foreign {};

// An entity that is made by name, to be referred to.
class Thing : public Qel::Entity {
public:
    using Qel::Entity::Entity;
};
constexpr auto describe( const Thing* ) { return Qel::entityType< Thing >( "TextBench::Thing" ); }
const Qel::Unit< Thing > unit( "text bench" );

} // namespace TextBench

namespace Qel {
template <>
inline constexpr const char* foreignName< TextBench::Foreign > = "TextBench::Foreign";
} // namespace Qel

namespace {

using Qel::EndOfTextException;
using Qel::RangeException;
using Qel::strepToValue;
using Qel::String;
using Qel::U64;
using Qel::valueToStrep;
using QelKrellTest::raised;
using TextBench::Foreign;
using TextBench::Thing;

// A text, of a length of its own: literals may hold NUL bytes.
template < std::size_t N >
String bytes( const char ( &literal )[ N ] ) {
    return String( literal, N - 1 );
}

// --- Tokens

struct TokenCase {
    const char* token;
    const char* text;
    const char* rest; // null: refused
    const char* error;
};

class Token : public testing::TestWithParam< TokenCase > {};

TEST_P( Token, IsRequiredCharacterForCharacter ) {
    const TokenCase& c = GetParam();
    const String text( c.text );
    auto it = text.begin();
    const auto need = [ & ] { Qel::needString( it, text.end(), c.token ); };
    if ( c.rest ) {
        need();
        EXPECT_EQ( std::string( it.position() ), c.rest );
    } else if ( std::string( c.error ).starts_with( "premature end" ) ) {
        EXPECT_EQ( raised< EndOfTextException >( need ), c.error );
    } else {
        EXPECT_EQ( raised< RangeException >( need ), c.error );
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table,
    Token,
    testing::Values( TokenCase { "abc", "abcd", "d", nullptr },
                     TokenCase { " abc", "abc", "", nullptr },
                     TokenCase { " abc", " \t\r\n\f\vabc ", " ", nullptr },
                     TokenCase { "} ", "}  x", "x", nullptr },
                     TokenCase { "} ", "}", "", nullptr },
                     TokenCase { " : ", "  :  1", "1", nullptr },
                     TokenCase { " ", "   x", "x", nullptr },
                     TokenCase { "", "x", "x", nullptr },
                     TokenCase { "", "", "", nullptr },
                     TokenCase { " ", "", "", nullptr },
                     TokenCase { "abc", " abc", nullptr, "expected 'abc' but found ' abc'" },
                     TokenCase { " a b", " a  b", nullptr, "expected 'a b' but found 'a  b'" },
                     TokenCase { " Value", " value('x')", nullptr,
                                 "expected 'Value' but found 'value(\\'x\\')'" },
                     TokenCase { " **", " *", nullptr, "premature end of text: expected '**'" },
                     TokenCase { " (", "", nullptr, "premature end of text: expected '('" },
                     TokenCase { " (", "   ", nullptr, "premature end of text: expected '('" },
                     TokenCase { "abc", "abx", nullptr, "expected 'abc' but found 'abx'" },
                     TokenCase { "}", "12345678901234567890", nullptr,
                                 "expected '}' but found '12345678901234567890'" },
                     TokenCase { "}", "123456789012345678901", nullptr,
                                 "expected '}' but found '12345678901234567890...'" } ) );

TEST( Token, QuotesWhatItFoundEscaped ) {
    const String text = bytes( "a\0\n\xff'" );
    auto it = text.begin();
    EXPECT_EQ( raised< RangeException >( [ & ] { Qel::needString( it, text.end(), "b" ); } ),
               "expected 'b' but found 'a\\x00\\n\\xff\\''" );
    EXPECT_EQ( it, text.begin() );
}

TEST( Token, ReadersStopAtTheGivenEnd ) {
    const String text = "12345";
    auto it = text.begin();
    EXPECT_EQ( Qel::sequenceToValue( it, text.begin() + 2, static_cast< U64* >( nullptr ) ), 12u );
    EXPECT_EQ( it - text.begin(), 2 );
    const String real = "1.25e2";
    it = real.begin();
    EXPECT_EQ( Qel::sequenceToValue( it, real.begin() + 3, static_cast< double* >( nullptr ) ),
               1.2 );
    const String pointer = "Pointer('TextBench::Foreign', 0x12345)";
    it = pointer.begin();
    EXPECT_THROW( Qel::sequenceToPointer( it, pointer.begin() + 35, "TextBench::Foreign" ),
                  EndOfTextException );
}

// --- Printing

TEST( Text, NumbersPrintInDecimal ) {
    EXPECT_EQ( valueToStrep( U64( 0 ) ), "0" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< U64 >::max() ), "18446744073709551615" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< Qel::U32 >::max() ), "4294967295" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< Qel::U16 >::max() ), "65535" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< Qel::U8 >::max() ), "255" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< Qel::S64 >::min() ), "-9223372036854775808" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< Qel::S64 >::max() ), "9223372036854775807" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< Qel::S32 >::min() ), "-2147483648" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< Qel::S16 >::min() ), "-32768" );
    EXPECT_EQ( valueToStrep( std::numeric_limits< Qel::S8 >::min() ), "-128" );
}

TEST( Text, BoolsPrintAsWords ) {
    EXPECT_EQ( valueToStrep( true ), "True" );
    EXPECT_EQ( valueToStrep( false ), "False" );
}

TEST( Text, DoublesPrintTheShortestDigitsThatReadBack ) {
    using Limits = std::numeric_limits< double >;
    const std::pair< double, const char* > table[] = {
        { 0.1, "0.1" },
        { 2.0, "2.0" },
        { 0.0, "0.0" },
        { -0.0, "-0.0" },
        { 1e300, "1e+300" },
        { 1.5e-7, "1.5e-07" },
        { -3.25, "-3.25" },
        { 1.0 / 3, "0.3333333333333333" },
        { 123456.0, "123456.0" },
        { Limits::max(), "1.7976931348623157e+308" },
        { Limits::infinity(), "float('inf')" },
        { -Limits::infinity(), "float('-inf')" },
        { Limits::quiet_NaN(), "float('nan')" },
        { Limits::denorm_min(), "5e-324" },
    };
    for ( const auto& [ value, text ] : table ) {
        EXPECT_EQ( valueToStrep( value ), text );
        const double back = strepToValue< double >( text );
        EXPECT_TRUE( std::isnan( value )
                         ? std::isnan( back )
                         : std::bit_cast< U64 >( value ) == std::bit_cast< U64 >( back ) )
            << text;
    }
}

TEST( Text, StringsAreEscaped ) {
    EXPECT_EQ( valueToStrep( "" ), "''" );
    EXPECT_EQ( valueToStrep( "a\"b" ), "'a\"b'" );
    EXPECT_EQ( valueToStrep( "it's" ), "'it\\'s'" );
    EXPECT_EQ( valueToStrep( "\\\n\r\t" ), "'\\\\\\n\\r\\t'" );
    EXPECT_EQ( valueToStrep( bytes( "\0\x01\x1f\x7f\x80\xff~ " ) ),
               "'\\x00\\x01\\x1f\\x7f\\x80\\xff~ '" );
    EXPECT_EQ( valueToStrep( Qel::Name( "n" ) ), "'n'" );
}

TEST( Text, EveryByteRoundTripsAloneAndBesideEveryOther ) {
    std::string all;
    for ( int a = 0; a < 256; ++a ) {
        const String alone( std::string( 1, char( a ) ) );
        EXPECT_EQ( strepToValue< String >( valueToStrep( alone ) ), alone ) << a;
        for ( int b = 0; b < 256; ++b ) {
            all += char( a );
            all += char( b );
        }
    }
    EXPECT_EQ( all.size(), 131072u );
    EXPECT_EQ( strepToValue< String >( valueToStrep( String( all ) ) ), String( all ) );
}

TEST( Text, PrintedTextHoldsPrintableCharactersOnly ) {
    std::string all;
    for ( int a = 0; a < 256; ++a ) {
        all += char( a );
    }
    for ( const char c : valueToStrep( String( all ) ) ) {
        EXPECT_TRUE( c >= 0x20 && c < 0x7f ) << int( c );
    }
}

// --- Reading

struct NumberCase {
    const char* text;
    const char* error; // null: reads as `value`
    std::int64_t value;
};

template < class T >
void readNumbers( std::initializer_list< NumberCase > cases ) {
    for ( const NumberCase& c : cases ) {
        SCOPED_TRACE( c.text );
        const auto read = [ & ] { return strepToValue< T >( c.text ); };
        if ( !c.error ) {
            EXPECT_EQ( read(), T( c.value ) );
        } else if ( std::string( c.error ).starts_with( "premature end" ) ) {
            EXPECT_EQ( raised< EndOfTextException >( read ), c.error );
        } else {
            EXPECT_EQ( raised< RangeException >( read ), c.error );
        }
    }
}

TEST( Text, UnsignedNumbersAreReadWithinTheirRange ) {
    readNumbers< Qel::U8 >( { { "0", nullptr, 0 },
                              { "255", nullptr, 255 },
                              { "256", "256 is out of range for U8", 0 },
                              { "-1", "-1 is out of range for U8", 0 },
                              { "-0", nullptr, 0 } } );
    readNumbers< Qel::U16 >(
        { { "65535", nullptr, 65535 }, { "65536", "65536 is out of range for U16", 0 } } );
    readNumbers< Qel::U32 >( { { "4294967295", nullptr, 4294967295 },
                               { "4294967296", "4294967296 is out of range for U32", 0 },
                               { " \t\n42", nullptr, 42 },
                               { "007", nullptr, 7 } } );
    readNumbers< U64 >(
        { { "18446744073709551615", nullptr, -1 },
          { "18446744073709551616", "18446744073709551616 is out of range for U64", 0 },
          { "99999999999999999999999", "99999999999999999999999 is out of range for U64", 0 },
          { "-1", "-1 is out of range for U64", 0 } } );
}

TEST( Text, SignedNumbersAreReadWithinTheirRange ) {
    readNumbers< Qel::S8 >( { { "127", nullptr, 127 },
                              { "-128", nullptr, -128 },
                              { "128", "128 is out of range for S8", 0 },
                              { "-129", "-129 is out of range for S8", 0 } } );
    readNumbers< Qel::S16 >(
        { { "-32768", nullptr, -32768 }, { "32768", "32768 is out of range for S16", 0 } } );
    readNumbers< Qel::S32 >( { { "-2147483648", nullptr, -2147483648LL },
                               { "2147483648", "2147483648 is out of range for S32", 0 } } );
    readNumbers< Qel::S64 >(
        { { "9223372036854775807", nullptr, std::numeric_limits< std::int64_t >::max() },
          { "-9223372036854775808", nullptr, std::numeric_limits< std::int64_t >::min() },
          { "9223372036854775808", "9223372036854775808 is out of range for S64", 0 },
          { "-9223372036854775809", "-9223372036854775809 is out of range for S64", 0 } } );
}

TEST( Text, WhatIsNoNumberIsRefused ) {
    const std::initializer_list< NumberCase > bad = {
        { "", "premature end of text: expected a number", 0 },
        { "   ", "premature end of text: expected a number", 0 },
        { "-", "premature end of text: expected a number", 0 },
        { "-x", "expected a number but found '-x'", 0 },
        { "- 1", "expected a number but found '- 1'", 0 },
        { "+1", "expected a number but found '+1'", 0 },
        { "x", "expected a number but found 'x'", 0 },
        { "'1'", "expected a number but found '\\'1\\''", 0 },
        { "True", "expected a number but found 'True'", 0 },
        { "1.5", "junk at column 1 deserializing 1.5", 0 },
        { "0x10", "junk at column 1 deserializing 0x10", 0 },
        { "1 ", "junk at column 1 deserializing 1 ", 0 },
        { "1 %d%s%n", "junk at column 1 deserializing 1 %d%s%n", 0 },
    };
    readNumbers< Qel::U32 >( bad );
    readNumbers< U64 >( bad );
    readNumbers< Qel::S8 >( bad );
}

TEST( Text, BoolsAreReadAsWholeWords ) {
    EXPECT_TRUE( strepToValue< bool >( " True" ) );
    EXPECT_FALSE( strepToValue< bool >( "False" ) );
    const auto read = []( const char* text ) { return [ text ] { strepToValue< bool >( text ); }; };
    for ( const char* cut : { "", "  ", "T", "Tru", "F", "Fals" } ) {
        EXPECT_EQ( raised< EndOfTextException >( read( cut ) ),
                   "premature end of text: expected True or False" );
    }
    for ( const char* bad : { "true", "Truex", "True1", "1", "Tru e", "yes", "Falsee" } ) {
        EXPECT_EQ( raised< RangeException >( read( bad ) ),
                   "expected True or False but found '" + std::string( bad ) + "'" );
    }
    EXPECT_EQ( raised< RangeException >( read( "True False" ) ),
               "junk at column 4 deserializing True False" );
}

TEST( Text, DoublesAreRead ) {
    const std::pair< const char*, double > table[] = {
        { "1", 1 },
        { "-1", -1 },
        { " 2.5", 2.5 },
        { ".5", 0.5 },
        { "-.5", -0.5 },
        { "5.", 5 },
        { "1e3", 1000 },
        { "1E+3", 1000 },
        { "1e-3", 1e-3 },
        { "007.5", 7.5 },
        { "float ( 'inf' )", HUGE_VAL },
    };
    for ( const auto& [ text, value ] : table ) {
        EXPECT_EQ( strepToValue< double >( text ), value ) << text;
    }
    EXPECT_EQ( strepToValue< float >( "0.10000000149011612" ), 0.1F );
    EXPECT_EQ( strepToValue< float >( valueToStrep( -1.0F / 3 ) ), -1.0F / 3 );
    EXPECT_EQ( strepToValue< float >( "float('-inf')" ),
               -std::numeric_limits< float >::infinity() );
}

TEST( Text, WhatIsNoDoubleIsRefused ) {
    const auto read = []( const char* text ) {
        return [ text ] { strepToValue< double >( text ); };
    };
    for ( const char* cut : { "", " ", "-" } ) {
        EXPECT_EQ( raised< EndOfTextException >( read( cut ) ),
                   "premature end of text: expected a number" );
    }
    const std::pair< const char*, const char* > table[] = {
        { "x", "expected a number but found 'x'" },
        { "+1.0", "expected a number but found '+1.0'" },
        { "-x", "expected a number but found '-x'" },
        { "--1", "expected a number but found '--1'" },
        { "-inf", "expected a number but found '-inf'" },
        { "nan", "expected a number but found 'nan'" },
        { ".", "expected a number but found '.'" },
        { "1e", "junk at column 1 deserializing 1e" },
        { "1.5.2", "junk at column 3 deserializing 1.5.2" },
        { "1e999", "1e999 is out of range for double" },
        { "-1e999", "-1e999 is out of range for double" },
        { "float('x')", "expected 'inf', '-inf' or 'nan' but found 'x'" },
        { "float['inf']", "expected '(' but found '[\\'inf\\']'" },
    };
    for ( const auto& [ text, error ] : table ) {
        EXPECT_EQ( raised< RangeException >( read( text ) ), error );
    }
    EXPECT_EQ( raised< RangeException >( [] { strepToValue< float >( "1e+39" ); } ),
               "1e+39 is out of range for float" );
    EXPECT_EQ( raised< RangeException >( [] { strepToValue< float >( "1e999" ); } ),
               "1e999 is out of range for float" );
}

TEST( Text, StringsAreReadInEitherQuotes ) {
    EXPECT_EQ( strepToValue< String >( " \"it's\"" ), "it's" );
    EXPECT_EQ( strepToValue< String >( "'\\x41\\x4a\\x4A\\\"\\'\\\\'" ), "AJJ\"'\\" );
    EXPECT_EQ( strepToValue< String >( bytes( "'a\0b'" ) ), bytes( "a\0b" ) );
    EXPECT_EQ( strepToValue< Qel::Name >( "'n'" ), Qel::Name( "n" ) );
    const auto read = []( const char* text ) {
        return [ text ] { strepToValue< String >( text ); };
    };
    const std::pair< const char*, const char* > bad[] = {
        { "abc", "expected a quoted string but found 'abc'" },
        { "'a\\q'", "expected an escape (n, r, t, x, a quote or a backslash) but found 'q\\''" },
        { "'\\xg0'", "expected two hexadecimal digits but found 'g0\\''" },
        { "'\\x0g'", "expected two hexadecimal digits but found 'g\\''" },
        { "'a'b", "junk at column 3 deserializing 'a'b" },
        { "'a' ", "junk at column 3 deserializing 'a' " },
    };
    for ( const auto& [ text, error ] : bad ) {
        EXPECT_EQ( raised< RangeException >( read( text ) ), error );
    }
    const std::pair< const char*, const char* > cut[] = {
        { "", "premature end of text: expected a quoted string" },
        { "'a\"", "premature end of text: expected a closing quote" },
        { "'a\\", "premature end of text: expected an escaped character" },
        { "'a\\x4", "premature end of text: expected two hexadecimal digits" },
    };
    for ( const auto& [ text, error ] : cut ) {
        EXPECT_EQ( raised< EndOfTextException >( read( text ) ), error );
    }
}

TEST( Text, JunkIsReportedWithItsColumnAndTheWholeInput ) {
    EXPECT_EQ( raised< RangeException >( [] { strepToValue< Qel::U32 >( "  12 345" ); } ),
               "junk at column 4 deserializing   12 345" );
    const String whole = "x";
    EXPECT_NO_THROW( Qel::refuseJunk( whole, whole.end() ) );
    EXPECT_EQ( raised< RangeException >( [ & ] { Qel::refuseJunk( whole, whole.begin() ); } ),
               "junk at column 0 deserializing x" );
}

TEST( Text, RethrowingAddsTheAttributeAndKeepsTheIdentifiers ) {
    try {
        Qel::rethrowFromDeserialise( RangeException( "why", Qel::Exception::idSet( 12U, 40U ) ),
                                     "size" );
    } catch ( const RangeException& e ) {
        EXPECT_STREQ( e.what(), "why in attribute 'size'" );
        EXPECT_EQ( e.ids(), Qel::Exception::idSet( 12U, 40U ) );
    }
}

// --- Pointers and references

TEST( Text, PointersNameTheirType ) {
    const auto at = []( std::uintptr_t address ) {
        return reinterpret_cast< Foreign* >( address );
    };
    EXPECT_EQ( Qel::TextOf< Foreign* >::print( nullptr ), "Pointer('TextBench::Foreign', 0x0)" );
    EXPECT_EQ( Qel::TextOf< Foreign* >::print( at( 0xdeadbee0 ) ),
               "Pointer('TextBench::Foreign', 0xdeadbee0)" );
    EXPECT_EQ( strepToValue< Foreign* >( " Pointer ( 'TextBench::Foreign' , 0xDEADbee0 )" ),
               at( 0xdeadbee0 ) );
    const auto read = []( const char* text ) {
        return [ text ] { strepToValue< Foreign* >( text ); };
    };
    const std::pair< const char*, const char* > bad[] = {
        { "Pointer('Other', 0x1)",
          "expected a pointer to TextBench::Foreign but found one to Other" },
        { "Pointer('TextBench::Foreign', 12)", "expected '0x' but found '12)'" },
        { "Pointer('TextBench::Foreign', 0xg)", "expected hexadecimal digits but found 'g)'" },
        { "Pointer('TextBench::Foreign', 0x-1)", "expected hexadecimal digits but found '-1)'" },
        { "Pointer('TextBench::Foreign', 0x10000000000000000)",
          "the address of a pointer to TextBench::Foreign is out of range" },
        { "Pointer(TextBench::Foreign, 0x1)",
          "expected a quoted string but found 'TextBench::Foreign, ...'" },
        { "None", "expected 'Pointer' but found 'None'" },
        { "Pointer('TextBench::Foreign', 0x1);", "junk at column 34 deserializing "
                                                 "Pointer('TextBench::Foreign', 0x1);" },
    };
    for ( const auto& [ text, error ] : bad ) {
        EXPECT_EQ( raised< RangeException >( read( text ) ), error );
    }
}

class References : public testing::Test {
protected:
    void SetUp() override {
        const Qel::Dir::Ptr dir = Qel::Dir::globalDir()->subdirIs( "text" );
        thing = dir->newEntity( "TextBench::Thing", "it" );
        dir->subdirIs( "it" );
    }
    void TearDown() override { Qel::Dir::globalDir()->subdirDel( "text" ); }

    Qel::Entity::Ptr thing;
};

TEST_F( References, PrintTypeAndFullName ) {
    EXPECT_EQ( Qel::TextOf< Qel::Entity::Ptr >::print( thing ),
               "Entity('TextBench::Thing', '/text/it')" );
    EXPECT_EQ( Qel::TextOf< Qel::Entity::Ptr >::print( nullptr ), "None" );
    EXPECT_EQ( Qel::TextOf< Qel::Dir::Ptr >::print( Qel::Dir::globalDir() ),
               "Entity('Qel::Dir', '/')" );
}

TEST_F( References, ReadBackToTheSameObject ) {
    EXPECT_EQ( strepToValue< Qel::Entity::Ptr >( "Entity ( 'TextBench::Thing' , '/text/it' )" ),
               thing );
    EXPECT_EQ( strepToValue< Qel::Ptr< Thing > >( "Entity('TextBench::Thing', '/text/it')" ),
               thing );
    EXPECT_EQ( strepToValue< Qel::Dir::Ptr >( "Entity('Qel::Dir', '/text/it')" ),
               Qel::Dir::globalDir()->subdir( "text" )->subdir( "it" ) );
    EXPECT_EQ( strepToValue< Qel::Dir::Ptr >( "Entity('Qel::Dir', '/')" ), Qel::Dir::globalDir() );
    EXPECT_EQ( strepToValue< Qel::Entity::Ptr >( " None" ), nullptr );
}

TEST_F( References, ToNothingAreRefused ) {
    const std::pair< const char*, const char* > bad[] = {
        { "Entity('TextBench::Thing', '/text/other')",
          "there is no TextBench::Thing at '/text/other'" },
        { "Entity('TextBench::Other', '/text/it')", "there is no TextBench::Other at '/text/it'" },
        { "Entity('TextBench::Thing', '')", "there is no TextBench::Thing at ''" },
        { "Entity('TextBench::Thing', 'text/it')", "there is no TextBench::Thing at 'text/it'" },
        { "Entity('TextBench::Thing', 'xtext/it')", "there is no TextBench::Thing at 'xtext/it'" },
        { "Entity('TextBench::Thing', '/text/it/')",
          "there is no TextBench::Thing at '/text/it/'" },
        { "Entity('TextBench::Thing', '/no/it')", "there is no TextBench::Thing at '/no/it'" },
        { "Entity('Qel::Dir', '//')", "there is no Qel::Dir at '//'" },
        { "Nothing", "expected 'None' but found 'Nothing'" },
        { "12", "expected 'Entity' but found '12'" },
    };
    for ( const auto& [ text, error ] : bad ) {
        EXPECT_EQ( raised< RangeException >(
                       [ &, text = text ] { strepToValue< Qel::Entity::Ptr >( text ); } ),
                   error );
    }
    EXPECT_EQ( raised< RangeException >(
                   [] { strepToValue< Qel::Ptr< Thing > >( "Entity('Qel::Dir', '/text/it')" ); } ),
               "expected a TextBench::Thing but '/text/it' is a Qel::Dir" );
}

// --- Lists and strings of fixed width

TEST( Text, ListsHaveTheirLength ) {
    using Three = std::array< Qel::S32, 3 >;
    EXPECT_EQ( Qel::TextOf< Three >::print( { 1, -2, 3 } ), "[1, -2, 3]" );
    EXPECT_EQ( strepToValue< Three >( " [ 1 ,-2, 3 ]" ), ( Three { 1, -2, 3 } ) );
    const std::pair< const char*, const char* > bad[] = {
        { "[1, 2]", "expected ',' but found ']'" },
        { "[1, 2, 3, 4]", "expected ']' but found ', 4]'" },
        { "[1, , 3]", "expected a number but found ', 3]'" },
        { "(1, 2, 3)", "expected '[' but found '(1, 2, 3)'" },
    };
    for ( const auto& [ text, error ] : bad ) {
        EXPECT_EQ( raised< RangeException >( [ text = text ] { strepToValue< Three >( text ); } ),
                   error );
    }
}

TEST( Text, FixedStringsHoldWhatFitsAndRefuseTheRest ) {
    using Four = Qel::FixedString< 4 >;
    EXPECT_EQ( Qel::TextOf< Four >::print( "ab" ), "'ab'" );
    EXPECT_EQ( strepToValue< Four >( "'abcd'" ), Four( "abcd" ) );
    EXPECT_EQ( strepToValue< Four >( "''" ), Four() );
    EXPECT_EQ( raised< RangeException >( [] { strepToValue< Four >( "'abcde'" ); } ),
               "'abcde' does not fit into a string of 4 bytes" );
    EXPECT_THROW( strepToValue< Four >( "'a\\x00b'" ), RangeException );
    EXPECT_EQ( Four::clipped( "abcdef" ).view(), "abcd" );
    EXPECT_EQ( Four::clipped( std::string_view( "a\0bc", 4 ) ).view(), "a" );
}

// --- Truncation: no proper prefix of these forms is a form

template < class T >
void cutEverywhere( const String& whole ) {
    EXPECT_NO_THROW( strepToValue< T >( whole ) ) << whole;
    for ( std::size_t n = 0; n < whole.size(); ++n ) {
        const std::string cut( whole.data(), n );
        // A buffer of its own: a read behind the end is found by the address sanitizer.
        EXPECT_THROW( strepToValue< T >( String( cut ) ), EndOfTextException ) << cut;
    }
}

TEST_F( References, TextCutAnywhereEndsTooEarly ) {
    cutEverywhere< String >( "'a\\n\\x41\\'\"b'" );
    cutEverywhere< String >( "\"it's\"" );
    cutEverywhere< bool >( "True" );
    cutEverywhere< bool >( "False" );
    cutEverywhere< double >( "float('inf')" );
    cutEverywhere< Foreign* >( "Pointer('TextBench::Foreign', 0x12ab)" );
    cutEverywhere< Qel::Entity::Ptr >( "Entity('TextBench::Thing', '/text/it')" );
    cutEverywhere< Qel::Entity::Ptr >( "None" );
    cutEverywhere< std::array< Qel::U8, 3 > >( "[1, 22, 3]" );
    cutEverywhere< Qel::FixedString< 8 > >( "'abc'" );
}

// --- Random round trips, and Python

TEST_F( References, RandomValuesRoundTripAndArePythonExpressions ) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE( "seed " + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    std::vector< QelKrellTest::PythonCase > cases;
    for ( int i = 0; i < 2000; ++i ) {
        const U64 bits = random() >> ( random() % 64 );
        EXPECT_EQ( strepToValue< U64 >( valueToStrep( bits ) ), bits );
        EXPECT_EQ( strepToValue< Qel::S64 >( valueToStrep( Qel::S64( bits ) ) ), Qel::S64( bits ) );
        cases.push_back( { "int", valueToStrep( bits ), std::to_string( bits ) } );
        cases.push_back(
            { "int", valueToStrep( Qel::S64( ~bits ) ), std::to_string( Qel::S64( ~bits ) ) } );
        const U64 pattern = random();
        const auto real = std::bit_cast< double >( pattern );
        const double back = strepToValue< double >( valueToStrep( real ) );
        EXPECT_TRUE( std::isnan( real ) ? std::isnan( back )
                                        : std::bit_cast< U64 >( back ) == pattern );
        char hex[ 17 ];
        std::snprintf( hex, sizeof hex, "%016llx", static_cast< unsigned long long >( pattern ) );
        cases.push_back( { std::isnan( real ) ? "nan" : "float", valueToStrep( real ), hex } );
        std::string text( random() % 20, '\0' );
        for ( char& c : text ) {
            c = char( random() );
        }
        EXPECT_EQ( strepToValue< String >( valueToStrep( String( text ) ) ), String( text ) );
        cases.push_back( { "str", valueToStrep( String( text ) ), QelKrellTest::hexOf( text ) } );
    }
    for ( const String& form :
          { valueToStrep( true ), valueToStrep( HUGE_VAL ), valueToStrep( -HUGE_VAL ),
            Qel::TextOf< Foreign* >::print( nullptr ),
            Qel::TextOf< Qel::Entity::Ptr >::print( thing ),
            Qel::TextOf< Qel::Entity::Ptr >::print( nullptr ),
            Qel::TextOf< std::array< double, 2 > >::print( { 1, HUGE_VAL } ) } ) {
        cases.push_back( { "any", form, "" } );
    }
    if ( !QelKrellTest::havePython() ) {
        GTEST_SKIP() << "python3 is not installed: the expressions were not evaluated";
    }
    EXPECT_EQ( QelKrellTest::askPython( cases ), std::to_string( cases.size() ) + "\n" );
}

} // namespace
