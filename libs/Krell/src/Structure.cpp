#include <Krell/Structure>

#include <vector>

#include <Krell/BucketTable>

namespace Krell {

namespace {

using Dov::Atomics::loadAcquire;

constexpr unsigned looks = 8;

class Look {
public:
    explicit Look( Segments& segments )
        : segments_( segments ),
          table_( segments.table() ),
          count_( segments.slotCount() ),
          sequence_( loadAcquire( segments.sequenceWord() ) ),
          seen_( count_ ) {}

    bool run() {
        if ( count_ > segments_.slotsMapped() ) {
            return bad( "more slots are counted than the file holds" );
        }
        for ( U32 i = 0; i < table_.primaries(); ++i ) {
            if ( !chainIsValid( i ) ) {
                return false;
            }
        }
        return slotsAreValid();
    }
    // Nothing went on during the look.
    bool stoodStill() const {
        return segments_.table() == table_ && loadAcquire( segments_.sequenceWord() ) == sequence_;
    }
    const std::string& why() const { return why_; }

private:
    bool bad( const std::string& why ) {
        why_ = segments_.place() + ": " + why;
        return false;
    }

    bool chainIsValid( U32 primary ) {
        U64 line = table_.line() + 1 + primary;
        for ( U64 steps = 0;; ++steps ) {
            if ( line >= segments_.linesMapped() || steps > segments_.linesMapped() ) {
                return bad( "the chain of bucket " + std::to_string( primary ) +
                            " leads out of the file, or does not end" );
            }
            const Bucket& bucket = segments_.lines()[ line ];
            for ( unsigned place = 0; place < Bucket::places_; ++place ) {
                if ( !entryIsValid( bucket, place, primary ) ) {
                    return false;
                }
            }
            const U32 link = loadAcquire( &bucket.link );
            if ( link == 0 ) {
                return true;
            }
            line = table_.line() + link;
        }
    }

    bool entryIsValid( const Bucket& bucket, unsigned place, U32 primary ) {
        const U32 tag = place < 8
                            ? ( loadAcquire( &bucket.tagsLow ) >> ( place * 8 ) ) & 0xff
                            : ( loadAcquire( &bucket.tagsHigh ) >> ( ( place - 8 ) * 8 ) ) & 0xff;
        if ( tag == 0 ) {
            return true;
        }
        const U32 index = loadAcquire( &bucket.slots[ place ] );
        if ( index >= count_ ) {
            return bad( "bucket " + std::to_string( primary ) + " names slot " +
                        std::to_string( index ) + " of " + std::to_string( count_ ) );
        }
        const SlotHead* const slot = segments_.slot( index );
        const U32 hash = loadAcquire( &slot->hash );
        if ( Tags::tagOf( hash ) != tag || ( hash & ( table_.primaries() - 1 ) ) != primary ) {
            return bad( "slot " + std::to_string( index ) +
                        " is named by a bucket of another hash" );
        }
        if ( seen_[ index ]++ ) {
            return bad( "slot " + std::to_string( index ) + " is named twice" );
        }
        return true;
    }

    bool slotsAreValid() {
        U32 occupied = 0;
        U32 inFlight = 0;
        for ( U32 index = 0; index < count_; ++index ) {
            const SlotVersion version = versionOf( segments_.slot( index ) );
            if ( version.state() == SlotVersion::invalid ) {
                return bad( "slot " + std::to_string( index ) + " has no valid state" );
            }
            occupied += version.isOccupied();
            if ( version.sequence() > sequence_ ||
                 ( version.writing() && !version.isOccupied() ) ) {
                ++inFlight;
            } else if ( version.isOccupied() != bool( seen_[ index ] ) ) {
                return bad( "slot " + std::to_string( index ) +
                            ( version.isOccupied()
                                  ? " is occupied, but no bucket names it"
                                  : " is named by a bucket, but is not occupied" ) );
            }
        }
        const U32 counted = loadAcquire( &segments_.header().occupiedSlots );
        const U32 difference = counted > occupied ? counted - occupied : occupied - counted;
        if ( inFlight > 1 || difference > inFlight ) {
            return bad( std::to_string( occupied ) + " slots are occupied, " +
                        std::to_string( counted ) + " are counted, and " +
                        std::to_string( inFlight ) + " are being changed" );
        }
        return true;
    }

    Segments& segments_;
    TableWord table_;
    U32 count_;
    U64 sequence_;
    std::vector< unsigned char > seen_;
    std::string why_;
};

} // namespace

bool structureIsValid( Segments& segments, std::string& why ) {
    for ( unsigned look = 0; look < looks; ++look ) {
        if ( !segments.extentsAreValid( why ) ) {
            return false;
        }
        Look now( segments );
        if ( now.run() ) {
            return true;
        }
        if ( now.stoodStill() ) {
            why = now.why();
            return false;
        }
    }
    return true;
}

} // namespace Krell
