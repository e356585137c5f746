// How a reader's control keeps up: attaching, other incarnations, and the walk for changes.

#include <Krell/Control>

#include <cmath>

namespace Krell {

namespace {

using Clock = std::chrono::steady_clock;

// Rounds between two looks at the stamp's file, for the case that a writer died after it had
// replaced the stamp, and before it set the flag in the old segments.
constexpr U32 stampRounds = 50;
// A round that only makes sure that nothing was missed comes after so many times the polling time.
constexpr double slow = 25;
// Between two looks for more, in seconds: each takes from the writer the cache line that it writes
// with every change.
constexpr double lookInterval = 1e-6;

double secondsSince( Clock::time_point start ) {
    return std::chrono::duration< double >( Clock::now() - start ).count();
}

} // namespace

bool Control::pollTimeIs( double seconds ) {
    if ( !std::isfinite( seconds ) || seconds <= 0 ) {
        return false;
    }
    pollTime_ = seconds;
    if ( follows() && !local_ ) {
        timer_->setTimeout( pollTime_ );
    }
    return true;
}

bool Control::yieldTimeIs( const double& seconds ) {
    if ( !std::isfinite( seconds ) || seconds < 0 ) {
        return false;
    }
    yieldTime_ = seconds;
    return true;
}

// What changed meanwhile is notified in the next turn.
void Control::notifying( bool on ) {
    notifying_ = on;
    if ( on && follows() && !local_ ) {
        timer_->setTimeout( 0 );
    }
}

void Control::poll() {
    if ( !follows() || local_ || inRound_ ) {
        return;
    }
    bool more = false;
    inRound_ = true;
    try {
        more = round();
        lastFailure_.clear();
    } catch ( const CorruptionDetectedException& e ) {
        if ( directory_ ) {
            Incarnation::markCorrupt( *directory_ );
        }
        failed( e );
    } catch ( const Exception& e ) {
        failed( e );
    } catch ( ... ) {
        inRound_ = false;
        throw;
    }
    inRound_ = false;
    if ( follows() && !local_ ) {
        waitFor( more );
    }
}

// The same failure again and again is told once.
void Control::failed( const Exception& e ) {
    if ( e.msg() != lastFailure_ ) {
        lastFailure_ = e.msg();
        handleFailed( e );
    }
}

// Whether there is more to do at once.
bool Control::round() {
    if ( watch_->started() ) {
        watch_->look();
    }
    if ( !incarnation_.exists() ) {
        if ( tryAttach() ) {
            handleAttached();
        }
    } else if ( isReplaced() ) {
        replace();
    }
    if ( !follows() || local_ ) { // a callback closed it, and may have opened another
        return false;
    }
    if ( !incarnation_.exists() ) {
        return notifying_ && drain() == QueueReader::Drain::stopped;
    }
    callWriter();
    return notifying_ && follow();
}

bool Control::tryAttach() {
    auto directory = std::make_shared< const Directory >( Directory::open( path_ ) );
    if ( !directory->isOpen() ) {
        return false;
    }
    Incarnation found = Incarnation::attach( debug_, directory, layout_ );
    if ( !found.exists() ) {
        return false;
    }
    directory_ = std::move( directory );
    adopt( std::move( found ) );
    return true;
}

bool Control::isReplaced() {
    if ( incarnation_.superseded() ) {
        return true;
    }
    if ( !nobodyListens_ && !incarnation_.segments()->damaged() && ++quietRounds_ < stampRounds ) {
        return false;
    }
    quietRounds_ = 0;
    const Directory directory = Directory::open( path_ );
    if ( !directory.isOpen() || Incarnation::presentFenix( directory ) != incarnation_.fenix() ) {
        return true;
    }
    incarnation_.segments()->checkSizes();
    return false;
}

void Control::replace() {
    const std::shared_ptr< const Directory > oldDirectory = std::move( directory_ );
    const Incarnation old = std::move( incarnation_ );
    const U64 named = follower_->sequence();
    adopt( Incarnation() );
    caller_->hangUp();
    nobodyListens_ = true;
    std::exception_ptr failure;
    try {
        tryAttach();
    } catch ( const Exception& ) {
        failure = std::current_exception();
    }
    const U32 attachment = attachments_;
    if ( incarnation_.exists() ) {
        ++replacements_;
        handleAttached();
    }
    if ( role_ == Role::reader && notifying_ && attachment == attachments_ ) {
        notifyVanished( *old.segments(), named ); // the shadows know by themselves what they had
    }
    if ( failure ) {
        std::rethrow_exception( failure );
    }
}

// Of slots that were not mapped, no key was ever told; of keys that went up to the change `named`,
// that they went. Old contents that are not sound are no reason to miss the new ones.
void Control::notifyVanished( Segments& old, U64 named ) {
    const U32 attachment = attachments_;
    ReaderTable table( &old );
    ShadowTable told( layout_.keyWords(), 0 ); // a key may have gone from several slots
    std::vector< U64 > key( layout_.keyWords() );
    try {
        for ( U32 index = 0; index < old.slotsMapped() && attachment == attachments_; ++index ) {
            const SlotVersion version = table.look( index, key.data() );
            const bool went = version.state() == SlotVersion::dead && !version.writing() &&
                              version.sequence() > named;
            if ( ( version.isOccupied() || went ) && !told.find( key.data() ) &&
                 !table_.contains( key.data() ) ) {
                told.occupied( index, key.data(), nullptr );
                handleChanged( key.data(), false );
            }
        }
    } catch ( const CorruptionDetectedException& e ) {
        failed( e );
    }
}

// A process that may not call its writer polls.
void Control::callWriter() {
    if ( caller_->state() != DoorbellCaller::State::idle ) {
        return;
    }
    nobodyListens_ = false;
    try {
        nobodyListens_ = !caller_->call( *directory_ );
        lastCallFailure_.clear();
    } catch ( const Exception& e ) {
        if ( e.msg() != lastCallFailure_ ) {
            lastCallFailure_ = e.msg();
            handleFailed( e );
        }
    }
}

bool Control::connected() const noexcept {
    return caller_ && caller_->state() == DoorbellCaller::State::connected;
}

QueueReader::Drain Control::drain() {
    const std::shared_ptr< Follower > kept = follower_; // a callback may close the collection
    return kept->round( yieldTime_ );
}

// Drains the queue; connected, until it can sleep or its time is over. Whether there is more.
bool Control::follow() {
    const auto start = Clock::now();
    for ( ;; ) {
        const U32 attachment = attachments_;
        const QueueReader::Drain drained = drain();
        if ( attachment != attachments_ ) {
            return false;
        }
        caller_->consumedIs( follower_->sequence() );
        if ( drained == QueueReader::Drain::stopped ) {
            return true;
        }
        if ( drained == QueueReader::Drain::absent || !connected() || !somethingCame() ) {
            return false;
        }
        if ( secondsSince( start ) >= yieldTime_ ) {
            return true;
        }
    }
}

// Looks a little longer before it goes to sleep. False: the writer's next change wakes it. How long
// a pause takes differs from one processor to the other by a factor of ten, hence the clock.
bool Control::somethingCame() {
    const auto start = Clock::now();
    const double sample = sample_ * 1e-6;
    double now = 0;
    double looked = 0;
    while ( now < sample ) {
        __builtin_ia32_pause();
        if ( now - looked >= lookInterval ) {
            if ( follower_->isPending() ) {
                return true;
            }
            looked = now;
        }
        now = secondsSince( start );
    }
    caller_->arm();
    if ( !follower_->isPending() ) {
        return false;
    }
    caller_->disarm();
    return true;
}

// What the next round comes with.
void Control::waitFor( bool more ) {
    const bool nobody = nobodyListens_ || !incarnation_.exists();
    if ( !nobody ) {
        watch_->stop();
    }
    if ( more ) {
        timer_->setTimeout( 0 );
    } else if ( connected() && ( caller_->armed() || !notifying_ ) && lastFailure_.empty() ) {
        timer_->delTimeout();
    } else if ( !nobody || !lastFailure_.empty() ) {
        timer_->setTimeout( pollTime_ );
    } else if ( watch_->started() ) {
        timer_->setTimeout( watch_->watching() ? slow * pollTime_ : pollTime_ );
    } else {
        watch_->start( path_ );
        timer_->setTimeout( 0 ); // it may have come before
    }
}

// False when the callback closed what it was called for.
bool Control::handleKey( const U64* key, bool present ) {
    const U32 attachment = attachments_;
    handleChanged( key, present );
    return attachment == attachments_;
}

void Control::handleChanged( const U64*, bool ) {}

void Control::handleAttached() {}

void Control::handleFailed( const Exception& ) {}

} // namespace Krell
