// What a change costs where it is followed: in each role that follows, and for the writer.

#include "instructions/Counting.h"
#include "instructions/Stores.h"

#include <Qel/System>

namespace Instructions {
namespace {

constexpr unsigned n = 4096;

// Each entry changed once, and is named once.
void countDrain( const Operation& operation, QelKrell::QelKrellType role ) {
    Filled< WideStore > filled( n );
    const auto follower = open< WideStore >( role, 0 );
    unsigned told = 0;
    const auto watch = follower->entry.onEntry( [ & ]( const auto& ) { ++told; } );
    follower->entry.core().poll();
    told = 0;
    count(
        operation, [ & ]( unsigned round ) { filled.write( 0, n, round + 1 ); },
        [ & ]( unsigned ) { follower->entry.core().poll(); } );
    need( told == 2 * n, std::string( operation.name ) + " names every change" );
}

// A reader that was called and did not get to sleep since: a ring looks at its page, no more.
void countRing() {
    Filled< WideStore > filled( n );
    const auto reader = open< WideStore >( QelKrell::reader, 0 );
    const Krell::Doorbell& doorbell = *filled.writer->entry.core().doorbell();
    for ( int turns = 0; turns < 10000 && doorbell.connections() == 0; ++turns ) {
        Qel::System::runOnce( 0.001 );
    }
    need( doorbell.connections() == 1, "the reader connects" );

    const std::array rounds { entries< Wide >( 0, n, 1 ), entries< Wide >( 0, n, 2 ) };
    U64 kicks = 0;
    count(
        { "update-awake", n, "a write of another value while one reader is connected, and awake" },
        [ & ]( unsigned ) { kicks = doorbell.kicksIssued(); },
        [ & ]( unsigned round ) {
            for ( const Wide& e : rounds[ round ] ) {
                filled.writer->entry.is( e );
            }
        } );
    need( doorbell.connections() == 1, "the reader stays connected" );
    need( doorbell.kicksIssued() == kicks, "the reader is awake" );
}

} // namespace

void countFollowing() {
    countDrain( { "drain-reader", n, "a change in a reader's drain, with its reaction" },
                QelKrell::reader );
    countDrain( { "drain-keyshadow", n, "a change in a key shadow's drain, with its reaction" },
                QelKrell::keyshadow );
    countDrain( { "drain-shadow", n, "a change in a shadow's drain, with its reaction" },
                QelKrell::shadow );
    countRing();
}

} // namespace Instructions
