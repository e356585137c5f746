// For tests that count descriptors, or in which none is to be had.

#pragma once

#include <cstddef>
#include <filesystem>

#include <gtest/gtest.h>

namespace QelKrellTest {

// How many this process has open.
inline std::size_t openDescriptors() {
    std::size_t n = 0;
    for ( const auto& entry : std::filesystem::directory_iterator( "/proc/self/fd" ) ) {
        static_cast< void >( entry );
        ++n;
    }
    return n - 1; // the one that looks
}

} // namespace QelKrellTest

// The sanitizer of undefined behaviour looks at objects through a pipe of its own; without one it
// takes every object for invalid.
#if defined( __SANITIZE_ADDRESS__ )
#define SKIP_IF_DESCRIPTORS_ARE_NEEDED()                                                           \
    GTEST_SKIP() << "the sanitizer itself needs descriptors in this test"
#else
#define SKIP_IF_DESCRIPTORS_ARE_NEEDED() static_cast< void >( 0 )
#endif
