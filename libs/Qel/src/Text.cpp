#include <Qel/Text>

#include <charconv>
#include <cmath>
#include <limits>

namespace Qel {

namespace {

using It = StringIteratorConst;

bool isSpace( char c ) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

bool isDigit( char c ) noexcept { return c >= '0' && c <= '9'; }

bool isWordCharacter( char c ) noexcept {
    return isDigit( c ) || ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || c == '_';
}

char hexDigit( unsigned v ) noexcept { return "0123456789abcdef"[ v & 15 ]; }

int hexValue( char c ) noexcept {
    if ( isDigit( c ) ) {
        return c - '0';
    }
    const char lower = char( c | 0x20 );
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

[[noreturn]] void fail( const String& wanted, const It& it, const It& end ) {
    if ( it == end ) {
        throw EndOfTextException( "premature end of text: expected " + wanted );
    }
    throw RangeException( "expected " + wanted + " but found '" + excerpt( it, end ) + "'" );
}

void appendEscaped( String& out, char c ) {
    switch ( c ) {
    case '\n':
        out += "\\n";
        return;
    case '\r':
        out += "\\r";
        return;
    case '\t':
        out += "\\t";
        return;
    case '\\':
        out += "\\\\";
        return;
    case '\'':
        out += "\\'";
        return;
    default:
        break;
    }
    const auto byte = U8( c );
    if ( byte >= 0x20 && byte < 0x7f ) {
        out += c;
    } else {
        out += "\\x";
        out += hexDigit( byte >> 4 );
        out += hexDigit( byte );
    }
}

// The character that an escape stands for; `it` stands behind the backslash.
char readEscape( It& it, const It& end ) {
    if ( it == end ) {
        fail( "an escaped character", it, end );
    }
    switch ( *it ) {
    case 'n':
        ++it;
        return '\n';
    case 'r':
        ++it;
        return '\r';
    case 't':
        ++it;
        return '\t';
    case '\\':
    case '\'':
    case '"':
        return *it++;
    case 'x':
        break;
    default:
        fail( "an escape (n, r, t, x, a quote or a backslash)", it, end );
    }
    ++it;
    int value = 0;
    for ( int i = 0; i < 2; ++i, ++it ) {
        const int digit = it == end ? -1 : hexValue( *it );
        if ( digit < 0 ) {
            fail( "two hexadecimal digits", it, end );
        }
        value = value * 16 + digit;
    }
    return char( value );
}

// The characters of a number, from its sign to its last digit.
struct Digits {
    bool negative;
    std::string_view text;
};

Digits readDigits( It& it, const It& end ) {
    skipWhiteSpace( it, end );
    const It start = it;
    const bool negative = it != end && *it == '-';
    if ( negative ) {
        ++it;
    }
    const char* first = it.position();
    while ( it != end && isDigit( *it ) ) {
        ++it;
    }
    if ( it.position() == first ) {
        if ( it == end ) {
            fail( "a number", it, end );
        }
        it = start;
        fail( "a number", it, end );
    }
    return { negative, std::string_view( first, std::size_t( it.position() - first ) ) };
}

[[noreturn]] void outOfRange( const Digits& d, const char* type ) {
    throw RangeException( String( d.negative ? "-" : "" ) + String( d.text ) +
                          " is out of range for " + type );
}

U64 readUnsigned( It& it, const It& end, U64 max, const char* type ) {
    const Digits d = readDigits( it, end );
    U64 value = 0;
    const auto [ stop, error ] =
        std::from_chars( d.text.data(), d.text.data() + d.text.size(), value );
    static_cast< void >( stop );
    if ( error != std::errc() || value > max || ( d.negative && value != 0 ) ) {
        outOfRange( d, type );
    }
    return value;
}

S64 readSigned( It& it, const It& end, S64 min, S64 max, const char* type ) {
    const Digits d = readDigits( it, end );
    const char* first = d.text.data() - ( d.negative ? 1 : 0 );
    S64 value = 0;
    const auto [ stop, error ] = std::from_chars( first, d.text.data() + d.text.size(), value );
    static_cast< void >( stop );
    if ( error != std::errc() || value < min || value > max ) {
        outOfRange( d, type );
    }
    return value;
}

template < class T >
T unsignedOf( It& it, const It& end, const char* type ) {
    return T( readUnsigned( it, end, std::numeric_limits< T >::max(), type ) );
}

template < class T >
T signedOf( It& it, const It& end, const char* type ) {
    using Limits = std::numeric_limits< T >;
    return T( readSigned( it, end, Limits::min(), Limits::max(), type ) );
}

std::string_view readWord( It& it, const It& end ) {
    const char* first = it.position();
    while ( it != end && isWordCharacter( *it ) ) {
        ++it;
    }
    return { first, std::size_t( it.position() - first ) };
}

// float('inf'), float('-inf'), float('nan'); `it` stands at the word.
double readNonFinite( It& it, const It& end ) {
    needString( it, end, "float" );
    needString( it, end, " ( " );
    const String name = sequenceToValue( it, end, static_cast< String* >( nullptr ) );
    needString( it, end, " )" );
    if ( name == "inf" ) {
        return std::numeric_limits< double >::infinity();
    }
    if ( name == "-inf" ) {
        return -std::numeric_limits< double >::infinity();
    }
    if ( name == "nan" ) {
        return std::numeric_limits< double >::quiet_NaN();
    }
    throw RangeException( "expected 'inf', '-inf' or 'nan' but found '" + name + "'" );
}

template < class T >
T readReal( It& it, const It& end, const char* type ) {
    skipWhiteSpace( it, end );
    if ( it != end && *it == 'f' ) {
        return T( readNonFinite( it, end ) );
    }
    const char* first = it.position();
    const char* digits = it != end && *it == '-' ? first + 1 : first;
    T value = 0;
    if ( digits == end.position() ) {
        it = end;
        fail( "a number", it, end );
    }
    if ( !isDigit( *digits ) && *digits != '.' ) {
        fail( "a number", it, end );
    }
    const auto [ stop, error ] = std::from_chars( first, end.position(), value );
    if ( error == std::errc::result_out_of_range ) {
        throw RangeException( String( first, std::size_t( stop - first ) ) +
                              " is out of range for " + type );
    }
    if ( error != std::errc() ) {
        fail( "a number", it, end );
    }
    it = It( stop );
    return value;
}

} // namespace

EndOfTextException::EndOfTextException( const String& msg ) : RangeException( msg ) {}
EndOfTextException::~EndOfTextException() = default;

void skipWhiteSpace( It& it, const It& end ) noexcept {
    while ( it != end && isSpace( *it ) ) {
        ++it;
    }
}

void needString( It& it, const It& end, const char* token ) {
    std::string_view wanted( token );
    if ( wanted.starts_with( ' ' ) ) {
        skipWhiteSpace( it, end );
        wanted.remove_prefix( 1 );
    }
    const bool spaceAfter = wanted.ends_with( ' ' );
    if ( spaceAfter ) {
        wanted.remove_suffix( 1 );
    }
    const It start = it;
    for ( const char c : wanted ) {
        if ( it == end ) {
            fail( "'" + String( wanted ) + "'", it, end );
        }
        if ( *it != c ) {
            it = start;
            fail( "'" + String( wanted ) + "'", it, end );
        }
        ++it;
    }
    if ( spaceAfter ) {
        skipWhiteSpace( it, end );
    }
}

String excerpt( const It& it, const It& end ) {
    constexpr std::ptrdiff_t most = 20;
    String out;
    for ( It at = it; at != end && at - it < most; ++at ) {
        appendEscaped( out, *at );
    }
    return end - it > most ? out + "..." : out;
}

String valueToStrep( bool v ) { return v ? "True" : "False"; }

String valueToStrep( U64 v ) { return decimal( v ); }

String valueToStrep( S64 v ) { return decimalSigned( v ); }

String valueToStrep( double v ) {
    if ( std::isnan( v ) ) {
        return "float('nan')";
    }
    if ( std::isinf( v ) ) {
        return v > 0 ? "float('inf')" : "float('-inf')";
    }
    char digits[ 40 ];
    const auto [ stop, error ] = std::to_chars( digits, digits + sizeof digits, v );
    static_cast< void >( error );
    const std::string_view text( digits, std::size_t( stop - digits ) );
    const bool integral = text.find_first_of( ".e" ) == std::string_view::npos;
    return integral ? String( text ) + ".0" : String( text );
}

String valueToStrep( const String& v ) {
    String out = "'";
    for ( const char c : v ) {
        appendEscaped( out, c );
    }
    out += '\'';
    return out;
}

String pointerToStrep( const char* typeName, const void* pointer ) {
    char digits[ 20 ];
    const auto [ stop, error ] = std::to_chars( digits, digits + sizeof digits,
                                                reinterpret_cast< std::uintptr_t >( pointer ), 16 );
    static_cast< void >( error );
    return String( "Pointer('" ) + typeName + "', 0x" +
           String( digits, std::size_t( stop - digits ) ) + ")";
}

bool sequenceToValue( It& it, const It& end, bool* ) {
    skipWhiteSpace( it, end );
    const It start = it;
    const std::string_view word = readWord( it, end );
    if ( word == "True" ) {
        return true;
    }
    if ( word == "False" ) {
        return false;
    }
    const bool cut = it == end && ( std::string_view( "True" ).starts_with( word ) ||
                                    std::string_view( "False" ).starts_with( word ) );
    if ( !cut ) {
        it = start;
    }
    fail( "True or False", it, end );
}

U64 sequenceToValue( It& it, const It& end, U64* ) { return unsignedOf< U64 >( it, end, "U64" ); }
U32 sequenceToValue( It& it, const It& end, U32* ) { return unsignedOf< U32 >( it, end, "U32" ); }
U16 sequenceToValue( It& it, const It& end, U16* ) { return unsignedOf< U16 >( it, end, "U16" ); }
U8 sequenceToValue( It& it, const It& end, U8* ) { return unsignedOf< U8 >( it, end, "U8" ); }
S64 sequenceToValue( It& it, const It& end, S64* ) { return signedOf< S64 >( it, end, "S64" ); }
S32 sequenceToValue( It& it, const It& end, S32* ) { return signedOf< S32 >( it, end, "S32" ); }
S16 sequenceToValue( It& it, const It& end, S16* ) { return signedOf< S16 >( it, end, "S16" ); }
S8 sequenceToValue( It& it, const It& end, S8* ) { return signedOf< S8 >( it, end, "S8" ); }

double sequenceToValue( It& it, const It& end, double* ) {
    return readReal< double >( it, end, "double" );
}
float sequenceToValue( It& it, const It& end, float* ) {
    return readReal< float >( it, end, "float" );
}

String sequenceToValue( It& it, const It& end, String* ) {
    skipWhiteSpace( it, end );
    if ( it == end || ( *it != '\'' && *it != '"' ) ) {
        fail( "a quoted string", it, end );
    }
    const char quote = *it++;
    std::string bytes;
    for ( ;; ) {
        if ( it == end ) {
            fail( "a closing quote", it, end );
        }
        const char c = *it++;
        if ( c == quote ) {
            return bytes;
        }
        bytes += c == '\\' ? readEscape( it, end ) : c;
    }
}

void* sequenceToPointer( It& it, const It& end, const char* typeName ) {
    needString( it, end, " Pointer" );
    needString( it, end, " ( " );
    const String name = sequenceToValue( it, end, static_cast< String* >( nullptr ) );
    if ( name != typeName ) {
        throw RangeException( String( "expected a pointer to " ) + typeName + " but found one to " +
                              name );
    }
    needString( it, end, " , " );
    needString( it, end, "0x" );
    std::uintptr_t value = 0;
    const auto [ stop, error ] = std::from_chars( it.position(), end.position(), value, 16 );
    if ( error == std::errc::result_out_of_range ) {
        throw RangeException( String( "the address of a pointer to " ) + typeName +
                              " is out of range" );
    }
    if ( error != std::errc() ) {
        fail( "hexadecimal digits", it, end );
    }
    it = It( stop );
    needString( it, end, " )" );
    return reinterpret_cast< void* >( value );
}

void refuseJunk( const String& text, const It& it ) {
    if ( it != text.end() ) {
        throw RangeException( "junk at column " + decimalSigned( it - text.begin() ) +
                              " deserializing " + text );
    }
}

void rethrowFromDeserialise( const RangeException& e, const char* attribute ) {
    throw RangeException( e.msg() + " in attribute '" + attribute + "'", e.ids() );
}

} // namespace Qel
