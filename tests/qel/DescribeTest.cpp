// Tables: introspection, text form, comparison and generic access of described types.

#include <Qel/Describe>

#include <map>

#include <gmock/gmock.h>

namespace Bench {

enum class Mode { off, on = 5 };
constexpr auto describe( const Mode* ) {
    return Qel::enumType< Mode >( "Bench::Mode", Qel::enumValue( "off", Mode::off ),
                                  Qel::enumValue( "on", Mode::on ) );
}

struct Point {
    Qel::S32 x = 0;
    Qel::S32 y = 0;
};
constexpr auto describe( const Point* ) {
    return Qel::valueType< Point >( "Bench::Point", Qel::attribute( "x", &Point::x ),
                                    Qel::attribute( "y", &Point::y ) );
}

struct Shape {
    Qel::FixedString< 8 > label;
    Mode mode = Mode::off;
    Point at;
    std::array< Qel::U8, 3 > colour {};
    double weight = 0;
};
constexpr auto describe( const Shape* ) {
    return Qel::valueType< Shape >(
        "Bench::Shape", Qel::attribute( "label", &Shape::label ),
        Qel::attribute( "mode", &Shape::mode ), Qel::attribute( "at", &Shape::at ),
        Qel::attribute( "colour", &Shape::colour ), Qel::attribute( "weight", &Shape::weight ) );
}

class Machine : public Qel::Entity {
public:
    using Qel::Entity::Entity;

    Qel::U32 speed() const { return speed_; }
    void speedIs( Qel::U32 v ) { speed_ = v; }
    Qel::U32 load( Qel::String8 slot ) const {
        return loads_.contains( slot ) ? loads_.at( slot ) : 0;
    }
    std::vector< Qel::String8 > slots() const {
        std::vector< Qel::String8 > all;
        for ( const auto& [ slot, load ] : loads_ ) {
            all.push_back( slot );
        }
        return all;
    }
    void loadIs( Qel::String8 slot, Qel::U32 v ) { loads_[ slot ] = v; }
    void loadDel( Qel::String8 slot ) { loads_.erase( slot ); }
    Qel::String8 run( Mode mode, const Point& to, Qel::U32 times ) {
        speed_ += times;
        return Qel::TextOf< Mode >::print( mode ) + Qel::TextOf< Point >::print( to );
    }
    bool idle() const { return speed_ == 0; }
    void stop() { speed_ = 0; }

private:
    Qel::U32 speed_ = 0;
    std::map< Qel::String8, Qel::U32 > loads_;
};
constexpr auto describe( const Machine* ) {
    return Qel::entityType< Machine >(
        "Bench::Machine", Qel::property( "speed", &Machine::speed, &Machine::speedIs ),
        Qel::property( "idling", &Machine::idle ),
        Qel::indexed( "load", &Machine::load, &Machine::slots, &Machine::loadIs,
                      &Machine::loadDel ),
        Qel::operation( "run", &Machine::run,
                        { "mode", "to", Qel::argument( "times", "Bench::Count" ) } ),
        Qel::operation( "idle", &Machine::idle ), Qel::operation( "stop", &Machine::stop ) );
}

const Qel::Unit< Mode, Point, Shape, Machine > unit( "bench" );

} // namespace Bench

namespace {

using Bench::Machine;
using Bench::Mode;
using Bench::Point;
using Bench::Shape;
using Qel::genericValue;
using Qel::String;
using testing::ElementsAre;

constexpr const char* shapeText =
    "Value('Bench::Shape', ** {'label': 'box', 'mode': 'on', 'at': "
    "Value('Bench::Point', ** {'x': -1, 'y': 2}), 'colour': [1, 2, 3], "
    "'weight': 0.5})";
const Shape shape { "box", Mode::on, { -1, 2 }, { 1, 2, 3 }, 0.5 };

// The message of the exception of type E that `f` throws.
template < class E, class F >
std::string messageOf( F&& f ) {
    try {
        f();
    } catch ( const E& e ) {
        EXPECT_EQ( typeid( e ), typeid( E ) ) << e.what();
        return e.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

TEST( Describe, TypesAreFoundByName ) {
    for ( const char* name : { "Bench::Mode", "Bench::Point", "Bench::Shape", "Bench::Machine",
                               "U32", "bool", "double", "Qel::String8" } ) {
        const auto type = Qel::QelType::typeNode( name );
        ASSERT_TRUE( type ) << name;
        EXPECT_EQ( type->nodeName(), name );
    }
    EXPECT_FALSE( Qel::QelType::typeNode( "Bench::Nothing" ) );
    EXPECT_FALSE( Qel::QelType::typeNode( "" ) );
    EXPECT_EQ( Qel::typeOf< Shape >(), Qel::QelType::typeNode( "Bench::Shape" ) );
}

TEST( Describe, KindsAreMarked ) {
    EXPECT_TRUE( Qel::typeOf< Mode >()->isEnumType() );
    EXPECT_FALSE( Qel::typeOf< Mode >()->isValue() );
    EXPECT_TRUE( Qel::typeOf< Shape >()->isValue() );
    EXPECT_TRUE( Qel::typeOf< Machine >()->isEntity() );
    EXPECT_TRUE( Qel::typeOf< Machine >()->hasGenericIfSupport() );
    EXPECT_THAT( Qel::typeOf< Mode >()->enumValues(),
                 ElementsAre( std::pair( Qel::S64( 0 ), String( "off" ) ),
                              std::pair( Qel::S64( 5 ), String( "on" ) ) ) );
}

TEST( Describe, OwnAttributesAreNumberedFrom258BehindTheBase ) {
    const auto type = Qel::typeOf< Machine >();
    EXPECT_EQ( type->attr( "speed" )->id, 258u );
    EXPECT_EQ( type->attr( "stop" )->id, 263u );
    EXPECT_EQ( type->attrName( 258 ), "speed" );
    EXPECT_EQ( type->attrName( 9999 ), "unknown" );
    EXPECT_LT( type->attr( "name" )->id, 258u );
    EXPECT_EQ( type->attr( "run" )->arguments[ 2 ].typeName, "Bench::Count" );
    EXPECT_EQ( type->attr( "run" )->arguments[ 0 ].typeName, "Bench::Mode" );
    std::vector< String > names;
    for ( const auto* a : type->attributes() ) {
        names.push_back( a->name );
    }
    EXPECT_THAT(
        names, ElementsAre( "name", "entity", "speed", "idling", "load", "run", "idle", "stop" ) );
}

TEST( Describe, SevenFlagBitsAbort ) {
    EXPECT_DEATH( Qel::QelAttr::QelAttrIntrospectionFlags( 0x40 ),
                  "QelAttrIntrospectionFlags::value > 0x3f not allowed" );
    EXPECT_EQ( Qel::QelAttr::QelAttrIntrospectionFlags( 0x3f ).value(), 0x3fu );
}

TEST( Describe, TextFormNestsAndReadsBack ) {
    EXPECT_EQ( Qel::TextOf< Shape >::print( shape ), shapeText );
    EXPECT_TRUE( Qel::sameValue( Qel::strepToValue< Shape >( shapeText ), shape ) );
    EXPECT_TRUE(
        Qel::sameValue( Qel::strepToValue< Shape >(
                            "  Value  ( 'Bench::Shape' , ** { 'weight' : 1.0 , 'mode':'off' } ) " ),
                        Shape { "", Mode::off, {}, {}, 1.0 } ) );
    EXPECT_EQ( Qel::TextOf< Mode >::print( Mode( 3 ) ), "'Mode(3)'" );
}

TEST( Describe, TextCutAnywhereIsRefused ) {
    const std::string whole = shapeText;
    for ( std::size_t n = 0; n < whole.size(); ++n ) {
        const String cut( whole.substr( 0, n ) );
        EXPECT_THROW( Qel::strepToValue< Shape >( cut ), Qel::RangeException ) << cut;
    }
    EXPECT_EQ( messageOf< Qel::RangeException >(
                   [] { Qel::strepToValue< Point >( "Value('Bench::Point', ** {'x': 4" ); } ),
               "premature end of value type Point" );
    EXPECT_EQ( messageOf< Qel::RangeException >(
                   [] { Qel::strepToValue< Point >( "Value('Bench::Point', ** {'x" ); } ),
               "premature end of value type Point" );
}

TEST( Describe, TextErrorsNameTheAttribute ) {
    EXPECT_EQ( messageOf< Qel::RangeException >( [] {
                   Qel::strepToValue< Shape >(
                       "Value('Bench::Shape', ** {'at': Value('Bench::Point', ** {'x': 'a'})})" );
               } ),
               "expected a number but found '\\'a\\'})})' in attribute 'x' in attribute 'at'" );
    EXPECT_EQ( messageOf< Qel::RangeException >(
                   [] { Qel::strepToValue< Point >( "Value('Bench::Point', ** {'z': 1})" ); } ),
               "Point has no such attribute: z" );
    EXPECT_EQ( messageOf< Qel::RangeException >(
                   [] { Qel::strepToValue< Point >( "Value('Bench::Point', ** {'x': 1})%s!" ); } ),
               "junk at column 34 deserializing Value('Bench::Point', ** {'x': 1})%s!" );
    EXPECT_EQ( messageOf< Qel::RangeException >( [] {
                   Qel::strepToValue< Shape >(
                       "Value('Bench::Shape', ** {'label': 'much too long'})" );
               } ),
               "'much too long' does not fit into a string of 8 bytes in attribute 'label'" );
}

class DescribeGeneric : public testing::Test {
protected:
    Qel::Ptr< Machine > machine = Qel::newEntity< Machine >( "m" );
    Qel::Ptr< Qel::GenericIf > generic = machine->genericIf();
    Qel::Ptr< Qel::GenericIf > constant = std::as_const( *machine ).genericIf();
};

TEST_F( DescribeGeneric, ReadsWritesAndCallsByName ) {
    generic->attributeIs( "speed", genericValue( 7u ) );
    EXPECT_EQ( *generic->attribute( "speed" ).as< Qel::U32 >(), 7u );
    EXPECT_EQ( constant->attribute( 258 ).strep(), "7" );
    EXPECT_EQ( generic->attribute( "name" ).strep(), "'m'" );
    generic->attributeIs( "load", genericValue( "a" ), genericValue( 3u ) );
    EXPECT_EQ( generic->attribute( "load", genericValue( "a" ) ).strep(), "3" );
    EXPECT_THAT( generic->attributeIndices( "load" ), ElementsAre( genericValue( "a" ) ) );
    EXPECT_EQ( generic->attributeIndexType( "load" )->fullName(), "Qel::String8" );
    EXPECT_THROW( generic->attributeWatch( "load", []( const Qel::GenericValue& ) {} ),
                  Qel::OpNotSupportedException );
    generic->attributeDel( "load", genericValue( "a" ) );
    EXPECT_EQ( generic->attribute( "load", genericValue( "a" ) ).strep(), "0" );
    const auto result = generic->call( "run", { { "times", genericValue( 2u ) },
                                                { "to", genericValue( Point { 1, 2 } ) },
                                                { "mode", genericValue( Mode::on ) } } );
    EXPECT_EQ( *result.as< String >(), "'on'Value('Bench::Point', ** {'x': 1, 'y': 2})" );
    EXPECT_EQ( machine->speed(), 9u );
    EXPECT_FALSE( generic->call( "stop" ) );
    EXPECT_EQ( constant->call( "idle" ).strep(), "True" );
}

TEST_F( DescribeGeneric, RefusesAndChangesNothing ) {
    machine->speedIs( 1 );
    const auto run = [ & ]( Qel::GenericArguments arguments ) {
        generic->call( "run", arguments );
    };
    const std::pair< String, Qel::GenericValue > mode( "mode", genericValue( Mode::on ) );
    const std::pair< String, Qel::GenericValue > to( "to", genericValue( Point() ) );
    const std::pair< String, Qel::GenericValue > times( "times", genericValue( 1u ) );
    EXPECT_EQ( messageOf< Qel::UnknownAttributeException >( [ & ] { generic->attribute( "x" ); } ),
               "Bench::Machine has no attribute 'x'" );
    EXPECT_EQ( messageOf< Qel::UnknownAttributeException >( [ & ] { generic->call( "x" ); } ),
               "Bench::Machine has no attribute 'x'" );
    EXPECT_EQ( messageOf< Qel::ConstException >(
                   [ & ] { constant->attributeIs( "speed", genericValue( 2u ) ); } ),
               "attempting to modify a const instance" );
    EXPECT_EQ( messageOf< Qel::ConstException >( [ & ] {
                   constant->call( "run", { { "bogus", {} } } );
               } ),
               "attempting to modify a const instance" );
    EXPECT_EQ( messageOf< Qel::BadIndexException >(
                   [ & ] { generic->attribute( "speed", genericValue( 1u ) ); } ),
               "bad index on attribute 'speed': it takes none" );
    EXPECT_EQ( messageOf< Qel::BadIndexException >( [ & ] { generic->attribute( "load" ); } ),
               "bad index on attribute 'load': it needs one" );
    EXPECT_EQ( messageOf< Qel::TypeException >(
                   [ & ] { generic->attribute( "load", genericValue( 1u ) ); } ),
               "the index of attribute 'load' takes a Qel::String8, not a U32" );
    EXPECT_EQ( messageOf< Qel::TypeException >(
                   [ & ] { generic->attributeIs( "speed", genericValue( 1.0 ) ); } ),
               "attribute 'speed' takes a U32, not a double" );
    EXPECT_EQ( messageOf< Qel::OpNotSupportedException >(
                   [ & ] { generic->attributeIs( "idling", genericValue( true ) ); } ),
               "attribute 'idling' is read-only" );
    EXPECT_EQ( messageOf< Qel::OpNotSupportedException >( [ & ] { generic->attribute( "run" ); } ),
               "operation 'run' is not supported as an attribute" );
    EXPECT_EQ( messageOf< Qel::OpNotSupportedException >( [ & ] { generic->call( "speed" ); } ),
               "attribute 'speed' is not an operation" );
    EXPECT_EQ( messageOf< Qel::UnknownArgumentException >( [ & ] {
                   run( { mode, to, times, { "x", {} } } );
               } ),
               "operation 'run' takes no argument 'x'" );
    EXPECT_EQ( messageOf< Qel::MissingArgumentException >( [ & ] {
                   run( { mode, times } );
               } ),
               "operation 'run' needs argument 'to'" );
    EXPECT_EQ( messageOf< Qel::RepeatedArgumentException >( [ & ] {
                   run( { mode, to, mode, times } );
               } ),
               "operation 'run' was given argument 'mode' twice" );
    EXPECT_EQ( messageOf< Qel::TypeException >( [ & ] {
                   run( { mode, to, { "times", genericValue( "1" ) } } );
               } ),
               "argument 'times' of operation 'run' takes a Bench::Count, not a Qel::String8" );
    EXPECT_EQ( machine->speed(), 1u );
}

TEST_F( DescribeGeneric, UnboundInterfacesTakeRawBytes ) {
    const auto unbound = Qel::typeOf< Point >()->genericIf();
    EXPECT_EQ( messageOf< Qel::InternalException >( [ & ] { unbound->attribute( "x" ); } ),
               "no value of type Bench::Point is bound" );
    const Point p { 3, 4 };
    unbound->bytesAre( &p, sizeof p );
    EXPECT_EQ( unbound->attribute( "y" ).strep(), "4" );
    EXPECT_EQ( unbound->strep(), "Value('Bench::Point', ** {'x': 3, 'y': 4})" );
    EXPECT_EQ( messageOf< Qel::TypeException >( [ & ] { unbound->bytesAre( &p, 7 ); } ),
               "a Bench::Point does not fit into 7 bytes" );
    EXPECT_EQ( messageOf< Qel::ConstException >(
                   [ & ] { unbound->attributeIs( "x", genericValue( Qel::S32( 1 ) ) ); } ),
               "attempting to modify a const instance" );
}

} // namespace
