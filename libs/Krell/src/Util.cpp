#include <Krell/Util>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>

#include <fcntl.h>

#include <Krell/Fd>

namespace Krell::Util {

namespace {

constexpr int lineBytes = 16;

// A short file of the kernel's; empty when it cannot be read.
std::string kernelText( const char* path ) {
    const Fd file( ::open( path, O_RDONLY | O_CLOEXEC ) );
    char text[ 1024 ];
    ssize_t length;
    do {
        length = file ? ::read( file.get(), text, sizeof text ) : 0;
    } while ( length < 0 && errno == EINTR );
    return std::string( text, length > 0 ? std::size_t( length ) : 0 );
}

U32 wordAt( const char* data, unsigned int bytes ) noexcept {
    U32 word = 0;
    for ( unsigned int i = 0; i < bytes; ++i ) {
        word |= U32( U8( data[ i ] ) ) << ( 8 * i );
    }
    return word;
}

U32 mixed( U32 h, U32 word ) noexcept {
    h ^= std::rotl( word * 0xcc9e2d51U, 15 ) * 0x1b873593U;
    return std::rotl( h, 13 ) * 5 + 0xe6546b64U;
}

void appendHex( std::string& text, U32 value, int digits ) {
    for ( int shift = 4 * ( digits - 1 ); shift >= 0; shift -= 4 ) {
        text += "0123456789abcdef"[ value >> shift & 15 ];
    }
}

void appendLine( std::string& text, const U8* bytes, int offset, int count ) {
    appendHex( text, U32( offset ), 8 );
    text += "  ";
    for ( int i = 0; i < lineBytes; ++i ) {
        text += i == 0 ? "" : i == lineBytes / 2 ? "  " : " ";
        if ( i < count ) {
            appendHex( text, bytes[ offset + i ], 2 );
        } else {
            text += "  ";
        }
    }
    text += "  |";
    for ( int i = 0; i < count; ++i ) {
        const U8 byte = bytes[ offset + i ];
        text += byte >= 0x20 && byte < 0x7f ? char( byte ) : '.';
    }
    text += '|';
}

} // namespace

U32 hash( const char* data, unsigned int length ) noexcept {
    U32 h = length * 0x9e3779b1U;
    unsigned int at = 0;
    for ( ; length - at >= 4; at += 4 ) {
        h = mixed( h, wordAt( data + at, 4 ) );
    }
    if ( at < length ) {
        h = mixed( h, wordAt( data + at, length - at ) );
    }
    h ^= h >> 16;
    h *= 0x85ebca6bU;
    h ^= h >> 13;
    h *= 0xc2b2ae35U;
    h ^= h >> 16;
    return h;
}

std::string dumpHex( const void* bytes, int size ) {
    std::string text;
    for ( int offset = 0; offset < size; offset += lineBytes ) {
        if ( offset ) {
            text += '\n';
        }
        appendLine( text, static_cast< const U8* >( bytes ), offset,
                    std::min( lineBytes, size - offset ) );
        if ( size - offset <= lineBytes ) {
            break; // before the offset could pass the largest int
        }
    }
    return text;
}

U64 processStartTime( pid_t pid ) {
    const std::string text = kernelText( ( "/proc/" + std::to_string( pid ) + "/stat" ).c_str() );
    // The name, field 2, stands in parentheses and may hold anything; field 22 counts from its end.
    std::size_t at = text.rfind( ')' );
    for ( int field = 2; field < 22 && at != std::string::npos; ++field ) {
        at = text.find( ' ', at + 1 );
    }
    U64 ticks = 0;
    if ( at != std::string::npos ) {
        std::from_chars( text.data() + at + 1, text.data() + text.size(), ticks );
    }
    return ticks;
}

std::string bootId() {
    const std::string text = kernelText( "/proc/sys/kernel/random/boot_id" );
    return text.substr( 0, text.find( '\n' ) );
}

std::string processName() { return program_invocation_short_name; }

} // namespace Krell::Util
