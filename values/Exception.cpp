#include <QelKrell/Exception>

#include <Krell/Exception>
#include <Qel/Assert>
#include <Qel/Trace>

#include "values/DirectTrace.h"

namespace QelKrell {

namespace {

constexpr Qel::U32 internalId = Qel::InternalException::id_;
constexpr int errorLevel = 0;

constexpr Qel::SourcePosition unrecognizedTrace { "Exception", 37, "throwQelKrellException" };
constexpr Qel::SourcePosition unrecognizedAssertion {
    "Exception", 38, "void QelKrell::throwQelKrellException(const Krell::Exception&)"
};

[[noreturn]] void unrecognized( unsigned id ) {
    directTrace( errorLevel, unrecognizedTrace, [ & ]( std::ostream& text ) {
        text << "QelKrell::throwQelKrellException unrecognized exception type: " << id;
    } );
    Qel::assertionFailed( "false && \"QelKrell::throwQelKrellException unrecognized exception\"",
                          unrecognizedAssertion.source, unrecognizedAssertion.line,
                          unrecognizedAssertion.function );
}

Qel::U32 detailOf( const Krell::Exception& e ) {
    const auto* duplicate = dynamic_cast< const Krell::DuplicateWriterException* >( &e );
    return duplicate ? duplicate->detail() : 0;
}

} // namespace

#define QELKRELL_EXCEPTION( NAME )                                                                 \
    NAME::NAME( const Qel::String8& msg )                                                          \
        : Qel::InternalException( msg, idSet( internalId ), true ) {}                              \
    NAME::~NAME() = default;
QELKRELL_EXCEPTION( MountException )
QELKRELL_EXCEPTION( InvalidInitializeException )
QELKRELL_EXCEPTION( CorruptionDetectedException )
QELKRELL_EXCEPTION( InvalidMountStatusException )
QELKRELL_EXCEPTION( MemoryResourceException )
QELKRELL_EXCEPTION( UnimplementedException )
#undef QELKRELL_EXCEPTION

DuplicateWriterException::DuplicateWriterException( const Qel::String8& msg,
                                                    Qel::U32 krellDetail,
                                                    const Qel::String8& krellExceptionName )
    : Qel::InternalException( msg, IdBitArray( otherException_ ).set( internalId ), true ),
      krellDetail_( krellDetail ),
      krellExceptionName_( krellExceptionName ) {}
DuplicateWriterException::~DuplicateWriterException() = default;

void throwQelKrellException( const Krell::Exception& e ) {
    const unsigned id = e.id();
    if ( id > 9 ) {
        unrecognized( id );
    }
    const Qel::String8 msg( e.msg() );
    switch ( id ) {
    case 0:
        throw MemoryResourceException( msg );
    case 1:
        throw CorruptionDetectedException( msg );
    case 2:
        throw Qel::MemoryLimitExceededException( msg );
    case 3:
        throw Qel::PermissionException( msg );
    case 4:
        throw UnimplementedException( msg );
    case 5:
        throw InvalidInitializeException( msg );
    case 6:
        throw Qel::TimeoutException( msg );
    case 7:
        throw DuplicateWriterException( msg, detailOf( e ), Qel::String8( e.name() ) );
    case 9:
        throw Qel::InternalException( msg );
    default:
        unrecognized( id ); // 8 has no counterpart
    }
}

} // namespace QelKrell
