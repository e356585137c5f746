#include <Krell/QueueWriter>

#include <algorithm>
#include <new>
#include <vector>

namespace Krell {

using Dov::Atomics::loadRelaxed;
using Dov::Atomics::storeRelaxed;
using Dov::Atomics::storeRelease;

namespace {

// Live entries fill at most half of the places. A run of them at the tail frees nothing while it is
// passed at four a change, so an eighth of the places has to be free when it begins.
constexpr U64 enoughOf( U64 places ) { return places - places / 8; }

// 0 is none; its successor has to be of the other file.
constexpr U32 generationAfter( U32 generation ) { return generation + 1 ? generation + 1 : 2; }

} // namespace

QueueWriter::QueueWriter( Segments& segments ) : segments_( segments ) {
    auto segment =
        QueueSegment::create( segments_, {
                                             generationAfter( segments_.queueGeneration() ),
                                             QueueSegment::log2For( segments_.slotCount() ),
                                             0,
                                             U64( segments_.slotCount() ) + 1,
                                         } );
    KRELL_CRASH_POINT( "queue: generation made" );
    fillInOrder( *segment );
    KRELL_CRASH_POINT( "queue: generation filled" );
    publish( std::move( segment ) );
}

void QueueWriter::fillInOrder( QueueSegment& segment ) {
    struct Change {
        U64 sequence;
        U32 slot;
    };
    std::vector< Change > changes;
    try {
        const U32 count = segments_.slotCount();
        changes.reserve( segments_.header().occupiedSlots );
        for ( U32 index = 0; index < count; ++index ) {
            const SlotVersion version( loadRelaxed( &segments_.slot( index )->version ) );
            if ( version.sequence() != 0 ) {
                changes.push_back( { version.sequence(), index } );
            }
        }
    } catch ( const std::bad_alloc& ) {
        throw MemoryResourceException( "no memory to put the changes of " + segments_.place() +
                                       " in order" );
    }
    std::sort( changes.begin(), changes.end(), []( const Change& a, const Change& b ) {
        return a.sequence != b.sequence ? a.sequence < b.sequence : a.slot < b.slot;
    } );
    for ( const Change& change : changes ) {
        storeRelaxed( segment.place( head_ ), QueueEntry( change.slot, change.sequence ).word() );
        storeRelaxed( &segments_.slot( change.slot )->queuePosition, U32( head_ ) );
        ++head_;
    }
    sequence_ = loadRelaxed( segments_.sequenceWord() );
}

// The file of the generation before goes: who still maps it finds another number in the buckets
// header.
void QueueWriter::publish( std::unique_ptr< QueueSegment > segment ) {
    storeRelaxed( segment->tailWord(), tail_ );
    storeRelaxed( segment->markWord(), QueueMark( sequence_, head_ ).word() );
    segment->nameIsFinal();
    KRELL_CRASH_POINT( "queue: generation named" );
    segment_ = std::move( segment );
    enough_ = enoughOf( segment_->places() );
    segments_.queueGenerationIs( segment_->generation() ); // SYNC( queue-word )
    KRELL_CRASH_POINT( "queue: generation published" );
    segments_.directory()->remove( QueueSegment::fileNameOf( segment_->generation() + 1 ) );
    KRELL_CRASH_POINT( "queue: former generation removed" );
}

void QueueWriter::reserve( U32 slots ) {
    const unsigned log2 = QueueSegment::log2For( slots );
    if ( ( U64( 1 ) << log2 ) <= segment_->places() ) {
        return;
    }
    auto next =
        QueueSegment::create( segments_, { generationAfter( segment_->generation() ), log2,
                                           segment_->generation(), segment_->shape().sortedEnd } );
    KRELL_CRASH_POINT( "queue: generation made" );
    for ( U64 position = tail_; position != head_; ++position ) {
        storeRelaxed( next->place( position ), loadRelaxed( segment_->place( position ) ) );
    }
    KRELL_CRASH_POINT( "queue: generation filled" );
    publish( std::move( next ) );
    ++resizes_;
}

// At least one place is free afterwards, for the live entries are at most half of all.
void QueueWriter::makeRoom() {
    for ( unsigned steps = 0; head_ - tail_ >= segment_->places() - 1 ||
                              ( steps < stepsOfAppend_ && head_ - tail_ >= enough_ );
          ++steps ) {
        freeTail();
    }
}

// A live entry stands at the head, for all to see, before the tail goes past its former place.
void QueueWriter::freeTail() {
    const QueueEntry oldest( loadRelaxed( segment_->place( tail_ ) ) );
    if ( !oldest.tombed() ) {
        storeRelease( segment_->place( head_ ), oldest.word() ); // SYNC( queue-entry )
        KRELL_CRASH_POINT( "queue: entry moved" );
        storeRelaxed( &segments_.slot( oldest.slot() )->queuePosition, U32( head_ ) );
        ++head_;
        storeRelease( segment_->markWord(),
                      QueueMark( sequence_, head_ ).word() ); // SYNC( queue-mark )
        ++compactions_;
    }
    ++tail_;
    storeRelease( segment_->tailWord(), tail_ ); // SYNC( queue-tail )
    KRELL_CRASH_POINT( "queue: tail stored" );
}

} // namespace Krell
