// The control handle: forwarding, translation, text form, and calls by name.

#include <Qel/Text>
#include <QelKrell/CollectionControl>
#include <QelKrell/Exception>
#include <QelKrell/Generic>

#include <sstream>
#include <stdexcept>

#include <Krell/Exception>
#include <gmock/gmock.h>

#include "Raised.h"
#include "values/ControlMock.h"

namespace Qel {
template <>
inline constexpr const char* foreignName< Krell::ControlBase > = "Krell::ControlBase";
} // namespace Qel

namespace {

using Qel::genericValue;
using Qel::strepToValue;
using Qel::String;
using Qel::U32;
using Qel::U64;
using QelKrell::CollectionControl;
using QelKrell::QelKrellType;
using QelKrellTest::ControlMock;
using QelKrellTest::raised;
using testing::Return;
using testing::StrictMock;
using testing::Throw;

class CollectionControlTest : public testing::Test {
protected:
    StrictMock< ControlMock > mock;
    CollectionControl control { &mock };
    const CollectionControl constant { &mock };
};

// --- The value

TEST_F( CollectionControlTest, HoldsNothingAtFirst ) {
    const CollectionControl nothing;
    EXPECT_EQ( nothing.control(), nullptr );
    EXPECT_TRUE( !nothing );
    EXPECT_FALSE( !control );
}

TEST_F( CollectionControlTest, IsEqualByItsPointer ) {
    StrictMock< ControlMock > other;
    EXPECT_EQ( control, CollectionControl( &mock ) );
    EXPECT_NE( control, CollectionControl( &other ) );
    EXPECT_NE( control, CollectionControl() );
    const CollectionControl copy( control );
    EXPECT_EQ( copy, control );
    EXPECT_EQ( copy.control(), &mock );
}

TEST_F( CollectionControlTest, CopiesDoNotOwnTheControl ) {
    CollectionControl copy;
    {
        StrictMock< ControlMock > gone;
        copy = CollectionControl( &gone );
        { [[maybe_unused]] const CollectionControl shorter( copy ); }
        EXPECT_CALL( gone, capacity() ).WillOnce( Return( 3 ) );
        EXPECT_EQ( copy.capacity(), 3u ); // still alive behind a handle that went
    }
    EXPECT_FALSE( !copy ); // the handle does not know
}

TEST_F( CollectionControlTest, PrintsAsAPointerAndReadsBack ) {
    std::ostringstream address;
    address << "Pointer('Krell::ControlBase', 0x" << std::hex
            << reinterpret_cast< std::uintptr_t >( control.control() ) << ")";
    EXPECT_EQ( valueToStrep( control ), String( address.str() ) );
    EXPECT_EQ( valueToStrep( CollectionControl() ), "Pointer('Krell::ControlBase', 0x0)" );
    std::ostringstream os;
    os << control;
    EXPECT_EQ( os.str(), address.str() );
    EXPECT_EQ( strepToValue< CollectionControl >( valueToStrep( control ) ), control );
    EXPECT_TRUE( !strepToValue< CollectionControl >( " Pointer ( 'Krell::ControlBase' , 0x0 )" ) );
    const String text = valueToStrep( control ) + "rest";
    auto it = text.begin();
    EXPECT_EQ( CollectionControl( it, text.end() ), control );
    EXPECT_EQ( std::string( it.position() ), "rest" );
}

TEST_F( CollectionControlTest, BadTextIsRefused ) {
    const std::pair< const char*, const char* > table[] = {
        { "Pointer('Krell::Other', 0x0)",
          "expected a pointer to Krell::ControlBase but found one to Krell::Other" },
        { "Pointer('Krell::ControlBase', 0x0)!",
          "junk at column 34 deserializing Pointer('Krell::ControlBase', 0x0)!" },
        { "Value('QelKrell::CollectionControl', ** {})",
          "expected 'Pointer' but found 'Value(\\'QelKrell::Col...'" },
    };
    for ( const auto& [ text, error ] : table ) {
        EXPECT_EQ( raised< Qel::RangeException >(
                       [ text = text ] { strepToValue< CollectionControl >( text ); } ),
                   error );
    }
    const String whole = valueToStrep( control );
    for ( std::size_t n = 0; n < whole.size(); ++n ) {
        EXPECT_THROW( strepToValue< CollectionControl >( whole.substr( 0, n ) ),
                      Qel::EndOfTextException );
    }
}

// --- Forwarding

TEST_F( CollectionControlTest, ForwardsWithArgumentsAndResults ) {
    EXPECT_CALL( mock, cleanup() );
    control.cleanup();
    EXPECT_CALL( mock, detach() );
    control.detach();
    for ( const bool b : { true, false } ) {
        EXPECT_CALL( mock, validate() ).WillOnce( Return( b ) );
        EXPECT_EQ( control.validate(), b );
        EXPECT_CALL( mock, resize() ).WillOnce( Return( b ) );
        EXPECT_EQ( constant.resize(), b );
        EXPECT_CALL( mock, notifying( b ) );
        constant.notifying( b );
        EXPECT_CALL( mock, yieldTimeIs( 0.125 ) ).WillOnce( Return( b ) );
        EXPECT_EQ( constant.yieldTimeIs( 0.125 ), b );
    }
    EXPECT_CALL( mock, sequence() ).WillOnce( Return( 0xfedcba9876543210U ) );
    EXPECT_EQ( constant.sequence(), 0xfedcba9876543210U );
    EXPECT_CALL( mock, fenixId() ).WillOnce( Return( 0xfedcba98U ) );
    EXPECT_EQ( constant.fenixId(), 0xfedcba98U );
    EXPECT_CALL( mock, maxSize() ).WillOnce( Return( ~0U ) );
    EXPECT_EQ( constant.maxSize(), ~0U );
    EXPECT_CALL( mock, capacity() ).WillOnce( Return( 17 ) );
    EXPECT_EQ( constant.capacity(), 17u );
    EXPECT_CALL( mock, sampleIs( 4294967295U ) );
    constant.sampleIs( 4294967295U );
}

TEST_F( CollectionControlTest, TextIsForwardedByteByByte ) {
    const std::string odd( "a\0b\n\xff'", 6 );
    EXPECT_CALL( mock, owner() ).WillOnce( Return( odd ) );
    EXPECT_EQ( constant.owner(), String( odd ) );
    EXPECT_CALL( mock, krellName() ).WillOnce( Return( odd + "1" ) );
    EXPECT_EQ( constant.krellName(), String( odd + "1" ) );
    EXPECT_CALL( mock, rootPath() ).WillOnce( Return( "" ) );
    EXPECT_EQ( constant.rootPath(), "" );
}

TEST_F( CollectionControlTest, CountersAreForwarded ) {
    const QelKrell::ReaderCounters reader( 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                           17, 18, 19 );
    const QelKrell::WriterCounters writer( 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 );
    EXPECT_CALL( mock, readerCounters() ).WillOnce( Return( reader ) );
    EXPECT_EQ( constant.readerCounters(), reader );
    EXPECT_CALL( mock, writerCounters() ).WillOnce( Return( writer ) );
    EXPECT_EQ( constant.writerCounters(), writer );
}

TEST_F( CollectionControlTest, InitForwardsEveryRole ) {
    for ( int mode = 0; mode < 4; ++mode ) {
        EXPECT_CALL( mock, init( QelKrellType( mode ), mode % 2 == 0, 100U + unsigned( mode ) ) );
        control.init( QelKrellType( mode ), mode % 2 == 0, 100U + unsigned( mode ) );
    }
}

TEST_F( CollectionControlTest, InitRefusesOtherNumbersWithoutACall ) {
    for ( const int mode : { 4, 5, 100, -1, 2147483647, -2147483647 - 1 } ) {
        EXPECT_EQ( raised< QelKrell::InvalidInitializeException >(
                       [ & ] { control.init( QelKrellType( mode ), false, 0 ); } ),
                   "Unrecognized QelKrellType" + std::to_string( mode ) );
    }
}

TEST_F( CollectionControlTest, InitTranslatesTwoKindsByTheirClass ) {
    class Derived : public Krell::CorruptionDetectedException {
    public:
        using CorruptionDetectedException::CorruptionDetectedException;
        unsigned int id() const override { return 9; }
    };
    EXPECT_CALL( mock, init )
        .WillOnce( Throw( Krell::InvalidInitializeException( "layouts differ" ) ) )
        .WillOnce( Throw( Krell::CorruptionDetectedException( "bad slot" ) ) )
        .WillOnce( Throw( Derived( "worse" ) ) );
    const auto init = [ & ] { control.init( QelKrell::reader, false, 0 ); };
    EXPECT_EQ( raised< QelKrell::InvalidInitializeException >( init ), "layouts differ" );
    EXPECT_EQ( raised< QelKrell::CorruptionDetectedException >( init ), "bad slot" );
    EXPECT_EQ( raised< QelKrell::CorruptionDetectedException >( init ), "worse" );
}

TEST_F( CollectionControlTest, InitLetsOtherExceptionsPass ) {
    EXPECT_CALL( mock, init )
        .WillOnce( Throw( Krell::DuplicateWriterException( "held", 5 ) ) )
        .WillOnce( Throw( Krell::MemoryResourceException( "full" ) ) )
        .WillOnce( Throw( Krell::UnimplementedException( "not yet" ) ) )
        .WillOnce( Throw( std::runtime_error( "other" ) ) );
    const auto init = [ & ] { control.init( QelKrell::writer, false, 0 ); };
    EXPECT_THROW( init(), Krell::DuplicateWriterException );
    EXPECT_THROW( init(), Krell::MemoryResourceException );
    EXPECT_THROW( init(), Krell::UnimplementedException );
    EXPECT_THROW( init(), std::runtime_error );
}

TEST_F( CollectionControlTest, MountStatusIsOneOfThree ) {
    for ( int status = 0; status < 3; ++status ) {
        EXPECT_CALL( mock, mountStatus() ).WillOnce( Return( status ) );
        EXPECT_EQ( constant.mountStatus(), QelKrell::QelMountStatus( status ) );
    }
    for ( const int status : { 3, -1, 2147483647 } ) {
        EXPECT_CALL( mock, mountStatus() ).WillOnce( Return( status ) );
        EXPECT_EQ(
            raised< QelKrell::InvalidMountStatusException >( [ & ] { constant.mountStatus(); } ),
            "Unrecognized Krell::MountStatus" + std::to_string( status ) );
    }
}

TEST_F( CollectionControlTest, CountersThatAreNotKeptAreNotImplemented ) {
    EXPECT_CALL( mock, readerCounters() )
        .WillOnce( Throw( Krell::UnimplementedException( "no reader counters" ) ) )
        .WillOnce( Throw( Krell::RuntimeException( "other" ) ) );
    EXPECT_CALL( mock, writerCounters() )
        .WillOnce( Throw( Krell::UnimplementedException( "no writer counters" ) ) )
        .WillOnce( Throw( Krell::CorruptionDetectedException( "other" ) ) );
    EXPECT_EQ( raised< Qel::NoImplementationException >( [ & ] { constant.readerCounters(); } ),
               "no reader counters" );
    EXPECT_EQ( raised< Qel::NoImplementationException >( [ & ] { constant.writerCounters(); } ),
               "no writer counters" );
    EXPECT_THROW( constant.readerCounters(), Krell::RuntimeException );
    EXPECT_THROW( constant.writerCounters(), Krell::CorruptionDetectedException );
}

TEST_F( CollectionControlTest, OtherForwardsLetExceptionsPass ) {
    EXPECT_CALL( mock, cleanup() )
        .WillOnce( Throw( Krell::DuplicateWriterException( "held", 5 ) ) );
    EXPECT_THROW( control.cleanup(), Krell::DuplicateWriterException );
    EXPECT_CALL( mock, validate() ).WillOnce( Throw( Krell::CorruptionDetectedException( "x" ) ) );
    EXPECT_THROW( control.validate(), Krell::CorruptionDetectedException );
    EXPECT_CALL( mock, mountStatus() )
        .WillOnce( Throw( Krell::InvalidInitializeException( "x" ) ) );
    EXPECT_THROW( constant.mountStatus(), Krell::InvalidInitializeException );
    EXPECT_CALL( mock, owner() ).WillOnce( Throw( Krell::UnimplementedException( "x" ) ) );
    EXPECT_THROW( constant.owner(), Krell::UnimplementedException );
    EXPECT_CALL( mock, resize() ).WillOnce( Throw( Krell::MemoryLimitException( "x" ) ) );
    EXPECT_THROW( constant.resize(), Krell::MemoryLimitException );
}

TEST_F( CollectionControlTest, TheEighthSlotHasABodyOfItsOwn ) {
    Krell::ControlBase& base = mock;
    EXPECT_NO_THROW( base.poll() );
}

// --- By name

class ControlByName : public CollectionControlTest {
protected:
    // The text of the result of calling `operation`, which must have the result's C++ type.
    template < class R >
    std::string result( const char* operation, const Qel::GenericArguments& arguments = {} ) {
        const Qel::GenericValue value = onConst.call( operation, arguments );
        EXPECT_TRUE( value.as< R >() ) << operation;
        return value.strep().stdString();
    }

    CollectionControl::GenericIf_ generic { control };
    CollectionControl::GenericIf_ onConst { constant };
};

TEST( CollectionControlGeneric, CallersByNameSeeFrameworkExceptions ) {
    StrictMock< ControlMock > mock;
    CollectionControl control( &mock );
    CollectionControl::GenericIf_ generic { control };
    EXPECT_CALL( mock, cleanup() )
        .WillOnce( Throw( Krell::DuplicateWriterException( "somebody writes", 7 ) ) );
    EXPECT_CALL( mock, validate() ).WillOnce( Throw( Krell::RuntimeException( "no way" ) ) );
    try {
        generic.call( "cleanup" );
        ADD_FAILURE() << "nothing was thrown";
    } catch ( const QelKrell::DuplicateWriterException& e ) {
        EXPECT_STREQ( e.what(), "somebody writes" );
        EXPECT_EQ( e.krellDetail(), 7u );
    }
    EXPECT_THROW( generic.call( "validate" ), Qel::InternalException );
}

TEST_F( ControlByName, OperationsWithoutArgumentsAreCalled ) {
    EXPECT_CALL( mock, cleanup() );
    EXPECT_FALSE( generic.call( "cleanup" ) );
    EXPECT_CALL( mock, detach() );
    EXPECT_FALSE( generic.call( "detach" ) );
    EXPECT_CALL( mock, validate() ).WillOnce( Return( true ) );
    EXPECT_EQ( *generic.call( "validate" ).as< bool >(), true );
    EXPECT_CALL( mock, mountStatus() ).WillOnce( Return( 2 ) );
    EXPECT_EQ( result< QelKrell::QelMountStatus >( "mountStatus" ), "'connected'" );
    EXPECT_CALL( mock, sequence() ).WillOnce( Return( ~U64( 0 ) ) );
    EXPECT_EQ( result< U64 >( "sequence" ), "18446744073709551615" );
    EXPECT_CALL( mock, fenixId() ).WillOnce( Return( 7 ) );
    EXPECT_EQ( result< U32 >( "fenixId" ), "7" );
    EXPECT_CALL( mock, resize() ).WillOnce( Return( false ) );
    EXPECT_EQ( result< bool >( "resize" ), "False" );
    EXPECT_CALL( mock, maxSize() ).WillOnce( Return( 8 ) );
    EXPECT_EQ( result< U32 >( "maxSize" ), "8" );
    EXPECT_CALL( mock, capacity() ).WillOnce( Return( 9 ) );
    EXPECT_EQ( result< U32 >( "capacity" ), "9" );
    EXPECT_CALL( mock, owner() ).WillOnce( Return( "me" ) );
    EXPECT_EQ( result< String >( "owner" ), "'me'" );
    EXPECT_CALL( mock, krellName() ).WillOnce( Return( "k" ) );
    EXPECT_EQ( result< String >( "krellName" ), "'k'" );
    EXPECT_CALL( mock, rootPath() ).WillOnce( Return( "/r" ) );
    EXPECT_EQ( result< String >( "rootPath" ), "'/r'" );
    EXPECT_CALL( mock, writerCounters() ).WillOnce( Return( QelKrell::WriterCounters() ) );
    EXPECT_THAT( result< QelKrell::WriterCounters >( "writerCounters" ),
                 testing::StartsWith( "Value('QelKrell::WriterCounters'" ) );
    EXPECT_CALL( mock, readerCounters() ).WillOnce( Return( QelKrell::ReaderCounters() ) );
    EXPECT_THAT( result< QelKrell::ReaderCounters >( "readerCounters" ),
                 testing::StartsWith( "Value('QelKrell::ReaderCounters'" ) );
}

TEST_F( ControlByName, OperationsWithArgumentsAreCalled ) {
    EXPECT_CALL( mock, init( QelKrell::keyshadow, true, 64U ) );
    EXPECT_FALSE( generic.call( "init", { { "size", genericValue( U32( 64 ) ) },
                                          { "mode", genericValue( QelKrell::keyshadow ) },
                                          { "isLocal", genericValue( true ) } } ) );
    EXPECT_CALL( mock, notifying( false ) );
    EXPECT_FALSE( onConst.call( "notifying", { { "notifying_", genericValue( false ) } } ) );
    EXPECT_CALL( mock, yieldTimeIs( 0.5 ) ).WillOnce( Return( true ) );
    EXPECT_EQ( result< bool >( "yieldTimeIs", { { "yieldTime", genericValue( 0.5 ) } } ), "True" );
    EXPECT_CALL( mock, sampleIs( 3U ) );
    EXPECT_FALSE( onConst.call( "sampleIs", { { "sample", genericValue( U32( 3 ) ) } } ) );
}

TEST_F( ControlByName, ThePointerIsAnAttribute ) {
    EXPECT_EQ( generic.attribute( "control" ).strep(), valueToStrep( control ) );
    EXPECT_EQ( *generic.attribute( "control" ).as< Krell::ControlBase* >(), &mock );
    generic.attributeIs( "control", genericValue< Krell::ControlBase* >( nullptr ) );
    EXPECT_TRUE( !control );
}

TEST_F( ControlByName, AConstInstanceRefusesWhatMutates ) {
    const char* error = "attempting to modify a const instance";
    for ( const char* operation : { "init", "cleanup", "validate", "detach" } ) {
        EXPECT_EQ( raised< Qel::ConstException >( [ & ] { onConst.call( operation ); } ), error )
            << operation;
    }
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] {
                   onConst.attributeIs( "control", genericValue< Krell::ControlBase* >( nullptr ) );
               } ),
               error );
    EXPECT_FALSE( !constant );
}

struct Refusal {
    const char* operation;
    Qel::GenericArguments arguments;
    const char* error;
};

template < class E >
void refuses( Qel::GenericIf& generic, const std::vector< Refusal >& table ) {
    for ( const Refusal& r : table ) {
        EXPECT_EQ( raised< E >( [ & ] { generic.call( r.operation, r.arguments ); } ), r.error );
    }
}

TEST_F( ControlByName, ArgumentsOfOtherTypesAreRefused ) {
    const std::pair< String, Qel::GenericValue > mode( "mode", genericValue( QelKrell::writer ) );
    const std::pair< String, Qel::GenericValue > isLocal( "isLocal", genericValue( true ) );
    const std::pair< String, Qel::GenericValue > size( "size", genericValue( U32( 1 ) ) );
    const auto text = genericValue( "1" );
    refuses< Qel::TypeException >(
        generic,
        { { "init",
            { { "mode", text }, isLocal, size },
            "argument 'mode' of operation 'init' takes a QelKrell::QelKrellType, not a "
            "Qel::String8" },
          { "init",
            { mode, { "isLocal", text }, size },
            "argument 'isLocal' of operation 'init' takes a bool, not a Qel::String8" },
          { "init",
            { mode, isLocal, { "size", text } },
            "argument 'size' of operation 'init' takes a U32, not a Qel::String8" },
          { "init",
            { mode, isLocal, { "size", genericValue( U64( 1 ) ) } },
            "argument 'size' of operation 'init' takes a U32, not a U64" },
          { "init",
            { mode, isLocal, { "size", {} } },
            "argument 'size' of operation 'init' takes a U32, not a none" },
          { "notifying",
            { { "notifying_", genericValue( U32( 1 ) ) } },
            "argument 'notifying_' of operation 'notifying' takes a bool, not a U32" },
          { "yieldTimeIs",
            { { "yieldTime", genericValue( U32( 1 ) ) } },
            "argument 'yieldTime' of operation 'yieldTimeIs' takes a Qel::Seconds, not a U32" },
          { "sampleIs",
            { { "sample", genericValue( 1.0 ) } },
            "argument 'sample' of operation 'sampleIs' takes a U32, not a double" } } );
}

TEST_F( ControlByName, ArgumentsThatAreNotTakenMissingOrRepeatedAreRefused ) {
    const std::pair< String, Qel::GenericValue > mode( "mode", genericValue( QelKrell::writer ) );
    const std::pair< String, Qel::GenericValue > isLocal( "isLocal", genericValue( true ) );
    const std::pair< String, Qel::GenericValue > size( "size", genericValue( U32( 1 ) ) );
    refuses< Qel::UnknownArgumentException >(
        generic, { { "init",
                     { mode, isLocal, size, { "count", genericValue( 1 ) } },
                     "operation 'init' takes no argument 'count'" },
                   { "init",
                     { { "Size", genericValue( U32( 1 ) ) } },
                     "operation 'init' takes no argument 'Size'" },
                   { "cleanup", { size }, "operation 'cleanup' takes no argument 'size'" },
                   { "notifying",
                     { { "notifying", genericValue( true ) } },
                     "operation 'notifying' takes no argument 'notifying'" } } );
    refuses< Qel::MissingArgumentException >(
        generic, { { "init", {}, "operation 'init' needs argument 'mode'" },
                   { "init", { mode, size }, "operation 'init' needs argument 'isLocal'" },
                   { "sampleIs", {}, "operation 'sampleIs' needs argument 'sample'" } } );
    refuses< Qel::RepeatedArgumentException >(
        generic, { { "init",
                     { mode, isLocal, size, size },
                     "operation 'init' was given argument 'size' twice" } } );
}

TEST_F( ControlByName, OperationsAreNoAttributes ) {
    for ( const char* operation : { "init", "notifying", "cleanup", "capacity" } ) {
        const std::string error =
            "operation '" + std::string( operation ) + "' is not supported as an attribute";
        EXPECT_EQ(
            raised< Qel::OpNotSupportedException >( [ & ] { generic.attribute( operation ); } ),
            error );
        EXPECT_EQ( raised< Qel::OpNotSupportedException >(
                       [ & ] { generic.attributeIs( operation, genericValue( true ) ); } ),
                   error );
        EXPECT_EQ( raised< Qel::OpNotSupportedException >(
                       [ & ] { generic.attributeDel( operation, genericValue( true ) ); } ),
                   error );
        EXPECT_EQ( raised< Qel::OpNotSupportedException >(
                       [ & ] { generic.attribute( operation, genericValue( true ) ); } ),
                   error );
    }
    EXPECT_EQ( raised< Qel::OpNotSupportedException >( [ & ] { generic.call( "control" ); } ),
               "attribute 'control' is not an operation" );
    EXPECT_EQ( raised< Qel::UnknownAttributeException >( [ & ] { generic.call( "close" ); } ),
               "QelKrell::CollectionControl has no attribute 'close'" );
}

TEST_F( ControlByName, RefusalsOfTheMemberComeThrough ) {
    EXPECT_EQ( raised< QelKrell::InvalidInitializeException >( [ & ] {
                   generic.call( "init", { { "mode", genericValue( QelKrellType( 4 ) ) },
                                           { "isLocal", genericValue( true ) },
                                           { "size", genericValue( U32( 0 ) ) } } );
               } ),
               "Unrecognized QelKrellType4" );
}

TEST( ControlUnbound, CallsWithoutAnInstanceAreRefused ) {
    CollectionControl::GenericIf_ unbound;
    EXPECT_EQ( raised< Qel::InternalException >( [ & ] { unbound.call( "capacity" ); } ),
               "no value of type QelKrell::CollectionControl is bound" );
    EXPECT_EQ( raised< Qel::InternalException >( [ & ] { unbound.attribute( "control" ); } ),
               "no value of type QelKrell::CollectionControl is bound" );
    EXPECT_EQ( unbound.attributeId( "control" ), 258u );
}

} // namespace
