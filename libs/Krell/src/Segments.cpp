#include <Krell/Segments>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include <unistd.h>

#include <Krell/BucketArray>
#include <Krell/WriterTable>

namespace Krell {

namespace {

using Dov::Atomics::load32;
using Dov::Atomics::load64;

constexpr U32 textAt = sizeof( BucketsHeader );
constexpr U32 lookasideAt = 4096;
constexpr U64 lineSize = sizeof( Bucket );
constexpr std::size_t populatedFrom = 65536; // bytes
constexpr unsigned growthRounds = 64;        // looks at a file that grows while it is looked at
static_assert( textAt + Layout::textLimit_ <= lookasideAt );

U32 arraysAtOf( const Layout& layout ) {
    const U32 record = U32( sizeof( LookasideHead ) ) + 8 * layout.valueWords();
    return lookasideAt + ( record + 63 ) / 64 * 64;
}

// What a mapping and a file offset can be, on this width.
constexpr U64 addressLimit = sizeof( void* ) == 4 ? 0x7fffffffu : U64( 1 ) << 46;

// The words of a segment from `from`, a multiple of their size, to `to`.
void clear( const KrellMem& mem, std::size_t from, std::size_t to ) {
    char* const start = static_cast< char* >( mem.address() );
    for ( ; from + sizeof( U64 ) <= to; from += sizeof( U64 ) ) {
        U64* const word = reinterpret_cast< U64* >( start + from );
        if ( Dov::Atomics::loadRelaxed( word ) != 0 ) {
            Dov::Atomics::storeRelaxed( word, 0 );
        }
    }
}

void populateFrom( KrellMem& mem, std::size_t before ) {
    if ( mem.memSize() - before >= populatedFrom ) {
        mem.populate( before, mem.memSize() );
    }
}

std::string textField( const char ( &field )[ 64 ] ) {
    return std::string( field, strnlen( field, sizeof field ) );
}

void setField( char ( &field )[ 64 ], const std::string& text ) {
    std::memcpy( field, text.data(), std::min( text.size(), sizeof field - 1 ) );
}

// A copy of words that another process may be changing.
BucketsHeader snapshot( const BucketsHeader& shared ) {
    BucketsHeader copy;
    U64 words[ sizeof copy / 8 ];
    for ( std::size_t i = 0; i < sizeof copy / 8; ++i ) {
        words[ i ] = load64( reinterpret_cast< const char* >( &shared ) + 8 * i );
    }
    std::memcpy( &copy, words, sizeof copy );
    return copy;
}

std::string copyText( const char* shared, U32 size ) {
    std::string text( ( std::size_t( size ) + 3 ) / 4 * 4, '\0' );
    for ( U32 i = 0; i < text.size(); i += 4 ) {
        const U32 word = load32( shared + i );
        std::memcpy( text.data() + i, &word, 4 );
    }
    text.resize( size );
    return text;
}

U32 checksumOf( const BucketsHeader& header, const std::string& text ) {
    const char* from =
        reinterpret_cast< const char* >( &header ) + offsetof( BucketsHeader, textSize );
    return Util::hash( from, offsetof( BucketsHeader, tableWord ) -
                                 offsetof( BucketsHeader, textSize ) ) +
           Util::hash( text.data(), unsigned( text.size() ) );
}

} // namespace

Segments::Segments( Platform::DebugHandler& handler,
                    std::shared_ptr< const Directory > directory,
                    const Layout& layout,
                    const std::string& slotsName,
                    const std::string& bucketsName )
    : handler_( handler ),
      directory_( std::move( directory ) ),
      layout_( layout ),
      slotSize_( layout.slotSize() ),
      faults_( std::make_shared< Dov::FaultGroup >( &alarmCount ) ) {
    layout.check();
    const RootPath path( handler, directory_ ? directory_->path() : "/", false );
    slotsMem_ = std::make_unique< KrellMem >( handler, path, slotsName.c_str(), local() );
    bucketsMem_ = std::make_unique< KrellMem >( handler, path, bucketsName.c_str(), local() );
    for ( KrellMem* mem : { slotsMem_.get(), bucketsMem_.get() } ) {
        mem->directoryFdIs( directory_ ? directory_->fd() : -1 );
        mem->faultGroupIs( faults_ );
    }
}

std::string Segments::place() const { return directory_ ? directory_->path() : "local memory"; }

U32 Segments::maxSlotsOf( const Layout& layout ) noexcept {
    return U32( std::min< U64 >( maxSlots_, ( addressLimit - slotsAt_ ) / layout.slotSize() ) );
}

void Segments::create( U32 fenix, U32 slots, unsigned log2Buckets ) {
    if ( slots > maxSlotsOf( layout_ ) ) {
        throw MemoryLimitException( std::to_string( slots ) + " slots are wanted in " + place() +
                                    "; the most is " + std::to_string( maxSlotsOf( layout_ ) ) );
    }
    const U32 primaries = U32( 1 ) << log2Buckets;
    const U64 lines = 1 + U64( primaries ) + BucketArray::ampleOverflow( log2Buckets );
    const U64 bucketsSize = arraysAtOf( layout_ ) + lines * lineSize;
    const U64 slotsSize = slotsAt_ + U64( slots ) * slotSize_;
    if ( bucketsSize > addressLimit ) {
        throw MemoryLimitException( "the buckets of " + std::to_string( slots ) + " slots in " +
                                    place() + " do not fit in the address space" );
    }
    if ( !slotsMem_->attach( std::size_t( slotsSize ), Dov::SharedMem::create ) ) {
        fail( *slotsMem_ );
    }
    if ( !bucketsMem_->attach( std::size_t( bucketsSize ), Dov::SharedMem::create ) ) {
        fail( *bucketsMem_ );
    }
    populateFrom( *slotsMem_, 0 );
    populateFrom( *bucketsMem_, 0 );
    locate();
    makeHeaders( fenix, slots );
    ArrayHead& head = *reinterpret_cast< ArrayHead* >( lines_ );
    head.generation = 1;
    head.log2 = log2Buckets;
    head.lines = U32( lines );
    bucketsHeader_->tableWord = TableWord( 1, log2Buckets, 0 ).word();
}

void Segments::namesAre( const std::string& slotsName, const std::string& bucketsName ) {
    slotsMem_->nameIs( slotsName );
    bucketsMem_->nameIs( bucketsName );
}

void Segments::makeHeaders( U32 fenix, U32 slots ) {
    header_ = new ( slotsMem_->address() ) SlotHeader();
    header_->fenix = fenix;
    setField( header_->valueType, layout_.valueType );
    setField( header_->entityType, layout_.entityType );
    header_->keySize = layout_.keySize;
    header_->valueSize = layout_.valueSize;
    header_->layoutHash = layout_.hash;
    header_->checksum = header_->doHash();
    header_->freeSlots = slots ? 0 : noIndex_;
    header_->numSlots = VerU32 { 1, slots };

    const std::string text = layout_.storedText();
    BucketsHeader& buckets = *bucketsHeader_;
    buckets.magic = BucketsHeader::magic_;
    buckets.version = BucketsHeader::version_;
    buckets.fenix = fenix;
    buckets.textSize = U32( text.size() );
    buckets.keySize = layout_.keySize;
    buckets.valueSize = layout_.valueSize;
    buckets.layoutHash = layout_.hash;
    buckets.lookasideAt = lookasideAt;
    buckets.arraysAt = arraysAtOf( layout_ );
    std::memcpy( static_cast< char* >( bucketsMem_->address() ) + textAt, text.data(),
                 text.size() );
    buckets.checksum = checksumOf( buckets, text );
    lookaside_->slot = LookasideHead::noSlot_;
}

bool Segments::attach( Dov::SharedMem::Mode mode, std::string& why ) {
    return attachSlots( mode, why ) && attachOne( *bucketsMem_, mode, why );
}

bool Segments::attachSlots( Dov::SharedMem::Mode mode, std::string& why ) {
    return attachOne( *slotsMem_, mode, why );
}

bool Segments::attachOne( KrellMem& mem, Dov::SharedMem::Mode mode, std::string& why ) {
    if ( !mem.attach( 0, mode ) ) {
        if ( mem.errorNumber() != ENOENT && mem.errorNumber() != ENODATA ) {
            fail( mem );
        }
        why = mem.errorText();
        return false;
    }
    locate();
    return true;
}

bool Segments::hasSlotHeader() const noexcept {
    static constexpr char magic[ 8 ] = { 'K', 'R', 'E', 'L', 'L', 'S', 'L', 'T' };
    return header_ && std::memcmp( header_->magic, magic, sizeof magic ) == 0;
}

void Segments::detach() {
    slotsMem_->detach();
    bucketsMem_->detach();
    locate();
}

void Segments::locate() noexcept {
    const std::size_t slotsSize = slotsMem_->address() ? slotsMem_->memSize() : 0;
    const std::size_t bucketsSize = bucketsMem_->address() ? bucketsMem_->memSize() : 0;
    char* const slotsStart = static_cast< char* >( slotsMem_->address() );
    char* const bucketsStart = static_cast< char* >( bucketsMem_->address() );
    const U32 arraysAt = arraysAtOf( layout_ );

    header_ = slotsSize >= slotsAt_ ? reinterpret_cast< SlotHeader* >( slotsStart ) : nullptr;
    slots_ = header_ ? slotsStart + slotsAt_ : nullptr;
    slotsMapped_ =
        header_ ? U32( std::min< U64 >( maxSlots_, ( slotsSize - slotsAt_ ) / slotSize_ ) ) : 0;

    const bool whole = bucketsSize >= arraysAt;
    bucketsHeader_ = whole ? reinterpret_cast< BucketsHeader* >( bucketsStart ) : nullptr;
    lookaside_ = whole ? reinterpret_cast< LookasideHead* >( bucketsStart + lookasideAt ) : nullptr;
    lines_ = whole ? reinterpret_cast< Bucket* >( bucketsStart + arraysAt ) : nullptr;
    linesMapped_ = whole ? ( bucketsSize - arraysAt ) / lineSize : 0;
}

Layout Segments::storedLayout() const {
    const SlotHeader slots( *header_ );
    Layout stored;
    stored.entityType = textField( slots.entityType );
    stored.valueType = textField( slots.valueType );
    stored.keySize = slots.keySize;
    stored.valueSize = slots.valueSize;
    stored.hash = slots.layoutHash;
    // The text's place is the same in every layout, but this one's record may not fit in the file.
    const char* start = static_cast< const char* >( bucketsMem_->address() );
    if ( start && bucketsMem_->memSize() >= lookasideAt ) {
        const BucketsHeader buckets =
            snapshot( *reinterpret_cast< const BucketsHeader* >( start ) );
        stored.text =
            copyText( start + textAt, std::min( buckets.textSize, U32( Layout::textLimit_ ) ) );
    }
    return stored;
}

bool Segments::layoutIsSame() const {
    const SlotHeader slots( *header_ );
    return textField( slots.entityType ) == layout_.entityType &&
           textField( slots.valueType ) == layout_.valueType && slots.keySize == layout_.keySize &&
           slots.valueSize == layout_.valueSize && slots.layoutHash == layout_.hash;
}

bool Segments::stampsAreSame() const noexcept {
    const char* const start = static_cast< const char* >( bucketsMem_->address() );
    return !header_ || !start || bucketsMem_->memSize() < sizeof( BucketsHeader ) ||
           load32( start + offsetof( BucketsHeader, fenix ) ) == fenix();
}

bool Segments::headersAreValid( U32 fenix, std::string& why ) {
    if ( !header_ ) {
        why = slotsMem_->path() + ": " + std::to_string( slotsMem_->memSize() ) +
              " bytes are too few for a header";
        return false;
    }
    // A file that was mapped just before it grew is mapped anew.
    for ( unsigned round = 0; round < growthRounds && slotCount() > slotsMapped_; ++round ) {
        const std::size_t before = slotsMem_->memSize();
        if ( !remap() || slotsMem_->memSize() == before ) {
            break;
        }
    }
    const SlotHeader slots( *header_ );
    std::string error;
    if ( !slots.validate( handler_, slotsMem_->memSize(), fenix, error ) ) {
        why = slotsMem_->path() + ": " + error;
        return false;
    }
    return bucketsHeaderIsValid( fenix ? fenix : slots.fenix, why );
}

bool Segments::bucketsHeaderIsValid( U32 fenix, std::string& why ) const {
    const auto bad = [ & ]( const char* what, U64 found ) {
        why = bucketsMem_->path() + ": bad " + what + ": " + std::to_string( found );
        return false;
    };
    const char* const start = static_cast< const char* >( bucketsMem_->address() );
    if ( bucketsMem_->memSize() < lookasideAt ) {
        return bad( "size", bucketsMem_->memSize() );
    }
    const BucketsHeader header = snapshot( *reinterpret_cast< const BucketsHeader* >( start ) );
    if ( header.magic != BucketsHeader::magic_ ) {
        return bad( "magic", header.magic );
    }
    if ( header.version != BucketsHeader::version_ ) {
        return bad( "version", header.version );
    }
    if ( header.fenix != fenix ) {
        return bad( "fenix", header.fenix );
    }
    if ( header.textSize > Layout::textLimit_ ) {
        return bad( "text size", header.textSize );
    }
    if ( header.checksum != checksumOf( header, copyText( start + textAt, header.textSize ) ) ) {
        return bad( "checksum", header.checksum );
    }
    return true;
}

bool Segments::extentsAreValid( std::string& why ) {
    if ( !bucketsHeader_ ) {
        why = bucketsMem_->path() + ": bad size: " + std::to_string( bucketsMem_->memSize() );
        return false;
    }
    if ( bucketsHeader_->lookasideAt != lookasideAt ||
         bucketsHeader_->arraysAt != arraysAtOf( layout_ ) ) {
        why = bucketsMem_->path() + ": bad offsets";
        return false;
    }
    for ( unsigned round = 0;; ++round ) {
        const U32 count = slotCount();
        const TableWord inUse = table();
        const bool slotsFit = count <= slotsMapped_;
        const bool linesFit = inUse.log2() <= TableWord::log2Limit_ &&
                              inUse.line() + 1 + inUse.primaries() <= linesMapped_;
        if ( slotsFit && linesFit ) {
            return true;
        }
        // The files may have grown after they were mapped.
        const U32 slotsBefore = slotsMapped_;
        const U64 linesBefore = linesMapped_;
        const bool grown = remap() && ( slotsMapped_ > slotsBefore || linesMapped_ > linesBefore );
        if ( !grown || round == growthRounds ) {
            why = slotsFit
                      ? bucketsMem_->path() + ": bad table word: " + std::to_string( inUse.word() )
                      : slotsMem_->path() + ": bad number of slots: " + std::to_string( count );
            return false;
        }
    }
}

void Segments::growSlots( U32 inUse, U32 slots ) {
    if ( slots > maxSlotsOf( layout_ ) ) {
        throw MemoryLimitException( std::to_string( slots ) + " slots are wanted in " + place() +
                                    "; the most is " + std::to_string( maxSlotsOf( layout_ ) ) );
    }
    grow( *slotsMem_, slotsAt_ + U64( inUse ) * slotSize_, slotsAt_ + U64( slots ) * slotSize_ );
}

void Segments::growBuckets( U64 lines ) {
    const U64 at = arraysAtOf( layout_ );
    const U64 size = at + lines * lineSize;
    if ( lines >= TableWord::lineLimit_ || size > addressLimit ) {
        throw MemoryLimitException( "the buckets of " + place() +
                                    " do not fit in the address space" );
    }
    grow( *bucketsMem_, at + linesMapped_ * lineSize, size );
}

// What is large is about to be filled: its pages come at once, not one by one. The former file, and
// the rest of its last page, may hold what no writer left there.
void Segments::grow( KrellMem& mem, U64 inUse, U64 size ) {
    const std::size_t before = mem.memSize();
    if ( !mem.resize( std::size_t( size ) ) ) {
        fail( mem );
    }
    populateFrom( mem, before );
    const std::size_t page = std::size_t( ::sysconf( _SC_PAGESIZE ) );
    clear( mem, std::size_t( inUse ),
           std::min( mem.memSize(), ( before + page - 1 ) / page * page ) );
    locate();
}

void Segments::allocateLines( U64 from, U64 to ) {
    const U64 at = arraysAtOf( layout_ );
    if ( !bucketsMem_->allocate( std::size_t( at + from * lineSize ),
                                 std::size_t( at + to * lineSize ) ) ) {
        fail( *bucketsMem_ );
    }
}

bool Segments::giveBackLines( U64 from, U64 to ) {
    const U64 at = arraysAtOf( layout_ );
    return bucketsMem_->giveBack( std::size_t( at + from * lineSize ),
                                  std::size_t( at + to * lineSize ) );
}

bool Segments::remap() {
    if ( local() ) {
        return true;
    }
    bool same = true;
    for ( KrellMem* mem : { slotsMem_.get(), bucketsMem_.get() } ) {
        if ( same && !mem->remap() ) {
            const int error = mem->errorNumber();
            if ( error != ESTALE && error != ENOENT ) {
                locate();
                fail( *mem );
            }
            same = false;
        }
    }
    locate();
    return same;
}

void Segments::checkSizes() {
    for ( KrellMem* mem : { slotsMem_.get(), bucketsMem_.get() } ) {
        if ( !local() && !mem->isWhole() && mem->errorNumber() == ENODATA ) {
            fail( *mem );
        }
    }
}

U32 Segments::fenix() const noexcept { return load32( &header_->fenix ); }

U32 Segments::flags() const noexcept { return load32( &header_->flags ); }

void Segments::flagsAre( U32 flags ) { Dov::Atomics::storeRelease( &header_->flags, flags ); }

void Segments::slotCountIs( U32 count ) {
    const VerU32 present = VerU32::load( header_->numSlots );
    const VerU32 next { present.version + 1, count };
    Dov::Atomics::storeRelease( reinterpret_cast< U64* >( &header_->numSlots ),
                                next.word() ); // SYNC( slot-count )
}

void Segments::fail( const Dov::SharedMem& mem ) const {
    if ( mem.errorNumber() == ENODATA ) {
        throw CorruptionDetectedException( mem.errorText() );
    }
    throwSystemFailure( mem.errorText(), mem.errorNumber() );
}

void Segments::refuseDamaged() const {
    throw CorruptionDetectedException( place() + ": a file was shortened while it was mapped" );
}

} // namespace Krell
