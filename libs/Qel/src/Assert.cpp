#include <Qel/Assert>

#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

namespace Qel {

void assertionFailed( const char* text, const char* source, unsigned line, const char* function ) {
    std::string message( source );
    message += ':';
    message += std::to_string( line );
    message += ": ";
    message += function;
    message += ": Assertion `";
    message += text;
    message += "' failed.\n";
    const char* at = message.data();
    std::size_t left = message.size();
    while ( left > 0 ) {
        const ssize_t written = write( STDERR_FILENO, at, left );
        if ( written <= 0 ) {
            break;
        }
        at += written;
        left -= std::size_t( written );
    }
    std::abort();
}

} // namespace Qel
