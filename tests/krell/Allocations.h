// Allocations of the present thread: counted, and made to fail.

#pragma once

#include <cstddef>

#include <Qel/Types>

namespace KrellTest {

// How many there were.
extern thread_local Qel::U64 allocations;
// After how many more each one fails, and above which size.
extern thread_local Qel::U64 allocationsLeft;
extern thread_local std::size_t largestAllocation;

// Lets only so many allocations succeed while it lives.
class FewAllocations {
public:
    explicit FewAllocations( Qel::U64 count ) { allocationsLeft = count; }
    ~FewAllocations() { allocationsLeft = ~Qel::U64( 0 ); }
    FewAllocations( const FewAllocations& ) = delete;
    FewAllocations& operator=( const FewAllocations& ) = delete;
};

} // namespace KrellTest
