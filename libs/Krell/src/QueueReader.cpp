#include <Krell/QueueReader>

#include <new>

namespace Krell {

using Dov::Atomics::loadAcquire;
using Qel::S32;
using Qel::S64;

namespace {

constexpr U64 placesLimit = U64( 1 ) << 32;
constexpr U32 noSlot = Segments::noIndex_;
constexpr U64 tailLimit = U64( 1 ) << 30; // positions that it may go on by between two loads

} // namespace

// Maps the present generation.
bool QueueReader::attached() {
    if ( segment_ && !replaced() ) {
        return true;
    }
    std::unique_ptr< QueueSegment > next;
    try {
        next = QueueSegment::attach( segments_ );
    } catch ( const std::bad_alloc& ) {
        noMemory( "to map the change queue of " );
    }
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
    if ( endTail_ - tail > tailLimit ) {
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
    told_.clear();
    draining_ = true;
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
const U32* QueueReader::entriesAt( U64 position, U64& count ) {
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
    if ( place >= placesLimit || !holds( place + count ) ) {
        if ( segment_->gone() || segment_->tail() > position ) {
            return nullptr;
        }
        wild( "no place for position", position );
    }
    return segment_->place( place );
}

// False when what was read may be of a later round, or the generation is another one. The slots are
// all mapped before the first is pointed at, and all asked for before the first is looked at, so
// that their cache misses overlap; their heads are loaded before the tail is, which tells of those
// that were moved.
bool QueueReader::read( U64 from, U64 to, Batch& batch ) {
    U64 count = std::min< U64 >( batchSize_, to - from );
    const U32* const entries = entriesAt( from, count );
    if ( !entries ) {
        return false;
    }
    batch.size = unsigned( count );
    unsigned mapped = 0;
    for ( ; mapped < batch.size; ++mapped ) {
        const U32 slot = loadAcquire( entries + mapped ); // SYNC( queue-entry )
        batch.entries[ mapped ].slot = slot;
        if ( !isMapped( slot ) ) {
            break;
        }
    }
    for ( unsigned i = 0; i < mapped; ++i ) {
        fetchWords< 16 >( segments_.slot( batch.entries[ i ].slot ) );
    }
    for ( unsigned i = 0; i < mapped; ++i ) {
        Entry& entry = batch.entries[ i ];
        const SlotHead* const head = segments_.slot( entry.slot );
        entry.newest = loadAcquire( &head->queuePosition ); // SYNC( queue-position )
        entry.sequence = versionOf( head ).sequence();
    }
    if ( segment_->tail() > from || replaced() ) {
        return false;
    }
    if ( mapped < batch.size ) {
        wild( "an entry of slot", batch.entries[ mapped ].slot );
    }
    return true;
}

// Whether there is such a slot; it is mapped then, and may be somewhere else than before.
bool QueueReader::isMapped( U32 slot ) const {
    return slot < segments_.slotsMapped() || slot < table_.slotCount();
}

// Whether this entry is the one that speaks for its slot in the drain under way. The entries of new
// changes stand in their order, so everything up to its own is `told` by its report.
//
// A slot names another position for three reasons. It changed by a later entry of this drain, which
// will be met. It changed, or a next writer gave it a position, after the drain began: then the one
// of its entries that is met first speaks. Or the entry is a copy of one at the tail that is not
// named yet; then the slot's change is known.
bool QueueReader::isNews( const Entry& entry, U64& told ) {
    if ( entry.sequence <= sequence_ ) {
        return false;
    }
    const bool later = entry.newest > position_ && entry.newest < end_;
    if ( later || told_.has( entry.slot ) ) {
        ++counts_.tombed;
        return false;
    }
    if ( mayBeMetAgain( entry ) ) {
        try {
            told_.reserve( segments_.slotsMapped() );
        } catch ( const std::bad_alloc& ) {
            noMemory( "to note the changed slots of " );
        }
    }
    if ( entry.newest == position_ && entry.sequence <= endSequence_ ) {
        told = entry.sequence;
    }
    return true;
}

// The place of a reader in the order that the generation began with: all changes before it are
// known. 0 when nothing in what is left of that order is known, while some of it was moved.
U64 QueueReader::endOfKnown() {
    const U64 from = endTail_;
    U64 low = from;
    U64 high = std::min( segment_->shape().sortedEnd, end_ );
    while ( low < high ) {
        const U64 middle = low + ( high - low ) / 2;
        U64 at = middle;
        const SlotHead* head = nullptr; // of the first live one from the middle on
        for ( ; !head && at < high; ++at ) {
            U64 count = 1;
            const U32* const entry = entriesAt( at, count );
            const U32 slot = entry ? loadAcquire( entry ) : noSlot; // SYNC( queue-entry )
            ++counts_.probes;
            if ( !isMapped( slot ) ) {
                return 0;
            }
            head = segments_.slot( slot );
            if ( loadAcquire( &head->queuePosition ) != at ) { // SYNC( queue-position )
                head = nullptr;
            }
        }
        const bool known = head && versionOf( head ).sequence() <= sequence_;
        if ( segment_->tail() > from ) {
            return 0;
        }
        ( known ? low : high ) = known ? at : middle;
    }
    return low > from || from == segment_->shape().firstPosition ? low : 0;
}

bool QueueReader::search() {
    ++counts_.restarts;
    found_ = {};
    nextFound_ = 0;
    if ( !loadMark( end_, endSequence_ ) ) {
        return false;
    }
    if ( endSequence_ < sequence_ ) {
        sequence_ = 0; // it came from a wild word: all is told again
    }
    position_ = endOfKnown();
    if ( position_ == 0 ) {
        findNews();
        position_ = end_;
    }
    told_.clear();
    placed_ = draining_ = true;
    return true;
}

// Each change up to the end stands in its slot.
void QueueReader::findNews() {
    const U32 slots = table_.slotCount();
    try {
        for ( U32 index = 0; index < slots; ++index ) {
            const U64 now = versionOf( segments_.slot( index ) ).sequence();
            if ( now > sequence_ ) {
                found_.push_back( { now, index } );
            }
        }
    } catch ( const std::bad_alloc& ) {
        found_ = {};
        noMemory( "to put the changes in order of " );
    }
    segments_.checkSound();
    counts_.probes += slots;
    std::sort( found_.begin(), found_.end(), []( const Found& a, const Found& b ) {
        return a.sequence != b.sequence ? a.sequence < b.sequence : a.slot < b.slot;
    } );
}

void QueueReader::disturbed( U32& patience ) const {
    if ( --patience == 0 ) {
        wild( "a queue that does not hold still at position", position_ );
    }
}

void QueueReader::noMemory( const char* what ) const {
    throwNoMemory( [ & ] { return what + segments_.place(); } );
}

void QueueReader::wild( const char* what, U64 number ) const {
    throw CorruptionDetectedException( segments_.place() + ": the change queue has " + what + " " +
                                       std::to_string( number ) );
}

} // namespace Krell
