#include <Krell/Recovery>

#include <algorithm>

#include <Krell/CrashPoint>

namespace Krell {

using Dov::Atomics::loadRelaxed;
using Dov::Atomics::storeRelaxed;
using Dov::Atomics::storeRelease;

namespace {

// Of the numbers that a version has room for, the last eighth is left to the changes to come: no
// writer lives to get there.
constexpr U64 sequenceLimit = U64( 7 ) << 58;

} // namespace

void Recovery::run() {
    count_ = segments_.slotCount();
    sequence_ = loadRelaxed( segments_.sequenceWord() );
    if ( sequence_ >= sequenceLimit ) {
        sequence_ = 0; // the slots tell
    }
    settleLookaside();
    KRELL_CRASH_POINT( "recovery: lookaside settled" );
    settleSlots();
    KRELL_CRASH_POINT( "recovery: slots settled" );
    rebuildBuckets();
    rebuildLists();
    KRELL_CRASH_POINT( "recovery: lists rebuilt" );
    storeRelease( segments_.sequenceWord(), sequence_ ); // SYNC( sequence )
}

void Recovery::settleLookaside() {
    LookasideHead& record = segments_.lookaside();
    const SlotVersion version( loadRelaxed( &record.version ) );
    if ( version.writing() ) {
        // Its slot was not marked yet, so no reader looks here.
        storeRelease( &record.slot, LookasideHead::noSlot_ );
        KRELL_CRASH_POINT( "recovery: lookaside dropped" );
        storeRelease( &record.version,
                      SlotVersion( version.sequence(), SlotVersion::dead ).word() );
        dropped_ = true;
        return;
    }
    const U64 slot = loadRelaxed( &record.slot );
    if ( slot == LookasideHead::noSlot_ ) {
        return;
    }
    const U32 index = U32( slot );
    if ( slot >= count_ || version.state() != SlotVersion::occupied ) {
        unusable( index, "is named by a lookaside record that no writer made" );
    }
    if ( SlotVersion( loadRelaxed( &segments_.slot( index )->version ) ).sequence() <
         version.sequence() ) {
        redo( index, version );
    }
}

void Recovery::redo( U32 index, SlotVersion newVersion ) {
    const Layout& layout = segments_.layout();
    SlotHead* const slot = segments_.slot( index );
    const SlotVersion old( loadRelaxed( &slot->version ) );
    if ( !old.isOccupied() ) {
        unusable( index, "is not the one that the lookaside record changes" );
    }
    storeRelease( &slot->version, old.whileWriting().word() );
    KRELL_CRASH_POINT( "recovery: slot marked" );
    U64* const value = payloadOf( slot ) + layout.keyWords();
    const U64* const wanted = payloadOf( &segments_.lookaside() );
    for ( U32 i = 0; i < layout.valueWords(); ++i ) {
        storeRelease( value + i, loadRelaxed( wanted + i ) );
        KRELL_CRASH_POINT( "recovery: word written" );
    }
    storeRelease( &slot->version, newVersion.word() );
    redone_ = true;
}

void Recovery::settleSlots() {
    for ( U32 index = 0; index < count_; ++index ) {
        settleSlot( index );
    }
}

void Recovery::settleSlot( U32 index ) {
    SlotHead* const slot = segments_.slot( index );
    const SlotVersion version( loadRelaxed( &slot->version ) );
    sequence_ = std::max( sequence_, version.sequence() );
    if ( sequence_ >= sequenceLimit ) {
        unusable( index, "has a sequence that no writer gets to" );
    }
    switch ( version.state() ) {
    case SlotVersion::invalid:
        unusable( index, "has no valid state" );
    case SlotVersion::occupied:
        if ( version.writing() ) {
            unusable( index, "is being written, but not by the change in the lookaside record" );
        }
        if ( hashWords( payloadOf( slot ), segments_.layout().keyWords() ) !=
             loadRelaxed( &slot->hash ) ) {
            unusable( index, "holds a key of another hash" );
        }
        return;
    case SlotVersion::free:
    case SlotVersion::dead:
        if ( version.writing() ) {
            storeRelease( &slot->version,
                          SlotVersion( version.sequence(), SlotVersion::free ).word() );
            KRELL_CRASH_POINT( "recovery: slot freed" );
        }
        return;
    }
}

void Recovery::rebuildBuckets() {
    U32 occupied = 0;
    for ( U32 index = 0; index < count_; ++index ) {
        occupied += SlotVersion( loadRelaxed( &segments_.slot( index )->version ) ).isOccupied();
    }
    const BucketArray present = BucketArray::inUse( segments_ );
    const unsigned log2 = std::max( present.log2(), BucketArray::log2For( occupied ) );
    for ( U32 overflow =
              std::max( present.overflowLines(), BucketArray::usualOverflow( segments_, log2 ) );
          ; overflow *= 2 ) {
        BucketArray array = BucketArray::beside( present, log2, overflow );
        array.prepare();
        if ( fill( array ) ) {
            array.publish();
            return;
        }
    }
}

bool Recovery::fill( BucketArray& array ) {
    occupied_ = 0;
    for ( U32 index = 0; index < count_; ++index ) {
        const SlotHead* const slot = segments_.slot( index );
        if ( SlotVersion( loadRelaxed( &slot->version ) ).isOccupied() && !enter( array, index ) ) {
            return false;
        }
    }
    return true;
}

bool Recovery::enter( BucketArray& array, U32 index ) {
    const SlotHead* const slot = segments_.slot( index );
    const U32 hash = loadRelaxed( &slot->hash );
    const U32 keyWords = segments_.layout().keyWords();
    const auto twin = array.find( hash, [ & ]( U32 other ) {
        return equalWords( payloadOf( segments_.slot( other ) ), payloadOf( slot ), keyWords );
    } );
    if ( twin ) {
        dropOlder( array, *twin, hash, index );
        return true;
    }
    const auto place = array.room( hash );
    if ( place ) {
        array.put( *place, hash, index );
        ++occupied_;
    }
    return bool( place );
}

void Recovery::dropOlder( BucketArray& array,
                          const BucketArray::Place& place,
                          U32 hash,
                          U32 index ) {
    const auto versionAt = [ & ]( U32 i ) {
        return SlotVersion( loadRelaxed( &segments_.slot( i )->version ) );
    };
    const bool newer = versionAt( index ).sequence() > versionAt( place.slot ).sequence();
    const U32 older = newer ? place.slot : index;
    if ( newer ) {
        array.put( place, hash, index );
    }
    const SlotVersion dead( versionAt( older ).sequence(), SlotVersion::dead );
    storeRelease( &segments_.slot( older )->version, dead.word() );
    ++duplicates_;
}

void Recovery::rebuildLists() {
    U32 firstUnused = 0; // of the slots behind all that were ever used
    for ( U32 index = 0; index < count_; ++index ) {
        const U64 word = loadRelaxed( &segments_.slot( index )->version );
        if ( word != 0 ) {
            firstUnused = index + 1;
        }
    }
    for ( U32 index = 0; index < firstUnused; ++index ) {
        const SlotVersion version( loadRelaxed( &segments_.slot( index )->version ) );
        if ( version.state() == SlotVersion::dead ) {
            dead_.push_back( index );
        } else if ( version.state() == SlotVersion::free ) {
            freed_.push_back( index );
        }
    }
    linkFree( firstUnused );
    linkRetired();
    Segments::SlotHeader& header = segments_.header();
    storeRelease( &header.occupiedSlots, occupied_ );
    segments_.slotCountIs( count_ );
}

// The freed slots, then those that were never used, each of which is followed by the next.
void Recovery::linkFree( U32 firstUnused ) {
    U32 next = firstUnused;
    for ( auto at = freed_.rbegin(); at != freed_.rend(); ++at ) {
        storeRelaxed( &segments_.slot( *at )->link, next + 1 );
        next = *at;
    }
    storeRelease( &segments_.header().freeSlots, next < count_ ? next : Segments::noIndex_ );
}

void Recovery::linkRetired() {
    const auto sequenceAt = [ & ]( U32 index ) {
        return SlotVersion( loadRelaxed( &segments_.slot( index )->version ) ).sequence();
    };
    std::sort( dead_.begin(), dead_.end(),
               [ & ]( U32 a, U32 b ) { return sequenceAt( a ) < sequenceAt( b ); } );
    for ( std::size_t i = 0; i < dead_.size(); ++i ) {
        const U32 next = i + 1 < dead_.size() ? dead_[ i + 1 ] + 1 : 0;
        storeRelaxed( &segments_.slot( dead_[ i ] )->link, next );
    }
    Segments::SlotHeader& header = segments_.header();
    const U32 none = Segments::noIndex_;
    storeRelease( &header.retiredFirst, dead_.empty() ? none : dead_.front() );
    storeRelease( &header.retiredLast, dead_.empty() ? none : dead_.back() );
    storeRelease( &header.retiredCount, U32( dead_.size() ) );
}

void Recovery::unusable( U32 index, const char* what ) const {
    throw CorruptionDetectedException( segments_.place() + ": slot " + std::to_string( index ) +
                                       " " + what );
}

} // namespace Krell
