#include <Krell/Owner>

#include <charconv>
#include <optional>

#include <unistd.h>

#include <Krell/Util>

namespace Krell {

namespace {

constexpr std::size_t maxName = 256;

// The rest of the first line that begins with `key` and ": ".
std::optional< std::string_view > line( std::string_view text, std::string_view key ) {
    while ( !text.empty() ) {
        const std::size_t end = text.find( '\n' );
        if ( end == std::string_view::npos ) {
            return std::nullopt; // cut off
        }
        std::string_view one = text.substr( 0, end );
        if ( one.starts_with( key ) && one.substr( key.size() ).starts_with( ": " ) ) {
            return one.substr( key.size() + 2 );
        }
        text.remove_prefix( end + 1 );
    }
    return std::nullopt;
}

template < class Number >
Number number( std::string_view text, std::string_view key ) {
    const std::optional< std::string_view > digits = line( text, key );
    Number value = 0;
    if ( !digits ) {
        return 0;
    }
    const char* end = digits->data() + digits->size();
    const auto [ at, error ] = std::from_chars( digits->data(), end, value );
    return error == std::errc() && at == end ? value : 0;
}

// One printable line of bounded length.
std::string plain( std::string_view text ) {
    std::string result( text.substr( 0, maxName ) );
    for ( char& c : result ) {
        if ( U8( c ) < 0x20 || U8( c ) == 0x7f ) {
            c = '?';
        }
    }
    return result;
}

} // namespace

Owner Owner::self() {
    const pid_t pid = ::getpid();
    return { plain( Util::processName() ), pid, Util::processStartTime( pid ), Util::bootId(),
             U32( ::getuid() ) };
}

Owner Owner::parse( std::string_view text ) {
    text = text.substr( 0, maxText_ );
    Owner owner;
    owner.pid = number< pid_t >( text, "pid" );
    if ( owner.pid <= 0 ) {
        return {};
    }
    owner.process = plain( line( text, "process" ).value_or( "" ) );
    owner.startTime = number< U64 >( text, "start-time" );
    owner.bootId = plain( line( text, "boot-id" ).value_or( "" ) );
    owner.uid = number< U32 >( text, "uid" );
    return owner;
}

std::string Owner::text() const {
    return "process: " + plain( process ) + "\npid: " + std::to_string( pid ) +
           "\nstart-time: " + std::to_string( startTime ) + "\nboot-id: " + plain( bootId ) +
           "\nuid: " + std::to_string( uid ) + "\n";
}

std::string Owner::description() const {
    return empty() ? "nobody known" : process + " (pid " + std::to_string( pid ) + ")";
}

} // namespace Krell
