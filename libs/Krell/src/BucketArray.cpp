#include <Krell/BucketArray>

#include <algorithm>

#include <Krell/CrashPoint>

namespace Krell {

using Dov::Atomics::loadRelaxed;
using Dov::Atomics::storeRelaxed;
using Dov::Atomics::storeRelease;

namespace {

// With eight entries to a bucket of twelve places, one bucket in sixteen overflows.
constexpr U32 leastOverflow = 4;
constexpr U32 overflowPart = 64;
constexpr U32 ampleOverflowPart = 8;

} // namespace

BucketArray BucketArray::inUse( Segments& segments ) {
    const TableWord table = segments.table();
    const U64 line = table.line();
    if ( table.log2() <= TableWord::log2Limit_ &&
         line + 1 + table.primaries() <= segments.linesMapped() ) {
        const auto& head = reinterpret_cast< const ArrayHead& >( segments.lines()[ line ] );
        const U32 lines = loadRelaxed( &head.lines );
        if ( loadRelaxed( &head.generation ) == table.generation() &&
             loadRelaxed( &head.log2 ) == table.log2() && lines > table.primaries() &&
             line + lines <= segments.linesMapped() ) {
            BucketArray array( segments, line, table.log2(), lines, lines );
            array.inUse_ = true;
            array.countOverflow();
            return array;
        }
    }
    throw CorruptionDetectedException( segments.place() + ": table word " +
                                       std::to_string( table.word() ) + " names no bucket array" );
}

// Overflow buckets are linked in the order of their lines, each once.
void BucketArray::countOverflow() {
    U32 last = lines_ - 1 - overflowLines();
    for ( U32 i = 1; i < lines_; ++i ) {
        const U32 link = loadRelaxed( &bucket( line_ + i ).link );
        if ( link >= lines_ ) {
            wild( "link", link );
        }
        last = std::max( last, link );
    }
    overflowUsed_ = last - ( lines_ - 1 - overflowLines() );
}

U32 BucketArray::usualOverflow( const Segments& segments, unsigned log2 ) noexcept {
    return segments.local() ? ampleOverflow( log2 )
                            : std::max( leastOverflow, ( U32( 1 ) << log2 ) / overflowPart );
}

U32 BucketArray::ampleOverflow( unsigned log2 ) noexcept {
    return std::max( leastOverflow, ( U32( 1 ) << log2 ) / ampleOverflowPart );
}

unsigned BucketArray::log2For( U64 entries ) noexcept {
    unsigned log2 = 0;
    while ( log2 < TableWord::log2Limit_ && ( U64( load_ ) << log2 ) < entries ) {
        ++log2;
    }
    return log2;
}

// In front of the present array if it fits there, else behind it: arrays of one size take turns,
// and arrays that double leave a file of twice the last one's size.
BucketArray BucketArray::beside( const BucketArray& present, unsigned log2, U32 overflow ) {
    Segments& segments = *present.segments_;
    const U64 lines = 1 + ( U64( 1 ) << log2 ) + overflow;
    if ( log2 > TableWord::log2Limit_ || lines > 0xffffffffu ) {
        throw MemoryLimitException( segments.place() + ": a bucket array of " +
                                    std::to_string( lines ) +
                                    " lines is more than the format allows" );
    }
    const bool inFront = lines <= present.line_;
    BucketArray array( segments, inFront ? 0 : present.line_ + present.lines_, log2, U32( lines ),
                       0 );
    if ( inFront ) {
        array.limit_ = present.line_;
    }
    return array;
}

void BucketArray::prepare() {
    make( prepared_, lines_ );
    prepared_ = lines_;
}

bool BucketArray::tryPrepare( U32 lines ) {
    const U32 to = prepared_ + std::min( lines, lines_ - prepared_ );
    if ( !tryMake( prepared_, to ) ) {
        return false;
    }
    prepared_ = to;
    return true;
}

bool BucketArray::tryMake( U32 from, U32 to ) {
    try {
        make( from, to );
        return true;
    } catch ( const Exception& ) { // nothing has changed
        return false;
    }
}

// Lines of this array, from its head: what the file has already is emptied, what it grows by is
// empty.
void BucketArray::make( U32 from, U32 to ) {
    const U64 there = segments_->linesMapped();
    const U64 first = line_ + from;
    const U64 last = line_ + to;
    KRELL_CRASH_POINT( "array: before it is allocated" );
    if ( first < there ) {
        segments_->allocateLines( first, std::min( last, there ) );
    }
    if ( last > there ) {
        segments_->growBuckets( last );
    }
    KRELL_CRASH_POINT( "array: allocated" );
    erase( first, std::min( last, there ) );
}

void BucketArray::erase( U64 from, U64 to ) {
    constexpr std::size_t words = sizeof( Bucket ) / sizeof( U64 );
    for ( U64 line = from; line < to; ++line ) {
        U64* const at = reinterpret_cast< U64* >( &bucket( line ) );
        for ( std::size_t i = 0; i < words; ++i ) {
            storeRelaxed( at + i, 0 );
        }
    }
}

std::optional< BucketArray::Place > BucketArray::room( U32 hash ) {
    U64 line = primary( hash );
    for ( U32 steps = 0;; ++steps ) {
        Bucket& at = bucket( line );
        if ( const unsigned empty = Tags( at ).matches( 0 ) ) {
            return Place { line, unsigned( std::countr_zero( empty ) ), Segments::noIndex_ };
        }
        U32 link = loadRelaxed( &at.link );
        if ( link == 0 ) {
            if ( !spare( 1 ) ) {
                return std::nullopt;
            }
            link = 1 + ( U32( 1 ) << log2_ ) + overflowUsed_++;
            storeRelease( &bucket( line ).link, link ); // SYNC( bucket-link )
            KRELL_CRASH_POINT( "array: overflow linked" );
        } else if ( link >= lines_ || steps > lines_ ) {
            wild( "link", link );
        }
        line = line_ + link;
    }
}

bool BucketArray::spare( U32 lines ) {
    const U32 unused = overflowLines() - overflowUsed_;
    if ( unused >= lines ) {
        return true;
    }
    const U32 wanted = std::max( lines - unused, usualOverflow( *segments_, log2_ ) );
    const U64 most = std::min< U64 >( limit_ - line_, allLines_ );
    const U32 to = U32( std::min< U64 >( most, U64( lines_ ) + wanted ) );
    if ( to < lines_ || to - lines_ < lines - unused ) {
        return false;
    }
    if ( !tryMake( lines_, to ) ) {
        return false;
    }
    lines_ = prepared_ = to;
    if ( inUse_ ) {
        storeRelease( &head().lines, lines_ );
        KRELL_CRASH_POINT( "array: reserve grown" );
    }
    return true;
}

void BucketArray::put( const Place& place, U32 hash, U32 slot ) {
    storeRelease( &bucket( place.line ).slots[ place.place ], slot );
    KRELL_CRASH_POINT( "array: index stored" );
    tagIs( place, Tags::tagOf( hash ) );
}

void BucketArray::clear( const Place& place ) { tagIs( place, 0 ); }

// One store of the whole word, for there is one writer. SYNC( bucket-entry )
void BucketArray::tagIs( const Place& place, U32 tag ) {
    Bucket& at = bucket( place.line );
    if ( place.place < 8 ) {
        const unsigned shift = place.place * 8;
        const U64 rest = loadRelaxed( &at.tagsLow ) & ~( U64( 0xff ) << shift );
        storeRelease( &at.tagsLow, rest | ( U64( tag ) << shift ) );
    } else {
        const unsigned shift = ( place.place - 8 ) * 8;
        const U32 rest = loadRelaxed( &at.tagsHigh ) & ~( U32( 0xff ) << shift );
        storeRelease( &at.tagsHigh, rest | ( tag << shift ) );
    }
}

void BucketArray::publish() {
    const U32 generation = ( segments_->table().generation() + 1 ) & 0xffffffu;
    storeRelaxed( &head().generation, generation );
    storeRelaxed( &head().log2, log2_ );
    storeRelaxed( &head().lines, lines_ );
    KRELL_CRASH_POINT( "array: built" );
    const TableWord table( generation, log2_, line_ );
    storeRelease( &segments_->bucketsHeader().tableWord, table.word() ); // SYNC( table-word )
    KRELL_CRASH_POINT( "array: published" );
    inUse_ = true;
    limitIsNone();
}

void BucketArray::wild( const char* what, U64 number ) const {
    throw CorruptionDetectedException( segments_->place() + ": the bucket array names " + what +
                                       " " + std::to_string( number ) + ", which is out of range" );
}

} // namespace Krell
