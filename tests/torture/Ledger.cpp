#include "torture/Ledger.h"

namespace TortureTest {

namespace {

const Qel::Unit< Coin, Medal, Note, Ledger, Album > unit( "torture" );

} // namespace

} // namespace TortureTest
