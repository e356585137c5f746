#include <Krell/Incarnation>

#include <cstring>

#include <sys/random.h>

#include <Krell/BucketArray>
#include <Krell/CrashPoint>
#include <Krell/Recovery>

namespace Krell {

namespace {

constexpr unsigned attachRounds = 16; // of a reader that meets one incarnation after the other

U32 randomStamp( U32 other ) {
    U32 stamp = 0;
    while ( stamp == 0 || stamp == other ) {
        if ( ::getrandom( &stamp, sizeof stamp, 0 ) != sizeof stamp ) {
            throwSystemFailure( "getrandom", "for a stamp", errno );
        }
    }
    return stamp;
}

std::string littleEndian( U32 word ) {
    std::string bytes;
    for ( unsigned shift = 0; shift < 32; shift += 8 ) {
        bytes += char( word >> shift );
    }
    return bytes;
}

void removeTemporaries( const Directory& directory ) {
    for ( const std::string& name : directory.names() ) {
        for ( const char* file : RootPath::collectionFiles_ ) {
            if ( Directory::isTemporary( name, file ) ) {
                directory.remove( name );
            }
        }
    }
}

// The segments that stand in the directory, to be marked as superseded once others have taken their
// place. Nothing when they cannot be mapped.
std::unique_ptr< Segments > presentSegments( Platform::DebugHandler& handler,
                                             const Incarnation::DirectoryPtr& directory,
                                             const Layout& layout ) {
    auto segments = std::make_unique< Segments >( handler, directory, layout );
    std::string why;
    try {
        if ( segments->attachSlots( Dov::SharedMem::readWrite, why ) &&
             segments->hasSlotHeader() ) {
            return segments;
        }
    } catch ( const Exception& ) { // not a file that readers could have attached to
    }
    return nullptr;
}

void supersede( Segments* segments ) {
    if ( segments ) {
        segments->flagsAre( segments->flags() | Segments::superseded_ );
    }
}

} // namespace

U32 Incarnation::presentFenix( const Directory& directory ) {
    const auto bytes = directory.readSmall( fenixFile_, 5 );
    if ( !bytes || bytes->size() != 4 ) {
        return 0;
    }
    U32 stamp = 0;
    for ( unsigned i = 0; i < 4; ++i ) {
        stamp |= U32( static_cast< unsigned char >( ( *bytes )[ i ] ) ) << ( 8 * i );
    }
    return stamp;
}

void Incarnation::markCorrupt( const Directory& directory ) noexcept {
    try {
        directory.createIfAbsent( markerFile_ );
    } catch ( ... ) { // a reader need not be allowed to
    }
}

Incarnation Incarnation::attach( Platform::DebugHandler& handler,
                                 const DirectoryPtr& directory,
                                 const Layout& layout ) {
    Incarnation incarnation;
    for ( unsigned round = 0; round < attachRounds; ++round ) {
        incarnation.fenix_ = presentFenix( *directory );
        if ( incarnation.fenix_ == 0 ) {
            incarnation.reason_ = directory->path() + ": no collection is there";
            break;
        }
        std::exception_ptr failure;
        bool attached = false;
        try {
            attached = incarnation.tryAttach( handler, directory, layout );
        } catch ( ... ) {
            failure = std::current_exception();
        }
        // Judged only when the stamp is the same before and after.
        if ( presentFenix( *directory ) == incarnation.fenix_ ) {
            if ( failure ) {
                std::rethrow_exception( failure );
            }
            if ( attached ) {
                return incarnation;
            }
            break;
        }
    }
    incarnation.segments_.reset();
    return incarnation;
}

bool Incarnation::tryAttach( Platform::DebugHandler& handler,
                             const DirectoryPtr& directory,
                             const Layout& layout ) {
    segments_ = std::make_unique< Segments >( handler, directory, layout );
    if ( !segments_->attach( Dov::SharedMem::readOnly, reason_ ) ) {
        return false;
    }
    const bool complete = segments_->stampsAreSame();
    if ( complete && !segments_->headersAreValid( 0, reason_ ) ) {
        throw CorruptionDetectedException( reason_ );
    }
    if ( !complete || segments_->fenix() != fenix_ ) {
        reason_ = directory->path() + ": a new incarnation is not complete";
        return false;
    }
    if ( superseded() ) {
        reason_ = directory->path() + ": the collection is being taken away";
        return false;
    }
    if ( !segments_->layoutIsSame() ) {
        const Layout stored = segments_->storedLayout();
        const std::string differences = layout.differences( stored );
        throw InvalidInitializeException( directory->path() + ": the collection holds " +
                                          stored.describe() + ", but this process wants " +
                                          layout.describe() +
                                          ( differences.empty() ? "" : "; " + differences ) );
    }
    if ( !segments_->extentsAreValid( reason_ ) ) {
        throw CorruptionDetectedException( reason_ );
    }
    return true;
}

Incarnation Incarnation::open( Platform::DebugHandler& handler,
                               const DirectoryPtr& directory,
                               const Layout& layout,
                               U32 slots,
                               const Owner& previous ) {
    removeTemporaries( *directory );
    Incarnation incarnation;
    if ( !incarnation.takeOver( handler, directory, layout, previous ) ) {
        incarnation.make( handler, directory, layout, slots );
    }
    incarnation.segments_->flagsAre( incarnation.segments_->flags() | Segments::inUse_ );
    return incarnation;
}

bool Incarnation::takeOver( Platform::DebugHandler& handler,
                            const DirectoryPtr& directory,
                            const Layout& layout,
                            const Owner& previous ) {
    const auto useless = [ & ]( const std::string& why ) {
        reason_ = directory->path() + ": " + why;
        return false;
    };
    fenix_ = presentFenix( *directory );
    if ( fenix_ == 0 ) {
        return useless( "there is no stamp" );
    }
    if ( directory->exists( markerFile_ ) ) {
        return useless( "the contents are marked as corrupt" );
    }
    auto segments = std::make_unique< Segments >( handler, directory, layout );
    if ( !segments->attach( Dov::SharedMem::readWrite, reason_ ) ||
         !segments->headersAreValid( fenix_, reason_ ) ) {
        return false;
    }
    if ( !segments->layoutIsSame() ) {
        return useless( "the layout was " + segments->storedLayout().describe() );
    }
    if ( segments->flags() & Segments::superseded_ ) {
        return useless( "the collection was being taken away" );
    }
    const std::string boot = Util::bootId();
    const bool restarted = !boot.empty() && !previous.bootId.empty() && boot != previous.bootId;
    if ( ( segments->flags() & Segments::inUse_ ) && restarted ) {
        return useless( "the machine was started anew, and the writer had not detached" );
    }
    try {
        if ( !segments->extentsAreValid( reason_ ) ) {
            return false;
        }
        Recovery( *segments ).run();
        segments->checkSound();
    } catch ( const CorruptionDetectedException& e ) {
        return useless( e.msg() );
    }
    segments_ = std::move( segments );
    return true;
}

// Killed before the last renaming, it leaves segments without their stamp, which nobody attaches to
// and the next writer replaces.
void Incarnation::make( Platform::DebugHandler& handler,
                        const DirectoryPtr& directory,
                        const Layout& layout,
                        U32 slots ) {
    const auto old = presentSegments( handler, directory, layout );
    fenix_ = randomStamp( fenix_ );
    isNew_ = true;
    slots = slots ? slots : defaultSlots_;
    const std::string slotsName = Directory::temporaryName( "slots" );
    const std::string bucketsName = Directory::temporaryName( "buckets" );
    segments_ = std::make_unique< Segments >( handler, directory, layout, slotsName, bucketsName );
    try {
        KRELL_CRASH_POINT( "create: begun" );
        segments_->create( fenix_, slots, BucketArray::log2For( slots ) );
        KRELL_CRASH_POINT( "create: segments made" );
        const std::string fenixName =
            directory->writeTemporary( fenixFile_, littleEndian( fenix_ ) );
        KRELL_CRASH_POINT( "create: stamp written" );
        directory->rename( slotsName, "slots" );
        KRELL_CRASH_POINT( "create: slots renamed" );
        directory->rename( bucketsName, "buckets" );
        KRELL_CRASH_POINT( "create: buckets renamed" );
        segments_->namesAre( "slots", "buckets" );
        directory->rename( fenixName, fenixFile_ );
    } catch ( ... ) {
        segments_.reset();
        try {
            removeTemporaries( *directory );
        } catch ( const Exception& ) { // the next writer does it
        }
        throw;
    }
    KRELL_CRASH_POINT( "create: stamp renamed" );
    directory->remove( markerFile_ );
    KRELL_CRASH_POINT( "create: marker removed" );
    supersede( old.get() );
}

Incarnation Incarnation::local( Platform::DebugHandler& handler, const Layout& layout, U32 slots ) {
    Incarnation incarnation;
    slots = slots ? slots : defaultSlots_;
    incarnation.segments_ = std::make_unique< Segments >( handler, nullptr, layout );
    incarnation.fenix_ = randomStamp( 0 );
    incarnation.isNew_ = true;
    incarnation.segments_->create( incarnation.fenix_, slots, BucketArray::log2For( slots ) );
    return incarnation;
}

void Incarnation::remove( Platform::DebugHandler& handler,
                          const DirectoryPtr& directory,
                          const Layout& layout ) {
    const auto old = presentSegments( handler, directory, layout );
    directory->remove( fenixFile_ );
    KRELL_CRASH_POINT( "remove: stamp removed" );
    supersede( old.get() );
    KRELL_CRASH_POINT( "remove: superseded" );
    for ( const char* file : RootPath::collectionFiles_ ) {
        directory->remove( file );
        KRELL_CRASH_POINT( "remove: file removed" );
    }
    removeTemporaries( *directory );
}

} // namespace Krell
