#include <Krell/Exception>

#include <cerrno>
#include <cstring>

namespace Krell {

std::string Exception::name() const { return "Exception"; }

Exception::~Exception() = default;

#define KRELL_EXCEPTION( NAME )                                                                    \
    std::string NAME::name() const { return #NAME; }                                               \
    unsigned int NAME::id() const { return id_; }                                                  \
    NAME::~NAME() = default

KRELL_EXCEPTION( MemoryResourceException );
KRELL_EXCEPTION( CorruptionDetectedException );
KRELL_EXCEPTION( MemoryLimitException );
KRELL_EXCEPTION( PermissionException );
KRELL_EXCEPTION( UnimplementedException );
KRELL_EXCEPTION( InvalidInitializeException );
KRELL_EXCEPTION( TimeoutException );
KRELL_EXCEPTION( DuplicateWriterException );
KRELL_EXCEPTION( RuntimeException );
#undef KRELL_EXCEPTION

std::string systemFailureText( const std::string& call, const std::string& path, int errorNumber ) {
    return call + " " + path + ": " + std::strerror( errorNumber );
}

void throwSystemFailure( const std::string& text, int errorNumber ) {
    switch ( errorNumber ) {
    case EACCES:
    case EPERM:
    case EROFS:
        throw PermissionException( text );
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
    case ENOLCK:
        throw MemoryResourceException( text );
    default:
        throw RuntimeException( text );
    }
}

void throwSystemFailure( const std::string& call, const std::string& path, int errorNumber ) {
    throwSystemFailure( systemFailureText( call, path, errorNumber ), errorNumber );
}

} // namespace Krell
