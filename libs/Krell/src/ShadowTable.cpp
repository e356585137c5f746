#include <Krell/ShadowTable>

#include <algorithm>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include <Krell/Exception>

namespace Krell {

namespace {

constexpr std::size_t fewestBuckets = 16;

[[noreturn]] void throwOutOfMemory( U32 entries, U64 recordBytes ) {
    std::string text;
    try {
        text = "no memory for a reader's copy of more than " + std::to_string( entries ) +
               " entries of " + std::to_string( recordBytes ) + " bytes";
    } catch ( const std::bad_alloc& ) {
        text = "out of memory"; // short enough to need none
    }
    throw MemoryResourceException( std::move( text ) );
}

} // namespace

// --- What is told of slots

ShadowTable::Change ShadowTable::occupied( U32 slot, const U64* key, const U64* value ) {
    const U32 there = standingAt( slot );
    U32 hash = 0;
    U32 known = there;
    if ( there == none_ || !std::equal( key, key + keyWords_, keyOf( recordAt( there ) ) ) ) {
        hash = hashWords( key, keyWords_ );
        known = locate( key, keyWords_, hash );
        reserve( slot, known == none_ );
    }
    if ( there != none_ && there != known ) {
        ++mismatches_;
        leave( there );
    }
    const Change change = known == none_ ? Change::inserted : Change::replaced;
    if ( known == none_ ) {
        known = insert( hash, key );
    } else {
        remember( known );
    }
    stand( known, slot );
    std::copy_n( value, valueWords_, keyOf( recordAt( known ) ) + keyWords_ );
    return change;
}

void ShadowTable::vacated( U32 slot ) noexcept {
    oldIsKnown_ = false;
    if ( const U32 there = standingAt( slot ); there != none_ ) {
        leave( there );
    }
}

void ShadowTable::allVacated() noexcept {
    oldIsKnown_ = false;
    for ( const U32 there : slots_ ) {
        if ( there != none_ ) {
            leave( there );
        }
    }
}

void ShadowTable::wasThere( const U64* key ) {
    const U32 hash = hashWords( key, keyWords_ );
    if ( locate( key, keyWords_, hash ) == none_ ) {
        reserve( 0, true );
        const U32 index = insert( hash, key );
        std::fill_n( keyOf( recordAt( index ) ) + keyWords_, valueWords_, 0 );
    }
}

void ShadowTable::clear() noexcept {
    for ( auto& chunk : chunks_ ) {
        chunk.reset();
    }
    std::vector< U32 >().swap( buckets_ );
    std::vector< U32 >().swap( slots_ );
    std::vector< U64 >().swap( old_ );
    oldIsKnown_ = false;
    used_ = size_ = 0;
    firstFree_ = firstGone_ = lastGone_ = none_;
}

// --- The view

const U64* ShadowTable::find( const U64* key ) const noexcept {
    return valueAt( locate( key, keyWords_, hashWords( key, keyWords_ ) ) );
}

bool ShadowTable::oldValueOf( const U64* key, U64* value ) const noexcept {
    if ( !oldIsKnown_ || !std::equal( key, key + keyWords_, old_.data() ) ) {
        return false;
    }
    std::copy_n( old_.data() + keyWords_, valueWords_, value );
    return true;
}

bool ShadowTable::entryAt( U32 index, const U64*& key, const U64*& value ) const noexcept {
    if ( index >= used_ || recordAt( index )->chain == free_ ) {
        return false;
    }
    key = keyOf( recordAt( index ) );
    value = valueAt( index );
    return true;
}

std::size_t ShadowTable::bytes() const noexcept {
    std::size_t sum = ( buckets_.capacity() + slots_.capacity() ) * sizeof( U32 ) +
                      old_.capacity() * sizeof( U64 );
    for ( unsigned chunk = 0; chunk < chunkLimit_ && chunks_[ chunk ]; ++chunk ) {
        sum += recordsOf( chunk ) * std::size_t( recordBytes() );
    }
    return sum;
}

// --- Memory

// All that occupied() will need, so that nothing fails once it has begun to change the view.
void ShadowTable::reserve( U32 slot, bool forNewKey ) {
    try {
        old_.resize( std::size_t( keyWords_ ) + valueWords_ );
        if ( slot >= slots_.size() ) {
            if ( slot >= slots_.max_size() ) {
                throw std::bad_alloc();
            }
            const std::size_t before = slots_.capacity();
            slots_.resize( std::size_t( slot ) + 1, none_ );
            resizes_ += slots_.capacity() != before;
        }
        if ( forNewKey ) {
            reserveChunk();
            reserveBuckets();
        }
    } catch ( const std::bad_alloc& ) {
        throwOutOfMemory( size_, recordBytes() );
    } catch ( const std::length_error& ) {
        throwOutOfMemory( size_, recordBytes() );
    }
}

void ShadowTable::reserveChunk() {
    if ( firstFree_ != none_ ) {
        return;
    }
    if ( used_ == entryLimit_ ) {
        throw MemoryLimitException( "a reader's copy cannot have more than " +
                                    std::to_string( entryLimit_ ) + " entries" );
    }
    const unsigned chunk = chunkOf( used_ );
    if ( !chunks_[ chunk ] ) {
        const U64 size = recordsOf( chunk ) * recordBytes();
        if ( size > U64( std::numeric_limits< std::ptrdiff_t >::max() ) ) {
            throw std::bad_alloc();
        }
        chunks_[ chunk ].reset( new std::byte[ std::size_t( size ) ] );
        ++resizes_;
    }
}

void ShadowTable::reserveBuckets() {
    if ( size_ < buckets_.size() ) {
        return;
    }
    std::vector< U32 > grown( std::max( 2 * buckets_.size(), fewestBuckets ), none_ );
    buckets_.swap( grown );
    for ( U32 index = 0; index < used_; ++index ) {
        Record& record = *recordAt( index );
        if ( record.chain != free_ ) {
            record.chain = std::exchange( bucketOf( record.hash ), index );
        }
    }
    ++resizes_;
}

// --- Records

// A new record, gone as yet, whose value is still to be stored.
U32 ShadowTable::insert( U32 hash, const U64* key ) noexcept {
    U32 index = firstFree_;
    if ( index != none_ ) {
        firstFree_ = recordAt( index )->next;
    } else {
        index = used_++;
    }
    Record* const record =
        new ( recordAt( index ) ) Record { hash, bucketOf( hash ), none_, none_ };
    std::copy_n( key, keyWords_, keyOf( record ) );
    bucketOf( hash ) = index;
    goes( index );
    ++size_;
    oldIsKnown_ = false;
    return index;
}

// A record of the view takes a slot that is empty, or stays in its own.
void ShadowTable::stand( U32 index, U32 slot ) noexcept {
    Record& record = *recordAt( index );
    if ( record.next == standing_ ) {
        slots_[ record.place ] = none_;
    } else {
        unlinkGone( record );
    }
    record.place = slot;
    record.next = standing_;
    slots_[ slot ] = index;
}

// A standing record loses its slot.
void ShadowTable::leave( U32 index ) noexcept {
    slots_[ recordAt( index )->place ] = none_;
    goes( index );
}

// A record that has no slot is the last one that went.
void ShadowTable::goes( U32 index ) noexcept {
    Record& record = *recordAt( index );
    record.place = lastGone_;
    record.next = none_;
    ( lastGone_ == none_ ? firstGone_ : recordAt( lastGone_ )->next ) = index;
    lastGone_ = index;
}

void ShadowTable::unlinkGone( Record& record ) noexcept {
    ( record.place == none_ ? firstGone_ : recordAt( record.place )->next ) = record.next;
    ( record.next == none_ ? lastGone_ : recordAt( record.next )->place ) = record.place;
}

// Takes the key that went first out of the view; it and its value are then what changed last.
const U64* ShadowTable::takeGone() noexcept {
    const U32 index = firstGone_;
    Record& record = *recordAt( index );
    remember( index );
    unlinkGone( record );
    U32* link = &bucketOf( record.hash );
    while ( *link != index ) {
        link = &recordAt( *link )->chain;
    }
    *link = record.chain;
    record.chain = free_;
    record.next = std::exchange( firstFree_, index );
    --size_;
    return old_.data();
}

void ShadowTable::remember( U32 index ) noexcept {
    std::copy_n( keyOf( recordAt( index ) ), keyWords_ + valueWords_, old_.data() );
    oldIsKnown_ = true;
}

} // namespace Krell
