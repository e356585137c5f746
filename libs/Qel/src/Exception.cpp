#include <Qel/Exception>

#include <sstream>
#include <system_error>

#include <Qel/Assert>
#include <Qel/Trace>

namespace Qel {

namespace {

constexpr int unexpectedLevel = 1;
constexpr SourcePosition unexpectedAt = { "Exception", 31, "Exception" };

// Outlives every static object: exceptions are also made while the process ends.
TraceHandle& trace() {
    static auto* const handle = new TraceHandle( "QelException", false );
    return *handle;
}

// Innermost guard of this thread.
thread_local const ExpectException* innermostGuard = nullptr;

String idText( const Exception::IdBitArray& ids ) {
    String text;
    for ( U32 id = 0; id < Exception::maxIds_; ++id ) {
        if ( ids[ id ] ) {
            text += text.empty() ? "" : ", ";
            text += decimal( id );
        }
    }
    return text;
}

void traceUnexpected( const String& msg, const Exception::IdBitArray& ids ) {
    const bool enabled = trace().enabled( unexpectedLevel );
    if ( enabled || coverageStream_ ) {
        std::stringstream text;
        text << "unexpected exception {" << idText( ids ) << "}: " << msg;
        traceHelper( trace().name(), "<unknown>", text, unexpectedLevel, enabled,
                     unexpectedAt.source, unexpectedAt.line, unexpectedAt.function );
    }
}

} // namespace

const Exception::IdBitArray Exception::otherException_( 1ULL << Exception::otherId_ );

ExceptionId::~ExceptionId() = default;

Exception::Exception( const String& msg, const IdBitArray& ids, bool traced )
    : msg_( msg ), ids_( ids ) {
    if ( traced && !ExpectException::expected( ids ) ) {
        traceUnexpected( msg_, ids_ );
    }
}

Exception::Exception( const Exception& ) = default;
Exception::~Exception() = default;

U32 Exception::id() const noexcept { return otherId_; }

const char* Exception::what() const noexcept { return msg_.charPtr(); }

#define QEL_EXCEPTION_MEMBERS( NAME, BASE )                                                        \
    NAME::NAME( const String& msg, const IdBitArray& ids, bool traced )                            \
        : BASE( msg, ids, traced ) {}                                                              \
    NAME::~NAME() = default;                                                                       \
    U32 NAME::id() const noexcept { return id_; }

QEL_EXCEPTION_MEMBERS( InternalException, Exception )
QEL_EXCEPTION_MEMBERS( RangeException, Exception )
QEL_EXCEPTION_MEMBERS( MemoryException, Exception )
QEL_EXCEPTION_MEMBERS( MemoryLimitExceededException, MemoryException )
QEL_EXCEPTION_MEMBERS( NoImplementationException, Exception )
QEL_EXCEPTION_MEMBERS( TimeoutException, Exception )
QEL_EXCEPTION_MEMBERS( PermissionException, Exception )
QEL_EXCEPTION_MEMBERS( NameInUseException, Exception )
QEL_EXCEPTION_MEMBERS( SystemException, Exception )
QEL_EXCEPTION_MEMBERS( AttributeException, Exception )
QEL_EXCEPTION_MEMBERS( UnknownAttributeException, AttributeException )
QEL_EXCEPTION_MEMBERS( BadIndexException, AttributeException )
QEL_EXCEPTION_MEMBERS( TypeException, AttributeException )
QEL_EXCEPTION_MEMBERS( UnknownArgumentException, AttributeException )
QEL_EXCEPTION_MEMBERS( MissingArgumentException, AttributeException )
QEL_EXCEPTION_MEMBERS( RepeatedArgumentException, AttributeException )
QEL_EXCEPTION_MEMBERS( OpNotSupportedException, AttributeException )
QEL_EXCEPTION_MEMBERS( ConstException, AttributeException )

#undef QEL_EXCEPTION_MEMBERS

void throwRangeException( const String& typeName, const String& detail ) {
    throw RangeException( typeName + ": " + detail );
}

void throwSystemException( const String& call,
                           const String& object,
                           int error,
                           const String& hint ) {
    const String text = call + " of " + object + ": " + std::generic_category().message( error ) +
                        " (errno " + decimalSigned( error ) + ")";
    throw SystemException( hint.empty() ? text : text + " - " + hint );
}

ExpectException::ExpectException( const Exception::IdBitArray& ids ) noexcept
    : ids_( ids ), outer_( innermostGuard ) {
    innermostGuard = this;
}

ExpectException::~ExpectException() { innermostGuard = outer_; }

bool ExpectException::expected( const Exception::IdBitArray& ids ) noexcept {
    for ( const ExpectException* guard = innermostGuard; guard; guard = guard->outer_ ) {
        if ( guard->ids_.all() || ( guard->ids_ & ids ).any() ) {
            return true;
        }
    }
    return false;
}

} // namespace Qel
