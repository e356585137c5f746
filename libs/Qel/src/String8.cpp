#include <Qel/String8>

#include <ostream>

namespace Qel {

std::ostream& operator<<( std::ostream& os, const String& s ) { return os << s.stdString(); }

String decimal( U64 v ) { return std::to_string( v ); }

String decimalSigned( S64 v ) { return std::to_string( v ); }

U32 stringHash( std::string_view s ) noexcept {
    U32 h = 2166136261U; // FNV-1a, then a final mix: the maps use the high bits of the reversal
    for ( char c : s ) {
        h = ( h ^ U8( c ) ) * 16777619U;
    }
    h ^= h >> 16;
    h *= 0x7feb352dU;
    h ^= h >> 15;
    return h;
}

} // namespace Qel
