// The library's exceptions, and the translation of the collection library's.

#include <QelKrell/Exception>

#include <iostream>
#include <sstream>

#include <Krell/Exception>
#include <gmock/gmock.h>

#include "Raised.h"
#include "TraceLog.h"

namespace {

using Qel::Exception;
using Qel::String;
using Qel::U32;
using QelKrell::throwQelKrellException;
using QelKrellTest::TraceLog;

// A collection library's exception of any number.
class Numbered : public Krell::Exception {
public:
    Numbered( unsigned int id, const std::string& msg ) : Exception( msg ), id_( id ) {}
    std::string name() const override { return "Numbered"; }
    unsigned int id() const override {
        ++asked;
        return id_;
    }

    mutable int asked = 0;

private:
    unsigned int id_;
};

const std::string message( "what went wrong: \"%s\" \xff" );

// Throws what `e` is translated to and expects a T, exactly, with the same message.
template < class T >
T translation( const Krell::Exception& e ) {
    try {
        throwQelKrellException( e );
    } catch ( const T& t ) {
        EXPECT_EQ( std::string( typeid( t ).name() ), typeid( T ).name() );
        EXPECT_EQ( t.msg(), String( e.msg() ) );
        EXPECT_EQ( t.what(), e.msg() );
        return t;
    }
}

template < class From, class To >
void translates( const Exception::IdBitArray& ids, U32 id ) {
    const To to = translation< To >( From( message ) );
    EXPECT_EQ( to.ids(), ids );
    EXPECT_EQ( to.id(), id );
}

TEST( Translation, GivesEachKindItsCounterpart ) {
    const auto internal = Exception::idSet( 11U );
    translates< Krell::MemoryResourceException, QelKrell::MemoryResourceException >( internal, 11 );
    translates< Krell::CorruptionDetectedException, QelKrell::CorruptionDetectedException >(
        internal, 11 );
    translates< Krell::MemoryLimitException, Qel::MemoryLimitExceededException >(
        Exception::idSet( 31U, 13U ), 31 );
    translates< Krell::PermissionException, Qel::PermissionException >( Exception::idSet( 18U ),
                                                                        18 );
    translates< Krell::UnimplementedException, QelKrell::UnimplementedException >( internal, 11 );
    translates< Krell::InvalidInitializeException, QelKrell::InvalidInitializeException >( internal,
                                                                                           11 );
    translates< Krell::TimeoutException, Qel::TimeoutException >( Exception::idSet( 15U ), 15 );
    translates< Krell::RuntimeException, Qel::InternalException >( internal, 11 );
}

TEST( Translation, GoesByTheNumberAndAsksForItOnce ) {
    const Numbered corrupt( 1, message );
    translation< QelKrell::CorruptionDetectedException >( corrupt );
    EXPECT_EQ( corrupt.asked, 1 );
    translation< QelKrell::MemoryResourceException >( Numbered( 0, "" ) );
    translation< Qel::MemoryLimitExceededException >( Numbered( 2, "x" ) );
    translation< Qel::PermissionException >( Numbered( 3, "x" ) );
    translation< QelKrell::UnimplementedException >( Numbered( 4, "x" ) );
    translation< QelKrell::InvalidInitializeException >( Numbered( 5, "x" ) );
    translation< Qel::TimeoutException >( Numbered( 6, "x" ) );
    translation< Qel::InternalException >( Numbered( 9, "x" ) );
}

TEST( Translation, KeepsMessagesThatHoldAnyBytes ) {
    const std::string odd( "a\0b\n\xff", 5 );
    try {
        throwQelKrellException( Krell::RuntimeException( odd ) );
    } catch ( const Qel::InternalException& e ) {
        EXPECT_EQ( e.msg(), String( odd ) );
    }
}

TEST( Translation, OfADuplicateWriterKeepsDetailAndName ) {
    class Special : public Krell::DuplicateWriterException {
    public:
        using DuplicateWriterException::DuplicateWriterException;
        std::string name() const override { return "Special"; }
    };
    const Krell::DuplicateWriterException plain( message, 0xfffffff0U );
    const auto to = translation< QelKrell::DuplicateWriterException >( plain );
    EXPECT_EQ( to.krellDetail(), 0xfffffff0U );
    EXPECT_EQ( to.krellExceptionName(), "DuplicateWriterException" );
    EXPECT_EQ( to.ids(), Exception::idSet( 10U, 11U ) );
    EXPECT_EQ( to.id(), 11u );
    const auto special = translation< QelKrell::DuplicateWriterException >( Special( "m", 7 ) );
    EXPECT_EQ( special.krellDetail(), 7u );
    EXPECT_EQ( special.krellExceptionName(), "Special" );
}

TEST( Translation, CounterpartsAreFrameworkExceptions ) {
    EXPECT_THROW( throwQelKrellException( Krell::CorruptionDetectedException( "x" ) ),
                  Qel::InternalException );
    EXPECT_THROW( throwQelKrellException( Krell::DuplicateWriterException( "x", 1 ) ),
                  Qel::InternalException );
    EXPECT_THROW( throwQelKrellException( Krell::MemoryLimitException( "x" ) ),
                  Qel::MemoryException );
    EXPECT_THROW( throwQelKrellException( Krell::TimeoutException( "x" ) ), Qel::Exception );
    EXPECT_THROW( throwQelKrellException( Krell::RuntimeException( "x" ) ), std::exception );
}

// --- What has no counterpart

constexpr const char* assertion =
    "Exception:38: void QelKrell::throwQelKrellException(const Krell::Exception&): Assertion "
    "`false && "
    "\"QelKrell::throwQelKrellException unrecognized exception\"' failed.\n";

// Writes whole records, so that a death test sees positions.
void recordsToStandardError() {
    Qel::traceSinkIs( []( const String& ) {} );
    Qel::traceObserverIs( []( const Qel::TraceRecord& r ) {
        std::cerr << r.handle << '|' << r.level << '|' << r.source << '|' << r.line << '|'
                  << r.function << '|' << r.context << '|' << r.text << '\n';
    } );
}

class Unrecognized : public testing::TestWithParam< unsigned int > {
protected:
    std::string text() const {
        return "QelKrell::throwQelKrellException unrecognized exception type: " +
               std::to_string( GetParam() );
    }
    [[noreturn]] void translate() const { throwQelKrellException( Numbered( GetParam(), "x" ) ); }
};
using UnrecognizedDeathTest = Unrecognized;

TEST_P( UnrecognizedDeathTest, AbortsAtOnceWithoutTracing ) {
    EXPECT_DEATH(
        {
            Qel::traceSettingsIs( "" );
            recordsToStandardError();
            translate();
        },
        testing::StrEq( assertion ) );
}

TEST_P( UnrecognizedDeathTest, TracesBeforeItAborts ) {
    EXPECT_DEATH(
        {
            Qel::traceSettingsIs( "Krell/*" );
            recordsToStandardError();
            translate();
        },
        testing::StrEq( "Krell|0|Exception|37|throwQelKrellException|<unknown>|" + text() + "\n" +
                        assertion ) );
}

TEST_P( UnrecognizedDeathTest, TellsTheCoverageStreamWithTracingOff ) {
    EXPECT_DEATH(
        {
            Qel::traceSettingsIs( "-Krell" );
            recordsToStandardError();
            Qel::coverageStream_ = &std::cerr;
            translate();
        },
        testing::StrEq( text() + "\n" + assertion ) );
}

INSTANTIATE_TEST_SUITE_P( Kinds,
                          UnrecognizedDeathTest,
                          testing::Values( 8U, 10U, 11U, 4294967295U ) );

// --- The classes themselves

template < class E >
class Kind : public testing::Test {};
using Plain = testing::Types< QelKrell::MountException,
                              QelKrell::InvalidInitializeException,
                              QelKrell::CorruptionDetectedException,
                              QelKrell::InvalidMountStatusException,
                              QelKrell::MemoryResourceException,
                              QelKrell::UnimplementedException >;
TYPED_TEST_SUITE( Kind, Plain );

TYPED_TEST( Kind, IsAnInternalExceptionWithTheMessage ) {
    const TypeParam e( "the message" );
    EXPECT_STREQ( e.what(), "the message" );
    EXPECT_EQ( e.ids(), Exception::idSet( 11U ) );
    EXPECT_TRUE( e.hasId( 11 ) );
    EXPECT_FALSE( e.hasId( 10 ) );
    EXPECT_EQ( e.id(), 11u );
    const TypeParam copy( e );
    EXPECT_EQ( copy.msg(), e.msg() );
    static_assert( std::is_base_of_v< Qel::InternalException, TypeParam > );
}

TYPED_TEST( Kind, IsTracedUnlessItIsExpected ) {
    TraceLog log( "QelException/*", "QelException" );
    const TypeParam loud( "nobody expects it" );
    ASSERT_EQ( log.records().size(), 1u );
    EXPECT_THAT( log.take()[ 0 ], testing::HasSubstr( "nobody expects it" ) );
    {
        const Qel::ExpectException expected( 11 );
        const TypeParam silent( "x" );
        EXPECT_TRUE( log.take().empty() );
    }
    const Qel::ExpectException other( 12 );
    const TypeParam loudAgain( "x" );
    EXPECT_EQ( log.take().size(), 1u );
}

TEST( DuplicateWriterException, CarriesItsDetailThroughCopies ) {
    const QelKrell::DuplicateWriterException e( "msg", 4711, "name" );
    const QelKrell::DuplicateWriterException copy( e );
    EXPECT_EQ( copy.krellDetail(), 4711u );
    EXPECT_EQ( copy.krellExceptionName(), "name" );
    EXPECT_STREQ( copy.what(), "msg" );
    EXPECT_EQ( copy.ids(), Exception::idSet( 10U, 11U ) );
}

} // namespace
