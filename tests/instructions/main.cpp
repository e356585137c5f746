// Does the operations whose instructions are counted, see Counting.h.
//
// The first line of the output names what their numbers depend on beside our sources: compiler, C
// library and processor family.

#include "instructions/Counting.h"

#include <exception>

#include <unistd.h>

namespace Instructions {
namespace {

#ifdef __clang__
constexpr const char* compiler = "Clang";
constexpr int compilerVersion[] { __clang_major__, __clang_minor__, __clang_patchlevel__ };
#else
constexpr const char* compiler = "GCC";
constexpr int compilerVersion[] { __GNUC__, __GNUC_MINOR__, __GNUC_PATCHLEVEL__ };
#endif

#if defined( __x86_64__ ) && !defined( __ILP32__ )
constexpr const char* processor = "x86-64";
#else
constexpr const char* processor = "another processor than x86-64";
#endif

void printToolchain() {
    char library[ 64 ] = ""; // name and version
    confstr( _CS_GNU_LIBC_VERSION, library, sizeof library );
    std::printf( "%s %d.%d.%d, %s, %s\n", compiler, compilerVersion[ 0 ], compilerVersion[ 1 ],
                 compilerVersion[ 2 ], library, processor );
}

} // namespace

// The empty statements keep the calls from becoming jumps, which would leave these functions early.
[[gnu::noinline]] void collected( Run run, void* argument ) {
    run( argument );
    asm volatile( "" );
}

[[gnu::noinline]] void counted( Run run, void* argument ) {
    collected( run, argument );
    asm volatile( "" );
}

[[gnu::noinline]] void uncounted( Run run, void* argument ) {
    run( argument );
    asm volatile( "" );
}

} // namespace Instructions

int main() {
    using namespace Instructions;
    printToolchain();
    try {
        countCollections();
        countFollowing();
        countGeneric();
    } catch ( const std::exception& e ) {
        std::fprintf( stderr, "instruction-counts: %s\n", e.what() );
        return 1;
    }
}
