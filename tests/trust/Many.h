// The collection of very many entries that processes of both widths share.

#pragma once

#include "trust/Table.h"

namespace TrustTest {

// Far apart, so that neither slots nor buckets follow each other.
inline U64 manyKey( U64 n ) { return ( n + 1 ) * 0x9e3779b97f4a7c15u; }

inline constexpr U64 manyRound = 5;

} // namespace TrustTest
