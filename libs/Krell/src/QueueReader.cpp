#include <Krell/QueueReader>

#include <new>

namespace Krell {

using Dov::Atomics::loadAcquire;
using Qel::S32;
using Qel::S64;

namespace {

constexpr U64 lowHalf = U64( 1 ) << 32;

} // namespace

// Maps the present generation. Positions go on in one that continues the generation known.
bool QueueReader::attached() {
    const U32 present = segments_.queueGeneration();
    if ( segment_ && segment_->generation() == present ) {
        return true;
    }
    auto next = QueueSegment::attach( segments_ );
    if ( !next ) {
        return false;
    }
    if ( segment_ ) {
        ++counts_.resizes;
        if ( next->shape().continues != segment_->generation() ) {
            placed_ = draining_ = false;
        }
    }
    segment_ = std::move( next );
    return true;
}

bool QueueReader::isPending() const noexcept {
    if ( !segment_ || segment_->generation() != segments_.queueGeneration() || !placed_ ||
         draining_ ) {
        return true;
    }
    const QueueMark mark = segment_->mark();
    return mark.position() != U32( position_ ) || mark.sequence() != U32( sequence_ );
}

// The mark, whole. False when the writer went too far between two loads to tell.
bool QueueReader::loadMark( U64& head, U64& sequence ) const {
    const U64 tail = segment_->tail();
    const QueueMark mark = segment_->mark();
    const U64 last = table_.sequence();
    const U64 tailAfter = segment_->tail();
    if ( tailAfter < tail ) {
        wild( "a tail that went back to position", tailAfter );
    }
    if ( tailAfter - tail > lowHalf / 4 ) {
        return false;
    }
    head = tail + U32( mark.position() - U32( tail ) );
    if ( head - tail > segment_->places() + ( tailAfter - tail ) ) {
        wild( "a head at position", head );
    }
    sequence = last + U64( S64( S32( mark.sequence() - U32( last ) ) ) );
    return true;
}

bool QueueReader::beginDrain() {
    if ( !loadMark( end_, endSequence_ ) ) {
        return false;
    }
    if ( end_ < position_ || endSequence_ < sequence_ ) {
        wild( "a head that went back to position", end_ );
    }
    if ( end_ != position_ ) {
        const U64* const last = segment_->place( end_ - 1 );
        lastSlot_ = QueueEntry( loadAcquire( last ) ).slot(); // SYNC( queue-entry )
    }
    lastTold_ = false;
    draining_ = true;
    return true;
}

// False when what was read may be of another round, or of another generation.
bool QueueReader::read( U64 from, U64 to, Batch& batch ) const {
    batch.size = unsigned( std::min< U64 >( batchSize_, to - from ) );
    for ( unsigned i = 0; i < batch.size; ++i ) {
        batch.entries[ i ] =
            QueueEntry( loadAcquire( segment_->place( from + i ) ) ); // SYNC( queue-entry )
    }
    return segment_->tail() <= from && segments_.queueGeneration() == segment_->generation();
}

SlotVersion QueueReader::versionAt( U32 slot ) const {
    if ( slot >= segments_.slotsMapped() && slot >= table_.slotCount() ) {
        wild( "an entry of slot", slot );
    }
    return versionOf( segments_.slot( slot ) );
}

// Whether this entry is the one that speaks for its slot in the drain under way. The entries of new
// changes stand in their order, so everything up to its own is `told` by its report.
//
// The slot of the last entry may have another one here: a former one becomes a tombstone after the
// mark, and a moved one stands in both its places until the tail is stored. Whichever is met first
// speaks for it.
bool QueueReader::isNews( QueueEntry entry, U64& told ) {
    if ( lastTold_ && position_ == end_ - 1 ) {
        return false;
    }
    if ( entry.tombed() ) {
        const bool later = S32( entry.sequence() - U32( endSequence_ ) ) > 0;
        counts_.tombed += !later;
        return later;
    }
    const U64 news = endSequence_ - sequence_;
    if ( news < lowHalf && U32( entry.sequence() - U32( sequence_ ) - 1 ) >= news ) {
        return false; // appended anew; known
    }
    const U64 now = versionAt( entry.slot() ).sequence();
    if ( now > endSequence_ ) {
        return true;
    }
    if ( now <= sequence_ || U32( now ) != entry.sequence() ) {
        return false;
    }
    told = now;
    return true;
}

// The entries that stand in order are passed over as far as their changes are known.
U64 QueueReader::endOfKnown( U64 from ) {
    U64 low = from;
    U64 high = std::min( segment_->shape().sortedEnd, end_ );
    while ( sequence_ != 0 && low < high ) {
        const U64 middle = low + ( high - low ) / 2;
        U64 at = middle;
        QueueEntry entry;
        do {
            entry = QueueEntry( loadAcquire( segment_->place( at++ ) ) ); // SYNC( queue-entry )
            ++counts_.probes;
        } while ( entry.tombed() && at < high );
        if ( segment_->tail() > from ) {
            return from; // the search starts over
        }
        if ( entry.tombed() || versionAt( entry.slot() ).sequence() > sequence_ ) {
            high = middle;
        } else {
            low = at;
        }
    }
    return low;
}

bool QueueReader::search() {
    ++counts_.restarts;
    found_.clear();
    nextFound_ = 0;
    try {
        if ( !findNews() ) {
            return false;
        }
        putInOrder();
    } catch ( const std::bad_alloc& ) {
        found_.clear();
        throw MemoryResourceException( "no memory to put the changes of " + segments_.place() +
                                       " in order" );
    }
    position_ = end_;
    placed_ = draining_ = true;
    return true;
}

// Finds all entries newer than the known sequence, whatever is appended or moved meanwhile: an
// entry that was live when the mark was loaded is met at its place, or the tail tells that it was
// moved behind the mark, and then the search goes on to a newer one.
bool QueueReader::findNews() {
    U64 from = segment_->tail();
    if ( !loadMark( end_, endSequence_ ) ) {
        return false;
    }
    from = endOfKnown( from );
    Batch batch;
    for ( U32 patience = patience_; from < end_; ) {
        if ( read( from, end_, batch ) ) {
            collect( batch );
            from += batch.size;
            if ( found_.size() > 2 * segment_->places() ) {
                putInOrder(); // a writer that moves the end on and on costs no more memory
            }
            continue;
        }
        disturbed( patience );
        if ( segments_.queueGeneration() != segment_->generation() ) {
            return false; // another segment is another search
        }
        from = std::max( from, segment_->tail() );
        if ( !loadMark( end_, endSequence_ ) ) {
            return false;
        }
    }
    return true;
}

void QueueReader::putInOrder() {
    std::sort( found_.begin(), found_.end(), []( const Found& a, const Found& b ) {
        return a.sequence != b.sequence ? a.sequence < b.sequence : a.slot < b.slot;
    } );
    keepNewestOfSlots();
}

// A slot may have been met at its place, and again where its entry was moved to, or where that of a
// later change stands.
void QueueReader::keepNewestOfSlots() {
    std::vector< bool > met( segments_.slotsMapped() );
    auto kept = found_.end();
    for ( auto at = found_.end(); at != found_.begin(); ) {
        --at;
        if ( !met[ at->slot ] ) {
            met[ at->slot ] = true;
            *--kept = *at;
        }
    }
    found_.erase( found_.begin(), kept );
}

void QueueReader::collect( const Batch& batch ) {
    for ( unsigned i = 0; i < batch.size; ++i ) {
        const QueueEntry entry = batch.entries[ i ];
        if ( entry.tombed() && S32( entry.sequence() - U32( endSequence_ ) ) <= 0 ) {
            ++counts_.tombed;
            continue;
        }
        const U64 now = versionAt( entry.slot() ).sequence();
        if ( now <= sequence_ ) {
            continue;
        }
        found_.push_back( { now, entry.slot() } );
    }
}

void QueueReader::disturbed( U32& patience ) const {
    if ( --patience == 0 ) {
        wild( "a queue that does not hold still at position", position_ );
    }
}

void QueueReader::wild( const char* what, U64 number ) const {
    throw CorruptionDetectedException( segments_.place() + ": the change queue has " + what + " " +
                                       std::to_string( number ) );
}

} // namespace Krell
