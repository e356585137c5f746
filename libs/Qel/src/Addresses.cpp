#include <Qel/Addresses>

#include <cstring>

#include <arpa/inet.h>

namespace Qel {

namespace {

constexpr const char* nameOf( AddressKind kind ) {
    return kind == AddressKind::ipv4   ? "IPv4 address"
           : kind == AddressKind::ipv6 ? "IPv6 address"
                                       : "Ethernet address";
}

int digitOf( char c ) noexcept {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

// "xx:xx:xx:xx:xx:xx", or the same with "-".
bool readMac( std::string_view text, U8* bytes ) noexcept {
    constexpr std::size_t length = addressWidth( AddressKind::mac ) * 3 - 1;
    if ( text.size() != length || ( text[ 2 ] != ':' && text[ 2 ] != '-' ) ) {
        return false;
    }
    for ( std::size_t i = 0; i < length; i += 3 ) {
        const int high = digitOf( text[ i ] );
        const int low = digitOf( text[ i + 1 ] );
        if ( high < 0 || low < 0 || ( i + 2 < length && text[ i + 2 ] != text[ 2 ] ) ) {
            return false;
        }
        bytes[ i / 3 ] = U8( high * 16 + low );
    }
    return true;
}

bool readIp( AddressKind kind, std::string_view text, U8* bytes ) noexcept {
    char ended[ INET6_ADDRSTRLEN ] {};
    if ( text.size() >= sizeof ended || text.find( '\0' ) != std::string_view::npos ) {
        return false;
    }
    std::memcpy( ended, text.data(), text.size() );
    return ::inet_pton( kind == AddressKind::ipv4 ? AF_INET : AF_INET6, ended, bytes ) == 1;
}

String macText( const U8* bytes ) {
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for ( std::size_t i = 0; i < addressWidth( AddressKind::mac ); ++i ) {
        text += i ? ":" : "";
        text += digits[ bytes[ i ] / 16 ];
        text += digits[ bytes[ i ] % 16 ];
    }
    return text;
}

} // namespace

String addressText( AddressKind kind, const U8* bytes ) {
    if ( kind == AddressKind::mac ) {
        return macText( bytes );
    }
    char text[ INET6_ADDRSTRLEN ] {};
    ::inet_ntop( kind == AddressKind::ipv4 ? AF_INET : AF_INET6, bytes, text, sizeof text );
    return text;
}

void addressBytes( AddressKind kind, std::string_view text, U8* bytes ) {
    U8 read[ addressWidth( AddressKind::ipv6 ) ];
    if ( !( kind == AddressKind::mac ? readMac( text, read ) : readIp( kind, text, read ) ) ) {
        throw RangeException( valueToStrep( String( text ) ) + " is no " + nameOf( kind ) );
    }
    std::memcpy( bytes, read, addressWidth( kind ) );
}

} // namespace Qel
