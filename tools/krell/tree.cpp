// krell tree, krell who: what there is, and who has it.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>

#include <nlohmann/json.hpp>
#include <time.h>

#include "Commands.h"

namespace KrellTool {

using nlohmann::json;

namespace {

// It may have gone on since the collection was looked at.
U64 lagOf( const Facts& facts, const Reader& reader ) {
    return facts.sequence - std::min( facts.sequence, *reader.consumed );
}

json jsonOf( const Process& process ) {
    return { { "pid", process.pid }, { "uid", process.uid }, { "command", process.command } };
}

json writerJson( const Facts& facts ) {
    if ( facts.writer == 0 ) {
        return nullptr;
    }
    json writer { { "command", facts.owner.process }, { "uid", facts.owner.uid } };
    writer[ "pid" ] = facts.writer > 0 ? json( facts.writer ) : json();
    const double start = facts.writer > 0 ? startOf( facts.writer ) : 0;
    writer[ "since" ] = start > 0 ? json( std::floor( start ) ) : json();
    return writer;
}

json jsonOf( const Facts& facts, const Users& users ) {
    json one { { "path", facts.place.path },       { "entity", facts.place.entity },
               { "collection", facts.place.name }, { "bytes", facts.bytes },
               { "incarnation", facts.fenix },     { "reigns", facts.reigns },
               { "writer", writerJson( facts ) },  { "readers", json::array() } };
    for ( const Reader& reader : users.readers ) {
        json r = jsonOf( reader.process );
        r[ "lag" ] = reader.consumed && facts.readable ? json( lagOf( facts, reader ) ) : json();
        one[ "readers" ].push_back( r );
    }
    if ( facts.readable ) {
        one[ "entityType" ] = facts.layout.entityType;
        one[ "valueType" ] = facts.layout.valueType;
        one[ "entries" ] = facts.entries;
        one[ "capacity" ] = facts.capacity;
        one[ "sequence" ] = facts.sequence;
    }
    if ( !facts.problem.empty() ) {
        one[ "problem" ] = facts.problem;
    }
    return one;
}

const Users& usersOf( const UsersOfAll& all, const Facts& facts ) {
    static const Users none;
    const auto found = all.byDirectory.find( facts.place.directory );
    return found == all.byDirectory.end() ? none : found->second;
}

void printJson( const std::vector< Facts >& all, const UsersOfAll& users ) {
    json out = json::array();
    for ( const Facts& facts : all ) {
        out.push_back( jsonOf( facts, usersOf( users, facts ) ) );
    }
    std::cout << out.dump( 2 ) << "\n";
}

void printHidden( const UsersOfAll& users ) {
    if ( users.hidden > 0 ) {
        std::cout << users.hidden << " processes of other users were not looked at\n";
    }
}

std::string stateText( const Facts& facts ) {
    if ( facts.absent ) {
        return "no contents";
    }
    if ( !facts.readable ) {
        return facts.problem;
    }
    return std::to_string( facts.entries ) + " of " + std::to_string( facts.capacity );
}

} // namespace

std::vector< Facts > factsBelow( const std::string& path ) {
    const auto places = placesBelow(
        path, []( const std::string& why ) { std::cerr << "krell: " << why << "\n"; } );
    if ( places.empty() && !path.empty() ) {
        throw Error( "there is no collection at or below " + rootDirectory() + path );
    }
    std::vector< Facts > facts;
    facts.reserve( places.size() );
    for ( const Place& place : places ) {
        facts.push_back( factsOf( place ) );
    }
    return facts;
}

std::string ageText( double seconds ) {
    const struct {
        double limit;
        double unit;
        const char* name;
    } units[] = {
        { 120, 1, " s" }, { 7200, 60, " min" }, { 172800, 3600, " h" }, { 1e30, 86400, " d" }
    };
    for ( const auto& unit : units ) {
        if ( seconds < unit.limit ) {
            return std::to_string( std::max( 0LL, ( long long )( seconds / unit.unit ) ) ) +
                   unit.name;
        }
    }
    return "ever";
}

std::string writerText( const Facts& facts ) {
    if ( facts.writer == 0 ) {
        return facts.owner.empty() ? "nobody" : "nobody, last " + facts.owner.description();
    }
    if ( facts.writer < 0 ) {
        return "somebody in another view of processes";
    }
    const double start = startOf( facts.writer );
    return facts.owner.process + " (pid " + std::to_string( facts.writer ) + ", uid " +
           std::to_string( facts.owner.uid ) +
           ( start > 0 ? ", for " + ageText( double( ::time( nullptr ) ) - start ) : "" ) + ")";
}

int tree( const Options& options ) {
    const std::vector< Facts > all = factsBelow( options.path );
    const UsersOfAll users = usersOfAll( rootDirectory() );
    if ( options.json ) {
        printJson( all, users );
        return 0;
    }
    std::string entity;
    for ( const Facts& facts : all ) {
        if ( facts.place.entity != entity ) {
            entity = facts.place.entity;
            std::cout << entity << ( facts.readable ? "  " + facts.layout.entityType : "" ) << "\n";
        }
        std::cout << "  " << facts.place.name << "  "
                  << ( facts.readable ? facts.layout.valueType + "  " : "" ) << stateText( facts )
                  << "; writer: " << writerText( facts )
                  << "; readers: " << usersOf( users, facts ).readers.size();
        if ( facts.fenix != 0 ) {
            std::printf( "; incarnation %08x", facts.fenix );
            std::fflush( stdout );
        }
        std::cout << std::endl;
    }
    printHidden( users );
    return 0;
}

int who( const Options& options ) {
    const std::vector< Facts > all = factsBelow( options.path );
    const UsersOfAll users = usersOfAll( rootDirectory() );
    if ( options.json ) {
        printJson( all, users );
        return 0;
    }
    for ( const Facts& facts : all ) {
        std::cout << facts.place.path << "\n  writer: " << writerText( facts ) << "\n";
        for ( const Reader& reader : usersOf( users, facts ).readers ) {
            std::cout << "  reader: " << reader.process.command << " (pid " << reader.process.pid
                      << ", uid " << reader.process.uid << ")";
            if ( reader.consumed && facts.readable ) {
                std::cout << ", " << lagOf( facts, reader ) << " changes behind";
            }
            std::cout << "\n";
        }
    }
    printHidden( users );
    return 0;
}

} // namespace KrellTool
