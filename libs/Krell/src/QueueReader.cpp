#include <Krell/QueueReader>

#include <new>

namespace Krell {

using Dov::Atomics::loadAcquire;
using Qel::S32;
using Qel::S64;

namespace {

constexpr U64 lowHalf = U64( 1 ) << 32;

} // namespace

// Maps the present generation. Positions begin anew in another one.
bool QueueReader::attached() {
    if ( segment_ && !replaced() ) {
        return true;
    }
    auto next = QueueSegment::attach( segments_ );
    if ( !next ) {
        return false;
    }
    if ( segment_ ) {
        ++counts_.resizes;
        placed_ = draining_ = false;
    }
    segment_ = std::move( next );
    return true;
}

bool QueueReader::replaced() const noexcept {
    return segments_.queueGeneration() != segment_->generation() || segment_->gone();
}

bool QueueReader::isPending() const noexcept {
    if ( !segment_ || replaced() || !placed_ || draining_ ) {
        return true;
    }
    const QueueMark mark = segment_->mark();
    return mark.position() != U32( position_ ) || mark.sequence() != U32( sequence_ );
}

// The mark, whole. False when the writer went too far between two loads to tell, or when the file
// is not there any more.
bool QueueReader::loadMark( U64& head, U64& sequence ) {
    const U64 tail = segment_->tail();
    const QueueMark mark = segment_->mark();
    const U64 last = table_.sequence();
    endTail_ = segment_->tail();
    if ( endTail_ < tail ) {
        wild( "a tail that went back to position", endTail_ );
    }
    if ( endTail_ - tail > lowHalf / 4 ) {
        return false;
    }
    head = tail + U32( mark.position() - U32( tail ) );
    if ( head > endTail_ && !holds( head - endTail_ ) ) {
        if ( segment_->gone() ) {
            return false;
        }
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
    draining_ = loadLastSlots();
    return draining_;
}

// The slots that may have two entries up to the end that speak for them: that of the last change,
// whose former entry becomes a tombstone after the mark; and those of a run at the tail, for a
// reader that is nearly lapped, as moved entries stand in both their places until the tail is
// stored. False when the last entries are not valid any more.
bool QueueReader::loadLastSlots() {
    lastTold_ = 0;
    lastCount_ = 0;
    if ( position_ < endTail_ ) {
        return true; // the place is lost, as reading there tells
    }
    const U64 most = position_ - endTail_ < QueueSegment::run_ ? QueueSegment::run_ : 1;
    lastCount_ = unsigned( std::min( most, end_ - position_ ) );
    for ( unsigned i = 0; i < lastCount_; ++i ) {
        U64 count = 1;
        const U64* const entry = entriesAt( end_ - 1 - i, count );
        if ( !entry ) {
            return false;
        }
        lastSlots_[ i ] = QueueEntry( loadAcquire( entry ) ).slot(); // SYNC( queue-entry )
    }
    return true;
}

// Whether the file has that many places; what it has grown to is mapped.
bool QueueReader::holds( U64 places ) {
    const U64 before = segment_->places();
    if ( places > before && segment_->remap() ) {
        counts_.resizes += segment_->places() > before;
    }
    return places <= segment_->places();
}

// Where the entry of a position stands that was below the head, with as many of `count` as stand
// behind it in its round. Null when its round is over, or the file is not there any more.
const U64* QueueReader::entriesAt( U64 position, U64& count ) {
    const U64 round = segment_->round();
    U64 start = round;
    if ( position < round ) {
        start = segment_->roundBefore();
        if ( position < start ) {
            if ( segment_->tail() <= position ) {
                wild( "no round of position", position );
            }
            return nullptr;
        }
        count = std::min( count, round - position );
    }
    const U64 place = position - start;
    if ( place >= lowHalf || !holds( place + count ) ) {
        if ( segment_->gone() || segment_->tail() > position ) {
            return nullptr;
        }
        wild( "no place for position", position );
    }
    return segment_->place( place );
}

// False when what was read may be of a later round, or the generation is another one.
bool QueueReader::read( U64 from, U64 to, Batch& batch ) {
    U64 count = std::min< U64 >( batchSize_, to - from );
    const U64* const entries = entriesAt( from, count );
    if ( !entries ) {
        return false;
    }
    batch.size = unsigned( count );
    for ( unsigned i = 0; i < batch.size; ++i ) {
        batch.entries[ i ] = QueueEntry( loadAcquire( entries + i ) ); // SYNC( queue-entry )
    }
    return segment_->tail() <= from && !replaced();
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
// Of a slot with two entries that speak for it, whichever is met first does.
bool QueueReader::isNews( QueueEntry entry, U64& told ) {
    const U64 left = end_ - 1 - position_;
    if ( left < lastCount_ && ( lastTold_ >> left & 1 ) ) {
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
            U64 count = 1;
            const U64* const word = entriesAt( at++, count );
            if ( !word ) {
                return from; // the search starts over
            }
            entry = QueueEntry( loadAcquire( word ) ); // SYNC( queue-entry )
            ++counts_.probes;
        } while ( entry.tombed() && at < high );
        if ( segment_->tail() > from ) {
            return from; // likewise
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
        if ( replaced() ) {
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
