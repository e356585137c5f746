// How a reader's control keeps up: attaching, other incarnations, and the walk for changes.

#include <Krell/Control>

#include <cmath>

namespace Krell {

namespace {

using Clock = std::chrono::steady_clock;

// Slots that are looked at between two looks at the clock.
constexpr U32 batch = 256;
// Rounds between two looks at the stamp's file, for the case that a writer died after it had
// replaced the stamp, and before it set the flag in the old segments.
constexpr U32 stampRounds = 50;

} // namespace

bool Control::pollTimeIs( double seconds ) {
    if ( !std::isfinite( seconds ) || seconds <= 0 ) {
        return false;
    }
    pollTime_ = seconds;
    arm();
    return true;
}

bool Control::yieldTimeIs( const double& seconds ) {
    if ( !std::isfinite( seconds ) || seconds < 0 ) {
        return false;
    }
    yieldTime_ = seconds;
    return true;
}

void Control::notifying( bool on ) { notifying_ = on; }

void Control::arm() {
    if ( role_ == Role::reader && !local_ ) {
        timer_->setTimeout( pollTime_ );
    }
}

void Control::timeout() {
    poll();
    arm();
}

void Control::poll() {
    if ( role_ != Role::reader || local_ ) {
        return;
    }
    try {
        round();
        lastFailure_.clear();
    } catch ( const CorruptionDetectedException& e ) {
        if ( directory_ ) {
            Incarnation::markCorrupt( *directory_ );
        }
        failed( e );
    } catch ( const Exception& e ) {
        failed( e );
    }
}

// The same failure again and again is told once.
void Control::failed( const Exception& e ) {
    if ( e.msg() != lastFailure_ ) {
        lastFailure_ = e.msg();
        handleFailed( e );
    }
}

void Control::round() {
    if ( !incarnation_.exists() ) {
        if ( tryAttach() ) {
            handleAttached();
        }
    } else if ( isReplaced() ) {
        replace();
    }
    if ( incarnation_.exists() && notifying_ ) {
        walk();
    }
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
    if ( ++quietRounds_ < stampRounds ) {
        return false;
    }
    quietRounds_ = 0;
    const Directory directory = Directory::open( path_ );
    return !directory.isOpen() || Incarnation::presentFenix( directory ) != incarnation_.fenix();
}

void Control::replace() {
    const std::shared_ptr< const Directory > oldDirectory = std::move( directory_ );
    const Incarnation old = std::move( incarnation_ );
    adopt( Incarnation() );
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
    ReaderTable oldTable( old.segments() );
    if ( notifying_ && attachment == attachments_ ) {
        notifyVanished( oldTable );
    }
    if ( failure ) {
        std::rethrow_exception( failure );
    }
}

// Old contents that are not sound are no reason to miss the new ones.
void Control::notifyVanished( ReaderTable& old ) {
    const U32 attachment = attachments_;
    try {
        for ( U32 index = 0; index < old.slotCount() && attachment == attachments_; ++index ) {
            if ( old.look( index, key_.data() ).isOccupied() && !table_.contains( key_.data() ) ) {
                handleChanged( key_.data(), false );
            }
        }
    } catch ( const CorruptionDetectedException& e ) {
        failed( e );
    } catch ( const RuntimeException& e ) { // they grew before they were replaced
        failed( e );
    }
}

// Looks at every slot once, in as many rounds as the yield time makes of it. What changes meanwhile
// is newer than the target and found by the next walk, if not by this one.
void Control::walk() {
    if ( cursor_ == 0 ) {
        target_ = table_.sequence();
        if ( target_ == seen_ ) {
            return;
        }
    }
    const auto start = Clock::now();
    const U32 attachment = attachments_;
    for ( U32 looked = 0; cursor_ < table_.slotCount(); ) {
        const U32 index = cursor_++;
        const SlotVersion version = table_.look( index, key_.data() );
        const bool readable =
            version.isOccupied() || ( version.state() == SlotVersion::dead && !version.writing() );
        // A reader that has just attached knows of no key that could be deleted.
        if ( readable && version.sequence() > seen_ && ( version.isOccupied() || seen_ != 0 ) ) {
            handleChanged( key_.data(), version.isOccupied() );
            if ( attachment != attachments_ ) {
                return;
            }
        }
        if ( ++looked % batch == 0 &&
             std::chrono::duration< double >( Clock::now() - start ).count() >= yieldTime_ ) {
            return;
        }
    }
    seen_ = target_;
    cursor_ = 0;
}

void Control::handleChanged( const U64*, bool ) {}

void Control::handleAttached() {}

void Control::handleFailed( const Exception& ) {}

} // namespace Krell
