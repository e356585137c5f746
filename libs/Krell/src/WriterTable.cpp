#include <Krell/WriterTable>

#include <algorithm>
#include <new>

#include <pthread.h>

#include <Krell/Incarnation>

namespace Krell {

using Dov::Atomics::loadRelaxed;
using Dov::Atomics::storeRelaxed;
using Dov::Atomics::storeRelease;

#ifdef KRELL_CRASH_POINTS
void ( *crashPointHandler )( const char* name ) = nullptr;
#endif

U32 alarmCount = 0;

namespace {

constexpr U32 noIndex = Segments::noIndex_;

// The retired slots that wait before the oldest of them is used again, while the table can grow.
constexpr U32 reuseDelay( U32 slots ) { return std::max( U32( 1 ), slots / 16 ); }

// Slots that the table grows by when it needs more. One of less than leastStep doubles.
constexpr U32 stepPart = 32;
constexpr U32 leastStep = 64;
constexpr U32 stepBytes = U32( 2 ) << 20;

U32 forkCount = 0; // how often this process is a forked child of the one that loaded the library

[[maybe_unused]] const int forkWatch = pthread_atfork( nullptr, nullptr, [] {
    ++forkCount;
    ++alarmCount;
} );

} // namespace

WriterTable::WriterTable( Segments& segments )
    : segments_( segments ),
      queue_( segments.local() ? nullptr : std::make_unique< QueueWriter >( segments ) ),
      array_( BucketArray::inUse( segments ) ),
      growth_( segments, array_ ),
      count_( segments.slotCount() ),
      occupied_( segments.header().occupiedSlots ),
      free_( segments.header().freeSlots ),
      retiredFirst_( segments.header().retiredFirst ),
      retiredLast_( segments.header().retiredLast ),
      retiredCount_( segments.header().retiredCount ),
      sequence_( *segments.sequenceWord() ),
      firstSequence_( sequence_ ),
      alarms_( alarmCount ),
      forks_( forkCount ) {
    if ( free_ >= count_ ) {
        free_ = noIndex;
    }
    if ( retiredFirst_ >= count_ || retiredLast_ >= count_ ) {
        retiredCount_ = 0;
    }
}

void WriterTable::judgeAlarm() {
    const U32 alarms = loadRelaxed( &alarmCount );
    if ( forks_ != forkCount ) {
        throw RuntimeException( "this process was forked from the writer of " + segments_.place() +
                                " and cannot write it" );
    }
    if ( segments_.damaged() ) {
        Incarnation::markCorrupt( *segments_.directory() );
        segments_.checkSound();
    }
    alarms_ = alarms;
}

void WriterTable::insert( U32 hash, const U64* key, const U64* value ) {
    ensureSlot();
    const BucketArray::Place place = growth_.roomFor( hash, occupied_, count_ );
    const U32 index = takeSlot();
    KRELL_CRASH_POINT( "insert: slot taken" );
    SlotHead* const slot = segments_.slot( index );
    const bool hasEntry = SlotVersion( loadRelaxed( &slot->version ) ).sequence() != 0;
    unmark( index );
    fill( slot, hash, key, value );
    KRELL_CRASH_POINT( "insert: slot filled" );
    array_.put( place, hash, index );
    KRELL_CRASH_POINT( "insert: tag stored" );
    growth_.entered( hash, index );
    const SlotVersion version( sequence_ + 1, SlotVersion::occupied );
    storeRelease( &slot->version, version.word() ); // SYNC( slot-version )
    KRELL_CRASH_POINT( "insert: slot occupied" );
    ++occupied_;
    ++slotAllocs_;
    ++inserts_;
    headerChanged();
    KRELL_CRASH_POINT( "insert: header stored" );
    changed( index, slot, version.sequence(), hasEntry );
}

// Whoever reaches the slot meanwhile finds it not occupied.
void WriterTable::fill( SlotHead* slot, U32 hash, const U64* key, const U64* value ) {
    const Layout& layout = segments_.layout();
    const SlotVersion old( loadRelaxed( &slot->version ) );
    storeRelease( &slot->version, old.whileWriting().word() );
    KRELL_CRASH_POINT( "insert: slot marked" );
    storeWords( payloadOf( slot ), key, layout.keyWords() );
    KRELL_CRASH_POINT( "insert: key written" );
    storeRelease( &slot->hash, hash );
    storeWords( payloadOf( slot ) + layout.keyWords(), value, layout.valueWords() );
}

void WriterTable::remove( const BucketArray::Place& place ) {
    const SlotVersion dead( sequence_ + 1, SlotVersion::dead );
    KRELL_CRASH_POINT( "delete: begun" );
    storeRelease( &segments_.slot( place.slot )->version, dead.word() );
    KRELL_CRASH_POINT( "delete: slot dead" );
    array_.clear( place );
    KRELL_CRASH_POINT( "delete: tag cleared" );
    growth_.left( loadRelaxed( &segments_.slot( place.slot )->hash ), place.slot );
    --occupied_;
    ++slotDeallocs_;
    retire( place.slot );
    KRELL_CRASH_POINT( "delete: slot retired" );
    headerChanged();
    KRELL_CRASH_POINT( "delete: header stored" );
    changed( place.slot, segments_.slot( place.slot ), dead.sequence() );
    growth_.step( occupied_, count_ );
}

void WriterTable::reserve( U32 slots ) {
    heedAlarm();
    if ( slots > count_ ) {
        growTo( slots );
    }
    const unsigned log2 = BucketArray::log2For( slots );
    if ( log2 > array_.log2() ) {
        growth_.rebuild( log2, BucketArray::ampleOverflow( log2 ), count_ );
    } else if ( log2 == array_.log2() ) {
        const U32 ample = BucketArray::ampleOverflow( log2 );
        array_.spare( ample - std::min( ample, array_.overflowUsed() ) );
    }
}

bool WriterTable::grow() {
    heedAlarm();
    const U32 most = Segments::maxSlotsOf( segments_.layout() );
    if ( count_ >= most ) {
        return false;
    }
    growTo( U32( std::min< U64 >( most, std::max< U64 >( 1, U64( count_ ) * 2 ) ) ) );
    return true;
}

// Small steps, so that little is allocated in advance and none of them takes long. Local memory is
// copied as it grows, and doubles.
bool WriterTable::growByStep() {
    const U32 most = Segments::maxSlotsOf( segments_.layout() );
    if ( segments_.local() || count_ >= most ) {
        return grow();
    }
    const U32 limit = std::max( U32( 1 ), stepBytes / segments_.layout().slotSize() );
    const U32 least = std::min( leastStep, std::max( U32( 1 ), count_ ) );
    const U32 step = std::min( limit, std::max( least, count_ / stepPart ) );
    growTo( count_ + std::min( step, most - count_ ) );
    return true;
}

// Readers map the file anew when they meet an index beyond what they have mapped. What is asked for
// and cannot be is refused by the files, before memory is taken up for it.
void WriterTable::growTo( U32 slots ) {
    KRELL_CRASH_POINT( "slots: before they are allocated" );
    segments_.growSlots( count_, slots );
    KRELL_CRASH_POINT( "slots: allocated" );
    if ( queue_ ) {
        queue_->reserve( slots );
    }
    const U32 before = count_;
    count_ = slots;
    segments_.slotCountIs( slots ); // SYNC( slot-count )
    KRELL_CRASH_POINT( "slots: count published" );
    if ( free_ == noIndex ) {
        free_ = before;
    }
    headerChanged();
    KRELL_CRASH_POINT( "slots: header stored" );
}

void WriterTable::mark() {
    heedAlarm();
    try {
        std::vector< bool > marked( count_ );
        for ( U32 index = 0; index < count_; ++index ) {
            marked[ index ] = versionOf( segments_.slot( index ) ).isOccupied();
        }
        marked_ = std::move( marked );
        marks_ = count_;
    } catch ( const std::bad_alloc& ) {
        throwNoMemory( [ & ] { return "to mark the entries of " + segments_.place(); } );
    }
}

bool WriterTable::slotAtHand() const noexcept {
    return free_ != noIndex || retiredCount_ >= reuseDelay( count_ );
}

void WriterTable::ensureSlot() {
    if ( slotAtHand() ) {
        return;
    }
    try {
        if ( growByStep() || retiredCount_ > 0 ) {
            return;
        }
    } catch ( const MemoryResourceException& ) {
        if ( retiredCount_ > 0 ) {
            return; // reused sooner than readers would like
        }
        throw;
    }
    throw MemoryLimitException( segments_.place() + ": all " + std::to_string( count_ ) +
                                " slots are occupied, and there cannot be more" );
}

U32 WriterTable::takeSlot() {
    const U32 index = free_ != noIndex ? takeFree() : takeRetired();
    if ( SlotVersion( loadRelaxed( &segments_.slot( index )->version ) ).isOccupied() ) {
        throw CorruptionDetectedException( segments_.place() + ": slot " + std::to_string( index ) +
                                           " is listed as free, but is occupied" );
    }
    return index;
}

U32 WriterTable::takeFree() {
    const U32 index = free_;
    const U32 link = loadRelaxed( &segments_.slot( index )->link );
    const U32 next = link ? link - 1 : index + 1;
    free_ = next < count_ ? next : noIndex;
    return index;
}

// A list that ends too early, which no writer left, ends there: the next writer lists its slots.
U32 WriterTable::takeRetired() {
    const U32 index = retiredFirst_;
    const U32 link = loadRelaxed( &segments_.slot( index )->link );
    if ( --retiredCount_ == 0 || link == 0 || link > count_ ) {
        retiredCount_ = 0;
        retiredFirst_ = retiredLast_ = noIndex;
    } else {
        retiredFirst_ = link - 1;
    }
    return index;
}

void WriterTable::retire( U32 index ) {
    storeRelaxed( &segments_.slot( index )->link, 0 );
    if ( retiredCount_++ == 0 ) {
        retiredFirst_ = index;
    } else {
        storeRelaxed( &segments_.slot( retiredLast_ )->link, index + 1 );
    }
    retiredLast_ = index;
}

// Each store leaves a header that is valid: counts and indices stay below the slot count, which
// comes first when it grows.
void WriterTable::headerChanged() {
    Segments::SlotHeader& header = segments_.header();
    storeRelease( &header.occupiedSlots, occupied_ );
    storeRelease( &header.freeSlots, free_ );
    storeRelease( &header.retiredFirst, retiredFirst_ );
    storeRelease( &header.retiredLast, retiredLast_ );
    storeRelease( &header.retiredCount, retiredCount_ );
    segments_.slotCountIs( count_ );
}

} // namespace Krell
