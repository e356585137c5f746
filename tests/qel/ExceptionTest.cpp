// Exceptions: identifiers, copies, when their making is traced.

#include <gmock/gmock.h>

#include <Qel/Exception>

#include "TraceCapture.h"

namespace {

using Qel::Exception;
using Qel::ExpectException;
using QelTest::TraceCapture;
using testing::ElementsAre;
using testing::IsEmpty;

template < class E >
void hasId( Qel::U32 id ) {
    const ExpectException quiet;
    const E e( "text" );
    EXPECT_EQ( id, E::id_ );
    EXPECT_EQ( id, e.id() );
    EXPECT_EQ( Exception::idSet( id ), e.ids() );
    EXPECT_STREQ( "text", e.what() );
    const Exception& base = e;
    EXPECT_EQ( id, base.id() );
}

TEST( Exception, EachClassHasItsIdentifier ) {
    hasId< Qel::InternalException >( 11 );
    hasId< Qel::RangeException >( 12 );
    hasId< Qel::MemoryException >( 13 );
    hasId< Qel::NoImplementationException >( 14 );
    hasId< Qel::TimeoutException >( 15 );
    hasId< Qel::PermissionException >( 18 );
    hasId< Qel::NameInUseException >( 19 );
    hasId< Qel::SystemException >( 20 );
    hasId< Qel::AttributeException >( 21 );
    hasId< Qel::UnknownAttributeException >( 22 );
    hasId< Qel::BadIndexException >( 23 );
    hasId< Qel::TypeException >( 24 );
    hasId< Qel::UnknownArgumentException >( 25 );
    hasId< Qel::MissingArgumentException >( 26 );
    hasId< Qel::RepeatedArgumentException >( 27 );
    hasId< Qel::OpNotSupportedException >( 28 );
    hasId< Qel::ConstException >( 29 );
}

TEST( Exception, MemoryLimitIsAMemoryExceptionToo ) {
    const ExpectException quiet;
    try {
        throw Qel::MemoryLimitExceededException( "full" );
    } catch ( const Qel::MemoryException& e ) {
        EXPECT_EQ( 31U, e.id() );
        EXPECT_TRUE( e.hasId( 31 ) );
        EXPECT_TRUE( e.hasId( 13 ) );
        EXPECT_EQ( 2U, e.ids().count() );
    }
}

TEST( Exception, PlainOneIsOther ) {
    const ExpectException quiet;
    const Exception e( "text" );
    EXPECT_EQ( 10U, e.id() );
    EXPECT_EQ( Exception::otherException_, e.ids() );
    EXPECT_EQ( Exception::idSet( 10U ), e.ids() );
    EXPECT_FALSE( e.hasId( 1000 ) );
}

TEST( Exception, MakingOneIsTracedAtLevelOne ) {
    const TraceCapture trace( "QelException/1" );
    const Qel::MemoryLimitExceededException e( "no\nroom" );
    ASSERT_EQ( 1U, trace.records.size() );
    EXPECT_THAT( trace.texts(),
                 ElementsAre( "QelException 1 unexpected exception {13, 31}: no\\nroom" ) );
    EXPECT_EQ( trace.records[ 0 ].source, "Exception" );
    EXPECT_EQ( 31U, trace.records[ 0 ].line );
    EXPECT_EQ( trace.records[ 0 ].function, "Exception" );
}

TEST( Exception, CopiesAreEqualAndSilent ) {
    TraceCapture trace( "QelException/*" );
    const Qel::RangeException e( "text" );
    trace.records.clear();
    const Qel::RangeException copy( e );
    EXPECT_STREQ( "text", copy.what() );
    EXPECT_EQ( e.ids(), copy.ids() );
    EXPECT_THAT( trace.texts(), IsEmpty() );
}

TEST( Exception, ExpectedOnesAreSilent ) {
    const TraceCapture trace( "QelException/*" );
    {
        const ExpectException expected( 13 );
        const Qel::MemoryLimitExceededException any( "one of its identifiers" );
        const ExpectException inner( Qel::RangeException::id_ );
        const Qel::RangeException nested( "inner" );
        const Qel::MemoryException outer( "outer still holds" );
    }
    {
        const ExpectException everything;
        const Exception none( "no identifiers", Exception::IdBitArray() );
    }
    const Qel::RangeException untraced( "not traced", Exception::idSet( 12U ), false );
    EXPECT_THAT( trace.texts(), IsEmpty() );
}

TEST( Exception, OthersAreTracedUnderAGuardAndAfterIt ) {
    const TraceCapture trace( "QelException/*" );
    {
        const ExpectException expected( Qel::RangeException::id_ );
        const Qel::InternalException other( "other" );
    }
    const Qel::RangeException after( "after" );
    EXPECT_THAT( trace.texts(), ElementsAre( "QelException 1 unexpected exception {11}: other",
                                             "QelException 1 unexpected exception {12}: after" ) );
}

TEST( Exception, GoesToTheCoverageStreamWithTracingOff ) {
    const TraceCapture trace( "-QelException" );
    std::ostringstream coverage;
    Qel::coverageStream_ = &coverage;
    const Qel::TimeoutException e( "late" );
    Qel::coverageStream_ = nullptr;
    EXPECT_EQ( "unexpected exception {15}: late\n", coverage.str() );
    EXPECT_THAT( trace.texts(), IsEmpty() );
}

TEST( Exception, ThrowersNameWhatTheyAreGiven ) {
    const ExpectException quiet;
    try {
        Qel::throwRangeException( "Bench::Mode", "'x'" );
        FAIL();
    } catch ( const Qel::RangeException& e ) {
        EXPECT_STREQ( "Bench::Mode: 'x'", e.what() );
    }
    try {
        Qel::throwSystemException( "open", "'/nowhere'", ENOENT );
        FAIL();
    } catch ( const Qel::SystemException& e ) {
        EXPECT_STREQ( "open of '/nowhere': No such file or directory (errno 2)", e.what() );
    }
    try {
        Qel::throwSystemException( "open", "'/nowhere'", ENOENT, "look again" );
        FAIL();
    } catch ( const Qel::SystemException& e ) {
        EXPECT_STREQ( "open of '/nowhere': No such file or directory (errno 2) - look again",
                      e.what() );
    }
}

} // namespace
