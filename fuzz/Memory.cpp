// A machine of little memory: no block of a local collection gets larger than this, so that any
// size can be asked for. Such blocks are what the libraries align.

#include <cerrno>
#include <cstdlib>

extern "C" __attribute__( ( visibility( "default" ) ) ) void* aligned_alloc(
    std::size_t alignment, std::size_t size ) noexcept {
    constexpr std::size_t largest = std::size_t( 16 ) << 20; // bytes
    void* block = nullptr;
    if ( size > largest || ::posix_memalign( &block, alignment, size ) != 0 ) {
        errno = ENOMEM;
        return nullptr;
    }
    return block;
}
