// The collection that the programs of both widths share.

#pragma once

#include "krell/EngineSupport.h"

namespace CrossTest {

using Qel::U32;
using Qel::U64;

constexpr unsigned keyWords = 2;
constexpr unsigned valueWords = 7;
constexpr U64 entries = 500;

using Value = std::array< U64, valueWords >;

inline Krell::Layout layout() { return KrellTest::layoutOf( keyWords, valueWords ); }

// Every fourth key collides with the others of its kind.
inline std::array< U64, 2 > keyOf( U64 n ) {
    return n % 4 == 1 ? KrellTest::collidingKey( n ) : std::array< U64, 2 > { n, n };
}

inline void put( KrellTest::TestCollection& writer, U64 n, U64 seed ) {
    const Value value = KrellTest::wholeValue< valueWords >( seed );
    writer.writer().put< keyWords, valueWords >( keyOf( n ).data(), value.data() );
}

// The last key that "follow" writes.
constexpr U64 lastKey = 100000;

} // namespace CrossTest
