// Text of the keys and values that stand in collections.

#include <QelKrell/Platform>

#include <memory>

#include <Krell/Util>
#include <Qel/Describe>
#include <gmock/gmock.h>

#include "platform/Tracing.h"

namespace PrinterTest {

struct Plain {
    Qel::U32 id = 0;
    Qel::U16 port = 0;
};
constexpr auto describe( const Plain* ) {
    return Qel::valueType< Plain >( "PrinterTest::Plain", Qel::attribute( "id", &Plain::id ),
                                    Qel::attribute( "port", &Plain::port ) );
}

// A type whose "krellString" stands for the whole.
struct Named {
    Qel::U32 id = 0;
    Qel::String krellString() const {
        if ( id == 0 ) {
            throw Qel::RangeException( "nothing to print" );
        }
        return "#" + Qel::decimal( id );
    }
};
constexpr auto describe( const Named* ) {
    return Qel::valueType< Named >( "PrinterTest::Named", Qel::attribute( "id", &Named::id ),
                                    Qel::property( "krellString", &Named::krellString ) );
}

// One where the name is an operation's.
struct Called {
    Qel::U32 id = 0;
    Qel::String krellString() const { return "called"; }
};
constexpr auto describe( const Called* ) {
    return Qel::valueType< Called >( "PrinterTest::Called", Qel::attribute( "id", &Called::id ),
                                     Qel::operation( "krellString", &Called::krellString ) );
}

const Qel::Unit< Plain, Named, Called > unit( "printer test" );

} // namespace PrinterTest

namespace {

using QelKrellTest::Coverage;
using QelKrellTest::Message;
using QelKrellTest::Tracing;
using testing::ElementsAre;
using testing::IsEmpty;

template < class T >
std::string printed( const std::string& typeName, T value, int size = int( sizeof( T ) ) ) {
    const std::unique_ptr< Krell::Platform::ValuePrinter > printer(
        Krell::Platform::getValuePrinter( typeName, size ) );
    return printer->toString( &value );
}

template < class T >
std::string dumped( T value, int size = int( sizeof( T ) ) ) {
    return Krell::Util::dumpHex( &value, size );
}

Message caught( const std::string& what ) {
    return { "Krell",    "Platform", 395,
             "toString", 1,          "QelValuePrinter::toString caught Qel::Exception: " + what };
}

TEST( ValuePrinter, PrintsTheTextFormOfTheWholeValue ) {
    EXPECT_EQ( printed( "PrinterTest::Plain", PrinterTest::Plain { 7, 80 } ),
               "Value('PrinterTest::Plain', ** {'id': 7, 'port': 80})" );
    EXPECT_EQ( printed( "U32", Qel::U32( 12 ) ), "12" );
    EXPECT_EQ( printed( "double", 0.5 ), "0.5" );
}

TEST( ValuePrinter, PrintsTheAttributeKrellStringAlone ) {
    EXPECT_EQ( printed( "PrinterTest::Named", PrinterTest::Named { 7 } ), "'#7'" );
}

TEST( ValuePrinter, KeepsNothingBetweenCalls ) {
    const std::unique_ptr< Krell::Platform::ValuePrinter > printer(
        Krell::Platform::getValuePrinter( "U32", 4 ) );
    for ( Qel::U32 v : { 1u, 2u, 1u } ) {
        EXPECT_EQ( printer->toString( &v ), std::to_string( v ) );
    }
}

TEST( ValuePrinter, DumpsExactlyTheBytesOfAnUnknownType ) {
    Tracing tracing( "Krell*/*" );
    const char bytes[ 20 ] = "0123456789abcdefghi";
    for ( int size : { 0, 1, 16, 20 } ) {
        const std::unique_ptr< Krell::Platform::ValuePrinter > printer(
            Krell::Platform::getValuePrinter( "PrinterTest::Nothing", size ) );
        EXPECT_EQ( printer->toString( const_cast< char* >( bytes ) ),
                   Krell::Util::dumpHex( bytes, size ) );
    }
    EXPECT_NE( Krell::Util::dumpHex( bytes, 16 ), Krell::Util::dumpHex( bytes, 17 ) );
    EXPECT_THAT( tracing.taken(), IsEmpty() );
}

TEST( ValuePrinter, AFailureIsTracedAndTheBytesAreDumped ) {
    Tracing tracing( "Krell/1" );
    EXPECT_EQ( printed( "PrinterTest::Named", PrinterTest::Named { 0 } ), dumped( Qel::U32( 0 ) ) );
    EXPECT_THAT( tracing.taken(), ElementsAre( caught( "nothing to print" ) ) );
}

TEST( ValuePrinter, BytesThatDoNotFitAreDumped ) {
    Tracing tracing( "Krell/1" );
    EXPECT_EQ( printed( "U32", Qel::U32( 5 ), 3 ), dumped( Qel::U32( 5 ), 3 ) );
    EXPECT_THAT( tracing.taken(), ElementsAre( caught( "a U32 does not fit into 3 bytes" ) ) );
}

TEST( ValuePrinter, AnOperationOfThatNameIsNoAttribute ) {
    Tracing tracing( "Krell/1" );
    EXPECT_EQ( printed( "PrinterTest::Called", PrinterTest::Called { 9 } ),
               dumped( Qel::U32( 9 ) ) );
    EXPECT_THAT(
        tracing.taken(),
        ElementsAre( caught( "operation 'krellString' is not supported as an attribute" ) ) );
}

TEST( ValuePrinter, ExceptionsAreExpected ) {
    Tracing tracing( "QelException/*" );
    printed( "PrinterTest::Named", PrinterTest::Named { 0 } );
    printed( "PrinterTest::Plain", PrinterTest::Plain {} );
    EXPECT_THAT( tracing.taken(), IsEmpty() );
}

TEST( ValuePrinter, TheCoverageStreamSeesWhatIsNotTraced ) {
    Tracing tracing( "Krell/5" );
    const Coverage coverage;
    printed( "U32", Qel::U32( 5 ), 3 );
    EXPECT_THAT( tracing.taken(), IsEmpty() );
    EXPECT_EQ(
        coverage.text(),
        "QelValuePrinter::toString caught Qel::Exception: a U32 does not fit into 3 bytes\n" );
}

} // namespace
