#include <Krell/ReaderTable>

namespace Krell {

namespace {

[[noreturn]] void corrupt( const Segments& segments, const std::string& what ) {
    throw CorruptionDetectedException( segments.place() + ": " + what );
}

} // namespace

// The record is the change in flight, for a slot that was seen being written (SYNC( lookaside )):
// it was whole before that version was stored, and it is used again only after the next version is.
bool ReaderTable::readLookaside( U32 index, SlotVersion seen, U64* value ) {
    using Dov::Atomics::loadAcquire;
    const LookasideHead& record = segments_->lookaside();
    const SlotVersion version( loadAcquire( &record.version ) ); // SYNC( lookaside )
    const U64 slot = loadAcquire( &record.slot );
    loadWords( value, payloadOf( &record ), segments_->layout().valueWords() );
    const bool stable = version.isWhole() && loadAcquire( &record.version ) == version.word();
    if ( versionOf( segments_->slot( index ) ) != seen ) {
        return false;
    }
    if ( !stable || slot != index || version.sequence() <= seen.sequence() ) {
        corrupt( *segments_, "slot " + std::to_string( index ) +
                                 " is being written, but the lookaside record is not its own" );
    }
    ++usedLookaside_;
    return true;
}

ReaderTable::Walk ReaderTable::beyondLines( TableWord table, U64 line ) {
    if ( segments_->table() != table || ( remap() && line < segments_->linesMapped() ) ) {
        return Walk::again;
    }
    if ( segments_->table() != table ) {
        return Walk::again;
    }
    corrupt( *segments_, "a chain leads to bucket line " + std::to_string( line ) + " of " +
                             std::to_string( segments_->linesMapped() ) + ", or does not end" );
}

ReaderTable::Walk ReaderTable::beyondSlots( TableWord table, U32 index ) {
    if ( index < slotCount() || segments_->table() != table ) {
        return Walk::again;
    }
    corrupt( *segments_, "a bucket names slot " + std::to_string( index ) + " of " +
                             std::to_string( segments_->slotsMapped() ) );
}

void ReaderTable::startOver( U32& patience ) {
    ++chainRestarts_;
    if ( --patience == 0 ) {
        corrupt( *segments_, "the contents do not hold still" );
    }
}

bool ReaderTable::contains( const U64* key ) {
    if ( !segments_ ) {
        return false;
    }
    const U32 words = segments_->layout().keyWords();
    return search( hashWords( key, words ), [ & ]( U32 index ) {
        const SlotHead* const slot = segments_->slot( index );
        for ( U32 patience = patience_;; startOver( patience ) ) {
            const SlotVersion seen = versionOf( slot );
            if ( !seen.isOccupied() || !equalWords( payloadOf( slot ), key, words ) ) {
                return Walk::absent;
            }
            if ( versionOf( slot ) == seen ) {
                return Walk::found;
            }
        }
    } );
}

bool ReaderTable::copyValue( const U64* key, U64* value ) {
    if ( !segments_ ) {
        return false;
    }
    const U32 words = segments_->layout().keyWords();
    return search( hashWords( key, words ), [ & ]( U32 index ) {
        U64 found[ Layout::wordsOf( Layout::sizeLimit_ ) ];
        U64 version = 0;
        const bool same =
            copySlot( index, found, value, version ) && std::equal( key, key + words, found );
        return same ? Walk::found : Walk::absent;
    } );
}

bool ReaderTable::copySlot( U32 index, U64* key, U64* value, U64& version ) {
    if ( !segments_ || ( index >= segments_->slotsMapped() && index >= slotCount() ) ) {
        return false;
    }
    const Layout& layout = segments_->layout();
    for ( U32 patience = patience_;; startOver( patience ) ) {
        const SlotHead* const slot = segments_->slot( index );
        const SlotVersion seen = versionOf( slot );
        if ( !seen.isOccupied() ) {
            segments_->checkSound();
            return false;
        }
        loadWords( key, payloadOf( slot ), layout.keyWords() );
        if ( seen.writing() ) {
            if ( readLookaside( index, seen, value ) ) {
                version = seen.word();
                return true;
            }
        } else {
            loadWords( value, payloadOf( slot ) + layout.keyWords(), layout.valueWords() );
            if ( versionOf( slot ) == seen ) {
                version = seen.word();
                return true;
            }
        }
    }
}

SlotVersion ReaderTable::look( U32 index, U64* key ) {
    if ( !segments_ || ( index >= segments_->slotsMapped() && index >= slotCount() ) ) {
        return SlotVersion( 0 );
    }
    const SlotHead* const slot = segments_->slot( index );
    for ( U32 patience = patience_;; startOver( patience ) ) {
        const SlotVersion seen = versionOf( slot );
        if ( seen.state() == SlotVersion::invalid ) {
            corrupt( *segments_, "slot " + std::to_string( index ) + " has no valid state" );
        }
        if ( seen.state() == SlotVersion::free || ( seen.writing() && !seen.isOccupied() ) ) {
            segments_->checkSound();
            return seen;
        }
        loadWords( key, payloadOf( slot ), segments_->layout().keyWords() );
        if ( versionOf( slot ) == seen ) {
            return seen;
        }
    }
}

U32 ReaderTable::slotCount() {
    if ( !segments_ ) {
        return 0;
    }
    const U32 count = segments_->slotCount();
    if ( count > segments_->slotsMapped() ) {
        remap();
        if ( count > segments_->slotsMapped() ) {
            corrupt( *segments_, std::to_string( count ) + " slots are counted, but the file has " +
                                     std::to_string( segments_->slotsMapped() ) );
        }
    }
    return count;
}

U32 ReaderTable::occupied() const {
    const U32 occupied =
        segments_ ? Dov::Atomics::loadAcquire( &segments_->header().occupiedSlots ) : 0;
    if ( segments_ ) {
        segments_->checkSound();
    }
    return occupied;
}

U64 ReaderTable::sequence() const noexcept {
    return segments_ ? Dov::Atomics::loadAcquire( segments_->sequenceWord() )
                     : 0; // SYNC( sequence )
}

bool ReaderTable::remap() {
    if ( !segments_ ) {
        return false;
    }
    const U32 slots = segments_->slotsMapped();
    const U64 lines = segments_->linesMapped();
    if ( !segments_->remap() ) {
        throw RuntimeException( segments_->place() +
                                ": a new incarnation replaced the files that are read" );
    }
    const bool grown = segments_->slotsMapped() > slots || segments_->linesMapped() > lines;
    slotResizes_ += grown;
    return grown;
}

} // namespace Krell
