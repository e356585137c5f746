#include "krell/Allocations.h"

#include <cstdlib>
#include <new>

namespace KrellTest {

thread_local Qel::U64 allocations = 0;
thread_local Qel::U64 allocationsLeft = ~Qel::U64( 0 );
thread_local std::size_t largestAllocation = ~std::size_t( 0 );

namespace {

void* allocated( std::size_t size ) {
    ++allocations;
    if ( allocationsLeft == 0 || size > largestAllocation ) {
        throw std::bad_alloc();
    }
    allocationsLeft -= allocationsLeft != ~Qel::U64( 0 );
    if ( void* const memory = std::malloc( size ? size : 1 ) ) {
        return memory;
    }
    throw std::bad_alloc();
}

} // namespace
} // namespace KrellTest

void* operator new( std::size_t size ) { return KrellTest::allocated( size ); }
void* operator new[]( std::size_t size ) { return KrellTest::allocated( size ); }
void* operator new( std::size_t size, const std::nothrow_t& ) noexcept {
    return std::malloc( size ? size : 1 );
}
void* operator new[]( std::size_t size, const std::nothrow_t& ) noexcept {
    return std::malloc( size ? size : 1 );
}
void operator delete( void* memory ) noexcept { std::free( memory ); }
void operator delete[]( void* memory ) noexcept { std::free( memory ); }
void operator delete( void* memory, std::size_t ) noexcept { std::free( memory ); }
void operator delete[]( void* memory, std::size_t ) noexcept { std::free( memory ); }
