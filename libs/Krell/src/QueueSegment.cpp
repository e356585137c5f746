#include <Krell/QueueSegment>

#include <cerrno>
#include <cstring>
#include <new>

namespace Krell {

namespace {

constexpr unsigned attachRounds = 16; // of a reader that meets one generation after the other
constexpr U64 page = QueueSegment::pagePlaces_ * sizeof( U32 );
constexpr U64 populatedFrom = 65536; // bytes

// The bytes of a file with that many places: whole pages, for it takes them up anyway.
U64 sizeOf( U64 places ) {
    return ( sizeof( QueueHeader ) + sizeof( U32 ) * places + page - 1 ) / page * page;
}

U64 placesOf( U64 size ) { return ( size - sizeof( QueueHeader ) ) / sizeof( U32 ); }

U32 checksumOf( const QueueHeader& header ) {
    constexpr std::size_t from = offsetof( QueueHeader, generation );
    return Util::hash( reinterpret_cast< const char* >( &header ) + from,
                       unsigned( offsetof( QueueHeader, mark ) - from ) );
}

// A copy of the words that do not change within a generation.
QueueHeader snapshot( const QueueHeader& shared ) {
    QueueHeader copy {};
    U64 words[ offsetof( QueueHeader, mark ) / 8 ];
    for ( std::size_t i = 0; i < std::size( words ); ++i ) {
        words[ i ] = Dov::Atomics::load64( reinterpret_cast< const char* >( &shared ) + 8 * i );
    }
    std::memcpy( static_cast< void* >( &copy ), words, sizeof words );
    return copy;
}

} // namespace

const char* QueueSegment::fileNameOf( U32 generation ) noexcept {
    return generation % 2 ? "conquer.1" : "conquer.2";
}

QueueSegment::QueueSegment( const Segments& segments, const std::string& name )
    : directory_( segments.directory() ),
      name_( name ),
      mem_( segments.handler(),
            RootPath( segments.handler(), directory_->path(), false ),
            name.c_str(),
            false ) {
    mem_.directoryFdIs( directory_->fd() );
    mem_.faultGroupIs( segments.faultGroup() );
}

std::unique_ptr< QueueSegment > QueueSegment::create( const Segments& segments,
                                                      const Shape& shape ) {
    std::unique_ptr< QueueSegment > made(
        new QueueSegment( segments, Directory::temporaryName( fileNameOf( shape.generation ) ) ) );
    const U64 size = sizeOf( shape.places );
    made->checkSize( size );
    if ( !made->mem_.attach( std::size_t( size ), Dov::SharedMem::create ) ) {
        made->fail();
    }
    QueueHeader& header = *new ( made->mem_.address() ) QueueHeader {};
    header.magic = QueueHeader::magic_;
    header.version = QueueHeader::version_;
    header.fenix = segments.fenix();
    header.generation = shape.generation;
    header.places = placesOf( size );
    header.sortedEnd = shape.sortedEnd;
    header.firstPosition = shape.firstPosition;
    header.checksum = checksumOf( header );
    made->shape_ = shape;
    made->shape_.places = header.places;
    made->locate();
    made->populateFrom( 0 );
    return made;
}

void QueueSegment::nameIsFinal() {
    const char* const name = fileNameOf( generation() );
    directory_->rename( name_, name );
    name_ = name;
    mem_.nameIs( name );
}

void QueueSegment::growTo( U64 places ) {
    const std::size_t before = mem_.memSize();
    const U64 size = sizeOf( places );
    checkSize( size );
    if ( !mem_.resize( std::size_t( size ) ) ) {
        fail();
    }
    populateFrom( before );
    locate();
}

bool QueueSegment::remap() {
    if ( mem_.remap() ) {
        locate();
        return true;
    }
    if ( mem_.errorNumber() != ESTALE && mem_.errorNumber() != ENOENT ) {
        fail();
    }
    gone_ = true;
    return false;
}

// A generation that is gone, or whose file is not there yet, is looked for again under its
// successor's number as long as there is one. A file with another stamp is another incarnation's.
std::unique_ptr< QueueSegment > QueueSegment::attach( const Segments& segments ) {
    for ( unsigned round = 0; round < attachRounds; ++round ) {
        segments.checkSound();
        const U32 generation = segments.queueGeneration();
        if ( generation == 0 || segments.local() ) {
            return nullptr;
        }
        std::unique_ptr< QueueSegment > found(
            new QueueSegment( segments, fileNameOf( generation ) ) );
        const bool mapped = found->mem_.attach( 0, Dov::SharedMem::readOnly ) != nullptr;
        std::string why;
        const bool sound = mapped && found->isSound( why );
        if ( segments.queueGeneration() != generation ) {
            continue;
        }
        if ( !mapped && found->mem_.errorNumber() != ENOENT ) {
            found->fail();
        }
        if ( mapped && !sound ) {
            throw CorruptionDetectedException( found->mem_.path() + ": " + why );
        }
        const bool ours = mapped && found->header_->fenix == segments.fenix() &&
                          found->generation() == generation;
        return ours ? std::move( found ) : nullptr;
    }
    return nullptr;
}

bool QueueSegment::isSound( std::string& why ) {
    const auto bad = [ & ]( const char* what, U64 found ) {
        why = std::string( "bad " ) + what + ": " + std::to_string( found );
        return false;
    };
    if ( mem_.memSize() < sizeof( QueueHeader ) ) {
        return bad( "size", mem_.memSize() );
    }
    const QueueHeader header = snapshot( *static_cast< const QueueHeader* >( mem_.address() ) );
    if ( header.magic != QueueHeader::magic_ ) {
        return bad( "magic", header.magic );
    }
    if ( header.version != QueueHeader::version_ ) {
        return bad( "version", header.version );
    }
    if ( header.checksum != checksumOf( header ) ) {
        return bad( "checksum", header.checksum );
    }
    if ( header.places < leastPlaces_ || header.places > placesOf( mem_.memSize() ) ) {
        return bad( "number of places", header.places );
    }
    shape_ = { header.generation, header.places, header.sortedEnd, header.firstPosition };
    locate();
    return true;
}

void QueueSegment::locate() noexcept {
    header_ = static_cast< QueueHeader* >( mem_.address() );
    entries_ = reinterpret_cast< U32* >( header_ + 1 );
    places_ = placesOf( mem_.memSize() );
}

// Its pages come at once, not one by one, when there are many.
void QueueSegment::populateFrom( std::size_t before ) {
    if ( mem_.memSize() - before >= populatedFrom ) {
        mem_.populate( before, mem_.memSize() );
    }
}

void QueueSegment::checkSize( U64 size ) const {
    if ( size > std::size_t( PTRDIFF_MAX ) ) {
        throw MemoryLimitException( mem_.path() + ": a change queue of " + std::to_string( size ) +
                                    " bytes does not fit in the address space" );
    }
}

void QueueSegment::fail() const {
    if ( mem_.errorNumber() == ENODATA && mem_.attached() ) {
        throw CorruptionDetectedException( mem_.errorText() );
    }
    throwSystemFailure( mem_.errorText(), mem_.errorNumber() );
}

} // namespace Krell
