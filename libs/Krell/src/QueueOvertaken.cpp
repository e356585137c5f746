#include <Krell/QueueOvertaken>

#include <bit>

namespace Krell {

// A word more than the window fills: no word belongs to both its ends.
void QueueOvertaken::growTo( U64 size, U64 from, U64 to ) {
    const U64 bits = std::bit_ceil( size + wordBits_ );
    if ( bits <= words_.size() * wordBits_ ) {
        return;
    }
    std::vector< U64 > grown( std::size_t( bits / wordBits_ ) );
    for ( U64 at = from / wordBits_ * wordBits_; from != to && at < to; at += wordBits_ ) {
        grown[ std::size_t( ( at & ( bits - 1 ) ) / wordBits_ ) ] =
            words_[ std::size_t( ( at & mask_ ) / wordBits_ ) ];
    }
    words_.swap( grown );
    mask_ = bits - 1;
}

} // namespace Krell
