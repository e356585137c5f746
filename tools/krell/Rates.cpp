#include "Rates.h"

#include <algorithm>

#include <Krell/Exception>

namespace KrellTool {

namespace {

std::vector< Lag > lagsOf( const Facts& facts, const Users& users ) {
    std::vector< Lag > lags;
    for ( const Reader& reader : users.readers ) {
        if ( reader.consumed ) {
            const U64 seen = std::min( *reader.consumed, facts.sequence );
            lags.push_back( { reader.process, facts.sequence - seen } );
        }
    }
    std::stable_sort( lags.begin(), lags.end(),
                      []( const Lag& a, const Lag& b ) { return a.changes > b.changes; } );
    return lags;
}

} // namespace

Followed::Followed( const Place& place )
    : contents_( place ), queue_( contents_.segments(), contents_.table() ) {}

U64 Followed::changedKeys() {
    U64 keys = 0;
    queue_.drain( [ & ]( U32 ) {
        ++keys;
        return true;
    } );
    if ( !remapsBefore_ ) {
        remapsBefore_ = allRemaps();
    }
    return keys;
}

U64 Followed::allRemaps() const {
    return U64( contents_.table().slotResizes() ) + queue_.counts().resizes;
}
U64 Followed::remaps() const { return allRemaps() - remapsBefore_.value_or( allRemaps() ); }

Rates::Rates( std::string path ) : path_( std::move( path ) ) { look(); }

std::vector< Activity > Rates::look() {
    const UsersOfAll users = usersOfAll( rootDirectory() ); // first: none is ahead of its writer
    const std::vector< Facts > present = factsBelow( path_ );
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration< double >( now - time_ ).count();
    time_ = now;
    std::vector< Activity > all;
    std::map< std::string, Former > seen;
    for ( const Facts& facts : present ) {
        Former& former = seen[ facts.place.path ];
        const auto was = former_.find( facts.place.path );
        if ( was == former_.end() ) {
            former.facts = facts;
        } else {
            former = std::move( was->second );
        }
        all.push_back( activityOf( facts, former, seconds ) );
        const auto found = users.byDirectory.find( facts.place.directory );
        if ( found != users.byDirectory.end() ) {
            all.back().readers = found->second.readers.size();
            all.back().lags = lagsOf( facts, found->second );
        }
        former.facts = facts;
    }
    former_ = std::move( seen );
    std::stable_sort( all.begin(), all.end(), []( const Activity& a, const Activity& b ) {
        return a.changesPerSecond > b.changesPerSecond;
    } );
    return all;
}

// `former` is of the last look, or of this one when that is the first.
Activity Rates::activityOf( const Facts& facts, Former& former, double seconds ) const {
    Activity one;
    one.facts = facts;
    const Facts& old = former.facts;
    if ( old.fenix != facts.fenix || old.reigns != facts.reigns ) {
        former.restarts += facts.reigns > old.reigns ? facts.reigns - old.reigns : 1;
        one.isFreshlyRestarted = true;
    }
    const std::optional< U64 > keys = changedKeys( facts, former );
    if ( keys ) {
        one.keysPerSecond = double( *keys ) / seconds;
    }
    if ( old.fenix == facts.fenix && facts.sequence >= old.sequence ) {
        one.changesPerSecond = double( facts.sequence - old.sequence ) / seconds;
    }
    one.restarts = former.restarts;
    one.remaps = former.remaps + ( former.followed ? former.followed->remaps() : 0 );
    return one;
}

// Nothing in the first look at an incarnation, to which everything is new.
std::optional< U64 > Rates::changedKeys( const Facts& facts, Former& former ) {
    try {
        if ( former.followed && former.facts.fenix == facts.fenix ) {
            return former.followed->changedKeys();
        }
        if ( former.followed ) {
            former.remaps += former.followed->remaps();
            former.followed.reset();
        }
        if ( facts.readable ) {
            former.followed = std::make_unique< Followed >( facts.place );
            former.followed->changedKeys();
        }
    } catch ( const Krell::Exception& ) { // what is wrong with it, `facts` tells
        former.followed.reset();
    }
    return std::nullopt;
}

} // namespace KrellTool
