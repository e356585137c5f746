#include "Rates.h"

#include <algorithm>

namespace KrellTool {

namespace {

std::optional< Slowest > slowestOf( const Facts& facts, const Users& users ) {
    std::optional< Slowest > slowest;
    for ( const Reader& reader : users.readers ) {
        if ( reader.consumed ) {
            const U64 lag =
                facts.sequence > *reader.consumed ? facts.sequence - *reader.consumed : 0;
            if ( !slowest || lag > slowest->lag ) {
                slowest = Slowest { reader.process, lag };
            }
        }
    }
    return slowest;
}

} // namespace

Sample Sample::of( const std::string& path ) {
    Sample sample;
    sample.users = usersOfAll( rootDirectory() ); // first: no reader is ahead of its collection
    sample.all = factsBelow( path );
    sample.time = std::chrono::steady_clock::now();
    return sample;
}

std::vector< Activity > activities( const Sample& before, const Sample& now ) {
    std::map< std::string, const Facts* > former;
    for ( const Facts& facts : before.all ) {
        former[ facts.place.path ] = &facts;
    }
    const double seconds = std::chrono::duration< double >( now.time - before.time ).count();
    std::vector< Activity > all;
    for ( const Facts& facts : now.all ) {
        Activity one;
        one.facts = facts;
        const auto users = now.users.byDirectory.find( facts.place.directory );
        if ( users != now.users.byDirectory.end() ) {
            one.readers = users->second.readers.size();
            one.slowest = slowestOf( facts, users->second );
        }
        const auto was = former.find( facts.place.path );
        if ( was != former.end() ) {
            const Facts& old = *was->second;
            one.restarted = old.fenix != facts.fenix || old.reigns != facts.reigns;
            one.grew = facts.capacity > old.capacity;
            if ( old.fenix == facts.fenix && facts.sequence >= old.sequence && seconds > 0 ) {
                one.changesPerSecond = double( facts.sequence - old.sequence ) / seconds;
            }
        }
        all.push_back( std::move( one ) );
    }
    std::stable_sort( all.begin(), all.end(), []( const Activity& a, const Activity& b ) {
        return a.changesPerSecond > b.changesPerSecond;
    } );
    return all;
}

} // namespace KrellTool
