#include <Krell/QueueNewest>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/mman.h>

namespace Krell {

namespace {

constexpr std::size_t line = 64;
constexpr U32 leastSlots = 256; // of the first piece

} // namespace

void QueueNewest::Free::operator()( U32* piece ) const noexcept { std::free( piece ); }

// A whole piece is a huge page, where the kernel gives one.
QueueNewest::Piece QueueNewest::make( U32 slots ) {
    const std::size_t size = sizeof( U32 ) * slots;
    const bool whole = slots == pieceSize_;
    Piece piece( static_cast< U32* >( std::aligned_alloc( whole ? size : line, size ) ) );
    if ( !piece ) {
        throw std::bad_alloc();
    }
    if ( whole ) {
        ::madvise( piece.get(), size, MADV_HUGEPAGE ); // advice
    }
    std::memset( piece.get(), 0, size );
    return piece;
}

// The first piece doubles until it is whole.
void QueueNewest::growTo( U32 slots ) {
    if ( slots > firstSize_ && firstSize_ < pieceSize_ ) {
        U32 size = std::max( firstSize_, leastSlots );
        while ( size < slots && size < pieceSize_ ) {
            size *= 2;
        }
        Piece grown = make( size );
        if ( pieces_.empty() ) {
            pieces_.push_back( std::move( grown ) );
        } else {
            std::copy_n( pieces_[ 0 ].get(), firstSize_, grown.get() );
            pieces_[ 0 ] = std::move( grown );
        }
        firstSize_ = size;
    }
    while ( slots > pieces_.size() * pieceSize_ && firstSize_ == pieceSize_ ) {
        pieces_.push_back( make( pieceSize_ ) );
    }
}

} // namespace Krell
