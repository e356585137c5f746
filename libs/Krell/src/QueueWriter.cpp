#include <Krell/QueueWriter>

#include <algorithm>
#include <bit>
#include <new>
#include <vector>

namespace Krell {

using Dov::Atomics::loadRelaxed;
using Dov::Atomics::storeRelaxed;
using Dov::Atomics::storeRelease;

namespace {

// Free places below which more are freed: a share of all, and what two runs may need.
constexpr U64 scarceShare = 16;
constexpr U64 scarceLeast = U64( 2 ) * QueueSegment::run_;

constexpr U64 positionLimit = U64( 1 ) << 62;

// 0 is none; its successor has to be of the other file.
constexpr U32 generationAfter( U32 generation ) { return generation + 1 ? generation + 1 : 2; }

} // namespace

QueueWriter::QueueWriter( Segments& segments ) : segments_( segments ) {
    const std::vector< Change > changes = changesInOrder();
    const U64 first = behindAllPositions();
    const U64 places = QueueSegment::placesFor( segments_.slotCount() );
    noteUpTo( places );
    segment_ = QueueSegment::create( segments_, { generationAfter( segments_.queueGeneration() ),
                                                  places, first + changes.size(), first } );
    KRELL_CRASH_POINT( "queue: generation made" );
    head_ = tail_ = round_ = roundBefore_ = first;
    located();
    fill( changes );
    KRELL_CRASH_POINT( "queue: generation filled" );
    publish( loadRelaxed( segments_.sequenceWord() ) );
    pauseIs();
}

std::vector< QueueWriter::Change > QueueWriter::changesInOrder() const {
    std::vector< Change > changes;
    try {
        changes.reserve( segments_.header().occupiedSlots );
        for ( U32 index = 0; index < segments_.slotCount(); ++index ) {
            const SlotVersion version( loadRelaxed( &segments_.slot( index )->version ) );
            if ( version.sequence() != 0 ) {
                changes.push_back( { version.sequence(), index } );
            }
        }
    } catch ( const std::bad_alloc& ) {
        throwNoMemory(
            [ & ] { return "to put the changes of " + segments_.place() + " in order"; } );
    }
    std::sort( changes.begin(), changes.end(), []( const Change& a, const Change& b ) {
        return a.sequence != b.sequence ? a.sequence < b.sequence : a.slot < b.slot;
    } );
    return changes;
}

// The first one behind all of the generations before: the slots name all but the last few, which
// their writer stored no position for any more. A wild one counts for nothing, for it will be
// overwritten.
U64 QueueWriter::behindAllPositions() const noexcept {
    U64 last = 0;
    for ( U32 index = 0; index < segments_.slotCount(); ++index ) {
        const U64 position = loadRelaxed( &segments_.slot( index )->queuePosition );
        if ( position < positionLimit ) {
            last = std::max( last, position );
        }
    }
    return last + U64( 4 ) * QueueSegment::run_;
}

void QueueWriter::fill( const std::vector< Change >& changes ) noexcept {
    for ( const Change& change : changes ) {
        storeRelaxed( entries_ + ( head_ - round_ ), change.slot );
        storeRelease( &segments_.slot( change.slot )->queuePosition,
                      head_ ); // SYNC( queue-position )
        ++head_;
    }
    filled_ = head_;
}

// The file of the generation before goes: who still maps it finds another number in the buckets
// header.
void QueueWriter::publish( U64 sequence ) {
    storeRelaxed( segment_->roundWord(), round_ );
    storeRelaxed( segment_->roundBeforeWord(), roundBefore_ );
    storeRelaxed( segment_->tailWord(), tail_ );
    storeRelaxed( segment_->markWord(), QueueMark( sequence, head_ ).word() );
    segment_->nameIsFinal();
    KRELL_CRASH_POINT( "queue: generation named" );
    segments_.queueGenerationIs( segment_->generation() ); // SYNC( queue-word )
    KRELL_CRASH_POINT( "queue: generation published" );
    segments_.directory()->remove( QueueSegment::fileNameOf( segment_->generation() + 1 ) );
    KRELL_CRASH_POINT( "queue: former generation removed" );
}

void QueueWriter::located() noexcept {
    entries_ = segment_->place( 0 );
    mark_ = segment_->markWord();
}

void QueueWriter::reserve( U32 slots ) {
    const U64 places = QueueSegment::placesFor( slots );
    if ( places <= segment_->places() ) {
        return;
    }
    noteUpTo( places );
    segment_->growTo( places );
    KRELL_CRASH_POINT( "queue: file grown" );
    ++resizes_;
    located();
    pauseIs();
}

// A file may get more places than asked for, up to a page of them.
void QueueWriter::noteUpTo( U64 places ) {
    try {
        overtaken_.growTo( places + QueueSegment::pagePlaces_, tail_, head_ );
    } catch ( const std::bad_alloc& ) {
        throwNoMemory( [ & ] {
            return "to note " + std::to_string( places ) + " entries of the change queue of " +
                   segments_.place();
        } );
    }
}

U64 QueueWriter::scarce() const noexcept { return capacity() / scarceShare + scarceLeast; }

// Where the file ends or room gets scarce, whichever comes first.
void QueueWriter::pauseIs() noexcept {
    pause_ = std::min( round_ + segment_->places(), tail_ + capacity() - scarce() + 1 );
}

// While room is short, each append frees a run.
void QueueWriter::makeRoom( U64 sequence ) noexcept {
    if ( room() < scarce() ) {
        freeRun( sequence );
    }
    if ( head_ - round_ == segment_->places() ) {
        beginRound();
    }
    pauseIs();
}

// The live entries of a run stand at the head, for all to see, before the tail goes past it; and
// the tail is past it before their slots name the new positions. None of its places is filled
// before that.
void QueueWriter::freeRun( U64 sequence ) noexcept {
    const bool before = tail_ < round_;
    const U32* const run = entries_ + ( tail_ - ( before ? roundBefore_ : round_ ) );
    const U64 inRound = ( before ? round_ : head_ ) - tail_;
    const auto count = unsigned( std::min( { U64( QueueSegment::run_ ), inRound, room() } ) );
    U32 moved[ QueueSegment::run_ ];
    unsigned n = 0;
    for ( U64 live = ~overtaken_.take( tail_, count ) & ( ( U64( 1 ) << count ) - 1 ); live != 0;
          live &= live - 1 ) {
        const U32 slot = loadRelaxed( run + std::countr_zero( live ) );
        if ( slot < segments_.slotsMapped() ) {
            moved[ n++ ] = slot;
        }
    }
    const U64 first = head_;
    for ( unsigned i = 0; i < n; ++i ) {
        __builtin_prefetch( segments_.slot( moved[ i ] ), 1 );
        move( moved[ i ] );
    }
    if ( n > 0 ) {
        storeRelease( mark_, QueueMark( sequence, head_ ).word() ); // SYNC( queue-mark )
        KRELL_CRASH_POINT( "queue: moved entries marked" );
        compactions_ += n;
    }
    tail_ += count;
    storeRelease( segment_->tailWord(), tail_ ); // SYNC( queue-tail )
    KRELL_CRASH_POINT( "queue: tail stored" );
    for ( unsigned i = 0; i < n; ++i ) {
        storeRelease( &segments_.slot( moved[ i ] )->queuePosition,
                      first + i ); // SYNC( queue-position )
        KRELL_CRASH_POINT( "queue: moved position stored" );
    }
}

void QueueWriter::move( U32 slot ) noexcept {
    if ( head_ - round_ == segment_->places() ) {
        beginRound();
    }
    storeRelease( entries_ + ( head_ - round_ ), slot ); // SYNC( queue-entry )
    KRELL_CRASH_POINT( "queue: entry moved" );
    ++head_;
}

// The tail is in the round that ends: nothing of the one before it is valid.
void QueueWriter::beginRound() noexcept {
    roundBefore_ = round_;
    storeRelease( segment_->roundBeforeWord(), roundBefore_ ); // SYNC( queue-before )
    KRELL_CRASH_POINT( "queue: former round stored" );
    round_ = head_;
    storeRelease( segment_->roundWord(), round_ ); // SYNC( queue-round )
    KRELL_CRASH_POINT( "queue: round stored" );
}

} // namespace Krell
