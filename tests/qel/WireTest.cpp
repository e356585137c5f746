// The fixed-width form: the same bytes on every width.

#include <Qel/Wire>

#include <cstring>

#include <gmock/gmock.h>

namespace WireTypes {

enum class Kind : Qel::U8 { small, large };
constexpr auto describe( const Kind* ) {
    return Qel::enumType< Kind >( "WireTypes::Kind", Qel::enumValue( "small", Kind::small ),
                                  Qel::enumValue( "large", Kind::large ) );
}

struct Inner {
    Qel::U8 a = 0;
    Qel::U64 b = 0;
};
constexpr auto describe( const Inner* ) {
    return Qel::valueType< Inner >( "WireTypes::Inner", Qel::attribute( "a", &Inner::a ),
                                    Qel::attribute( "b", &Inner::b ) );
}

struct Record {
    Qel::U32 id = 0;
    Qel::U64 count = 0;
    Kind kind = Kind::small;
    Inner inner;
    Qel::FixedString< 5 > label;
    std::array< Qel::U16, 3 > list {};
    bool on = false;
    double weight = 0;
};
constexpr auto describe( const Record* ) {
    return Qel::valueType< Record >(
        "WireTypes::Record", Qel::attribute( "id", &Record::id ),
        Qel::attribute( "count", &Record::count ), Qel::attribute( "kind", &Record::kind ),
        Qel::attribute( "inner", &Record::inner ), Qel::attribute( "label", &Record::label ),
        Qel::attribute( "list", &Record::list ), Qel::attribute( "on", &Record::on ),
        Qel::attribute( "weight", &Record::weight ) );
}

} // namespace WireTypes

namespace {

using WireTypes::Inner;
using WireTypes::Kind;
using WireTypes::Record;
using RecordWire = Qel::Wire< Record >;

static_assert( Qel::Wire< Inner >::size == 16 && Qel::Wire< Inner >::alignment == 8 );
static_assert( RecordWire::at.offset ==
               std::array< std::size_t, 8 > { 0, 8, 16, 24, 40, 46, 52, 56 } );
static_assert( RecordWire::size == 64 );
static_assert( !RecordWire::exact && Qel::Wire< Inner >::exact );
static_assert( Qel::attributeIndex< Record, &Record::inner >() == 3 );
static_assert( Qel::WireFields< Record, 1 >::at.offset[ 3 ] == 8,
               "kind moves into the gap behind id" );

const Record record { 0x01020304, 0x1112131415161718, Kind::large, { 0x21, 0x3132333435363738 },
                      "label",    { 1, 2, 3 },        true,        1.5 };

TEST( Wire, BytesAreTheSameOnEveryWidth ) {
    std::array< Qel::U8, 64 > bytes {};
    RecordWire::put( bytes.data(), record );
    const std::array< Qel::U8, 64 > expected {
        0x04, 0x03, 0x02, 0x01, 0,   0,   0,    0,    0x18, 0x17, 0x16, 0x15, 0x14,
        0x13, 0x12, 0x11, 1,    0,   0,   0,    0,    0,    0,    0,    0x21, 0,
        0,    0,    0,    0,    0,   0,   0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32,
        0x31, 'l',  'a',  'b',  'e', 'l', 0,    1,    0,    2,    0,    3,    0,
        1,    0,    0,    0,    0,   0,   0,    0,    0,    0,    0xf8, 0x3f
    };
    EXPECT_EQ( bytes, expected );
    Record back;
    RecordWire::get( bytes.data(), back );
    EXPECT_TRUE( Qel::tableEqual( record, back ) );
}

TEST( Wire, WordsHoldTheSameBytes ) {
    std::array< Qel::U8, 64 > bytes {};
    RecordWire::put( bytes.data(), record );
    Qel::U64 words[ 8 ] = {};
    RecordWire::toWords< 0 >( words, record );
    EXPECT_EQ( std::memcmp( words, bytes.data(), sizeof words ), 0 );
    Record back;
    RecordWire::fromWords< 0 >( words, back );
    EXPECT_TRUE( Qel::tableEqual( record, back ) );
}

TEST( Wire, WordsOfLongArraysAndStringsHoldTheSameBytes ) {
    using Long = std::array< Qel::U32, 41 >;
    using Text = Qel::FixedString< 77 >;
    Long numbers;
    for ( std::size_t i = 0; i < numbers.size(); ++i ) {
        numbers[ i ] = Qel::U32( i * 0x01010101 );
    }
    const Text text( std::string_view( std::string( 76, 'y' ) ) );
    Qel::U64 words[ 24 ] = {};
    Qel::Wire< Long >::toWords< 8 >( words, numbers );
    EXPECT_EQ( words[ 0 ], 0U );
    EXPECT_EQ( std::memcmp( words + 1, numbers.data(), sizeof numbers ), 0 );
    Long numbersBack {};
    Qel::Wire< Long >::fromWords< 8 >( words, numbersBack );
    EXPECT_EQ( numbersBack, numbers );

    Qel::U64 textWords[ 11 ] = {};
    Qel::Wire< Text >::toWords< 3 >( textWords, text );
    Text textBack;
    Qel::Wire< Text >::fromWords< 3 >( textWords, textBack );
    EXPECT_EQ( textBack, text );
    EXPECT_EQ( textWords[ 0 ] & 0xffffff, 0U );
}

TEST( Wire, SkippedAttributesAreLeftAlone ) {
    std::array< Qel::U8, 64 > bytes {};
    using Rest = Qel::WireFields< Record, 0 >;
    Rest::put( bytes.data(), record );
    Record back;
    back.id = 99;
    Rest::get( bytes.data(), back );
    EXPECT_EQ( back.id, 99u );
    EXPECT_EQ( back.count, record.count );
    EXPECT_EQ( back.label, record.label );
}

TEST( Wire, LayoutNamesEveryNumber ) {
    Qel::String text;
    RecordWire::layout( text, "", 0 );
    EXPECT_EQ( text, "id:U32@0,count:U64@8,kind:WireTypes::Kind@16,inner.a:U8@24,inner.b:U64@32,"
                     "label:Qel::FixedString<5>@40,list[3]:U16@46,on:bool@52,weight:double@56" );
}

TEST( Wire, ForeignBytesMakeNoInvalidBool ) {
    const Qel::U8 byte = 7;
    bool v = false;
    Qel::Wire< bool >::get( &byte, v );
    EXPECT_TRUE( v );
    EXPECT_EQ( Qel::valueToStrep( v ), "True" );
}

} // namespace
