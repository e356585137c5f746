#include <Krell/KrellMem>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace Krell {

namespace {

constexpr std::size_t blockAlignment = 64;

} // namespace

KrellMem::~KrellMem() {
    KrellMem::detach();
    dropHandler();
}

void KrellMem::detach() noexcept {
    if ( !localMem_ ) {
        SharedMem::detach();
    } else if ( address_ ) {
        address_ = doResize( address_, size_, 0 );
        size_ = 0;
    }
}

bool KrellMem::resize( std::size_t newSize ) {
    if ( !localMem_ ) {
        return SharedMem::resize( newSize );
    }
    if ( !address_ ) {
        return failed( "resize", EINVAL, "is not attached" );
    }
    return newSize <= size_ || resizeLocal( newSize );
}

bool KrellMem::giveBack( std::size_t from, std::size_t to ) {
    return localMem_ ? failed( "giveBack", EOPNOTSUPP ) : SharedMem::giveBack( from, to );
}

bool KrellMem::allocate( std::size_t from, std::size_t to ) {
    return localMem_ || SharedMem::allocate( from, to );
}

void KrellMem::populate( std::size_t from, std::size_t to ) noexcept {
    if ( !localMem_ ) {
        SharedMem::populate( from, to );
    }
}

bool KrellMem::resizeLocal( std::size_t newSize ) {
    void* block = doResize( address_, size_, newSize );
    if ( !block ) {
        return newSize == 0 ? failed( "attach", EINVAL, "no size for a block: 0" )
                            : failed( "resize", ENOMEM );
    }
    address_ = block;
    size_ = newSize;
    return true;
}

void* KrellMem::doResize( void* old, std::size_t oldSize, std::size_t newSize ) {
    if ( newSize == 0 ) {
        std::free( old );
        return nullptr;
    }
    if ( newSize > std::size_t( PTRDIFF_MAX ) - blockAlignment ) {
        return nullptr;
    }
    const std::size_t whole = ( newSize + blockAlignment - 1 ) / blockAlignment * blockAlignment;
    void* block = std::aligned_alloc( blockAlignment, whole );
    if ( !block ) {
        return nullptr;
    }
    const std::size_t kept = old ? std::min( oldSize, newSize ) : 0;
    if ( kept ) {
        std::memcpy( block, old, kept );
    }
    std::memset( static_cast< char* >( block ) + kept, 0, whole - kept );
    std::free( old );
    return block;
}

} // namespace Krell
