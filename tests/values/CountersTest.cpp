// The two counter records: layout, difference, comparison and text form.

#include <Qel/GenericIf>
#include <Qel/Text>
#include <Qel/TypeOf>
#include <QelKrell/Counters>

#include <cstddef>
#include <random>
#include <sstream>

#include <gmock/gmock.h>

#include "Raised.h"

namespace {

using Qel::RangeException;
using Qel::strepToValue;
using Qel::String;
using Qel::U32;
using Qel::U64;
using QelKrell::ReaderCounters;
using QelKrell::WriterCounters;
using QelKrellTest::raised;

constexpr const char* readerZero =
    "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 0, 'usedLookaside': 0, "
    "'slotShadowResizes': 0, 'slotResizes': 0, 'chainRestarts': 0, 'slotBaseAddress': 0, "
    "'conquerRestarts': 0, 'conquerProbes': 0, 'conquerEmpty': 0, 'conquerEnd': 0, "
    "'conquerKicks': 0, 'conquerTombed': 0, 'conquerNotified': 0, 'conquerYields': 0, "
    "'conquerConnections': 0, 'conquerSequence': 0, 'conquerResizes': 0, "
    "'conquerBaseAddress': 0, 'keyShadowMismatch': 0})";
constexpr const char* writerZero =
    "Value('QelKrell::WriterCounters', ** {'slotAllocs': 0, 'slotDeallocs': 0, "
    "'slotBaseAddress': 0, 'conquerTombstones': 0, 'conquerNotifications': 0, "
    "'conquerCompactions': 0, 'conquerSequence': 0, 'conquerResizes': 0, "
    "'conquerBaseAddress': 0, 'kicksIssued': 0, 'directWrite': 0, 'directCommit': 0})";

const ReaderCounters reader( 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19 );
const WriterCounters writer( 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 );

// The collection library fills the records in: their layout is fixed.
constexpr std::size_t behindSequence =
    offsetof( QelKrell::ReaderCountersFields, conquerSequence ) + 8;
static_assert( offsetof( QelKrell::ReaderCountersFields, occupiedSlots ) == 0 );
static_assert( offsetof( QelKrell::ReaderCountersFields, usedLookaside ) == 4 );
static_assert( offsetof( QelKrell::ReaderCountersFields, slotBaseAddress ) == 20 );
static_assert( offsetof( QelKrell::ReaderCountersFields, conquerConnections ) == 56 );
static_assert( offsetof( QelKrell::ReaderCountersFields, conquerSequence ) ==
               ( alignof( QelKrell::ReaderCountersFields ) == 8 ? 64 : 60 ) );
static_assert( offsetof( QelKrell::ReaderCountersFields, conquerResizes ) == behindSequence );
static_assert( offsetof( QelKrell::ReaderCountersFields, keyShadowMismatch ) ==
               behindSequence + 8 );
static_assert( offsetof( QelKrell::WriterCountersFields, directCommit ) == 88 );
static_assert( sizeof( WriterCounters ) == 96 );
static_assert( std::is_trivially_copyable_v< ReaderCounters > &&
               std::is_trivially_copyable_v< WriterCounters > );

// The names of a type's attributes, in declaration order.
template < class T >
std::vector< std::string > fieldNames() {
    std::vector< std::string > names;
    for ( const Qel::QelAttr* attr : Qel::typeOf< T >()->attributes() ) {
        names.push_back( attr->name.stdString() );
    }
    return names;
}

template < class T >
class Counters : public testing::Test {};
using Both = testing::Types< ReaderCounters, WriterCounters >;
TYPED_TEST_SUITE( Counters, Both );

TYPED_TEST( Counters, AreZeroAtFirst ) {
    const TypeParam zero;
    EXPECT_TRUE( !zero );
    EXPECT_EQ( zero, TypeParam() );
    EXPECT_FALSE( zero != TypeParam() );
}

TYPED_TEST( Counters, AnySingleFieldTellsValuesApart ) {
    for ( const std::string& name : fieldNames< TypeParam >() ) {
        SCOPED_TRACE( name );
        TypeParam v;
        const auto generic = Qel::typeOf< TypeParam >()->genericIf();
        generic->instanceIs( static_cast< void* >( &v ) );
        const bool wide = generic->type()->attr( name )->typeName == "U64";
        // A 64-bit field counts with its upper half too.
        generic->attributeIs( name, wide ? Qel::genericValue( U64( 1 ) << 32 )
                                         : Qel::genericValue( U32( 1 ) ) );
        EXPECT_FALSE( !v );
        EXPECT_FALSE( v == TypeParam() );
        EXPECT_TRUE( v != TypeParam() );
        EXPECT_EQ( TypeParam( v ), v );
    }
}

TYPED_TEST( Counters, TextIsWhatTheStreamWrites ) {
    const TypeParam zero;
    std::ostringstream os;
    os << zero;
    EXPECT_EQ( String( os.str() ), valueToStrep( zero ) );
}

TEST( Counters, AreMadeFromTheirFieldsInOrder ) {
    EXPECT_EQ( reader.occupiedSlots, 1u );
    EXPECT_EQ( reader.conquerConnections, 15u );
    EXPECT_EQ( reader.conquerSequence, 16u );
    EXPECT_EQ( reader.keyShadowMismatch, 19u );
    EXPECT_EQ( writer.slotAllocs, 1u );
    EXPECT_EQ( writer.directCommit, 12u );
    const WriterCounters wide( ~U64( 0 ), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1U );
    EXPECT_EQ( wide.slotAllocs, 18446744073709551615U );
}

TEST( Counters, DifferenceWrapsInEachFieldsOwnWidth ) {
    ReaderCounters a;
    ReaderCounters b;
    a.occupiedSlots = 1;
    b.occupiedSlots = 2;
    a.conquerSequence = 1;
    b.conquerSequence = 2;
    a.keyShadowMismatch = 9;
    b.keyShadowMismatch = 4;
    const ReaderCounters d = a - b;
    EXPECT_EQ( d.occupiedSlots, 4294967295U );
    EXPECT_EQ( d.conquerSequence, 18446744073709551615U );
    EXPECT_EQ( d.keyShadowMismatch, 5u );
    EXPECT_EQ( d.slotResizes, 0u );
    EXPECT_EQ( a.occupiedSlots, 1u );
    EXPECT_EQ( &( a -= b ), &a );
    EXPECT_EQ( a, d );
    WriterCounters one;
    WriterCounters two;
    one.directCommit = 1;
    two.directCommit = 2;
    EXPECT_EQ( ( one - two ).directCommit, 18446744073709551615U );
}

TEST( Counters, EveryFieldIsSubtracted ) {
    EXPECT_TRUE( !( reader - reader ) );
    EXPECT_TRUE( !( writer - writer ) );
    EXPECT_EQ( reader - ReaderCounters(), reader );
    const ReaderCounters twice( 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30, 32, 34, 36,
                                38 );
    EXPECT_EQ( twice - reader, reader );
    const WriterCounters double12( 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24 );
    EXPECT_EQ( double12 - writer, writer );
}

TEST( Counters, PrintTheirFieldsInOrder ) {
    EXPECT_EQ( valueToStrep( ReaderCounters() ), readerZero );
    EXPECT_EQ( valueToStrep( WriterCounters() ), writerZero );
    EXPECT_EQ(
        valueToStrep( reader ),
        "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 1, 'usedLookaside': 2, "
        "'slotShadowResizes': 3, 'slotResizes': 4, 'chainRestarts': 5, 'slotBaseAddress': 6, "
        "'conquerRestarts': 7, 'conquerProbes': 8, 'conquerEmpty': 9, 'conquerEnd': 10, "
        "'conquerKicks': 11, 'conquerTombed': 12, 'conquerNotified': 13, 'conquerYields': 14, "
        "'conquerConnections': 15, 'conquerSequence': 16, 'conquerResizes': 17, "
        "'conquerBaseAddress': 18, 'keyShadowMismatch': 19})" );
    EXPECT_EQ(
        valueToStrep( writer ),
        "Value('QelKrell::WriterCounters', ** {'slotAllocs': 1, 'slotDeallocs': 2, "
        "'slotBaseAddress': 3, 'conquerTombstones': 4, 'conquerNotifications': 5, "
        "'conquerCompactions': 6, 'conquerSequence': 7, 'conquerResizes': 8, "
        "'conquerBaseAddress': 9, 'kicksIssued': 10, 'directWrite': 11, 'directCommit': 12})" );
}

TEST( Counters, LargeValuesPrintUnsigned ) {
    ReaderCounters v;
    v.occupiedSlots = 0x80000000U;
    v.conquerSequence = ~U64( 0 );
    const std::string text = valueToStrep( v ).stdString();
    EXPECT_THAT( text, testing::HasSubstr( "'occupiedSlots': 2147483648," ) );
    EXPECT_THAT( text, testing::HasSubstr( "'conquerSequence': 18446744073709551615," ) );
    EXPECT_EQ( strepToValue< ReaderCounters >( text ), v );
}

template < class T >
T randomValue( std::mt19937_64& random ) {
    T v;
    const auto generic = Qel::typeOf< T >()->genericIf();
    generic->instanceIs( static_cast< void* >( &v ) );
    for ( const Qel::QelAttr* attr : generic->type()->attributes() ) {
        const U64 bits = random() >> ( random() % 64 );
        generic->attributeIs( attr->name, attr->typeName == "U64"
                                              ? Qel::genericValue( bits )
                                              : Qel::genericValue( U32( bits ) ) );
    }
    return v;
}

TYPED_TEST( Counters, RandomValuesReadBack ) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE( "seed " + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    for ( int i = 0; i < 200; ++i ) {
        const auto v = randomValue< TypeParam >( random );
        EXPECT_EQ( strepToValue< TypeParam >( valueToStrep( v ) ), v );
    }
}

TYPED_TEST( Counters, PairsMayComeInAnyOrder ) {
    std::mt19937_64 random( 1 );
    const auto v = randomValue< TypeParam >( random );
    const auto generic = Qel::typeOf< TypeParam >()->genericIf();
    generic->instanceIs( static_cast< const void* >( &v ) );
    String pairs;
    for ( const std::string& name : fieldNames< TypeParam >() ) {
        const String pair = "'" + String( name ) + "': " + generic->attribute( name ).strep();
        pairs = pairs.empty() ? pair : pair + ", " + pairs;
    }
    const String name = Qel::typeOf< TypeParam >()->fullName();
    EXPECT_EQ( strepToValue< TypeParam >( "Value('" + name + "', ** {" + pairs + "})" ), v );
}

struct GoodCase {
    const char* text;
    U32 occupiedSlots;
    U64 conquerSequence;
};

class Accepted : public testing::TestWithParam< GoodCase > {};

TEST_P( Accepted, Text ) {
    ReaderCounters v;
    v.occupiedSlots = GetParam().occupiedSlots;
    v.conquerSequence = GetParam().conquerSequence;
    EXPECT_EQ( strepToValue< ReaderCounters >( GetParam().text ), v );
}

INSTANTIATE_TEST_SUITE_P(
    Counters,
    Accepted,
    testing::Values(
        GoodCase { "Value('QelKrell::ReaderCounters', ** {})", 0, 0 },
        GoodCase { "Value('QelKrell::ReaderCounters', ** {'conquerSequence': 7})", 0, 7 },
        GoodCase { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 1, 'occupiedSlots': 2})",
                   2, 0 },
        GoodCase { "\n Value\t(  'QelKrell::ReaderCounters'  ,  **  {  'occupiedSlots'  :  3 ,"
                   "  'conquerSequence' : 4 }  )  ",
                   3, 4 },
        GoodCase { "Value('QelKrell::ReaderCounters',**{'occupiedSlots':3,'conquerSequence':4})", 3,
                   4 },
        GoodCase { "Value('QelKrell::ReaderCounters', ** {\"occupiedSlots\": 5})", 5, 0 },
        GoodCase { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 4294967295})",
                   4294967295U, 0 } ) );

struct BadCase {
    const char* text;
    const char* error;
};

template < class T >
void refuse( const BadCase& c ) {
    T v;
    EXPECT_EQ( raised< RangeException >( [ & ] { v = strepToValue< T >( c.text ); } ), c.error );
    EXPECT_TRUE( !v );
}

TEST( Counters, BadReaderTextIsRefused ) {
    const BadCase table[] = {
        { "Value('QelKrell::ReaderCounters', ** {'slotAllocs': 1})",
          "ReaderCounters has no such attribute: slotAllocs" },
        { "Value('QelKrell::ReaderCounters', ** {'OccupiedSlots': 1})",
          "ReaderCounters has no such attribute: OccupiedSlots" },
        { "Value('QelKrell::ReaderCounters', ** {'occupied': 1})",
          "ReaderCounters has no such attribute: occupied" },
        { "Value('QelKrell::ReaderCounters', ** {'': 1})",
          "ReaderCounters has no such attribute: " },
        { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 1",
          "premature end of value type ReaderCounters" },
        { "Value('QelKrell::ReaderCounters', ** {", "premature end of value type ReaderCounters" },
        { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots'",
          "premature end of value type ReaderCounters" },
        { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 4294967296})",
          "4294967296 is out of range for U32 in attribute 'occupiedSlots'" },
        { "Value('QelKrell::ReaderCounters', ** {'conquerSequence': 18446744073709551616})",
          "18446744073709551616 is out of range for U64 in attribute 'conquerSequence'" },
        { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': -1})",
          "-1 is out of range for U32 in attribute 'occupiedSlots'" },
        { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 'a'})",
          "expected a number but found '\\'a\\'})' in attribute 'occupiedSlots'" },
        { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots' 1})",
          "expected ':' but found '1})'" },
        { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 1 'usedLookaside': 2})",
          "expected ',' but found '\\'usedLookaside\\': 2})'" },
        { "Value('QelKrell::ReaderCounters', ** {'occupiedSlots': 1, })",
          "expected a quoted string but found '})'" },
        { "Value('QelKrell::ReaderCounters', ** {occupiedSlots: 1})",
          "expected a quoted string but found 'occupiedSlots: 1})'" },
        { "Value('QelKrell::WriterCounters', ** {})",
          "expected ''QelKrell::ReaderCounters'' but found '\\'QelKrell::WriterCou...'" },
        { "value('QelKrell::ReaderCounters', ** {})",
          "expected 'Value' but found 'value(\\'QelKrell::Rea...'" },
        { "Value('QelKrell::ReaderCounters', * * {})", "expected '**' but found '* * {})'" },
        { "Value('QelKrell::ReaderCounters', ** {}]", "expected ')' but found ']'" },
    };
    for ( const BadCase& c : table ) {
        SCOPED_TRACE( c.text );
        refuse< ReaderCounters >( c );
    }
}

TEST( Counters, BadWriterTextIsRefused ) {
    const BadCase table[] = {
        { "Value('QelKrell::WriterCounters', ** {'occupiedSlots': 1})",
          "WriterCounters has no such attribute: occupiedSlots" },
        { "Value('QelKrell::WriterCounters', ** {'slotAllocs': 1",
          "premature end of value type WriterCounters" },
        { "Value('QelKrell::WriterCounters', ** {'slotAllocs': 18446744073709551616})",
          "18446744073709551616 is out of range for U64 in attribute 'slotAllocs'" },
    };
    for ( const BadCase& c : table ) {
        SCOPED_TRACE( c.text );
        refuse< WriterCounters >( c );
    }
}

TYPED_TEST( Counters, OneCharacterTooMuchIsJunk ) {
    const String whole = valueToStrep( TypeParam() );
    EXPECT_EQ( raised< RangeException >( [ & ] { strepToValue< TypeParam >( whole + "x" ); } ),
               "junk at column " + std::to_string( whole.size() ) + " deserializing " +
                   whole.stdString() + "x" );
}

TYPED_TEST( Counters, TextCutAnywhereIsRefused ) {
    const std::string whole = valueToStrep( TypeParam() ).stdString();
    for ( std::size_t n = 0; n < whole.size(); ++n ) {
        EXPECT_THROW( strepToValue< TypeParam >( String( whole.substr( 0, n ) ) ), RangeException )
            << n;
    }
}

TEST( Counters, ParsingLeavesTheIteratorBehindTheValue ) {
    const String two = valueToStrep( reader ) + valueToStrep( writer ) + "!";
    auto it = two.begin();
    EXPECT_EQ( ReaderCounters( it, two.end() ), reader );
    EXPECT_EQ( it - two.begin(), std::ptrdiff_t( valueToStrep( reader ).size() ) );
    EXPECT_EQ( WriterCounters( it, two.end() ), writer );
    EXPECT_EQ( *it, '!' );
}

TEST( Counters, TypesAreNamed ) {
    EXPECT_EQ( ReaderCounters::_fwkType()->fullName(), "QelKrell::ReaderCounters" );
    EXPECT_EQ( ReaderCounters().fwkType(), ReaderCounters::_fwkType() );
    EXPECT_EQ( WriterCounters::_fwkType()->fullName(), "QelKrell::WriterCounters" );
    EXPECT_EQ( WriterCounters().fwkType(), WriterCounters::_fwkType() );
}

} // namespace
