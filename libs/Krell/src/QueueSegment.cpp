#include <Krell/QueueSegment>

#include <cerrno>
#include <cstring>
#include <new>

namespace Krell {

namespace {

constexpr unsigned attachRounds = 16; // of a reader that meets one generation after the other

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

unsigned QueueSegment::log2For( U64 slots ) noexcept {
    unsigned log2 = log2Least_;
    while ( log2 < log2Limit_ && ( U64( 1 ) << log2 ) < 2 * slots ) {
        ++log2;
    }
    return log2;
}

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
}

std::unique_ptr< QueueSegment > QueueSegment::create( const Segments& segments,
                                                      const Shape& shape ) {
    std::unique_ptr< QueueSegment > made(
        new QueueSegment( segments, Directory::temporaryName( fileNameOf( shape.generation ) ) ) );
    const U64 size = sizeof( QueueHeader ) + ( U64( 8 ) << shape.log2Places );
    if ( size > std::size_t( PTRDIFF_MAX ) ) {
        throw MemoryLimitException( "the change queue of " + segments.place() +
                                    " does not fit in the address space" );
    }
    if ( !made->mem_.attach( std::size_t( size ), Dov::SharedMem::create ) ) {
        made->fail();
    }
    QueueHeader& header = *new ( made->mem_.address() ) QueueHeader {};
    header.magic = QueueHeader::magic_;
    header.version = QueueHeader::version_;
    header.fenix = segments.fenix();
    header.generation = shape.generation;
    header.log2Places = shape.log2Places;
    header.continues = shape.continues;
    header.sortedEnd = shape.sortedEnd;
    header.checksum = checksumOf( header );
    made->locate( shape );
    return made;
}

void QueueSegment::nameIsFinal() {
    const char* const name = fileNameOf( generation() );
    directory_->rename( name_, name );
    name_ = name;
    mem_.nameIs( name );
}

// A generation that is gone, or whose file is not there yet, is looked for again under its
// successor's number as long as there is one. A file with another stamp is another incarnation's.
std::unique_ptr< QueueSegment > QueueSegment::attach( const Segments& segments ) {
    for ( unsigned round = 0; round < attachRounds; ++round ) {
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
    if ( header.log2Places < log2Least_ || header.log2Places > log2Limit_ ||
         mem_.memSize() < sizeof( QueueHeader ) + ( U64( 8 ) << header.log2Places ) ) {
        return bad( "number of places, 2 to the power", header.log2Places );
    }
    locate( { header.generation, header.log2Places, header.continues, header.sortedEnd } );
    return true;
}

void QueueSegment::locate( const Shape& shape ) noexcept {
    shape_ = shape;
    header_ = static_cast< QueueHeader* >( mem_.address() );
    entries_ = reinterpret_cast< U64* >( header_ + 1 );
    mask_ = ( U64( 1 ) << shape.log2Places ) - 1;
}

void QueueSegment::fail() const { throwSystemFailure( mem_.errorText(), mem_.errorNumber() ); }

} // namespace Krell
