// For tests in which no descriptor is to be had.

#pragma once

#include <gtest/gtest.h>

// The sanitizer of undefined behaviour looks at objects through a pipe of its own; without one it
// takes every object for invalid.
#if defined( __SANITIZE_ADDRESS__ )
#define SKIP_IF_DESCRIPTORS_ARE_NEEDED()                                                           \
    GTEST_SKIP() << "the sanitizer itself needs descriptors in this test"
#else
#define SKIP_IF_DESCRIPTORS_ARE_NEEDED() static_cast< void >( 0 )
#endif
