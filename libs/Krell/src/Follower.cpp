#include <Krell/Follower>

#include <chrono>

namespace Krell {

// Looks at the clock now and then.
class Follower::Deadline {
public:
    explicit Deadline( double seconds )
        : end_( Clock::now() +
                std::chrono::duration_cast< Clock::duration >(
                    std::chrono::duration< double >( std::min( seconds, most ) ) ) ) {}
    bool isOver() { return ++asked_ % interval == 0 && Clock::now() >= end_; }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr double most = 1e6;
    static constexpr unsigned interval = 8;

    Clock::time_point end_;
    unsigned asked_ = 0;
};

Follower::Follower( const Layout& layout, Depth depth, ReaderTable& table, Handler& handler )
    : table_( table ),
      handler_( handler ),
      depth_( depth ),
      died_( layout.keyWords(), 0 ),
      told_( layout.keyWords(), 1 ),
      key_( layout.keyWords() ),
      value_( std::max( 1u, layout.valueWords() ) ) {
    if ( depth != Depth::slots ) {
        shadow_ = std::make_unique< ShadowTable >(
            layout.keyWords(), depth == Depth::values ? layout.valueWords() : 0 );
    }
}

void Follower::segmentsAre( Segments* segments ) {
    former_ = counts().queue;
    queue_ = segments ? std::make_unique< QueueReader >( *segments, table_ ) : nullptr;
    newcomer_ = true;
    firstSequence_ = 0;
    drainEnded();
    if ( shadow_ ) {
        shadow_->allVacated();
    }
}

Follower::Counts Follower::counts() const noexcept {
    Counts counts = counts_;
    counts.queue = former_;
    if ( queue_ ) {
        const QueueReader::Counts& now = queue_->counts();
        counts.queue.restarts += now.restarts;
        counts.queue.probes += now.probes;
        counts.queue.tombed += now.tombed;
        counts.queue.resizes += now.resizes;
    }
    return counts;
}

QueueReader::Drain Follower::round( double seconds ) {
    using Drain = QueueReader::Drain;
    Deadline deadline( seconds );
    ended_ = false;
    if ( !queue_ ) { // the collection was taken away
        drainSettlesTold();
        return shadow_ && !shadow_->settled() && !settle( deadline ) ? Drain::stopped
                                                                     : Drain::absent;
    }
    Drain drain = queue_->drain(
        [ & ]( U32 slot ) { return slotChanged( slot ) && !ended_ && !deadline.isOver(); } );
    if ( !ended_ && ( drain == Drain::end || drain == Drain::empty ) ) {
        counts_.empty += drain == Drain::empty;
        counts_.ends += drain == Drain::end;
        drainEnded();
        drainSettlesTold();
        newcomer_ = false;
        unsettled_ = shadow_ && !shadow_->settled();
        if ( unsettled_ && !settle( deadline ) ) {
            drain = Drain::stopped;
        }
    }
    if ( drain == Drain::stopped && !ended_ ) {
        ++counts_.yields;
    }
    return drain;
}

bool Follower::slotChanged( U32 slot ) {
    if ( depth_ != Depth::slots ) {
        return slotRead( slot );
    }
    if ( newcomer_ ) {
        newcomer_ = false;
        firstSequence_ = queue_->endSequence();
    }
    const SlotVersion version = table_.look( slot, key_.data() );
    return version.isOccupied() ? name( key_.data(), true ) : slotDied( version );
}

// A key that stands in another slot by now is named with that one; one that was deleted in several,
// with the first of them. That holds for one end of a drain: what came and went later is named in
// the next, or after the end was set anew.
bool Follower::slotDied( SlotVersion version ) {
    if ( deathsEnd_ != queue_->endSequence() ) {
        drainEnded();
        deathsEnd_ = queue_->endSequence();
    }
    if ( version.state() != SlotVersion::dead || version.writing() ||
         version.sequence() <= firstSequence_ || table_.contains( key_.data() ) ||
         died_.find( key_.data() ) ) {
        return true;
    }
    const bool goOn = name( key_.data(), false );
    died_.occupied( deaths_++, key_.data(), nullptr ); // not before: the handler may throw
    return goOn;
}

// Keeps the room for the keys.
void Follower::drainEnded() {
    if ( deaths_ != 0 ) {
        died_.allVacated();
        died_.settle( []( const U64* ) {} );
        deaths_ = 0;
    }
}

bool Follower::slotRead( U32 slot ) {
    bool occupied;
    bool dead = false; // key_ has its key
    if ( depth_ == Depth::values ) {
        U64 version = 0;
        occupied = table_.copySlot( slot, key_.data(), value_.data(), version );
    } else {
        const SlotVersion version = table_.look( slot, key_.data() );
        occupied = version.isOccupied();
        dead = version.state() == SlotVersion::dead && !version.writing();
    }
    if ( occupied ) {
        shadow_->occupied( slot, key_.data(), value_.data() );
        return name( key_.data(), true );
    }
    shadow_->vacated( slot );
    if ( dead && toldKeys_ != 0 && told_.find( key_.data() ) ) {
        shadow_->wasThere( key_.data() ); // it came and went since
    }
    return true;
}

// Those that were seen to be there again, if no slot has told of them.
void Follower::drainSettlesTold() {
    if ( toldKeys_ != 0 ) {
        told_.allVacated();
        told_.settle( [ & ]( const U64* key ) {
            U64 seen = 0;
            if ( told_.oldValueOf( key, &seen ) && seen ) {
                shadow_->wasThere( key );
            }
        } );
        toldKeys_ = 0;
    }
}

// False when the time was over, or the round was ended, before all were named.
bool Follower::settle( Deadline& deadline ) {
    shadow_->settle( [ & ]( const U64* key ) {
        key_.assign( key, key + key_.size() );
        const bool goOn = name( key_.data(), false );
        if ( goOn && depth_ == Depth::keys ) {
            remember();
        }
        return goOn && !deadline.isOver();
    } );
    unsettled_ = !ended_ && !shadow_->settled();
    return !ended_ && !unsettled_;
}

// The key that was named as deleted, if the handler can have found it there again; and whether it
// is there. A change is counted after it is seen, so that this order misses none.
void Follower::remember() {
    const U64 seen = table_.contains( key_.data() );
    if ( seen || ( queue_ && table_.sequence() != queue_->sequence() ) ) {
        told_.occupied( toldKeys_, key_.data(), &seen );
        ++toldKeys_;
    }
}

bool Follower::name( const U64* key, bool present ) {
    ++counts_.notified;
    ended_ = !handler_.handleKey( key, present );
    return !ended_;
}

} // namespace Krell
