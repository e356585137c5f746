#include <Krell/BucketGrowth>

#include <algorithm>

#include <Krell/CrashPoint>

namespace Krell {

using Dov::Atomics::loadRelaxed;

namespace {

// Overflow buckets that are at hand while the next array is built, of the present one's buckets:
// some five times as many as its inserts need on average.
constexpr U32 sparePart = 16;
constexpr U32 leastSpare = 8;

constexpr U64 linesOfTwoPages = 128;
constexpr U32 keptPart = 8;
constexpr U32 retryPart = 16;

} // namespace

// The former writer's arrays, which readers of its time may walk, are given back too.
BucketGrowth::BucketGrowth( Segments& segments, BucketArray& array )
    : segments_( segments ),
      array_( array ),
      due_( dueAt() ),
      busyAt_( std::max( leastKept_, segments.header().occupiedSlots / keptPart ) ) {}

U64 BucketGrowth::dueAt() const noexcept {
    return array_.log2() < TableWord::log2Limit_ ? U64( BucketArray::load_ ) << array_.log2()
                                                 : never_;
}

BucketArray::Place BucketGrowth::roomFor( U32 hash, U32 occupied, U32 slots ) {
    step( occupied, slots );
    for ( ;; ) {
        if ( const auto place = array_.room( hash ) ) {
            return *place;
        }
        if ( next_ ) {
            finish( occupied, slots );
            continue;
        }
        // Many keys: more buckets. Few, which collide: longer chains.
        const bool full = occupied >= ( U64( BucketArray::load_ / 2 ) << array_.log2() ) &&
                          array_.log2() < TableWord::log2Limit_;
        const unsigned log2 = array_.log2() + full;
        rebuild(
            log2,
            std::max( BucketArray::usualOverflow( segments_, log2 ), 2 * array_.overflowLines() ),
            slots );
    }
}

void BucketGrowth::work( U32 occupied, U32 slots ) {
    if ( next_ ) {
        goOn( occupied, slots );
    } else if ( occupied >= due_ ) {
        begin( occupied );
    } else {
        giveBackPiece();
    }
}

void BucketGrowth::begin( U32 occupied ) {
    const unsigned log2 = array_.log2() + 1;
    array_.spare( std::max( leastSpare, ( U32( 1 ) << array_.log2() ) / sparePart ) );
    try {
        next_ = BucketArray::beside( array_, log2, BucketArray::usualOverflow( segments_, log2 ) );
    } catch ( const MemoryLimitException& ) {
        return abandon( occupied );
    }
    if ( next_->line() > array_.line() ) {
        array_.limitIs( next_->line() );
    }
    busyAt_ = 0;
    goOn( occupied, 0 );
}

// A piece of space, or some slots.
void BucketGrowth::goOn( U32 occupied, U32 slots ) {
    if ( !next_->isPrepared() ) {
        if ( !next_->tryPrepare( segments_.local() ? next_->lines() : linesAtOnce_ ) ) {
            abandon( occupied );
        }
        return;
    }
    const U32 end = copied_ + std::min( slotsAtOnce_, slots - copied_ );
    if ( !copy( *next_, copied_, end ) ) {
        return abandon( occupied );
    }
    longest_ = std::max( longest_, end - copied_ );
    copied_ = end;
    KRELL_CRASH_POINT( "growth: slots copied" );
    if ( copied_ == slots ) {
        publish( *next_, occupied );
    }
}

// The slots from `from` to `end`. Their buckets are fetched before they are changed.
bool BucketGrowth::copy( BucketArray& to, U32 from, U32 end ) const {
    U32 hashes[ slotsAtOnce_ ];
    U32 indices[ slotsAtOnce_ ];
    while ( from < end ) {
        U32 n = 0;
        for ( const U32 stop = from + std::min( slotsAtOnce_, end - from ); from < stop; ++from ) {
            const SlotHead* const slot = segments_.slot( from );
            hashes[ n ] = loadRelaxed( &slot->hash );
            indices[ n ] = from;
            if ( SlotVersion( loadRelaxed( &slot->version ) ).isOccupied() ) {
                to.prefetch( hashes[ n++ ] );
            }
        }
        for ( U32 i = 0; i < n; ++i ) {
            const auto place = to.room( hashes[ i ] );
            if ( !place ) {
                return false;
            }
            to.put( *place, hashes[ i ], indices[ i ] );
        }
    }
    return true;
}

void BucketGrowth::finish( U32 occupied, U32 slots ) {
    if ( !next_->tryPrepare( next_->lines() ) || !copy( *next_, copied_, slots ) ) {
        return abandon( occupied );
    }
    longest_ = std::max( longest_, slots - copied_ );
    publish( *next_, occupied );
}

// What it took up is nobody's, as before it was begun.
void BucketGrowth::abandon( U32 occupied ) {
    next_.reset();
    copied_ = 0;
    array_.limitIsNone();
    due_ = occupied + U64( occupied ) / retryPart + 1;
    busyAt_ = changes_ + std::max( leastKept_, occupied / keptPart );
    givenBack_ = 0;
}

void BucketGrowth::publish( BucketArray& next, U32 occupied ) {
    next.publish();
    array_ = next;
    next_.reset();
    copied_ = 0;
    ++published_;
    due_ = dueAt();
    busyAt_ = changes_ + std::max( leastKept_, occupied / keptPart );
    givenBack_ = 0;
}

void BucketGrowth::rebuild( unsigned log2, U32 overflow, U32 slots ) {
    const U32 occupied = segments_.header().occupiedSlots;
    if ( next_ ) {
        abandon( occupied );
    }
    for ( ;; overflow *= 2 ) {
        BucketArray next = BucketArray::beside( array_, log2, overflow );
        next.prepare();
        if ( copy( next, 0, slots ) ) {
            longest_ = std::max( longest_, slots );
            return publish( next, occupied );
        }
    }
}

// What stands before the array in use, then what stands behind it. Pieces overlap by two pages,
// for each goes to the file system without the pages that it begins and ends in.
void BucketGrowth::giveBackPiece() {
    const U64 own = array_.line();
    const U64 behind = own + array_.lines();
    const bool before = givenBack_ < own;
    const U64 start = before ? 0 : behind;
    const U64 stop = before ? own : segments_.linesMapped();
    const U64 at = std::max( start, givenBack_ );
    const U64 from = at - std::min( at - start, linesOfTwoPages );
    const U64 to = std::min( stop, at + linesGivenBackAtOnce_ );
    if ( at >= stop || !segments_.giveBackLines( from, to ) ) {
        busyAt_ = never_;
        return;
    }
    KRELL_CRASH_POINT( "growth: lines given back" );
    givenBack_ = to;
}

void BucketGrowth::enterNext( U32 hash, U32 slot ) {
    if ( const auto place = next_->room( hash ) ) {
        next_->put( *place, hash, slot );
        KRELL_CRASH_POINT( "growth: entered" );
    } else {
        abandon( segments_.header().occupiedSlots );
    }
}

void BucketGrowth::leaveNext( U32 hash, U32 slot ) {
    const auto place = next_->find( hash, [ & ]( U32 other ) { return other == slot; } );
    if ( place ) {
        next_->clear( *place );
        KRELL_CRASH_POINT( "growth: left" );
    }
}

} // namespace Krell
