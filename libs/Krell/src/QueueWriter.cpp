#include <Krell/QueueWriter>

#include <algorithm>
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

// 0 is none; its successor has to be of the other file.
constexpr U32 generationAfter( U32 generation ) { return generation + 1 ? generation + 1 : 2; }

} // namespace

QueueWriter::QueueWriter( Segments& segments ) : segments_( segments ) {
    const U32 slots = segments_.slotCount();
    segment_ = QueueSegment::create( segments_, { generationAfter( segments_.queueGeneration() ),
                                                  U32( QueueSegment::placesFor( slots ) ),
                                                  U64( slots ) + 1 } );
    KRELL_CRASH_POINT( "queue: generation made" );
    located();
    fillInOrder();
    KRELL_CRASH_POINT( "queue: generation filled" );
    publish();
    pauseIs();
}

void QueueWriter::fillInOrder() {
    struct Change {
        U64 sequence;
        U32 slot;
    };
    std::vector< Change > changes;
    try {
        const U32 count = segments_.slotCount();
        newest_.growTo( count );
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
        const U32 place = U32( head_ - round_ );
        storeRelaxed( entries_ + place, QueueEntry( change.slot, change.sequence ).word() );
        newest_[ change.slot ] = place;
        ++head_;
    }
    sequence_ = loadRelaxed( segments_.sequenceWord() );
}

// The file of the generation before goes: who still maps it finds another number in the buckets
// header.
void QueueWriter::publish() {
    storeRelaxed( segment_->roundWord(), round_ );
    storeRelaxed( segment_->roundBeforeWord(), roundBefore_ );
    storeRelaxed( segment_->tailWord(), tail_ );
    storeRelaxed( segment_->markWord(), QueueMark( sequence_, head_ ).word() );
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
    try {
        newest_.growTo( slots );
    } catch ( const std::bad_alloc& ) {
        throw MemoryResourceException( "no memory to note the queue's entries for " +
                                       std::to_string( slots ) + " slots of " + segments_.place() );
    }
    const U64 places = QueueSegment::placesFor( slots );
    if ( places <= segment_->places() ) {
        return;
    }
    segment_->growTo( places );
    KRELL_CRASH_POINT( "queue: file grown" );
    ++resizes_;
    located();
    pauseIs();
}

U64 QueueWriter::scarce() const noexcept { return capacity() / scarceShare + scarceLeast; }

// Where the file ends or room gets scarce, whichever comes first.
void QueueWriter::pauseIs() noexcept {
    pause_ = std::min( round_ + segment_->places(), tail_ + capacity() - scarce() + 1 );
}

// While room is short, each append frees a run.
void QueueWriter::makeRoom() noexcept {
    if ( room() < scarce() ) {
        freeRun();
    }
    if ( head_ - round_ == segment_->places() ) {
        beginRound();
    }
    pauseIs();
}

// The live entries of a run stand at the head, for all to see, before the tail goes past it. None
// of its places is filled before that.
void QueueWriter::freeRun() noexcept {
    const bool before = tail_ < round_;
    const U64* const first = entries_ + ( tail_ - ( before ? roundBefore_ : round_ ) );
    const U64 inRound = ( before ? round_ : head_ ) - tail_;
    const auto count = unsigned( std::min( { U64( QueueSegment::run_ ), inRound, room() } ) );
    QueueEntry live[ QueueSegment::run_ ];
    unsigned found = 0;
    for ( unsigned i = 0; i < count; ++i ) {
        const QueueEntry entry( loadRelaxed( first + i ) );
        if ( !entry.tombed() ) {
            __builtin_prefetch( &newest_[ entry.slot() ], 1 );
            live[ found++ ] = entry;
        }
    }
    for ( unsigned i = 0; i < found; ++i ) {
        move( live[ i ] );
    }
    if ( found > 0 ) {
        storeRelease( mark_, QueueMark( sequence_, head_ ).word() ); // SYNC( queue-mark )
        KRELL_CRASH_POINT( "queue: moved entries marked" );
        compactions_ += found;
    }
    tail_ += count;
    storeRelease( segment_->tailWord(), tail_ ); // SYNC( queue-tail )
    KRELL_CRASH_POINT( "queue: tail stored" );
}

void QueueWriter::move( QueueEntry entry ) noexcept {
    if ( head_ - round_ == segment_->places() ) {
        beginRound();
    }
    const U32 place = U32( head_ - round_ );
    storeRelease( entries_ + place, entry.word() ); // SYNC( queue-entry )
    KRELL_CRASH_POINT( "queue: entry moved" );
    newest_[ entry.slot() ] = place;
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
