#include <Krell/Control>

#include <Krell/Structure>
#include <QelKrell/MountStatus>

namespace Krell {

namespace {

Platform::DebugHandler& debugHandler() {
    static Platform::DebugHandler* const handler = Platform::getDebugHandler( "Krell" );
    return *handler;
}

template < class... Parts >
void trace( Platform::DebugHandler& handler, int level, const Parts&... parts ) {
    if ( handler.enabled( level ) ) {
        std::stringstream text;
        text.precision( 12 );
        ( text << ... << parts );
        handler.dump( text, level );
    }
}

U32 lowWord( const void* address ) { return U32( reinterpret_cast< std::uintptr_t >( address ) ); }

[[noreturn]] void refuse( const Directory& directory, const WriterLock& lock ) {
    const pid_t holder = lock.holder();
    throw DuplicateWriterException( WriterLock::refusalText( directory, holder, lock.owner() ),
                                    holder > 0 ? U32( holder ) : 0 );
}

} // namespace

Control::Control( const Layout& layout )
    : layout_( layout ), debug_( debugHandler() ), key_( layout.keyWords() ) {}

Control::~Control() { close(); }

Control::Role Control::roleOf( QelKrell::QelKrellType type ) {
    switch ( type ) {
    case QelKrell::writer:
        return Role::writer;
    case QelKrell::reader:
        return Role::reader;
    case QelKrell::shadow:
        throw UnimplementedException( "the role 'shadow' is not available yet" );
    case QelKrell::keyshadow:
        throw UnimplementedException( "the role 'keyshadow' is not available yet" );
    }
    throw InvalidInitializeException( "there is no role " + std::to_string( int( type ) ) );
}

void Control::init( QelKrell::QelKrellType type, bool isLocal, unsigned int size ) {
    const Role role = roleOf( type );
    layout_.check();
    if ( role_ == role && local_ == isLocal ) {
        if ( writer_ && size > writer_->slotCount() ) {
            writer_->reserve( size );
        }
        return;
    }
    close();
    try {
        open( role, isLocal, size );
    } catch ( ... ) {
        close();
        throw;
    }
}

void Control::open( Role role, bool isLocal, U32 size ) {
    path_ = path();
    table_.countersReset();
    replacements_ = 0;
    role_ = role;
    local_ = isLocal;
    if ( isLocal ) {
        openLocal( size );
    } else if ( role == Role::writer ) {
        openForWriting( size );
    } else {
        openForReading();
    }
}

void Control::openLocal( U32 size ) {
    adopt( Incarnation::local( debug_, layout_, size ) );
    if ( role_ == Role::writer ) {
        writer_ = std::make_unique< WriterTable >( *incarnation_.segments() );
    }
}

void Control::openForWriting( U32 size ) {
    directory_ = std::make_shared< const Directory >( Directory::create( path_ ) );
    if ( !lock_.tryLock( *directory_ ) ) {
        refuse( *directory_, lock_ );
    }
    adopt( Incarnation::open( debug_, directory_, layout_, size, lock_.owner() ) );
    writer_ = std::make_unique< WriterTable >( *incarnation_.segments() );
    if ( size > writer_->slotCount() ) {
        writer_->reserve( size );
    }
    lock_.writeOwner();
    trace( debug_, 3, "Control::init() writer of ", path_, " fenix:", incarnation_.fenix(),
           incarnation_.isNew() ? " new: " : " taken over", incarnation_.reason() );
}

void Control::openForReading() {
    timer_.reset( Platform::getTimerControl( this ) );
    const bool attached = tryAttach();
    trace( debug_, 3, "Control::init() reader of ", path_,
           attached ? " attached" : " not attached yet" );
    arm();
    if ( attached ) {
        handleAttached();
    }
}

void Control::adopt( Incarnation incarnation ) {
    incarnation_ = std::move( incarnation );
    table_.segmentsAre( incarnation_.segments() );
    seen_ = 0;
    cursor_ = 0;
    quietRounds_ = 0;
    ++attachments_;
}

void Control::detach() { close(); }

// In a process forked from the writer's, the collection and its lock are still the parent's.
void Control::close() noexcept {
    if ( incarnation_.exists() && lock_.held() ) {
        Segments& segments = *incarnation_.segments();
        segments.flagsAre( segments.flags() & ~Segments::inUse_ );
    }
    writer_.reset();
    table_.segmentsAre( nullptr );
    incarnation_ = Incarnation();
    lock_.unlock();
    directory_.reset();
    if ( timer_ ) {
        timer_->delTimeout();
    }
    role_ = Role::none;
    lastFailure_.clear();
    ++attachments_;
}

void Control::cleanup() {
    close();
    const auto directory = std::make_shared< const Directory >( Directory::open( path() ) );
    if ( !directory->isOpen() ) {
        return;
    }
    WriterLock lock;
    if ( !lock.tryLock( *directory ) ) {
        refuse( *directory, lock );
    }
    Incarnation::remove( debug_, directory, layout_ );
    trace( debug_, 3, "Control::cleanup() ", directory->path() );
}

std::string Control::path() const {
    const std::string root = RootPath::root();
    return ( root == "/" ? "" : root ) + "/" + collectionPath();
}

std::string Control::rootPath() { return path(); }

std::string Control::krellName() { return collectionPath(); }

bool Control::validate() {
    if ( !incarnation_.exists() ) {
        return false;
    }
    Segments& segments = *incarnation_.segments();
    std::string why;
    if ( segments.headersAreValid( incarnation_.fenix(), why ) &&
         structureIsValid( segments, why ) ) {
        return true;
    }
    trace( debug_, 0, "Control::validate() ", why );
    if ( directory_ ) {
        Incarnation::markCorrupt( *directory_ );
    }
    return false;
}

int Control::mountStatus() { return incarnation_.exists() ? QelKrell::attached : QelKrell::none; }

U64 Control::sequence() { return table_.sequence(); }

U32 Control::fenixId() { return incarnation_.exists() ? incarnation_.fenix() : 0; }

std::string Control::owner() {
    if ( role_ != Role::none && local_ ) {
        return Owner::self().description();
    }
    const Directory directory = Directory::open( path() );
    const auto owner = directory.isOpen() ? WriterLock::ownerOf( directory ) : std::nullopt;
    return owner && !owner->empty() ? owner->description() : std::string();
}

bool Control::resize() {
    return writer_ ? writer_->grow() : table_.attached() && !local_ && table_.remap();
}

U32 Control::maxSize() { return Segments::maxSlotsOf( layout_ ); }

U32 Control::capacity() { return table_.slotCount(); }

WriterTable& Control::writer() {
    if ( !writer_ ) {
        throw InvalidInitializeException( krellName() + " is not open for writing" );
    }
    return *writer_;
}

QelKrell::ReaderCounters Control::readerCounters() {
    if ( role_ != Role::reader ) {
        throw UnimplementedException( krellName() +
                                      " is not open for reading: it keeps no reader counters" );
    }
    QelKrell::ReaderCounters counters;
    counters.occupiedSlots = table_.occupied();
    counters.usedLookaside = table_.usedLookaside();
    counters.slotResizes = table_.slotResizes() + replacements_;
    counters.chainRestarts = table_.chainRestarts();
    counters.slotBaseAddress =
        incarnation_.exists() ? lowWord( &incarnation_.segments()->header() ) : 0;
    counters.conquerSequence = table_.sequence();
    return counters;
}

QelKrell::WriterCounters Control::writerCounters() {
    if ( role_ != Role::writer ) {
        throw UnimplementedException( krellName() +
                                      " is not open for writing: it keeps no writer counters" );
    }
    QelKrell::WriterCounters counters;
    counters.slotAllocs = writer_->slotAllocs();
    counters.slotDeallocs = writer_->slotDeallocs();
    counters.slotBaseAddress =
        reinterpret_cast< std::uintptr_t >( &incarnation_.segments()->header() );
    counters.conquerSequence = table_.sequence();
    counters.directWrite = writer_->updates();
    counters.directCommit = writer_->inserts();
    return counters;
}

} // namespace Krell
