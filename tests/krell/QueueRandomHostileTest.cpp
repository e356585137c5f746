// Random changes of the change queue under a reader.

#include "krell/HostileQueue.h"

using namespace KrellTest;
using QelKrellTest::Torture;

namespace {

class QueueRandomHostileTest : public QueueHostileTest {};

TEST_F( QueueRandomHostileTest, RandomChangesUnderAReaderAreRefusedOrHarmless ) {
    Torture torture( "hostile-contents", 300 );
    std::mt19937_64 random( torture.seed() );
    unsigned refused = 0;
    const auto change = [ & ]( MappedFile& mapped ) {
        const bool header = random() % 3 == 0;
        const std::size_t at = header
                                   ? markAt + 8 * ( random() % 4 )
                                   : entriesAt + random() % ( mapped.size() - entriesAt ) / 8 * 8;
        const U64 before = mapped.word( at );
        switch ( random() % 4 ) {
        case 0:
            mapped.word( at ) = random();
            break;
        case 1:
            mapped.word( at ) += random() % 300;
            break;
        case 2:
            mapped.half( at + 4 * ( random() % 2 ) ) = U32( random() % 1000 );
            break;
        default:
            mapped.word( at ) ^= U64( 1 ) << ( random() % 64 );
        }
        U64 changed = before ^ mapped.word( at );
        for ( ; changed != 0; changed >>= 8 ) {
            torture.count( "flips", ( changed & 0xff ) != 0 );
        }
    };
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + ", round " +
                      std::to_string( torture.rounds() ) );
        store( []( std::string& ) {} );
        const auto reader = random() % 4 ? readerAt( head - random() % ( ( head - tail ) / 2 ) )
                                         : std::make_unique< QueueReaderSide >( place );
        MappedFile mapped( file );
        if ( random() % 2 ) {
            reader->some( random() % 60 + 1 );
        }
        for ( unsigned i = 0; i < 6; ++i ) {
            for ( unsigned n = random() % 5 + 1; n > 0; --n ) {
                change( mapped );
            }
            const Outcome outcome = drain( *reader );
            expectHarmless( outcome );
            refused += !outcome.thrown.empty();
            reader->queue.isPending();
        }
        countInto( torture );
    }
    EXPECT_TRUE( refused > 0 || torture.rounds() < 100 );
}

} // namespace
