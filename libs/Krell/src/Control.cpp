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

Control::Control( const Layout& layout ) : layout_( layout ), debug_( debugHandler() ) {}

Control::~Control() { close(); }

Control::Role Control::roleOf( QelKrell::QelKrellType type ) {
    switch ( type ) {
    case QelKrell::writer:
        return Role::writer;
    case QelKrell::reader:
        return Role::reader;
    case QelKrell::shadow:
        return Role::shadow;
    case QelKrell::keyshadow:
        return Role::keyshadow;
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
    if ( follows() ) {
        makeFollower();
    }
    if ( isLocal ) {
        openLocal( size );
    } else if ( role == Role::writer ) {
        openForWriting( size );
    } else {
        openForFollowing();
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
    incarnation_.segments()->checkSound();
    lock_.writeOwner();
    doorbell_ = std::make_unique< Doorbell >( debug_ );
    doorbell_->open( directory_ );
    writer_->doorbellIs( doorbell_.get() );
    trace( debug_, 3, "Control::init() writer of ", path_, " fenix:", incarnation_.fenix(),
           incarnation_.isNew() ? " new: " : " taken over", incarnation_.reason() );
}

void Control::openForFollowing() {
    const bool attached = tryAttach();
    trace( debug_, 3, "Control::init() ",
           ( role_ == Role::shadow      ? "shadow"
             : role_ == Role::keyshadow ? "keyshadow"
                                        : "reader" ),
           " of ", path_, attached ? " attached" : " not attached yet" );
    timer_->setTimeout( pollTime_ );
    if ( attached ) {
        handleAttached();
    }
}

void Control::makeFollower() {
    using Depth = Follower::Depth;
    const Depth depth = role_ == Role::shadow      ? Depth::values
                        : role_ == Role::keyshadow ? Depth::keys
                                                   : Depth::slots;
    follower_.reset( new Follower( layout_, depth, table_, *this ) );
    caller_.reset( new DoorbellCaller( debug_, *this ) );
    watch_.reset( new DirectoryWatch( debug_, *this ) );
    timer_.reset( Platform::getTimerControl( this ) );
}

void Control::adopt( Incarnation incarnation ) {
    incarnation_ = std::move( incarnation );
    table_.segmentsAre( incarnation_.segments() );
    if ( follower_ ) {
        follower_->segmentsAre( incarnation_.segments() );
    }
    quietRounds_ = 0;
    ++attachments_;
}

void Control::detach() { close(); }

// In a process forked from the writer's, the collection and its lock are still the parent's. Nobody
// may find the doorbell of a writer that is gone; those who hear its connections end find the lock
// free.
void Control::close() noexcept {
    letGo();
    lock_.unlock();
    doorbell_.reset();
    directory_.reset();
    role_ = Role::none;
    nobodyListens_ = true;
    lastFailure_.clear();
    ++attachments_;
}

// Everything but the lock, and what stands for it.
void Control::letGo() noexcept {
    if ( incarnation_.exists() && lock_.held() ) {
        Segments& segments = *incarnation_.segments();
        segments.flagsAre( segments.flags() & ~Segments::inUse_ );
    }
    writer_.reset();
    if ( timer_ ) {
        caller_->hangUp();
        watch_->stop();
        timer_->delTimeout();
    }
    follower_.reset();
    table_.segmentsAre( nullptr );
    incarnation_ = Incarnation();
    if ( doorbell_ ) {
        doorbell_->hide();
    }
}

void Control::cleanup() {
    if ( lock_.held() ) { // nobody gets in between
        try {
            letGo();
            Incarnation::remove( debug_, directory_, layout_ );
        } catch ( ... ) {
            close();
            throw;
        }
        close();
        return;
    }
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
    try {
        segments.checkSizes();
        if ( segments.headersAreValid( incarnation_.fenix(), why ) &&
             structureIsValid( segments, why ) ) {
            segments.checkSound();
            return true;
        }
    } catch ( const CorruptionDetectedException& e ) {
        why = e.msg();
    }
    trace( debug_, 0, "Control::validate() ", why );
    if ( directory_ ) {
        Incarnation::markCorrupt( *directory_ );
    }
    return false;
}

int Control::mountStatus() {
    if ( !incarnation_.exists() ) {
        return QelKrell::none;
    }
    return connected() ? QelKrell::connected : QelKrell::attached;
}

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

void Control::refuseWriting() {
    throw InvalidInitializeException( krellName() + " is not open for writing" );
}

QelKrell::ReaderCounters Control::readerCounters() {
    if ( !follows() ) {
        throw UnimplementedException( krellName() +
                                      " is not open for reading: it keeps no reader counters" );
    }
    const Follower::Counts counts = follower_->counts();
    const ShadowTable* const copy = follower_->shadow();
    QelKrell::ReaderCounters counters;
    const bool sound = incarnation_.exists() && !incarnation_.segments()->damaged();
    counters.occupiedSlots = sound ? table_.occupied() : 0;
    counters.usedLookaside = table_.usedLookaside();
    counters.slotShadowResizes = copy ? copy->resizes() : 0;
    counters.slotResizes = table_.slotResizes() + replacements_;
    counters.chainRestarts = table_.chainRestarts();
    counters.slotBaseAddress =
        incarnation_.exists() ? lowWord( &incarnation_.segments()->header() ) : 0;
    counters.conquerRestarts = counts.queue.restarts;
    counters.conquerProbes = counts.queue.probes;
    counters.conquerEmpty = counts.empty;
    counters.conquerEnd = counts.ends;
    counters.conquerKicks = caller_->kicks();
    counters.conquerTombed = counts.queue.tombed;
    counters.conquerNotified = counts.notified;
    counters.conquerYields = counts.yields;
    counters.conquerConnections = caller_->connectionsMade();
    counters.conquerSequence = follower_->sequence();
    counters.conquerResizes = counts.queue.resizes;
    counters.conquerBaseAddress = lowWord( follower_->queueAddress() );
    counters.keyShadowMismatch = copy ? copy->mismatches() : 0;
    return counters;
}

QelKrell::WriterCounters Control::writerCounters() {
    if ( role_ != Role::writer ) {
        throw UnimplementedException( krellName() +
                                      " is not open for writing: it keeps no writer counters" );
    }
    const auto address = []( const void* at ) { return reinterpret_cast< std::uintptr_t >( at ); };
    QelKrell::WriterCounters counters;
    counters.slotAllocs = writer_->slotAllocs();
    counters.slotDeallocs = writer_->slotDeallocs();
    counters.slotBaseAddress = address( &incarnation_.segments()->header() );
    if ( const QueueWriter* const queue = writer_->queue() ) {
        counters.conquerTombstones = queue->tombstones();
        counters.conquerNotifications = queue->notifications();
        counters.conquerCompactions = queue->compactions();
        counters.conquerResizes = queue->resizes();
        counters.conquerBaseAddress = address( queue->address() );
    }
    counters.conquerSequence = table_.sequence();
    counters.kicksIssued = doorbell_ ? doorbell_->kicksIssued() : 0;
    counters.directWrite = writer_->updates();
    counters.directCommit = writer_->inserts();
    return counters;
}

} // namespace Krell
