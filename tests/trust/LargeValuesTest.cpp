// Values of up to 4 KiB.

#include <utility>

#include "trust/Limits.h"

namespace {

using namespace TrustTest;
using QelKrellTest::Torture;

// In words. Larger ones take a compiler with a sanitizer too long.
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
using LargeSizes = std::integer_sequence< unsigned, 64 >;
#else
using LargeSizes = std::integer_sequence< unsigned, 128, 512 >;
#endif

TEST( LargeValuesTest, AreKept ) {
    Torture torture( "limits", 1 );
    while ( torture.goesOn() ) {
        valueSizes( torture, LargeSizes() );
    }
}

} // namespace
